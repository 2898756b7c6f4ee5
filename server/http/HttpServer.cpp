#include "HttpServer.h"

#include "Clock.h"
#include "RequestHead.h"

#include <QAbstractHttpServer>
#include <QFile>
#include <QHash>
#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QPointer>
#include <QSet>
#include <QTcpServer>
#include <QTcpSocket>
#include <QWebSocket>
#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
#include <QHttpHeaders>
#include <QHttpServerWebSocketUpgradeResponse>
#endif

#include <algorithm>
#include <limits>

#include <sys/resource.h>

namespace {

// A file body goes out in pieces of this size, the next once the socket has taken the last.
constexpr qint64 filePieceBytes = 256 * 1024;

void refuse(QTcpSocket* socket, const QByteArray& statusLine, const char* message)
{
    const QByteArray body = QByteArrayLiteral("{\"error\":\"") + message + "\"}";
    socket->write("HTTP/1.1 " + statusLine + "\r\nContent-Type: application/json\r\n"
                  "Connection: close\r\nContent-Length: " + QByteArray::number(body.size())
                  + "\r\n\r\n" + body);
    socket->disconnectFromHost();
}

QByteArray methodName(QHttpServerRequest::Method method)
{
    using M = QHttpServerRequest::Method;
    switch (method) {
    case M::Get:
        return QByteArrayLiteral("GET");
    case M::Put:
        return QByteArrayLiteral("PUT");
    case M::Delete:
        return QByteArrayLiteral("DELETE");
    case M::Post:
        return QByteArrayLiteral("POST");
    case M::Head:
        return QByteArrayLiteral("HEAD");
    case M::Options:
        return QByteArrayLiteral("OPTIONS");
    case M::Patch:
        return QByteArrayLiteral("PATCH");
    default:
        return QByteArrayLiteral("OTHER");
    }
}

HttpRequest toRequest(const QHttpServerRequest& request)
{
    HttpRequest result;
    result.method = methodName(request.method());
    result.path = request.url().path(QUrl::FullyEncoded); // segments are decoded one by one
    result.query = request.query();
#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
    const auto& headers = request.headers();
    for (qsizetype i = 0; i < headers.size(); ++i) {
        const auto name = headers.nameAt(i);
        result.headers.append({QByteArray(name.data(), name.size()), headers.valueAt(i).toByteArray()});
    }
#else
    for (const auto& [key, value] : request.headers())
        result.headers.append({key, value});
#endif
    result.body = request.body();
    result.peer = request.remoteAddress();
    return result;
}

class GuardedTcpServer;

// One TCP connection, named by its far end: the library hands us a request without its socket
// on some versions, but always with the peer.
using PeerKey = std::pair<QString, quint16>;

PeerKey peerKey(const QHostAddress& address, quint16 port)
{
    return {address.toString(), port};
}

// What the guard knows of one connection. A child of its socket, so that it goes with the
// socket whoever ends up owning it (the library, or a WebSocket after an upgrade).
class ConnectionState final : public QObject {
public:
    enum class Phase { head, body, answering, idle, upgrading, upgraded, refused };

    ConnectionState(QTcpSocket* socket, GuardedTcpServer* guard);
    ~ConnectionState() override;

    void onReadyRead();
    // The library has the whole request: no time-out runs while the route answers.
    void requestTaken();
    // The answer is written: the connection may now sit idle for a while.
    void answered();
    void upgrading();
    void upgraded();
    // Uncounts the connection, once.
    void release();
    // The far end went. Qt 6.4 never destroys the socket of a connection closed while the
    // library still counts its request as being handled (a client that reads its answer and
    // closes): it is uncounted here and destroyed once no answer is being written to it.
    void peerClosed();

    QTcpSocket* socket() const { return m_socket; }
    PeerKey key() const { return peerKey(peer, peerPort); }

    const QHostAddress peer;
    const quint16 peerPort;

private:
    void arm(std::chrono::milliseconds delay);
    void disarm();
    void expired();

