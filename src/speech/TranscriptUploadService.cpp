#include "TranscriptUploadService.h"

#include "AsyncQueue.h"
#include "Clock.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QStringDecoder>
#include <QStringEncoder>
#include <QStringList>
#include <QWebSocket>

#include <cmath>
#include <coroutine>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

// Besides the unreserved characters, what a URL query may hold as it stands: the sub-delimiters,
// ":", "@", "/" and "?". "&" and "=" are among them, so they are not escaped inside a value.
constexpr char queryKeepsAsIs[] = "!$&'()*+,;=:@/?";

QString queryEncoded(const QString& value)
{
    QStringEncoder encoder(QStringEncoder::Utf8);
    const QByteArray utf8 = encoder.encode(value);
    // Text with broken UTF-16 has no percent-encoding; it goes into the address as it stands.
    if (encoder.hasError())
        return value;
    return QString::fromLatin1(utf8.toPercentEncoding(queryKeepsAsIs));
}

std::chrono::milliseconds reconnectDelay(int attempt)
{
    // 1, 2, 4, 8, then 15 seconds; the cap keeps the shift small.
    const auto cap = std::chrono::milliseconds(TranscriptUploadService::maxReconnectDelay);
    if (attempt >= 4)
        return cap;
    return std::min(std::chrono::milliseconds(std::chrono::seconds(1 << attempt)), cap);
}

} // namespace

// One socket and what it delivers. Socket signals arrive queued, so the channel reacts after
// Qt's socket code has returned, never inside it.
struct TranscriptUploadService::Connection {
    struct Incoming {
        std::optional<QString> text; // nothing: the socket closed or failed
    };

    explicit Connection(Clock& c) : clock(c) {}
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection() { settle(); }

    // The handshake is over, one way or the other: its time-out is no longer needed.
    void settle()
    {
        if (handshakeTimer != 0)
            clock.cancelTimer(std::exchange(handshakeTimer, 0));
    }

    void end()
    {
        if (hasEnded)
            return;
        hasEnded = true;
        incoming.push(Incoming{});
        settle();
    }

    bool isOpen() const
    {
        return !hasEnded && socket && socket->state() == QAbstractSocket::ConnectedState;
    }

    Clock& clock;
    QPointer<QWebSocket> socket;
    AsyncQueue<Incoming> incoming;
    Clock::TimerId handshakeTimer = 0;
    bool hasEnded = false;
};

TranscriptUploadService::TranscriptUploadService(Clock& clock, QObject* parent)
    : QObject(parent), m_clock(clock)
{
}

TranscriptUploadService::~TranscriptUploadService()
{
    // Suspended calls resume inside this destructor; these flags make each of them end at once.
    m_isStopping = true;
    m_lifetime.cancel();
    m_reconnectTask.cancel();
    m_receiveTask.cancel();
    if (auto connection = std::exchange(m_connection, {}))
        discard(connection, QWebSocketProtocol::CloseCodeGoingAway);
}

std::optional<QUrl> TranscriptUploadService::uploadURL(const QString& baseURL, const QString& token,
                                                       const QString& sessionId)
{
    const QString scheme = baseURL.startsWith(u"https"_s) ? u"wss"_s : u"ws"_s;
    QString host = baseURL;
    host.replace(u"https://"_s, QString()).replace(u"http://"_s, QString());
    const QString text = scheme + u"://"_s + host + u"/api/v1/interview/ws?token="_s
                         + queryEncoded(token) + u"&sessionId="_s + queryEncoded(sessionId);
    QUrl url(text, QUrl::StrictMode);
    if (!url.isValid())
        return std::nullopt;
    return url;
}

