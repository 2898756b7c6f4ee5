#include "ListenChannel.h"

#include "AccountService.h"
#include "Clock.h"
#include "Helpers.h"
#include "HttpServer.h"
#include "RecognizerWorker.h"

#include <QHash>
#include <QThread>
#include <QWebSocket>

using namespace Qt::StringLiterals;

namespace {

// Main thread only.
int openChannels = 0;
QHash<QString, int> openPerUser;

// The program sends its speech token as a bearer token, as it does to the vendor.
std::optional<QString> speechTokenUser(const AccountService& accounts,
                                       const QByteArray& authorization)
{
    if (!authorization.startsWith("Bearer "))
        return std::nullopt;
    return accounts.verifySpeechToken(QString::fromLatin1(authorization.mid(7).trimmed()));
}

DeepgramWire::ListenRequest listenRequestOf(const HttpRequest& request)
{
    QUrl url(u"ws://localhost"_s);
    url.setPath(request.path, QUrl::TolerantMode);
    url.setQuery(request.query);
    return DeepgramWire::parseListenUrl(url);
}

} // namespace

void ListenChannel::attach(HttpServer& server, AccountService& accounts, Clock& clock,
                           QObject* owner, int socketsPerUser)
{
    auto gate = [&accounts,
                 socketsPerUser](const HttpRequest& request) -> std::optional<HttpResponse> {
        const auto user = speechTokenUser(accounts, request.header("Authorization"));
        if (!user)
            return HttpResponse::error(401, u"A valid speech token is required"_s);
        if (openPerUser.value(*user) >= socketsPerUser)
            return HttpResponse::error(
                429, u"Too many listen sockets: at most %1 per user"_s.arg(socketsPerUser));
        const auto listen = listenRequestOf(request);
        if (listen.error)
            return HttpResponse::error(400, *listen.error);
        if (openChannels >= maxOpenChannels)
            return HttpResponse::error(503, u"The speech recogniser is busy; try again shortly"_s);
        return std::nullopt;
    };
    auto handler = [&accounts, &clock, owner](std::unique_ptr<QWebSocket> socket) {
        // The gate has passed this very request; the token may have expired in between.
        const auto listen = DeepgramWire::parseListenUrl(socket->requestUrl());
        const auto user = speechTokenUser(accounts, socket->request().rawHeader("Authorization"));
        if (!user || listen.error) {
            socket->close(QWebSocketProtocol::CloseCodePolicyViolated);
            return;
        }
        new ListenChannel(std::move(socket), listen, *user, clock, owner);
    };
    server.addWebSocketRoute(u"/v1/listen"_s, gate, handler);
    server.addWebSocketRoute(u"/v2/listen"_s, gate, handler);
}

int ListenChannel::openCount()
{
    return openChannels;
}

ListenChannel::ListenChannel(std::unique_ptr<QWebSocket> socket,
                             DeepgramWire::ListenRequest request, QString userId, Clock& clock,
                             QObject* parent)
    : QObject(parent)
    , m_socket(std::move(socket))
    , m_thread(std::make_unique<QThread>())
    , m_clock(clock)
    , m_userId(std::move(userId))
    , m_openedMs(clock.nowMs())
    , m_lastFrameMs(clock.nowMs())
{
    ++openChannels;
    ++openPerUser[m_userId];
    m_socket->setMaxAllowedIncomingMessageSize(maxFrameBytes);
    m_socket->setMaxAllowedIncomingFrameSize(maxFrameBytes);

    auto* worker = new RecognizerWorker(std::move(request), uuidLower());
    worker->moveToThread(m_thread.get());
    connect(m_thread.get(), &QThread::finished, worker, &QObject::deleteLater);
    connect(m_thread.get(), &QThread::finished, this, &QObject::deleteLater);
    // Frames cross to the decoder's thread and its messages come back, both queued in order.
    connect(m_socket.get(), &QWebSocket::binaryMessageReceived, worker,
            &RecognizerWorker::pushAudio);
    connect(m_socket.get(), &QWebSocket::textMessageReceived, worker, &RecognizerWorker::pushText);
    connect(worker, &RecognizerWorker::message, this,
            [this](const QString& text) { m_socket->sendTextMessage(text); });
    connect(worker, &RecognizerWorker::closeRequested, this, [this] { m_socket->close(); });
    connect(worker, &RecognizerWorker::failed, this,
            [this] { m_socket->close(QWebSocketProtocol::CloseCodeBadOperation); });
    connect(m_socket.get(), &QWebSocket::disconnected, this, &ListenChannel::end);
    const auto heardFrom = [this] { m_lastFrameMs = m_clock.nowMs(); };
    connect(m_socket.get(), &QWebSocket::binaryMessageReceived, this, heardFrom);
    connect(m_socket.get(), &QWebSocket::binaryMessageReceived, this, &ListenChannel::countAudio);
    connect(m_socket.get(), &QWebSocket::textMessageReceived, this, heardFrom);
    m_idleTimer = m_clock.startTimer(idleLimitMs, [this] { checkIdle(); });

    m_thread->setObjectName(u"listen"_s);
    m_thread->start();
    QMetaObject::invokeMethod(worker, &RecognizerWorker::start, Qt::QueuedConnection);
}

ListenChannel::~ListenChannel()
{
    disconnect(m_socket.get(), nullptr, this, nullptr);
    m_clock.cancelTimer(m_idleTimer);
    // At shutdown the decoder may still be busy; it stops at its next slice of audio.
    end();
    m_thread->wait();
    --openChannels;
    if (--openPerUser[m_userId] <= 0)
        openPerUser.remove(m_userId);
}

void ListenChannel::countAudio(const QByteArray& frame)
{
    m_audioBytes += frame.size();
    const auto allowedSeconds =
        headStartSeconds + maxSpeedUp * (m_clock.nowMs() - m_openedMs) / 1000;
    if (m_audioBytes <= allowedSeconds * audioBytesPerSecond || !m_thread->isRunning())
        return;
    m_socket->close(QWebSocketProtocol::CloseCodePolicyViolated,
                    u"Audio comes faster than real time"_s);
    // What is queued for the decoder goes with its thread.
    end();
}

void ListenChannel::checkIdle()
{
    const qint64 quietMs = m_clock.nowMs() - m_lastFrameMs;
    if (quietMs < idleLimitMs) {
        m_idleTimer = m_clock.startTimer(idleLimitMs - quietMs, [this] { checkIdle(); });
        return;
    }
    m_idleTimer = 0;
    m_socket->close(QWebSocketProtocol::CloseCodePolicyViolated,
                    u"No audio or keep-alive for 30 seconds"_s);
    // A peer that has gone without a word answers no close either.
    end();
}

void ListenChannel::end()
{
    // What is still queued for the decoder is dropped with its thread's event loop.
    m_thread->requestInterruption();
    m_thread->quit();
}