    QTcpSocket* m_socket;
    QPointer<GuardedTcpServer> m_guard;
    Phase m_phase = Phase::head;
    qint64 m_received = 0; // since the last complete request
    RequestHead::Scanner m_head;
    Clock::TimerId m_timer = 0;
    bool m_counted = true;
    bool m_peerGone = false;
};

// Qt HttpServer (6.4 to 6.8) holds a request's whole body in memory before any handler sees it,
// and has no limits of its own: no size cap, no time-outs, no connection cap. This server keeps them:
// it counts what each connection sends until its request is complete (past the limit: 413,
// closed, the rest thrown away unread), times out heads, bodies and idle connections on the
// server's Clock, and caps connections per address and in all. Its readyRead runs before the
// library's, which connects later, so the excess never reaches the library's buffer. A real
// upgrade makes the library disconnect every slot of the socket, ours included: from then on
// the WebSocket's own frame limit applies.
class GuardedTcpServer final : public QTcpServer {
public:
    GuardedTcpServer(Clock& clock, QObject* parent)
        : QTcpServer(parent)
        , clock(clock)
    {
    }

    Clock& clock;
    HttpLimits limits;
    int maxConnections = 0; // in force, resolved at listen

    ConnectionState* stateOf(const QHostAddress& peer, quint16 peerPort) const
    {
        return m_states.value(peerKey(peer, peerPort));
    }

    void opened(ConnectionState* state)
    {
        m_states.insert(state->key(), state);
        ++m_open;
        ++m_perAddress[state->peer];
    }
    void closed(ConnectionState* state)
    {
        m_states.remove(state->key());
        m_upgrades.remove(state->key());
        --m_open;
        if (const auto it = m_perAddress.find(state->peer); it != m_perAddress.end() && --*it <= 0)
            m_perAddress.erase(it);
    }