QString TranscriptUploadService::frameText(const TranscriptEntry& entry, int revision)
{
    // JSON has no NaN or infinity: such a line cannot be written, and its frame says nothing.
    if (entry.confidence && !std::isfinite(*entry.confidence))
        return u"{}"_s;
    QJsonObject object{
        {u"type"_s, u"transcript_entry"_s},
        {u"id"_s, entry.id},
        {u"revision"_s, revision},
        {u"speaker"_s,
         entry.speaker == TranscriptEntry::Speaker::user ? u"user"_s : u"interviewer"_s},
        {u"content"_s, entry.content},
        {u"timestampMs"_s, QJsonValue(entry.timestampMs)},
    };
    if (entry.confidence)
        object.insert(u"confidence"_s, *entry.confidence);
    return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

std::optional<QString> TranscriptUploadService::binaryFrameText(const QByteArray& bytes)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder.decode(bytes);
    if (decoder.hasError())
        return std::nullopt;
    return text;
}

QList<QString> TranscriptUploadService::pendingIds() const
{
    QList<QString> ids;
    for (const auto& [id, entry] : m_pendingEntries)
        ids.append(id);
    return ids;
}

QSet<QString> TranscriptUploadService::acknowledgedIds() const
{
    QSet<QString> ids;
    for (const auto& [id, line] : m_lines) {
        if (line.acknowledged >= line.revision)
            ids.insert(id);
    }
    return ids;
}

QCoro::Task<> TranscriptUploadService::start(QString baseURL, QString token, QString sessionId)
{
    m_baseURL = std::move(baseURL);
    m_token = std::move(token);
    m_sessionId = std::move(sessionId);
    m_isStopping = false;
    m_reconnectAttempt = 0;
    // Lines handed over before now go out once the handshake is over.
    connectSocket();
    co_return;
}

void TranscriptUploadService::send(TranscriptEntry entry)
{
    // The channel carries only final, non-empty lines.
    if (!entry.isFinal || entry.content.trimmed().isEmpty())
        return;
    auto& line = m_lines[entry.id];
    if (line.revision > 0 && line.content == entry.content)
        return; // this text is on its way or acknowledged already
    line.content = entry.content;
    ++line.revision;

    // A newer text replaces the older one wherever that waits.
    for (auto& waiting : m_bufferedEntries) {
        if (waiting.id == entry.id) {
            waiting = std::move(entry);
            return;
        }
    }
    m_pendingEntries.erase(entry.id);
    if (!m_isConnected || !m_connection || !m_connection->isOpen()) {
        m_bufferedEntries.append(std::move(entry));
        return;
    }
    // Lines sent during the handshake wait for it in the buffer; this one must not pass them.
    if (!m_bufferedEntries.isEmpty()) {
        m_bufferedEntries.append(std::move(entry));
        return;
    }
    if (sendNow(entry))
        return;
    m_pendingEntries.erase(entry.id);
    m_bufferedEntries.append(std::move(entry));
    reconnect();
}

void TranscriptUploadService::connectSocket()
{
    const auto url = uploadURL(m_baseURL, m_token, m_sessionId);
    if (!url)
        throw BadURLError();

    // A connection that is replaced while up is closed, and its lines in flight go out again on
    // the new one instead of waiting for an acknowledgement that cannot come.
    if (auto previous = std::exchange(m_connection, {})) {
        takeBackInFlight();
        discard(previous, QWebSocketProtocol::CloseCodeGoingAway);
    }
    m_receiveTask.cancel();
    m_unansweredSends.clear();

    auto connection = std::make_shared<Connection>(m_clock);
    auto* socket = new QWebSocket(QString(), QWebSocketProtocol::VersionLatest, this);
    connection->socket = socket;
    std::weak_ptr<Connection> weak = connection;
    connect(
        socket, &QWebSocket::connected, socket,
        [this, weak] {
            const auto c = weak.lock();
            if (!c)
                return;
            c->settle();
            if (c == m_connection)
                flushBuffered();
        },
        Qt::QueuedConnection);
    connect(
        socket, &QWebSocket::textMessageReceived, socket,
        [weak](const QString& text) {
            if (auto c = weak.lock())
                c->incoming.push({text});
        },
        Qt::QueuedConnection);
    connect(
        socket, &QWebSocket::binaryMessageReceived, socket,
        [weak](const QByteArray& bytes) {
            auto c = weak.lock();
            if (!c)
                return;
            if (auto text = binaryFrameText(bytes))
                c->incoming.push({std::move(*text)});
        },
        Qt::QueuedConnection);
    const auto ended = [weak] {
        if (auto c = weak.lock())
            c->end();
    };
    connect(socket, &QWebSocket::disconnected, socket, ended, Qt::QueuedConnection);
    connect(socket, QOverload<QAbstractSocket::SocketError>::of(&QWebSocket::error), socket, ended,
            Qt::QueuedConnection);
    connection->handshakeTimer = m_clock.startTimer(
        std::chrono::milliseconds(handshakeTimeout).count(), [weak] {
            if (auto c = weak.lock()) {
                c->handshakeTimer = 0;
                c->end();
            }
        });

    m_connection = connection;
    socket->open(*url);
    // The connection counts as up from here, before the server has answered.
    m_isConnected = true;
    m_reconnectAttempt = 0;
    m_receiveTask = TaskHandle::run(
        [&](const CancellationToken& token) { return receiveLoop(connection, token); });
}

