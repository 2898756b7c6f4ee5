#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QString>

#include <functional>
#include <optional>
#include <utility>

class QTcpServer;
class QTcpSocket;

// A real HTTP/1.1 server on 127.0.0.1 with a port the system picks, scripted per route.
// It records every request for assertions.
class FakeBackend : public QObject {
    Q_OBJECT

public:
    struct Response {
        int status = 200;
        QByteArray body;
        QList<std::pair<QByteArray, QByteArray>> headers;
        // A streamed body: the pieces are written one by one, `pieceDelayMs` apart, and the
        // connection closes after the last. A piece may hold several lines or part of one.
        QList<QByteArray> pieces;
        int pieceDelayMs = 0;
        // Announces the whole body's length, sends half of it, and closes.
        bool closeMidBody = false;
        // Written instead of an HTTP response, then the connection closes.
        std::optional<QByteArray> raw;
        // The whole response waits this long.
        int delayMs = 0;

        static Response json(int status, QByteArray body);
        static Response stream(QList<QByteArray> pieces, int pieceDelayMs = 0);
    };

    struct Request {
        QByteArray method;
        QByteArray path;
        QByteArray target; // the path with its query, as sent
        QHash<QByteArray, QByteArray> headers; // names in lower case
        QByteArray body;
        QByteArray header(const QByteArray& name) const { return headers.value(name.toLower()); }
    };

    explicit FakeBackend(QObject* parent = nullptr);
    ~FakeBackend() override;

    QString origin() const;

    // Every request to the route gets this response.
    void setRoute(const QByteArray& method, const QByteArray& path, Response response);
    // One response per request, in order; the last one repeats.
    void setRouteSequence(const QByteArray& method, const QByteArray& path,
                          QList<Response> responses);

    // Answers each request of the route by calling `handler`.
    void setHandler(const QByteArray& method, const QByteArray& path,
                    std::function<Response(const Request&)> handler);

    int requestCount(const QByteArray& method, const QByteArray& path) const;
    QList<Request> requests(const QByteArray& method, const QByteArray& path) const;
    int totalRequests() const { return int(m_log.size()); }
    int piecesSent() const { return m_piecesSent; }

private:
    struct Connection;
    void onNewConnection();
    void onReadyRead(QTcpSocket* socket);
    void respond(QTcpSocket* socket, const Request& request);
    void send(QTcpSocket* socket, const Response& response);
    void writePieces(QTcpSocket* socket, QList<QByteArray> pieces, int delayMs);

    static QByteArray key(const QByteArray& method, const QByteArray& path)
    {
        return method + ' ' + path;
    }

    QTcpServer* m_server;
    QHash<QTcpSocket*, QByteArray> m_buffers;
    QHash<QByteArray, QList<Response>> m_routes;
    QHash<QByteArray, std::function<Response(const Request&)>> m_handlers;
    QList<Request> m_log;
    int m_piecesSent = 0;
};