    // An upgrade handed to the library, found again by its peer when its WebSocket comes out.
    void expectUpgrade(ConnectionState* state) { m_upgrades.insert(state->key(), state); }
    void upgradeDone(const QHostAddress& peer, quint16 peerPort)
    {
        if (const auto state = m_upgrades.take(peerKey(peer, peerPort)))
            state->upgraded();
    }

protected:
    void incomingConnection(qintptr descriptor) override
    {
        auto* socket = new QTcpSocket(this);
        if (!socket->setSocketDescriptor(descriptor)) {
            delete socket;
            return;
        }
        const auto peer = socket->peerAddress();
        if (m_open >= maxConnections || m_perAddress.value(peer) >= limits.maxConnectionsPerAddress) {
            connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            refuse(socket, "503 Service Unavailable", "Too many connections, try again later");
            return;
        }
        auto* state = new ConnectionState(socket, this);
        connect(socket, &QTcpSocket::readyRead, state, &ConnectionState::onReadyRead);
        addPendingConnection(socket);
    }

private:
    int m_open = 0;
    // A state removes itself as its socket goes.
    QHash<PeerKey, ConnectionState*> m_states;
    QHash<QHostAddress, int> m_perAddress;
    QHash<PeerKey, QPointer<ConnectionState>> m_upgrades;
};

ConnectionState::ConnectionState(QTcpSocket* socket, GuardedTcpServer* guard)
    : QObject(socket)
    , peer(socket->peerAddress())
    , peerPort(socket->peerPort())
    , m_socket(socket)
    , m_guard(guard)
{
    guard->opened(this);
    connect(socket, &QTcpSocket::disconnected, this, &ConnectionState::peerClosed);
    arm(guard->limits.head);
}

ConnectionState::~ConnectionState()
{
    release();
}

void ConnectionState::release()
{
    disarm();
    if (m_guard && std::exchange(m_counted, false))
        m_guard->closed(this);
}

void ConnectionState::peerClosed()
{
    m_peerGone = true;
    release();
    if (m_phase != Phase::answering && m_phase != Phase::upgrading && m_phase != Phase::upgraded)
        m_socket->deleteLater();
}

void ConnectionState::onReadyRead()
{
    if (m_phase == Phase::refused || m_phase == Phase::upgraded || !m_guard) {
        m_socket->readAll(); // nothing more is kept
        return;
    }
    const qint64 fresh = m_socket->bytesAvailable();
    if (fresh == 0)
        return; // Qt 6.8 signals readyRead itself after each answer
    m_received += fresh;
    if (m_received > HttpServer::maxRequestBytes) {
        m_phase = Phase::refused;
        disarm();
        m_socket->readAll();
        refuse(m_socket, "413 Payload Too Large", "The request is too large");
        return;
    }
    if (m_phase == Phase::idle || m_phase == Phase::answering) {
        // The first bytes of the next request.
        m_phase = Phase::head;
        m_head.reset();
        arm(m_guard->limits.head);
    }
    if (m_phase != Phase::head)
        return;
    switch (m_head.feed(m_socket->peek(std::min(fresh, RequestHead::maxBytes + 4)))) {
    case RequestHead::Scanner::State::complete:
        m_phase = Phase::body;
        arm(m_guard->limits.body);
        break;
    case RequestHead::Scanner::State::tooLarge:
        m_phase = Phase::refused;
        disarm();
        m_socket->readAll();
        refuse(m_socket, "431 Request Header Fields Too Large", "The request head is too large");
        break;
    case RequestHead::Scanner::State::incomplete:
        break;
    }
}

void ConnectionState::requestTaken()
{
    m_received = 0;
    m_head.reset();
    if (m_phase != Phase::refused) {
        m_phase = Phase::answering;
        disarm();
    }
}

void ConnectionState::answered()
{
    if (m_phase != Phase::answering || !m_guard)
        return;
    m_phase = Phase::idle;
    if (m_peerGone) {
        m_socket->deleteLater();
        return;
    }
    arm(m_guard->limits.idle);
}

void ConnectionState::upgrading()
{
    if (!m_guard)
        return;
    m_phase = Phase::upgrading;
    m_guard->expectUpgrade(this);
    // The handshake follows at once; one that never completes is closed like a slow head.
    arm(m_guard->limits.head);
}

void ConnectionState::upgraded()
{
    m_phase = Phase::upgraded;
    disarm();
}

void ConnectionState::arm(std::chrono::milliseconds delay)
{
    disarm();
    m_timer = m_guard->clock.startTimer(delay.count(), [self = QPointer(this)] {
        if (self) {
            self->m_timer = 0;
            self->expired();
        }
    });
}

void ConnectionState::disarm()
{
    if (m_timer && m_guard)
        m_guard->clock.cancelTimer(m_timer);
    m_timer = 0;
}

void ConnectionState::expired()
{
    const auto phase = std::exchange(m_phase, Phase::refused);
    switch (phase) {
    case Phase::head:
    case Phase::body:
        refuse(m_socket, "408 Request Timeout", "The request took too long to arrive");
        break;
    case Phase::idle:
        m_socket->disconnectFromHost();
        break;
    case Phase::upgrading:
        m_socket->abort();
        break;
    default:
        m_phase = phase;
        break;
    }
}

// Sends a file from disk as the socket drains, so that only a piece of it is ever in memory.
class FilePump final : public QObject {
public:
    FilePump(QTcpSocket* socket, ConnectionState* state, std::unique_ptr<QFile> file)
        : QObject(socket)
        , m_socket(socket)
        , m_state(state)
        , m_file(std::move(file))
        , m_left(m_file->size())
    {
        connect(socket, &QTcpSocket::bytesWritten, this, &FilePump::pump);
    }