void TranscriptUploadService::flushBuffered()
{
    if (!m_connection || !m_connection->isOpen())
        return;
    const QList<TranscriptEntry> entries = std::exchange(m_bufferedEntries, {});
    for (const auto& entry : entries) {
        // A failed send leaves the line in flight: the reconnect that the failure brings, or
        // stop's result, takes it back.
        m_pendingEntries.insert_or_assign(entry.id, entry);
        sendNow(entry);
    }
}

bool TranscriptUploadService::sendNow(const TranscriptEntry& entry)
{
    // In flight before the send, never after.
    m_pendingEntries.insert_or_assign(entry.id, entry);
    if (!m_connection || !m_connection->isOpen())
        return false;
    const int revision = m_lines[entry.id].revision;
    const QString frame = frameText(entry, revision);
    const qint64 size = frame.toUtf8().size();
    if (m_connection->socket->sendTextMessage(frame) < size)
        return false;
    m_unansweredSends[entry.id].push_back(revision);
    auto& line = m_lines[entry.id];
    line.sent = std::max(line.sent, revision);
    return true;
}

QCoro::Task<> TranscriptUploadService::receiveLoop(std::shared_ptr<Connection> connection,
                                                   CancellationToken token)
{
    QPointer self(this);
    // Tested after each message: once stopping, the message being waited for is the last.
    while (connection == m_connection && !m_isStopping) {
        auto event = co_await connection->incoming.next(token);
        if (isGone(self) || token.isCancelled() || !event)
            co_return;
        if (!event->text) {
            if (!m_isStopping)
                reconnect();
            co_return;
        }
        handleMessage(*event->text);
    }
}

QCoro::Task<> TranscriptUploadService::reconnectLoop(CancellationToken token)
{
    QPointer self(this);
    if (m_isStopping)
        co_return;
    Clock& clock = m_clock;
    for (;;) {
        const int attempt = m_reconnectAttempt;
        if (m_reconnectAttempt < 30)
            ++m_reconnectAttempt;
        // Cancellation only cuts the wait short: a cut-short wait counts as waited, and only
        // stopping ends the task.
        const auto delay = reconnectDelay(attempt);
        co_await clock.sleep(delay, token);
        if (isGone(self) || m_isStopping)
            co_return;
        try {
            connectSocket();
        } catch (const BadURLError&) {
            continue;
        }
        co_return;
    }
}

QCoro::Task<QList<TranscriptEntry>> TranscriptUploadService::stop()
{
    QPointer self(this);
    m_isStopping = true;
    m_reconnectTask.cancel();
    m_reconnectTask = {};
    if (m_isConnected && m_connection) {
        flushBuffered();
        // Time for the server to acknowledge what it has.
        Clock& clock = m_clock;
        const CancellationToken lifetime = m_lifetime;
        co_await clock.sleep(stopAckWait, lifetime);
        if (isGone(self))
            co_return QList<TranscriptEntry>();
    }
    if (auto connection = std::exchange(m_connection, {}))
        discard(connection, QWebSocketProtocol::CloseCodeNormal);
    m_receiveTask.cancel();
    m_receiveTask = {};
    m_isConnected = false;

    QList<TranscriptEntry> unacknowledged;
    for (const auto& [id, entry] : m_pendingEntries)
        unacknowledged.append(entry);
    unacknowledged.append(m_bufferedEntries);
    m_pendingEntries.clear();
    m_bufferedEntries.clear();
    co_return unacknowledged;
}

