#include "VendorTokens.h"

#include "Log.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QUrl>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

// The client opens its socket within a second or two of receiving the token; a minute leaves
// room for a slow start without handing out anything long-lived.
constexpr int tokenLifetimeSeconds = 60;
constexpr qsizetype vendorTextShown = 200;

QString jsonText(const QJsonValue& value)
{
    return value.isString() ? value.toString() : QString();
}

// The vendor's own words from an error body: Deepgram's err_msg, ElevenLabs' detail (a text
// or an object with a message), OpenAI's error.message.
QString vendorMessage(const QByteArray& body)
{
    const auto object = QJsonDocument::fromJson(body).object();
    QString text = jsonText(object.value(u"err_msg"_s));
    const auto detail = object.value(u"detail"_s);
    if (text.isEmpty())
        text = detail.isObject() ? jsonText(detail.toObject().value(u"message"_s))
                                 : jsonText(detail);
    if (text.isEmpty() && detail.isArray())
        text = jsonText(detail.toArray().at(0).toObject().value(u"msg"_s));
    const auto error = object.value(u"error"_s);
    if (text.isEmpty())
        text = error.isObject() ? jsonText(error.toObject().value(u"message"_s)) : jsonText(error);
    if (text.isEmpty())
        text = jsonText(object.value(u"message"_s));
    text = text.simplified();
    return text.size() > vendorTextShown ? text.left(vendorTextShown) + u'…' : text;
}

// A vendor may quote the key it was given back in its message; that text goes to the client.
QString withoutKey(QString text, const QString& key)
{
    if (key.size() >= 4)
        text.replace(key, u"[key]"_s);
    return text;
}

QString tokenFrom(SpeechVendor vendor, const QJsonObject& object)
{
    switch (vendor) {
    case SpeechVendor::deepgram:
        return jsonText(object.value(u"access_token"_s));
    case SpeechVendor::elevenlabs:
        return jsonText(object.value(u"token"_s));
    case SpeechVendor::openai: {
        // The current answer carries the secret at the top; the older session answer nests it.
        const auto value = jsonText(object.value(u"value"_s));
        return !value.isEmpty()
                   ? value
                   : jsonText(object.value(u"client_secret"_s).toObject().value(u"value"_s));
    }
    }
    return {};
}

} // namespace

VendorTokens::VendorTokens(SpeechVendorConfig config, Clock& clock, QObject* parent)
    : QObject(parent)
    , m_config(std::move(config))
    , m_clock(clock)
{
    while (m_config.baseUrl.endsWith(u'/'))
        m_config.baseUrl.chop(1);
}

QNetworkRequest VendorTokens::request() const
{
    QString path;
    QByteArray authorization;
    QByteArray keyHeader;
    switch (m_config.vendor) {
    case SpeechVendor::deepgram:
        path = u"/v1/auth/grant"_s;
        authorization = "Token " + m_config.apiKey.toUtf8();
        break;
    case SpeechVendor::elevenlabs:
        path = u"/v1/single-use-token/realtime_scribe"_s;
        keyHeader = m_config.apiKey.toUtf8();
        break;
    case SpeechVendor::openai:
        path = u"/v1/realtime/client_secrets"_s;
        authorization = "Bearer " + m_config.apiKey.toUtf8();
        break;
    }
    QNetworkRequest grant(QUrl(m_config.baseUrl + path));
    grant.setHeader(QNetworkRequest::ContentTypeHeader, QByteArrayLiteral("application/json"));
    grant.setRawHeader("Accept", "application/json");
    if (!authorization.isEmpty())
        grant.setRawHeader("Authorization", authorization);
    if (!keyHeader.isEmpty())
        grant.setRawHeader("xi-api-key", keyHeader);
    // A redirect would carry the key to wherever it points.
    grant.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                       QNetworkRequest::ManualRedirectPolicy);
    return grant;
}