    void pump()
    {
        while (m_left > 0 && m_socket->bytesToWrite() < filePieceBytes) {
            const QByteArray piece = m_file->read(std::min(m_left, filePieceBytes));
            if (piece.isEmpty()) {
                // The file shrank under us: the client must not take a short body for whole.
                m_socket->abort();
                return;
            }
            m_left -= piece.size();
            m_socket->write(piece);
        }
        if (m_left == 0) {
            if (m_state)
                m_state->answered();
            disconnect(m_socket, nullptr, this, nullptr);
            deleteLater();
        }
    }

private:
    QTcpSocket* m_socket;
    QPointer<ConnectionState> m_state;
    std::unique_ptr<QFile> m_file;
    qint64 m_left;
};


// The reason phrases of the statuses this server sends.
QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 200: return QByteArrayLiteral("OK");
    case 201: return QByteArrayLiteral("Created");
    case 204: return QByteArrayLiteral("No Content");
    case 302: return QByteArrayLiteral("Found");
    case 303: return QByteArrayLiteral("See Other");
    case 400: return QByteArrayLiteral("Bad Request");
    case 401: return QByteArrayLiteral("Unauthorized");
    case 403: return QByteArrayLiteral("Forbidden");
    case 404: return QByteArrayLiteral("Not Found");
    case 405: return QByteArrayLiteral("Method Not Allowed");
    case 408: return QByteArrayLiteral("Request Timeout");
    case 409: return QByteArrayLiteral("Conflict");
    case 413: return QByteArrayLiteral("Request Entity Too Large");
    case 415: return QByteArrayLiteral("Unsupported Media Type");
    case 421: return QByteArrayLiteral("Misdirected Request");
    case 429: return QByteArrayLiteral("Too Many Requests");
    case 431: return QByteArrayLiteral("Request Header Fields Too Large");
    case 500: return QByteArrayLiteral("Internal Server Error");
    case 502: return QByteArrayLiteral("Bad Gateway");
    case 503: return QByteArrayLiteral("Service Unavailable");
    default: return {};
    }
}

// Status line and headers, without the blank line that ends them.
QByteArray head(int status, const QByteArray& contentType, const HttpHeaders& headers)
{
    QByteArray result = "HTTP/1.1 " + QByteArray::number(status);
    if (const auto reason = reasonPhrase(status); !reason.isEmpty())
        result += ' ' + reason;
    result += "\r\n";
    if (!contentType.isEmpty())
        result += "Content-Type: " + contentType + "\r\n";
    for (const auto& [key, value] : headers)
        result += key + ": " + value + "\r\n";
    return result;
}

class QtResponder;
// Answers still being written, which the server ends before its connections go.
using OpenAnswers = QSet<QtResponder*>;

// Writes answers to the socket itself: the library's writers differ between versions (6.8
// lower-cases header names, adds a Content-Length of its own, refuses an empty last chunk), and
// a stream's chunked framing is ours either way. On Qt 6.8 the library's responder is kept until
// the answer is complete, since only its end lets the library read the connection's next
// request. The socket may go at any time: every write is guarded by the QPointer.
class QtResponder final : public HttpResponder {
public:
#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
    using LibraryResponder = QHttpServerResponder;
#else
    struct LibraryResponder {}; // Qt 6.4 needs none
#endif

    QtResponder(LibraryResponder&& library, QTcpSocket* socket, ConnectionState* state,
                const std::shared_ptr<OpenAnswers>& open)
        : m_library(std::move(library))
        , m_socket(socket)
        , m_connection(state)
        , m_open(open)
    {
        open->insert(this);
        if (socket)
            QObject::connect(socket, &QTcpSocket::disconnected, socket, [this] { peerGone(); });
    }

    ~QtResponder() override
    {
        if (m_socket)
            QObject::disconnect(m_socket, &QTcpSocket::disconnected, m_socket, nullptr);
        if (m_state == State::idle)
            respond(HttpResponse::error(500, QStringLiteral("The request was not answered")));
        else if (m_state == State::streaming)
            endStream();
        if (const auto open = m_open.lock())
            open->remove(this);
    }

    // The server is going: the library's side of this answer goes first.
    void release() { m_library.reset(); }

    void respond(const HttpResponse& response) override
    {
        if (m_state != State::idle)
            return;
        m_state = State::done;
        if (!m_socket)
            return;
        if (!response.bodyFile.isEmpty()) {
            respondWithFile(response);
            return;
        }
        m_socket->write(head(response.status, response.contentType, response.headers)
                        + "Content-Length: " + QByteArray::number(response.body.size())
                        + "\r\n\r\n" + response.body);
        finished(response.headers);
    }

    void beginStream(int status, const QByteArray& contentType) override
    {
        if (m_state != State::idle)
            return;
        m_state = State::streaming;
        if (!m_socket)
            return;
        // A stream's chunks are small and go one by one: with Nagle's algorithm each would wait
        // for the ACK of the one before, which the client may delay by 40 ms.
        m_socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        m_socket->write(head(status, contentType,
                             {{"Cache-Control", "no-cache"}, {"Transfer-Encoding", "chunked"}})
                        + "\r\n");
        m_socket->flush();
    }