void TranscriptUploadService::handleMessage(const QString& text)
{
    QJsonParseError error;
    const auto document = QJsonDocument::fromJson(text.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return;
    const QJsonObject message = document.object();
    // "connected" and every other type are ignored.
    if (message.value(u"type"_s).toString() != u"ack"_s)
        return;
    const QJsonValue ids = message.value(u"ids"_s);
    if (!ids.isArray())
        return;
    QStringList acknowledged;
    for (const auto& id : ids.toArray()) {
        if (!id.isString())
            return; // not an array of text: the whole ack is ignored
        acknowledged.append(id.toString());
    }
    // Our server says up to which revision it has each line; another names only the id.
    const QJsonObject revisions = message.value(u"revisions"_s).toObject();
    for (const auto& id : std::as_const(acknowledged)) {
        const QJsonValue revision = revisions.value(id);
        if (revision.isDouble()) {
            acknowledge(id, revision.toInt());
            continue;
        }
        auto sends = m_unansweredSends.find(id);
        if (sends == m_unansweredSends.end() || sends->second.empty())
            continue; // unknown, or a duplicate: it covers nothing
        acknowledge(id, sends->second.front());
    }
}

void TranscriptUploadService::acknowledge(const QString& id, int revision)
{
    const auto line = m_lines.find(id);
    if (line == m_lines.end())
        return;
    // Never beyond what went out: a text still waiting to be sent, or a later one, must be
    // acknowledged itself. A server that names a revision it never got cannot lose that text.
    const int covered = std::min(revision, line->second.sent);
    line->second.acknowledged = std::max(line->second.acknowledged, covered);
    if (auto sends = m_unansweredSends.find(id); sends != m_unansweredSends.end()) {
        auto& queue = sends->second;
        while (!queue.empty() && queue.front() <= covered)
            queue.pop_front();
    }
    if (line->second.acknowledged >= line->second.revision) {
        m_pendingEntries.erase(id);
        // Taken back at a reconnect, then acknowledged by a frame read after it: the server
        // has the newest text, so it is not sent again.
        m_bufferedEntries.removeIf([&id](const TranscriptEntry& entry) { return entry.id == id; });
    }
}

void TranscriptUploadService::takeBackInFlight()
{
    QList<TranscriptEntry> inFlight;
    for (const auto& [id, entry] : m_pendingEntries) {
        const auto& line = m_lines[id];
        if (line.acknowledged < line.revision)
            inFlight.append(entry);
    }
    m_pendingEntries.clear();
    m_bufferedEntries = inFlight + m_bufferedEntries;
}

void TranscriptUploadService::reconnect()
{
    if (m_isStopping)
        return;
    m_isConnected = false;
    takeBackInFlight();
    auto connection = std::exchange(m_connection, {});
    m_receiveTask.cancel();
    m_receiveTask = {};
    m_reconnectTask.cancel();
    m_reconnectTask =
        TaskHandle::run([&](const CancellationToken& token) { return reconnectLoop(token); });
    if (connection)
        discard(connection, QWebSocketProtocol::CloseCodeGoingAway);
}

void TranscriptUploadService::discard(const std::shared_ptr<Connection>& connection,
                                      QWebSocketProtocol::CloseCode code)
{
    connection->hasEnded = true;
    // Signals still queued for the socket find the connection ended and do nothing.
    if (QWebSocket* socket = connection->socket) {
        // Only an open socket can say goodbye; any other is cut.
        if (socket->state() == QAbstractSocket::ConnectedState)
            socket->close(code);
        else
            socket->abort();
        socket->deleteLater();
    }
    connection->settle();
}

bool TranscriptUploadService::isGone(const QPointer<TranscriptUploadService>& self)
{
    return !self || self->m_lifetime.isCancelled();
}
