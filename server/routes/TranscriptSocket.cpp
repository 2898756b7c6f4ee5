#include "TranscriptSocket.h"

#include "Helpers.h"
#include "HttpServer.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QStringDecoder>
#include <QUrlQuery>
#include <QWebSocket>

using namespace Qt::StringLiterals;

std::optional<TranscriptLine> transcriptLineFrom(const QJsonObject& object)
{
    const auto id = object.value(u"id"_s);
    const auto speaker = object.value(u"speaker"_s).toString();
    const auto content = object.value(u"content"_s);
    const auto timestamp = object.value(u"timestampMs"_s);
    if (!id.isString() || id.toString().isEmpty() || id.toString().size() > 200
        || !content.isString() || content.toString().size() > 100'000 || !timestamp.isDouble()
        || (speaker != u"user"_s && speaker != u"interviewer"_s))
        return std::nullopt;
    // A "\ud800" escape alone is half a character: stored, it would read back as other text.
    if (withValidUnicode(id.toString()) != id.toString()
        || withValidUnicode(content.toString()) != content.toString())
        return std::nullopt;
    TranscriptLine line{id.toString(),         speaker,      content.toString(),
                        timestamp.toInteger(), std::nullopt, 0};
    if (const auto confidence = object.value(u"confidence"_s); confidence.isDouble())
        line.confidence = confidence.toDouble();
    if (const auto revision = object.value(u"revision"_s); revision.isDouble())
        line.revision = revision.toInteger();
    return line;
}

void TranscriptSocket::attach(HttpServer& server, AccountService& accounts,
                               InterviewStore& interviews, QObject* owner)
{
    // The gate and the handler both read the token: the gate to refuse the handshake with a
    // status, the handler to know whose lines arrive.
    auto sessionOf = [&accounts, &interviews](
                         const QUrlQuery& query) -> std::optional<std::pair<QString, QString>> {
        const auto user =
            accounts.verifyAccessToken(query.queryItemValue(u"token"_s, QUrl::FullyDecoded));
        if (!user)
            return std::nullopt;
        const auto sessionId = query.queryItemValue(u"sessionId"_s, QUrl::FullyDecoded);
        if (!interviews.session(user->id, sessionId))
            return std::pair{user->id, QString()};
        return std::pair{user->id, sessionId};
    };
    server.addWebSocketRoute(
        u"/api/v1/interview/ws"_s,
        [sessionOf](const HttpRequest& request) -> std::optional<HttpResponse> {
            try {
                const auto session = sessionOf(request.query);
                if (!session)
                    return HttpResponse::error(401, u"Authentication required"_s);
                if (session->second.isEmpty())
                    return HttpResponse::error(404, u"No such interview session"_s);
            } catch (const StoreError&) {
                return HttpResponse::error(500, u"The server could not complete the request"_s);
            }
            return std::nullopt;
        },
        [sessionOf, &interviews, owner](std::unique_ptr<QWebSocket> socket) {
            std::optional<std::pair<QString, QString>> session;
            try {
                session = sessionOf(QUrlQuery(socket->requestUrl()));
            } catch (const StoreError&) {
            }
            if (!session || session->second.isEmpty()) {
                socket->close(QWebSocketProtocol::CloseCodePolicyViolated);
                return;
            }
            new TranscriptSocket(std::move(socket), session->first, session->second, interviews,
                                  owner);
        });
}

TranscriptSocket::TranscriptSocket(std::unique_ptr<QWebSocket> socket, QString userId,
                                     QString sessionId, InterviewStore& interviews, QObject* parent)
    : QObject(parent)
    , m_socket(std::move(socket))
    , m_userId(std::move(userId))
    , m_sessionId(std::move(sessionId))
    , m_interviews(interviews)
{
    m_socket->setMaxAllowedIncomingMessageSize(maxFrameBytes);
    m_socket->setMaxAllowedIncomingFrameSize(maxFrameBytes);
    connect(m_socket.get(), &QWebSocket::textMessageReceived, this,
            [this](const QString& text) { onFrame(text.toUtf8()); });
    connect(m_socket.get(), &QWebSocket::binaryMessageReceived, this,
            [this](const QByteArray& data) {
                // Not UTF-8: no line either, counted toward the close like any other.
                const auto text = binaryFrameText(data);
                onFrame(text ? text->toUtf8() : QByteArray());
            });
    connect(m_socket.get(), &QWebSocket::disconnected, this, &QObject::deleteLater);
    m_socket->sendTextMessage(u"{\"type\":\"connected\"}"_s);
}

TranscriptSocket::~TranscriptSocket() = default;

std::optional<TranscriptLine> TranscriptSocket::lineOfFrame(const QByteArray& data)
{
    const auto object = QJsonDocument::fromJson(data).object();
    if (object.value(u"type"_s).toString() != u"transcript_entry"_s)
        return std::nullopt;
    return transcriptLineFrom(object);
}

std::optional<QString> TranscriptSocket::binaryFrameText(const QByteArray& data)
{
    // Stateless: a sequence cut off at the end of the frame is an error, not a wait for more.
    auto decoder = QStringDecoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder(data);
    if (decoder.hasError())
        return std::nullopt;
    return text;
}

QString TranscriptSocket::ackFrame(const QString& id, qint64 storedRevision)
{
    const QJsonObject ack{{u"type"_s, u"ack"_s},
                          {u"ids"_s, QJsonArray{id}},
                          {u"revisions"_s, QJsonObject{{id, storedRevision}}}};
    return QString::fromUtf8(QJsonDocument(ack).toJson(QJsonDocument::Compact));
}

void TranscriptSocket::onFrame(const QByteArray& data)
{
    const auto line = lineOfFrame(data);
    if (!line) {
        if (++m_badFrames >= maxBadFramesInARow)
            m_socket->close(QWebSocketProtocol::CloseCodePolicyViolated,
                            u"Too many malformed frames"_s);
        return;
    }
    m_badFrames = 0;
    std::optional<qint64> stored;
    try {
        stored = m_interviews.upsertLine(m_userId, m_sessionId, *line);
    } catch (const StoreError& error) {
        // Not acknowledged: the client keeps the line and sends it again after a reconnect.
        qWarning("A transcript line was not stored: %s", error.what());
        m_socket->close(QWebSocketProtocol::CloseCodeBadOperation);
        return;
    }
    if (!stored) {
        m_socket->close(QWebSocketProtocol::CloseCodePolicyViolated, u"The session is gone"_s);
        return;
    }
    // Acknowledged only now that the row is written.
    m_socket->sendTextMessage(ackFrame(line->id, *stored));
}