    void writeChunk(const QByteArray& bytes) override
    {
        if (m_state != State::streaming || !m_socket || bytes.isEmpty())
            return;
        m_socket->write(QByteArray::number(bytes.size(), 16) + "\r\n" + bytes + "\r\n");
        m_socket->flush();
    }

    void endStream() override
    {
        if (m_state != State::streaming)
            return;
        m_state = State::done;
        if (!m_socket)
            return;
        m_socket->write(QByteArrayLiteral("0\r\n\r\n"));
        finished({});
    }

    bool isConnected() const override
    {
        return m_socket && m_socket->state() == QAbstractSocket::ConnectedState;
    }

    void setOnDisconnected(std::function<void()> callback) override
    {
        m_onDisconnected = std::move(callback);
    }

private:
    enum class State { idle, streaming, done };

    void respondWithFile(const HttpResponse& response)
    {
        auto file = std::make_unique<QFile>(response.bodyFile);
        if (!file->open(QIODevice::ReadOnly)) {
            m_state = State::idle;
            respond(HttpResponse::error(404, QStringLiteral("Not found")));
            return;
        }
        m_socket->write(head(response.status, response.contentType, response.headers)
                        + "Content-Length: " + QByteArray::number(file->size()) + "\r\n\r\n");
        (new FilePump(m_socket, m_connection, std::move(file)))->pump();
    }

    void finished(const HttpHeaders& headers)
    {
        for (const auto& [key, value] : headers) {
            if (key.compare("Connection", Qt::CaseInsensitive) == 0
                && value.compare("close", Qt::CaseInsensitive) == 0) {
                // Handed over now: Qt 6.8 deletes a closing socket as soon as the answer ends.
                m_socket->flush();
                m_socket->disconnectFromHost();
                return;
            }
        }
        if (m_connection)
            m_connection->answered();
    }

    void peerGone()
    {
        if (m_state == State::done)
            return;
        m_state = State::done;
        if (auto callback = std::exchange(m_onDisconnected, {}))
            callback();
    }

    std::optional<LibraryResponder> m_library;
    QPointer<QTcpSocket> m_socket;
    QPointer<ConnectionState> m_connection;
    std::weak_ptr<OpenAnswers> m_open;
    State m_state = State::idle;
    std::function<void()> m_onDisconnected;
};

} // namespace

class HttpServer::Impl final : public QAbstractHttpServer {
public:
    Impl(Clock& clock, HttpServer* owner)
        : QAbstractHttpServer(owner)
        , guard(new GuardedTcpServer(clock, this))
    {
        connect(this, &QAbstractHttpServer::newWebSocketConnection, this,
                [this] { takeWebSockets(); });
#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
        addWebSocketUpgradeVerifier(this, [this](const QHttpServerRequest& request) {
            return verifyUpgrade(request);
        });
#endif
    }

    ~Impl() override
    {
        for (auto* answer : std::as_const(*openAnswers))
            answer->release();
    }

    RequestHandler handler;
    GuardedTcpServer* guard;
    struct WebSocketRoute {
        UpgradeGate gate;
        WebSocketHandler handler;
    };
    QHash<QString, WebSocketRoute> webSocketRoutes;
    // A refused upgrade is answered from missingHandler, the only way the library lets us keep
    // the socket from being handed to its WebSocket server.
    QHash<PeerKey, HttpResponse> refusedUpgrades;
    const std::shared_ptr<OpenAnswers> openAnswers = std::make_shared<OpenAnswers>();

protected:
#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
    // Real upgrades go to verifyUpgrade instead; what comes here is an ordinary request.
    bool handleRequest(const QHttpServerRequest& request, QHttpServerResponder& responder) override
    {
        auto* state = taken(request.remoteAddress(), request.remotePort());
        auto* socket = state ? state->socket() : nullptr;
        auto converted = toRequest(request);
        converted.peerPort = request.remotePort();
        converted.localPort = request.localPort();
        auto refusal = refused(request, converted);
        // Claimed but not an upgrade to the parser: the library would answer nothing.
        if (!refusal && isWebSocket(request))
            refusal = notAnUpgrade();
        if (refusal)
            QtResponder(std::move(responder), socket, state, openAnswers).respond(*refusal);
        else
            handler(converted,
                    std::make_shared<QtResponder>(std::move(responder), socket, state, openAnswers));
        return true;
    }

