#include "HttpServer.h"

#include <QAbstractHttpServer>
#include <QHash>
#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QWebSocket>

namespace {

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
    for (const auto& [key, value] : request.headers())
        result.headers.append({key, value});
    result.body = request.body();
    result.peer = request.remoteAddress();
    return result;
}

// Qt 6.4's responder writes a status line, headers and raw body bytes; the chunked framing of a
// stream is ours. The socket may go at any time: every write is
// guarded by the QPointer.
class QtResponder final : public HttpResponder {
public:
    QtResponder(QHttpServerResponder&& responder, QTcpSocket* socket)
        : m_responder(std::move(responder))
        , m_socket(socket)
    {
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
    }

    void respond(const HttpResponse& response) override
    {
        if (m_state != State::idle)
            return;
        m_state = State::done;
        if (!m_socket)
            return;
        writeHead(response.status, response.contentType, response.headers);
        m_responder.writeHeader("Content-Length", QByteArray::number(response.body.size()));
        m_responder.writeBody(response.body);
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
        writeHead(status, contentType,
                  {{"Cache-Control", "no-cache"}, {"Transfer-Encoding", "chunked"}});
        m_responder.writeBody(QByteArray());
        m_socket->flush();
    }

    void writeChunk(const QByteArray& bytes) override
    {
        if (m_state != State::streaming || !m_socket || bytes.isEmpty())
            return;
        m_responder.writeBody(QByteArray::number(bytes.size(), 16) + "\r\n" + bytes + "\r\n");
        m_socket->flush();
    }

    void endStream() override
    {
        if (m_state != State::streaming)
            return;
        m_state = State::done;
        if (m_socket)
            m_responder.writeBody(QByteArrayLiteral("0\r\n\r\n"));
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

    void writeHead(int status, const QByteArray& contentType, const HttpHeaders& headers)
    {
        m_responder.writeStatusLine(QHttpServerResponder::StatusCode(status));
        if (!contentType.isEmpty())
            m_responder.writeHeader("Content-Type", contentType);
        for (const auto& [key, value] : headers)
            m_responder.writeHeader(key, value);
    }

    void peerGone()
    {
        if (m_state == State::done)
            return;
        m_state = State::done;
        if (auto callback = std::exchange(m_onDisconnected, {}))
            callback();
    }

    QHttpServerResponder m_responder;
    QPointer<QTcpSocket> m_socket;
    State m_state = State::idle;
    std::function<void()> m_onDisconnected;
};

} // namespace

// Qt HttpServer 6.4 holds a request's whole body in memory before any handler sees it, and sets
// no limit: a client announcing gigabytes would have them buffered. This server counts what
// each connection sends until its request is complete, and past the limit answers 413, closes,
// and throws away the rest unread. Its readyRead runs before the library's, which connects
// later, so the excess never reaches the library's buffer.
class GuardedTcpServer final : public QTcpServer {
public:
    explicit GuardedTcpServer(QObject* parent)
        : QTcpServer(parent)
    {
    }

    // The library has a complete request from this socket: the count starts again.
    void requestTaken(QTcpSocket* socket)
    {
        if (const auto it = m_received.find(socket); it != m_received.end())
            *it = 0;
    }
    // The socket is a WebSocket now: its frames are the WebSocket's to limit.
    void release(QTcpSocket* socket)
    {
        m_received.remove(socket);
        disconnect(socket, &QTcpSocket::readyRead, this, nullptr);
    }

protected:
    void incomingConnection(qintptr descriptor) override
    {
        auto* socket = new QTcpSocket(this);
        if (!socket->setSocketDescriptor(descriptor)) {
            delete socket;
            return;
        }
        m_received.insert(socket, 0);
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
        connect(socket, &QObject::destroyed, this, [this, socket] { m_received.remove(socket); });
        addPendingConnection(socket);
    }

private:
    void onReadyRead(QTcpSocket* socket)
    {
        const auto it = m_received.find(socket);
        if (it == m_received.end())
            return;
        if (*it < 0) {
            socket->readAll(); // refused already: nothing more is kept
            return;
        }
        *it += socket->bytesAvailable();
        if (*it <= HttpServer::maxRequestBytes)
            return;
        *it = -1;
        socket->readAll();
        const QByteArray body = R"({"error":"The request is too large"})";
        socket->write("HTTP/1.1 413 Payload Too Large\r\nContent-Type: application/json\r\n"
                      "Connection: close\r\nContent-Length: "
                      + QByteArray::number(body.size()) + "\r\n\r\n" + body);
        socket->disconnectFromHost();
    }

    // Bytes received since the last complete request; -1 once refused.
    QHash<QTcpSocket*, qint64> m_received;
};

class HttpServer::Impl final : public QAbstractHttpServer {
public:
    explicit Impl(HttpServer* owner)
        : QAbstractHttpServer(owner)
    {
        connect(this, &QAbstractHttpServer::newWebSocketConnection, this,
                [this] { takeWebSockets(); });
    }

    RequestHandler handler;
    GuardedTcpServer* guard = new GuardedTcpServer(this);
    struct WebSocketRoute {
        UpgradeGate gate;
        WebSocketHandler handler;
    };
    QHash<QString, WebSocketRoute> webSocketRoutes;
    // A refused upgrade is answered from missingHandler, the only way Qt 6.4 lets us keep the
    // socket from being handed to its WebSocket server.
    QHash<QTcpSocket*, HttpResponse> refusedUpgrades;

protected:
    bool handleRequest(const QHttpServerRequest& request, QTcpSocket* socket) override
    {
        guard->requestTaken(socket);
        auto converted = toRequest(request);
        converted.peerPort = socket->peerPort();
        converted.localPort = socket->localPort();
        if (request.value("upgrade").compare("websocket", Qt::CaseInsensitive) == 0) {
            const auto route = webSocketRoutes.constFind(converted.path);
            if (route == webSocketRoutes.cend()) {
                refusedUpgrades.insert(socket,
                                       HttpResponse::error(404, QStringLiteral("Not found")));
                return false;
            }
            if (auto refusal = route->gate(converted)) {
                refusedUpgrades.insert(socket, *refusal);
                return false;
            }
            guard->release(socket);
            return true; // the library now performs the handshake
        }
        handler(converted, std::make_shared<QtResponder>(makeResponder(request, socket), socket));
        return true;
    }

    void missingHandler(const QHttpServerRequest& request, QTcpSocket* socket) override
    {
        auto response = refusedUpgrades.take(socket);
        if (response.status == 200)
            response = HttpResponse::error(404, QStringLiteral("Not found"));
        QtResponder(makeResponder(request, socket), socket).respond(response);
    }

private:
    void takeWebSockets()
    {
        while (hasPendingWebSocketConnections()) {
            auto socket = nextPendingWebSocketConnection();
            const auto route = webSocketRoutes.constFind(socket->requestUrl().path());
            if (route == webSocketRoutes.cend()) {
                socket->close(QWebSocketProtocol::CloseCodePolicyViolated);
                continue;
            }
            route->handler(std::move(socket));
        }
    }
};

HttpServer::HttpServer(QObject* parent)
    : QObject(parent)
    , m_impl(std::make_unique<Impl>(this))
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

std::optional<quint16> HttpServer::listen(const QHostAddress& address, quint16 port)
{
    if (!m_impl->guard->listen(address, port))
        return std::nullopt;
    m_impl->bind(m_impl->guard);
    return m_impl->guard->serverPort();
}
