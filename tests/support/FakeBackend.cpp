#include "FakeBackend.h"

#include <QHostAddress>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

using namespace Qt::StringLiterals;

FakeBackend::Response FakeBackend::Response::json(int status, QByteArray body)
{
    Response response;
    response.status = status;
    response.body = std::move(body);
    response.headers = {{"Content-Type", "application/json"}};
    return response;
}

FakeBackend::Response FakeBackend::Response::stream(QList<QByteArray> pieces, int pieceDelayMs)
{
    Response response;
    response.pieces = std::move(pieces);
    response.pieceDelayMs = pieceDelayMs;
    response.headers = {{"Content-Type", "text/event-stream"}};
    return response;
}

FakeBackend::FakeBackend(QObject* parent)
    : QObject(parent)
    , m_server(new QTcpServer(this))
{
    connect(m_server, &QTcpServer::newConnection, this, &FakeBackend::onNewConnection);
    if (!m_server->listen(QHostAddress::LocalHost, 0))
        qFatal("FakeBackend cannot listen: %s", qPrintable(m_server->errorString()));
}

FakeBackend::~FakeBackend() = default;

QString FakeBackend::origin() const
{
    return u"http://127.0.0.1:"_s + QString::number(m_server->serverPort());
}

void FakeBackend::setRoute(const QByteArray& method, const QByteArray& path, Response response)
{
    m_routes.insert(key(method, path), {std::move(response)});
}

void FakeBackend::setRouteSequence(const QByteArray& method, const QByteArray& path,
                                   QList<Response> responses)
{
    m_routes.insert(key(method, path), std::move(responses));
}

void FakeBackend::setHandler(const QByteArray& method, const QByteArray& path,
                             std::function<Response(const Request&)> handler)
{
    m_handlers.insert(key(method, path), std::move(handler));
}

int FakeBackend::requestCount(const QByteArray& method, const QByteArray& path) const
{
    return int(requests(method, path).size());
}

QList<FakeBackend::Request> FakeBackend::requests(const QByteArray& method,
                                                  const QByteArray& path) const
{
    QList<Request> found;
    for (const auto& request : m_log) {
        if (request.method == method && request.path == path)
            found.append(request);
    }
    return found;
}

void FakeBackend::onNewConnection()
{
    while (auto* socket = m_server->nextPendingConnection()) {
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            m_buffers.remove(socket);
            socket->deleteLater();
        });
    }
}

void FakeBackend::onReadyRead(QTcpSocket* socket)
{
    auto& buffer = m_buffers[socket];
    buffer += socket->readAll();
    for (;;) {
        const auto headerEnd = buffer.indexOf("\r\n\r\n");
        if (headerEnd < 0)
            return;
        const auto lines = buffer.left(headerEnd).split('\n');
        Request request;
        const auto requestLine = lines.value(0).trimmed().split(' ');
        request.method = requestLine.value(0);
        request.target = requestLine.value(1);
        request.path = request.target.split('?').value(0);
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const auto colon = lines[i].indexOf(':');
            if (colon > 0)
                request.headers.insert(lines[i].left(colon).trimmed().toLower(),
                                       lines[i].mid(colon + 1).trimmed());
        }
        const auto length = request.headers.value("content-length").toLongLong();
        if (buffer.size() < headerEnd + 4 + length)
            return; // the body is still arriving
        request.body = buffer.mid(headerEnd + 4, length);
        buffer.remove(0, headerEnd + 4 + length);
        m_log.append(request);
        respond(socket, request);
    }
}

void FakeBackend::respond(QTcpSocket* socket, const Request& request)
{
    Response response = Response::json(404, "{}");
    const auto routeKey = key(request.method, request.path);
    if (const auto handler = m_handlers.find(routeKey); handler != m_handlers.end()) {
        response = (*handler)(request);
    } else if (const auto it = m_routes.find(routeKey); it != m_routes.end() && !it->isEmpty()) {
        response = it->size() > 1 ? it->takeFirst() : it->first();
    }
    if (response.delayMs > 0) {
        QTimer::singleShot(response.delayMs, socket,
                           [this, socket, response] { send(socket, response); });
        return;
    }
    send(socket, response);
}

void FakeBackend::send(QTcpSocket* socket, const Response& response)
{
    if (response.raw) {
        socket->write(*response.raw);
        socket->disconnectFromHost();
        return;
    }

    QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) + " Status\r\n";
    for (const auto& [name, value] : response.headers)
        head += name + ": " + value + "\r\n";
    if (!response.pieces.isEmpty()) {
        // No length: the body ends when the connection closes.
        head += "Connection: close\r\n\r\n";
        socket->write(head);
        writePieces(socket, response.pieces, response.pieceDelayMs);
        return;
    }
    head += "Content-Length: " + QByteArray::number(response.body.size()) + "\r\n";
    if (response.closeMidBody) {
        socket->write(head + "\r\n" + response.body.left(response.body.size() / 2));
        socket->flush();
        socket->disconnectFromHost();
        return;
    }
    socket->write(head + "\r\n" + response.body);
}

void FakeBackend::writePieces(QTcpSocket* socket, QList<QByteArray> pieces, int delayMs)
{
    // Without a delay every piece goes at once; with one, a piece at a time.
    QPointer<QTcpSocket> guarded(socket);
    while (!pieces.isEmpty()) {
        guarded->write(pieces.takeFirst());
        ++m_piecesSent;
        if (delayMs > 0 && !pieces.isEmpty()) {
            guarded->flush();
            QTimer::singleShot(delayMs, this, [this, guarded, pieces, delayMs] {
                if (guarded)
                    writePieces(guarded, pieces, delayMs);
            });
            return;
        }
    }
    guarded->disconnectFromHost();
}