    void missingHandler(const QHttpServerRequest& request, QHttpServerResponder& responder) override
    {
        auto* state = guard->stateOf(request.remoteAddress(), request.remotePort());
        QtResponder(std::move(responder), state ? state->socket() : nullptr, state, openAnswers)
            .respond(refusedUpgrade(peerKey(request.remoteAddress(), request.remotePort())));
    }

private:
    QHttpServerWebSocketUpgradeResponse verifyUpgrade(const QHttpServerRequest& request)
    {
        auto* state = taken(request.remoteAddress(), request.remotePort());
        auto converted = toRequest(request);
        converted.peerPort = request.remotePort();
        converted.localPort = request.localPort();
        auto refusal = refused(request, converted);
        if (!refusal)
            refusal = admitUpgrade(converted, state);
        if (!refusal)
            return QHttpServerWebSocketUpgradeResponse::accept();
        // Passed on, the library calls missingHandler, which answers like every other refusal
        // (a denial would be a bare status line).
        refusedUpgrades.insert(peerKey(request.remoteAddress(), request.remotePort()), *refusal);
        return QHttpServerWebSocketUpgradeResponse::passToNext();
    }
#else
    bool handleRequest(const QHttpServerRequest& request, QTcpSocket* socket) override
    {
        auto* state = taken(socket->peerAddress(), socket->peerPort());
        auto converted = toRequest(request);
        converted.peerPort = socket->peerPort();
        converted.localPort = socket->localPort();
        const bool upgrade =
            RequestHead::asksForUpgrade(request.value("upgrade"), request.value("connection"));
        const auto answer = [&](const HttpResponse& response) {
            if (upgrade) { // returning true would hand the socket to the WebSocket server
                refusedUpgrades.insert(peerKey(socket->peerAddress(), socket->peerPort()), response);
                return false;
            }
            QtResponder({}, socket, state, openAnswers).respond(response);
            return true;
        };
        if (auto refusal = refused(request, converted))
            return answer(*refusal);
        if (!isWebSocket(request)) {
            handler(converted, std::make_shared<QtResponder>(QtResponder::LibraryResponder{}, socket,
                                                              state, openAnswers));
            return true;
        }
        // Claimed but not an upgrade to the parser: the library would treat it as an ordinary
        // request that nobody answers.
        if (!upgrade)
            return answer(notAnUpgrade());
        if (auto refusal = admitUpgrade(converted, state))
            return answer(*refusal);
        return true; // the library now performs the handshake
    }

    void missingHandler(const QHttpServerRequest& request, QTcpSocket* socket) override
    {
        Q_UNUSED(request);
        QtResponder({}, socket, guard->stateOf(socket->peerAddress(), socket->peerPort()),
                    openAnswers)
            .respond(refusedUpgrade(peerKey(socket->peerAddress(), socket->peerPort())));
    }
#endif

private:
    static HttpResponse closing(HttpResponse response)
    {
        response.headers.emplaceBack("Connection", "close");
        return response;
    }

    static bool isWebSocket(const QHttpServerRequest& request)
    {
        return request.value("upgrade").compare("websocket", Qt::CaseInsensitive) == 0;
    }

    static HttpResponse notAnUpgrade()
    {
        return closing(HttpResponse::error(
            400, QStringLiteral("A WebSocket request needs \"Connection: upgrade\"")));
    }

    // The whole request is in: the connection's guard stops timing it.
    ConnectionState* taken(const QHostAddress& peer, quint16 peerPort)
    {
        auto* state = guard->stateOf(peer, peerPort);
        if (state)
            state->requestTaken();
        return state;
    }

