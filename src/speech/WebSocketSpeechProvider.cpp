#include "WebSocketSpeechProvider.h"

#include "Clock.h"
#include "Helpers.h"

#include <QCoroSignal>
#include <QNetworkRequest>
#include <QWebSocket>
#include <QWebSocketHandshakeOptions>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {
constexpr int requestTimeoutMs = 60'000;
// How long stop's closing message may wait for a socket that is still connecting.
constexpr auto closingGrace = 2000ms;
// How often a send that waits for the handshake looks again, besides the socket's own signals.
constexpr auto handshakePoll = 250ms;

// A vendor origin from a speech token must make a WebSocket address as it stands.
bool isUsableOrigin(const QString& origin)
{
    const QUrl url(origin, QUrl::StrictMode);
    return url.isValid() && !url.host().isEmpty()
           && (url.scheme() == u"ws"_s || url.scheme() == u"wss"_s);
}

QString closedDescription(const QWebSocket& socket)
{
    if (!socket.closeReason().isEmpty())
        return socket.closeReason();
    if (socket.error() != QAbstractSocket::UnknownSocketError)
        return socket.errorString();
    return u"The connection was closed (code %1)"_s.arg(int(socket.closeCode()));
}
} // namespace

WebSocketSpeechProvider::WebSocketSpeechProvider(Speaker speaker, QString origin, QString vendorPrefix,
                                                 Clock& clock, QObject* parent)
    : SpeechRecognitionProvider(speaker, parent)
    , m_origin(std::move(origin))
    , m_vendorPrefix(std::move(vendorPrefix))
    , m_clock(clock)
{
}

WebSocketSpeechProvider::~WebSocketSpeechProvider()
{
    m_isStopping = true;
    cancelTasks();
}

QCoro::Task<> WebSocketSpeechProvider::start(QString token, QString language,
                                             std::shared_ptr<AudioStream> audio,
                                             std::optional<QString> model)
{
    resetConnection();
    if (!isUsableOrigin(m_origin))
        throw InvalidSpeechEndpointError();
    const auto target = connection(token, language, model);
    if (!target.url.isValid())
        throw InvalidSpeechEndpointError();
    const quint64 connectionNumber = ++m_connection;

    QNetworkRequest request(target.url);
    request.setTransferTimeout(requestTimeoutMs);
    for (const auto& [name, value] : target.headers)
        request.setRawHeader(name, value);
    QWebSocketHandshakeOptions options;
    options.setSubprotocols(target.subprotocols);

    auto* socket = new QWebSocket(QString(), QWebSocketProtocol::VersionLatest, this);
    auto incoming = std::make_shared<AsyncQueue<Incoming>>();
    connect(socket, &QWebSocket::textMessageReceived, socket,
            [incoming](const QString& text) { incoming->push({text, {}}); });
    // Binary frames carry nothing for us and are not even queued.
    connect(socket, QOverload<QAbstractSocket::SocketError>::of(&QWebSocket::error), socket,
            [incoming, socket](QAbstractSocket::SocketError) { incoming->push({std::nullopt, socket->errorString()}); });
    connect(socket, &QWebSocket::disconnected, socket,
            [incoming, socket] { incoming->push({std::nullopt, closedDescription(*socket)}); });
    socket->open(request, options);
    m_socket = socket;
    // QWebSocket ignores the request's time-out, and a vendor that never answers the upgrade
    // would leave the channel silent for good: fail the handshake as a receive error instead.
    const auto handshakeTimer = m_clock.startTimer(requestTimeoutMs, [incoming, guarded = QPointer(socket)] {
        if (!guarded || guarded->state() == QAbstractSocket::ConnectedState
            || guarded->state() == QAbstractSocket::UnconnectedState)
            return;
        incoming->push({std::nullopt, u"The request timed out"_s});
        guarded->abort();
    });
    const auto cancelHandshakeTimer = [clock = &m_clock, handshakeTimer] { clock->cancelTimer(handshakeTimer); };
    connect(socket, &QWebSocket::connected, socket, cancelHandshakeTimer);
    connect(socket, &QObject::destroyed, cancelHandshakeTimer);

    m_receiveTask = TaskHandle::run(
        [&](const CancellationToken& t) { return receiveLoop(incoming, connectionNumber, t); });
    m_isStopping = false;

    if (auto opening = openingMessage()) {
        QPointer self(this);
        const auto connectionToken = *m_receiveTask.token();
        QString error;
        Message frame = std::move(*opening);
        const bool sent =
            co_await sendWhenConnected(&m_clock, m_socket, std::move(frame), connectionToken, &error);
        // A restart or a stop in the meantime owns what comes next.
        if (!self || connectionToken.isCancelled())
            co_return;
        if (!sent) {
            raiseRecovery(openingFailurePrefix() + error, connectionNumber);
            co_return;
        }
    }

    m_audioSendTask = TaskHandle::run(
        [&](const CancellationToken& t) { return sendLoop(m_socket, audio, connectionNumber, t); });
    if (const auto keepAlive = this->keepAlive()) {
        m_keepAliveTask = TaskHandle::run([&](const CancellationToken& t) {
            return keepAliveLoop(m_socket, keepAlive->first, keepAlive->second, t);
        });
    }
}

QCoro::Task<> WebSocketSpeechProvider::stop()
{
    m_isStopping = true;
    if (m_socket) {
        // Best effort: the vendor may close the open utterance, but nobody waits for it.
        closeSocket(&m_clock, m_socket, closingMessage());
        m_socket = nullptr;
    }
    cancelTasks();
    m_segments->finish();
    m_recovery->finish();
    co_return;
}