QByteArray VendorTokens::requestBody() const
{
    QJsonObject body;
    switch (m_config.vendor) {
    case SpeechVendor::deepgram:
        body.insert(u"ttl_seconds"_s, tokenLifetimeSeconds);
        break;
    case SpeechVendor::elevenlabs:
        // Single use, fifteen minutes: the vendor fixes both.
        break;
    case SpeechVendor::openai:
        body.insert(u"expires_after"_s,
                    QJsonObject{{u"anchor"_s, u"created_at"_s}, {u"seconds"_s, tokenLifetimeSeconds}});
        body.insert(
            u"session"_s,
            QJsonObject{
                {u"type"_s, u"transcription"_s},
                {u"audio"_s,
                 QJsonObject{{u"input"_s,
                              QJsonObject{{u"format"_s, QJsonObject{{u"type"_s, u"audio/pcm"_s},
                                                                    {u"rate"_s, 24000}}},
                                          {u"transcription"_s,
                                           QJsonObject{{u"model"_s, m_config.sttModel}}}}}}}});
        break;
    }
    return QJsonDocument(body).toJson(QJsonDocument::Compact);
}

void VendorTokens::mint(std::function<void(const Result&)> done)
{
    // Parented to this object: destroying it aborts the request and drops `done`.
    auto* reply = m_network.post(request(), requestBody());
    reply->setParent(this);
    auto timedOut = std::make_shared<bool>(false);
    const auto limit = m_clock.startTimer(vendorTimeoutMs, [reply = QPointer(reply), timedOut] {
        if (!reply)
            return;
        *timedOut = true;
        reply->abort(); // finishes the reply at once
    });
    connect(reply, &QNetworkReply::finished, this,
            [this, reply, limit, timedOut, done = std::move(done)] {
                m_clock.cancelTimer(limit);
                reply->deleteLater();
                VendorAnswer answer;
                answer.status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
                answer.body = reply->readAll();
                answer.retryAfter = reply->rawHeader("Retry-After");
                if (*timedOut)
                    answer.networkError = u"no answer within %1 s"_s.arg(vendorTimeoutMs / 1000);
                else if (answer.status == 0)
                    answer.networkError = reply->errorString();
                const auto result = interpret(m_config, answer);
                if (const auto* failure = std::get_if<Failure>(&result)) {
                    // Status only: a body may quote what was sent.
                    logLine(u"Speech", vendorDisplayName(m_config.vendor)
                                           + u" token request failed: "_s
                                           + (answer.status ? u"HTTP "_s + QString::number(answer.status)
                                                            : u"no answer"_s)
                                           + u" -> "_s + QString::number(failure->status));
                }
                done(result);
            });
}

VendorTokens::Result VendorTokens::interpret(const SpeechVendorConfig& config,
                                             const VendorAnswer& answer)
{
    const auto name = vendorDisplayName(config.vendor);
    if (answer.status == 0) {
        return Failure{503, withoutKey(name + u" could not be reached from this server: "_s
                                           + answer.networkError,
                                       config.apiKey),
                       std::nullopt};
    }
    const auto detail = withoutKey(vendorMessage(answer.body), config.apiKey);
    const auto said = u"HTTP "_s + QString::number(answer.status)
                      + (detail.isEmpty() ? QString() : u": "_s + detail);
    if (answer.status == 401 || answer.status == 403) {
        return Failure{502,
                       name + u" refused this server's API key ("_s + said
                           + u"). The server's operator needs to check the key."_s,
                       std::nullopt};
    }
    if (answer.status == 429) {
        bool ok = false;
        const int seconds = answer.retryAfter.trimmed().toInt(&ok);
        return Failure{503,
                       name + u" is limiting this server's requests ("_s + said
                           + u"). Try again in a minute."_s,
                       ok && seconds >= 0 ? std::optional(seconds) : std::nullopt};
    }
    if (answer.status < 200 || answer.status > 299) {
        return Failure{502, name + u" could not issue a speech token ("_s + said + u")."_s,
                       std::nullopt};
    }
    const auto token = tokenFrom(config.vendor, QJsonDocument::fromJson(answer.body).object());
    if (token.isEmpty() || token == config.apiKey)
        return Failure{502, name + u" answered without a speech token."_s, std::nullopt};
    Token result{vendorName(config.vendor), token, std::nullopt};
    if (config.vendor == SpeechVendor::openai && !config.sttModel.isEmpty())
        result.sttModel = config.sttModel;
    return result;
}
