#pragma once

#include "HttpTypes.h"

#include <QHostAddress>
#include <QObject>
#include <QStringList>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

class Clock;
class QWebSocket;

// What one server lets its clients hold. Time-outs run on the server's Clock.
struct HttpLimits {
    // A connection must bring a complete request head this soon after it opens or after its
    // previous answer started waiting, then the body within `body` of the head.
    std::chrono::milliseconds head{10'000};
    std::chrono::milliseconds body{60'000};
    // A keep-alive connection with nothing asked of it is closed after this.
    std::chrono::milliseconds idle{60'000};
    // Open connections (WebSockets included); past either cap a new one gets 503. Zero for
    // the total: derived from the descriptor limit, so the cap answers before `accept` fails.
    int maxConnections = 0;
    // High enough for an office behind one NAT address or a proxy on this machine.
    int maxConnectionsPerAddress = 1024;
    // Host names (without port) answered; any other name is refused, so a page whose DNS name
    // was rebound to this server cannot read it. Address literals are always answered: a
    // rebound page only ever sends its own name.
    QStringList allowedHosts{QStringLiteral("localhost")};
};

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

    explicit HttpServer(Clock& clock, QObject* parent = nullptr);
    ~HttpServer() override;

    // Takes effect for connections accepted afterwards.
    void setLimits(HttpLimits limits);
    const HttpLimits& limits() const;
    // Raises this process's open-file limit to its hard limit; returns the limit now in force.
    static qint64 raiseDescriptorLimit();

    void setRequestHandler(RequestHandler handler);
    void addWebSocketRoute(const QString& path, UpgradeGate gate, WebSocketHandler handler);

    // Port 0 lets the system pick. Returns the port, or nothing when the address is taken.
    std::optional<quint16> listen(const QHostAddress& address, quint16 port);

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};
