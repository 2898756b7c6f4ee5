#include "OpenAICompatibleAnswerEngine.h"

#include "AnswerLanguage.h"
#include "Log.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QPointer>
#include <QRegularExpression>

#include <utility>

namespace ravlet::server {

namespace {

// The client stops reading an answer after 90 s; a model server silent that long (a cold
// model still loading, a stuck one) will not be heard in time anyway.
constexpr int silenceLimitMs = 90'000;

// A local model's default context is often 4,096 tokens, and it must hold the prompt and the
// answer; about four characters make a token.
constexpr qsizetype resumeCharacters = 6'000;
constexpr qsizetype jobDescriptionCharacters = 3'000;
constexpr qsizetype transcriptCharacters = 1'500;

// A line of the event stream longer than this is not a model's delta but a broken server.
constexpr qsizetype longestLine = 1 << 20;
// What is kept of an error body for the message.
constexpr qsizetype errorBodyKept = 8 * 1024;
constexpr qsizetype errorTextShown = 300;

QString cutTo(const QString& text, qsizetype limit)
{
    const auto trimmed = text.trimmed();
    if (trimmed.size() <= limit)
        return trimmed;
    return trimmed.left(limit) + QStringLiteral("\n[…cut for length]");
}

// The newest lines of the conversation that fit, oldest first.
QString recentLines(const QStringList& lines)
{
    QStringList kept;
    qsizetype used = 0;
    for (auto i = lines.size() - 1; i >= 0; --i) {
        used += lines.at(i).size() + 1;
        if (used > transcriptCharacters && !kept.isEmpty())
            break;
        kept.prepend(lines.at(i).left(transcriptCharacters));
    }
    return kept.join(u'\n');
}

// The model server's own words from an error body: OpenAI's {"error":{"message":...}},
// Ollama's {"error":"..."}, or the start of whatever text it sent.
QString errorDetail(const QByteArray& body)
{
    const auto json = QJsonDocument::fromJson(body).object();
    const auto error = json.value(QStringLiteral("error"));
    QString detail = error.isObject() ? error.toObject().value(QStringLiteral("message")).toString()
                                      : error.toString();
    if (detail.isEmpty())
        detail = json.value(QStringLiteral("message")).toString();
    if (detail.isEmpty())
        detail = QString::fromUtf8(body);
    detail = detail.simplified();
    return detail.size() > errorTextShown ? detail.left(errorTextShown) + u'…' : detail;
}

// A model server refusing a key often quotes it back, whole or masked in the middle
// ("sk-proj-****abcd"), and the message goes to the client and the log. Any word that shares a
// run of characters with the key is taken for a quotation of it.
QString withoutKey(QString text, const QString& key)
{
    constexpr qsizetype sharedRun = 6;
    if (key.isEmpty())
        return text;
    text.replace(key, QStringLiteral("[key]"));
    if (key.size() < sharedRun)
        return text;
    static const QRegularExpression word(QStringLiteral(R"([^\s"'`,;()<>\[\]{}]+)"));
    QString kept;
    qsizetype copied = 0;
    for (auto it = word.globalMatch(text); it.hasNext();) {
        const auto match = it.next();
        const auto candidate = match.capturedView();
        bool quotesKey = false;
        for (qsizetype at = 0; at + sharedRun <= key.size() && !quotesKey; ++at)
            quotesKey = candidate.contains(QStringView(key).sliced(at, sharedRun));
        if (!quotesKey)
            continue;
        kept += QStringView(text).sliced(copied, match.capturedStart() - copied);
        kept += QStringLiteral("[key]");
        copied = match.capturedEnd();
    }
    kept += QStringView(text).sliced(copied);
    return kept;
}

QJsonObject firstChoice(const QJsonObject& completion)
{
    const auto choices = completion.value(QStringLiteral("choices")).toArray();
    return choices.isEmpty() ? QJsonObject() : choices.at(0).toObject();
}

// One streamed completion. It owns its network access so that answers asked for on different
// threads never share one (a QNetworkAccessManager belongs to the thread that made it).
class CompletionStream : public QObject {
public:
    CompletionStream(std::function<void(const QString&)> onChunk,
                     std::function<void(const QString&)> onDone, QString server, QString model,
                     QString apiKey)
        : m_onChunk(std::move(onChunk))
        , m_onDone(std::move(onDone))
        , m_server(std::move(server))
        , m_model(std::move(model))
        , m_apiKey(std::move(apiKey))
    {
    }

    void start(const QNetworkRequest& request, const QByteArray& body)
    {
        m_reply = m_network.post(request, body);
        connect(m_reply, &QNetworkReply::readyRead, this, &CompletionStream::onReadyRead);
        connect(m_reply, &QNetworkReply::finished, this, &CompletionStream::onFinished);
    }

    void cancel()
    {
        if (m_ended)
            return;
        m_ended = true;
        stop();
    }

private:
    int status() const
    {
        return m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    }

    bool isSuccess() const { return status() >= 200 && status() < 300; }

    void onReadyRead()
    {
        if (m_ended)
            return;
        const auto data = m_reply->readAll();
        if (!isSuccess()) {
            m_errorBody += data.left(errorBodyKept - m_errorBody.size());
            return;
        }
        if (!m_sawEvent && m_wholeBody.size() < longestLine)
            m_wholeBody += data;
        m_pending += data;
        qsizetype start = 0;
        for (auto end = m_pending.indexOf('\n'); end >= 0 && !m_ended;
             end = m_pending.indexOf('\n', start)) {
            readLine(m_pending.sliced(start, end - start));
            start = end + 1;
        }
        if (m_ended)
            return;
        m_pending.remove(0, start);
        if (m_pending.size() > longestLine)
            end(QStringLiteral("The model server at %1 sent a line longer than 1 MB")
                    .arg(m_server));
    }

    void readLine(QByteArray line)
    {
        if (line.endsWith('\r'))
            line.chop(1);
        // Server-sent events allow "data:" with or without the blank; other fields
        // ("event:", ": comment") carry nothing for us.
        if (!line.startsWith("data:"))
            return;
        auto payload = line.sliced(5);
        if (payload.startsWith(' '))
            payload = payload.sliced(1);
        if (!m_sawEvent) {
            m_sawEvent = true;
            m_wholeBody.clear();
        }
        if (payload == "[DONE]") {
            end(QString());
            return;
        }
        const auto object = QJsonDocument::fromJson(payload).object();
        if (const auto error = object.value(QStringLiteral("error"));
            error.isObject() || error.isString()) {
            end(QStringLiteral("The model server at %1 stopped the answer: %2")
                    .arg(m_server, errorDetail(payload)));
            return;
        }
        const auto choice = firstChoice(object);
        const auto content =
            choice.value(QStringLiteral("delta")).toObject().value(QStringLiteral("content"));
        if (content.isString() && !content.toString().isEmpty())
            m_onChunk(content.toString());
    }

    void onFinished()
    {
        if (m_ended)
            return;
        const int code = status();
        if (code == 0) {
            end(QStringLiteral("Cannot reach the model server at %1: %2")
                    .arg(m_server, m_reply->errorString()));
            return;
        }
        if (!isSuccess()) {
            m_errorBody += m_reply->readAll().left(errorBodyKept - m_errorBody.size());
            auto message =
                QStringLiteral("The model server at %1 answered HTTP %2").arg(m_server).arg(code);
            if (!m_model.isEmpty())
                message += QStringLiteral(" for model \"%1\"").arg(m_model);
            if (const auto detail = errorDetail(m_errorBody); !detail.isEmpty())
                message += QStringLiteral(": ") + detail;
            end(message);
            return;
        }
        onReadyRead();
        if (m_ended)
            return;
        if (!m_pending.isEmpty())
            readLine(m_pending);
        if (m_ended)
            return;
        if (m_reply->error() != QNetworkReply::NoError) {
            end(QStringLiteral("The model server at %1 broke off the answer: %2")
                    .arg(m_server, m_reply->errorString()));
            return;
        }
        if (!m_sawEvent)
            readWholeCompletion();
        if (!m_ended)
            end(QString());
    }

    // A server that ignores "stream" answers with one completion object. Anything else (a web
    // page, an empty body) means the address is not a chat-completions endpoint.
    void readWholeCompletion()
    {
        const auto object = QJsonDocument::fromJson(m_wholeBody).object();
        const auto content = firstChoice(object)
                                 .value(QStringLiteral("message"))
                                 .toObject()
                                 .value(QStringLiteral("content"));
        if (content.isString()) {
            if (!content.toString().isEmpty())
                m_onChunk(content.toString());
        } else if (object.contains(QStringLiteral("error"))) {
            end(QStringLiteral("The model server at %1 refused the answer: %2")
                    .arg(m_server, errorDetail(m_wholeBody)));
        } else {
            end(QStringLiteral("The model server at %1 sent no completion; is %2 an "
                               "OpenAI-compatible chat-completions address?")
                    .arg(m_server, m_reply->url().adjusted(QUrl::RemoveUserInfo).toString()));
        }
    }

    void end(QString error)
    {
        m_ended = true;
        error = withoutKey(std::move(error), m_apiKey);
        if (!error.isEmpty())
            logLine(u"Answers", error);
        stop();
        // The callbacks may be the last owners of the caller's state; call a copy.
        const auto onDone = std::move(m_onDone);
        onDone(error);
    }

    void stop()
    {
        if (m_reply) {
            m_reply->disconnect(this);
            m_reply->abort();
        }
        deleteLater();
    }

    QNetworkAccessManager m_network{this};
    QPointer<QNetworkReply> m_reply;
    std::function<void(const QString&)> m_onChunk;
    std::function<void(const QString&)> m_onDone;
    QString m_server;
    QString m_model;
    QString m_apiKey;
    QByteArray m_pending;
    QByteArray m_wholeBody;
    QByteArray m_errorBody;
    bool m_sawEvent = false;
    bool m_ended = false;
};

// Accepts the base with or without "/v1" and with any trailing slashes; a full
// chat-completions address is taken as it is.
QUrl completionsUrl(const QString& baseUrl)
{
    QUrl url(baseUrl.trimmed());
    auto path = url.path();
    while (path.endsWith(u'/'))
        path.chop(1);
    if (!path.endsWith(u"/chat/completions"))
        path += path.endsWith(u"/v1") ? QStringLiteral("/chat/completions")
                                      : QStringLiteral("/v1/chat/completions");
    url.setPath(path);
    return url;
}

QString systemPrompt(const AnswerRequest& request)
{
    const auto language =
        request.outputLanguage.trimmed().isEmpty()
                || request.outputLanguage.trimmed().compare(u"auto", Qt::CaseInsensitive) == 0
            ? QStringLiteral("Answer in the language the interviewer uses.")
            : QStringLiteral("Write the answer in %1.").arg(languageName(request.outputLanguage));
    QString prompt = QStringLiteral(
        "You help a job candidate during a live interview. Write the answer the candidate will "
        "say to the interviewer's latest question: first person, natural spoken language, "
        "about 80 to 150 words, with a concrete example where one fits. Use only facts from the "
        "candidate's resume, the job description and the conversation below; where the answer "
        "needs something they do not give, put a short placeholder in [brackets] instead of "
        "inventing it. No headings, no notes about these instructions. ");
    prompt += language;
    const auto section = [&prompt](const QString& title, const QString& text) {
        prompt += QStringLiteral("\n\n%1:\n%2")
                      .arg(title, text.isEmpty() ? QStringLiteral("(none given)") : text);
    };
    section(QStringLiteral("Candidate's resume"), cutTo(request.resumeText, resumeCharacters));
    section(QStringLiteral("Job description"),
            cutTo(request.jobDescriptionText, jobDescriptionCharacters));
    section(QStringLiteral("Recent conversation, oldest first (\"You\" is the candidate)"),
            recentLines(request.recentTranscript));
    return prompt;
}

} // namespace

OpenAICompatibleAnswerEngine::OpenAICompatibleAnswerEngine(const QString& baseUrl, QString model,
                                                           QString apiKey)
    : m_url(completionsUrl(baseUrl))
    , m_model(std::move(model))
    , m_apiKey(std::move(apiKey))
{
}

AnswerEngine::Handle
OpenAICompatibleAnswerEngine::answer(const AnswerRequest& request,
                                     std::function<void(const QString& chunk)> onChunk,
                                     std::function<void(const QString& error)> onDone)
{
    QJsonObject body{
        {QStringLiteral("stream"), true},
        {QStringLiteral("messages"),
         QJsonArray{
             QJsonObject{{QStringLiteral("role"), QStringLiteral("system")},
                         {QStringLiteral("content"), systemPrompt(request)}},
             QJsonObject{{QStringLiteral("role"), QStringLiteral("user")},
                         {QStringLiteral("content"), request.question}},
         }},
    };
    // Single-model servers (llama.cpp) need no name; others refuse an empty one.
    if (!m_model.isEmpty())
        body.insert(QStringLiteral("model"), m_model);

    QNetworkRequest networkRequest(m_url);
    networkRequest.setHeader(QNetworkRequest::ContentTypeHeader,
                             QByteArrayLiteral("application/json"));
    networkRequest.setRawHeader("Accept", "text/event-stream");
    if (!m_apiKey.isEmpty())
        networkRequest.setRawHeader("Authorization", "Bearer " + m_apiKey.toUtf8());
    networkRequest.setTransferTimeout(silenceLimitMs);

    const auto server = m_url
                            .adjusted(QUrl::RemoveUserInfo | QUrl::RemovePath | QUrl::RemoveQuery
                                      | QUrl::RemoveFragment)
                            .toString();
    auto* stream = new CompletionStream(std::move(onChunk), std::move(onDone), server, m_model,
                                        m_apiKey);
    stream->start(networkRequest, QJsonDocument(body).toJson(QJsonDocument::Compact));
    QPointer<CompletionStream> guard(stream);
    return {[guard] {
        if (guard)
            guard->cancel();
    }};
}

} // namespace ravlet::server
