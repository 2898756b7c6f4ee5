#pragma once

#include "HttpTypes.h"

#include <QHostAddress>
#include <QObject>

#include <functional>
#include <memory>
#include <optional>

class QWebSocket;

// HTTP/1.1 and WebSocket on one port, on the main thread's event loop.
class HttpServer : public QObject {
    Q_OBJECT

public:
    using RequestHandler = std::function<void(const HttpRequest&, std::shared_ptr<HttpResponder>)>;
    // Decides on an upgrade request before the handshake: an answer refuses it.
    using UpgradeGate = std::function<std::optional<HttpResponse>(const HttpRequest&)>;
    // Receives the socket after the handshake, with the request that opened it.
    using WebSocketHandler = std::function<void(std::unique_ptr<QWebSocket>)>;

    // What one request, head and body, may bring before it is refused with 413 and its
    // connection closed: above the routes' own largest limit (a 12 MB document upload), so that
    // they answer first, and far below what would hurt the machine.
    static constexpr qint64 maxRequestBytes = 16 * 1024 * 1024;

    explicit HttpServer(QObject* parent = nullptr);
    ~HttpServer() override;

    void setRequestHandler(RequestHandler handler);
    void addWebSocketRoute(const QString& path, UpgradeGate gate, WebSocketHandler handler);

    // Port 0 lets the system pick. Returns the port, or nothing when the address is taken.
    std::optional<quint16> listen(const QHostAddress& address, quint16 port);

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};
