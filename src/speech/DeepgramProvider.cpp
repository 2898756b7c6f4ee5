#include "DeepgramProvider.h"

#include "BuildConfig.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrlQuery>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

DeepgramProvider::DeepgramProvider(Speaker speaker, Clock& clock, QString origin, QObject* parent)
    : WebSocketSpeechProvider(speaker, std::move(origin), u"Deepgram disconnected: "_s, clock, parent)
{
}

QString DeepgramProvider::defaultOrigin()
{
    return QString::fromUtf16(BuildConfig::deepgramOrigin);
}

WebSocketSpeechProvider::Connection DeepgramProvider::connection(const QString& token, const QString& language,
                                                                 const std::optional<QString>&)
{
    m_currentPartialText.clear();
    // "auto" is not special here: it becomes "au" and takes the general branch.
    const auto two = twoLetterLanguage(language);
    m_isV2 = two == u"en";
    QUrlQuery query;
    if (m_isV2) {
        // The turn-taking model accepts only these keys, in this order.
        query.setQueryItems({{u"model"_s, u"flux-general-en"_s},
                             {u"encoding"_s, u"linear16"_s},
                             {u"sample_rate"_s, u"16000"_s},
                             {u"eot_threshold"_s, u"0.7"_s},
                             {u"eot_timeout_ms"_s, u"5000"_s}});
    } else {
        query.setQueryItems({{u"encoding"_s, u"linear16"_s},
                             {u"sample_rate"_s, u"16000"_s},
                             {u"channels"_s, u"1"_s},
                             {u"interim_results"_s, u"true"_s},
                             {u"utterance_end_ms"_s, u"1500"_s},
                             {u"vad_events"_s, u"true"_s},
                             {u"language"_s, two},
                             {u"model"_s, two == u"zh" ? u"nova-2"_s : u"nova-3"_s}});
    }
    QUrl url(origin() + (m_isV2 ? u"/v2/listen"_s : u"/v1/listen"_s));
    url.setQuery(query);
    return {url, {{"Authorization", "Bearer " + token.toUtf8()}}, {}};
}

std::optional<WebSocketSpeechProvider::Message> DeepgramProvider::audioMessage(const PcmBuffer& buffer) const
{
    return Message(AudioFraming::pcm16(buffer.samples));
}

std::optional<QString> DeepgramProvider::closingMessage() const
{
    return u"{\"type\": \"CloseStream\"}"_s;
}

std::optional<std::pair<std::chrono::milliseconds, QString>> DeepgramProvider::keepAlive() const
{
    // A v2 socket is closed by the vendor when it receives a keep-alive.
    if (m_isV2)
        return std::nullopt;
    return std::pair(std::chrono::milliseconds(5s), u"{\"type\": \"KeepAlive\"}"_s);
}

void DeepgramProvider::handleMessage(const QString& text)
{
    const auto message = QJsonDocument::fromJson(text.toUtf8()).object();
    const auto type = message.value(u"type"_s);
    if (!type.isString())
        return;
    const auto kind = type.toString();
    if (kind == u"Results")
        handleResults(message);
    else if (kind == u"UtteranceEnd" || kind == u"EndOfTurn")
        flushPartial();
    else if (kind == u"TurnInfo")
        handleTurnInfo(message);
}

void DeepgramProvider::handleResults(const QJsonObject& message)
{
    const auto alternatives = message.value(u"channel"_s).toObject().value(u"alternatives"_s);
    if (!alternatives.isArray() || alternatives.toArray().isEmpty() || !alternatives.toArray().first().isObject())
        return;
    const auto alternative = alternatives.toArray().first().toObject();
    const auto transcript = alternative.value(u"transcript"_s);
    if (!transcript.isString() || transcript.toString().isEmpty())
        return;
    const bool isFinal = message.value(u"is_final"_s).toBool(false);
    std::optional<double> confidence;
    if (const auto value = alternative.value(u"confidence"_s); value.isDouble())
        confidence = value.toDouble();
    m_currentPartialText = isFinal ? QString() : transcript.toString();
    emitSegment(transcript.toString(), isFinal, confidence);
}

void DeepgramProvider::handleTurnInfo(const QJsonObject& message)
{
    const auto transcript = message.value(u"transcript"_s).toString();
    if (message.value(u"event"_s).toString() == u"EndOfTurn") {
        if (transcript.isEmpty()) {
            flushPartial();
            return;
        }
        m_currentPartialText.clear();
        emitSegment(transcript, true);
        return;
    }
    // Updates repeat about four times a second; only a changed text is news.
    if (transcript.isEmpty() || transcript == m_currentPartialText)
        return;
    m_currentPartialText = transcript;
    emitSegment(transcript, false);
}

void DeepgramProvider::flushPartial()
{
    if (m_currentPartialText.isEmpty())
        return;
    const auto text = std::exchange(m_currentPartialText, QString());
    emitSegment(text, true);
}