void WebSocketSpeechProvider::cancelTasks()
{
    for (auto* task : {&m_receiveTask, &m_audioSendTask, &m_keepAliveTask}) {
        task->cancel();
        *task = {};
    }
}

void WebSocketSpeechProvider::resetConnection()
{
    m_isStopping = true;
    cancelTasks();
    if (m_socket) {
        m_socket->close(QWebSocketProtocol::CloseCodeNormal);
        m_socket->deleteLater();
        m_socket = nullptr;
    }
}

void WebSocketSpeechProvider::emitSegment(const QString& text, bool isFinal, std::optional<double> confidence)
{
    m_segments->push({withValidUnicode(text), isFinal, speaker(), m_clock.nowMs(), confidence});
}

void WebSocketSpeechProvider::raiseRecovery(const QString& text)
{
    raiseRecovery(text, m_connection);
}

void WebSocketSpeechProvider::raiseRecovery(const QString& text, quint64 connection)
{
    if (m_isStopping)
        return;
    m_recovery->push({withValidUnicode(m_vendorPrefix + text), true, connection});
}

QCoro::Task<bool> WebSocketSpeechProvider::sendWhenConnected(Clock* clock, QPointer<QWebSocket> socket,
                                                             Message message, CancellationToken token,
                                                             QString* error)
{
    // A frame sent while the handshake is still running is silently dropped: wait for it. The
    // wait also ends when the socket goes away with its owner, or on cancellation; a wait tied
    // to the socket alone would never wake then.
    while (socket && socket->state() != QAbstractSocket::ConnectedState
           && socket->state() != QAbstractSocket::UnconnectedState && !token.isCancelled()) {
        // Queued, so that the socket's own handlers see the change first.
        auto wake = std::make_shared<AsyncQueue<bool>>();
        QObject context;
        const auto push = [wake] { wake->push(true); };
        QObject::connect(socket.data(), &QWebSocket::stateChanged, &context, push, Qt::QueuedConnection);
        QObject::connect(socket.data(), &QObject::destroyed, &context, push, Qt::QueuedConnection);
        const auto poll = clock->startTimer(std::chrono::milliseconds(handshakePoll).count(), push);
        co_await wake->next(token);
        clock->cancelTimer(poll);
    }
    if (!socket || token.isCancelled()) {
        *error = u"The send was cancelled"_s;
        co_return false;
    }
    if (socket->state() != QAbstractSocket::ConnectedState) {
        *error = closedDescription(*socket);
        co_return false;
    }
    if (const auto* text = std::get_if<QString>(&message)) {
        if (socket->sendTextMessage(*text) <= 0 && !text->isEmpty()) {
            *error = socket->errorString();
            co_return false;
        }
    } else {
        const auto& bytes = std::get<QByteArray>(message);
        if (socket->sendBinaryMessage(bytes) <= 0 && !bytes.isEmpty()) {
            *error = socket->errorString();
            co_return false;
        }
    }
    co_return true;
}

QCoro::Task<> WebSocketSpeechProvider::closeSocket(Clock* clock, QPointer<QWebSocket> socket,
                                                   std::optional<QString> message)
{
    // The farewell owns the socket from here: the provider is usually dropped right after
    // stop, and a socket destroyed with it while still connecting would never wake the wait
    // below, which is tied to the socket.
    if (socket)
        socket->setParent(nullptr);
    if (message) {
        CancellationToken grace;
        const auto timer = clock->startTimer(std::chrono::milliseconds(closingGrace).count(),
                                             [grace] { grace.cancel(); });
        QString error;
        Message frame = std::move(*message);
        co_await sendWhenConnected(clock, socket, std::move(frame), grace, &error);
        clock->cancelTimer(timer);
    }
    if (socket) {
        socket->close(QWebSocketProtocol::CloseCodeNormal);
        socket->deleteLater();
    }
}

QCoro::Task<> WebSocketSpeechProvider::receiveLoop(std::shared_ptr<AsyncQueue<Incoming>> incoming,
                                                   quint64 connection, CancellationToken token)
{
    QPointer self(this);
    for (;;) {
        auto item = co_await incoming->next(token);
        if (!item || token.isCancelled() || !self)
            co_return;
        if (item->text) {
            handleMessage(*item->text);
            continue;
        }
        raiseRecovery(item->error, connection);
        co_return;
    }
}

QCoro::Task<> WebSocketSpeechProvider::sendLoop(QPointer<QWebSocket> socket, std::shared_ptr<AudioStream> audio,
                                                quint64 connection, CancellationToken token)
{
    QPointer self(this);
    // Buffers wait in the stream while a send is in flight, and across a restart.
    while (auto buffer = co_await audio->next(token)) {
        if (token.isCancelled() || !self)
            co_return;
        if (!buffer->hasFloatData || buffer->samples.empty())
            continue;
        auto message = audioMessage(*buffer);
        if (!message)
            continue;
        QString error;
        Message frame = std::move(*message);
        const bool sent = co_await sendWhenConnected(&clock(), socket, std::move(frame), token, &error);
        if (!sent) {
            if (!token.isCancelled() && self)
                raiseRecovery(u"Audio send failed: "_s + error, connection);
            co_return;
        }
    }
}

QCoro::Task<> WebSocketSpeechProvider::keepAliveLoop(QPointer<QWebSocket> socket, std::chrono::milliseconds interval,
                                                     QString message, CancellationToken token)
{
    Clock& clock = m_clock;
    for (;;) {
        co_await clock.sleep(interval, token);
        if (token.isCancelled())
            co_return;
        // A failed keep-alive is no failure of the connection; the receive loop sees those.
        QString error;
        Message frame = message;
        co_await sendWhenConnected(&clock, socket, std::move(frame), token, &error);
    }
}