    // What every request, upgrade or not, is refused for before any route sees it.
    std::optional<HttpResponse> refused(const QHttpServerRequest& request,
                                        const HttpRequest& converted) const
    {
        if (!RequestHead::hostAllowed(request.value("host"), guard->limits.allowedHosts))
            return closing(HttpResponse::error(
                421, QStringLiteral("This server does not answer to that host name")));
        // Sandboxed frames, data: and file: pages post with an opaque origin; our own pages and
        // the program never do.
        if (converted.method != "GET" && converted.method != "HEAD"
            && request.value("origin").trimmed() == "null")
            return HttpResponse::error(403, QStringLiteral("Requests from an opaque origin are refused"));
        return std::nullopt;
    }

    // Nothing when the upgrade may go ahead; the connection's guard then times the handshake.
    std::optional<HttpResponse> admitUpgrade(const HttpRequest& converted, ConnectionState* state)
    {
        const auto route = webSocketRoutes.constFind(converted.path);
        if (route == webSocketRoutes.cend())
            return HttpResponse::error(404, QStringLiteral("Not found"));
        if (auto refusal = route->gate(converted))
            return refusal;
        if (state)
            state->upgrading();
        return std::nullopt;
    }

    HttpResponse refusedUpgrade(const PeerKey& key)
    {
        auto response = refusedUpgrades.take(key);
        if (response.status == 200)
            response = HttpResponse::error(404, QStringLiteral("Not found"));
        return response;
    }

    void takeWebSockets()
    {
        while (hasPendingWebSocketConnections()) {
            auto socket = nextPendingWebSocketConnection();
            guard->upgradeDone(socket->peerAddress(), socket->peerPort());
            const auto route = webSocketRoutes.constFind(socket->requestUrl().path());
            if (route == webSocketRoutes.cend()) {
                socket->close(QWebSocketProtocol::CloseCodePolicyViolated);
                continue;
            }
            route->handler(std::move(socket));
        }
    }
};

HttpServer::HttpServer(Clock& clock, QObject* parent)
    : QObject(parent)
    , m_impl(std::make_unique<Impl>(clock, this))
{
    m_impl->handler = [](const HttpRequest&, std::shared_ptr<HttpResponder> responder) {
        responder->respond(HttpResponse::error(404, QStringLiteral("Not found")));
    };
}

HttpServer::~HttpServer() = default;

void HttpServer::setRequestHandler(RequestHandler handler)
{
    m_impl->handler = std::move(handler);
}

void HttpServer::addWebSocketRoute(const QString& path, UpgradeGate gate, WebSocketHandler handler)
{
    m_impl->webSocketRoutes.insert(path, {std::move(gate), std::move(handler)});
}

void HttpServer::setLimits(HttpLimits limits)
{
    if (limits.maxConnections > 0)
        m_impl->guard->maxConnections = limits.maxConnections;
    m_impl->guard->limits = std::move(limits);
}

const HttpLimits& HttpServer::limits() const
{
    return m_impl->guard->limits;
}

qint64 HttpServer::raiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return 1024;
    if (limit.rlim_cur < limit.rlim_max) {
        auto raised = limit;
        raised.rlim_cur = limit.rlim_max;
        if (setrlimit(RLIMIT_NOFILE, &raised) == 0)
            limit = raised;
    }
    return limit.rlim_cur == RLIM_INFINITY ? std::numeric_limits<int>::max()
                                           : qint64(limit.rlim_cur);
}

std::optional<quint16> HttpServer::listen(const QHostAddress& address, quint16 port)
{
    // Descriptors the server keeps for itself: the database, files being sent, model servers.
    constexpr qint64 reserved = 64;
    constexpr qint64 largestDefault = 16'384;
    auto& guard = *m_impl->guard;
    guard.maxConnections = guard.limits.maxConnections > 0
                               ? guard.limits.maxConnections
                               : int(std::clamp(raiseDescriptorLimit() - reserved, qint64(16),
                                                largestDefault));
    if (!m_impl->guard->listen(address, port))
        return std::nullopt;
#if QT_VERSION >= QT_VERSION_CHECK(6, 8, 0)
    if (!m_impl->bind(m_impl->guard))
        return std::nullopt;
#else
    m_impl->bind(m_impl->guard);
#endif
    return m_impl->guard->serverPort();
}
