#include "FakeModelServer.h"

#include <QPointer>
#include <QTcpSocket>
#include <QTimer>

#include <memory>

FakeModelServer::FakeModelServer()
{
    connect(&m_server, &QTcpServer::newConnection, this, [this] {
        while (auto* socket = m_server.nextPendingConnection()) {
            socket->setParent(this);
            auto buffer = std::make_shared<QByteArray>();
            connect(socket, &QTcpSocket::readyRead, this,
                    [this, socket, buffer] { onReadyRead(socket, buffer.get()); });
            connect(socket, &QTcpSocket::disconnected, this, [this] {
                if (!m_finishedWriting)
                    m_clientClosed = true;
                Q_EMIT clientDisconnected();
            });
        }
    });
    m_server.listen(QHostAddress::LocalHost, 0);
}

QString FakeModelServer::origin() const
{
    return QStringLiteral("http://127.0.0.1:%1").arg(m_server.serverPort());
}

void FakeModelServer::onReadyRead(QTcpSocket* socket, QByteArray* buffer)
{
    *buffer += socket->readAll();
    const auto headerEnd = buffer->indexOf("\r\n\r\n");
    if (headerEnd < 0)
        return;
    Request request;
    const auto lines = buffer->left(headerEnd).split('\n');
    const auto first = lines.value(0).trimmed().split(' ');
    request.method = first.value(0);
    request.path = first.value(1);
    for (qsizetype i = 1; i < lines.size(); ++i) {
        const auto colon = lines.at(i).indexOf(':');
        if (colon > 0)
            request.headers.insert(lines.at(i).left(colon).trimmed().toLower(),
                                   lines.at(i).mid(colon + 1).trimmed());
    }
    const auto length = request.headers.value("content-length").toLongLong();
    if (buffer->size() < headerEnd + 4 + length)
        return;
    request.body = buffer->mid(headerEnd + 4, length);
    buffer->clear();
    m_requests.append(request);

    QByteArray head = "HTTP/1.1 " + QByteArray::number(m_reply.status) + " Scripted\r\n";
    head += "Content-Type: " + m_reply.contentType + "\r\n";
    head += m_reply.chunked ? "Transfer-Encoding: chunked\r\n" : "Connection: close\r\n";
    socket->write(head + "\r\n");
    writePiece(socket, 0);
}

void FakeModelServer::writePiece(QTcpSocket* socket, qsizetype index)
{
    if (socket->state() != QAbstractSocket::ConnectedState)
        return;
    if (index == m_reply.pieces.size()) {
        if (m_reply.chunked && !m_reply.closeBeforeEnd)
            socket->write("0\r\n\r\n");
        m_finishedWriting = true;
        socket->disconnectFromHost();
        return;
    }
    const auto& piece = m_reply.pieces.at(index);
    socket->write(m_reply.chunked ? QByteArray::number(piece.size(), 16) + "\r\n" + piece + "\r\n"
                                  : piece);
    socket->flush();
    ++m_piecesSent;
    QPointer<QTcpSocket> guard(socket);
    QTimer::singleShot(m_reply.gapMs, this, [this, guard, index] {
        if (guard)
            writePiece(guard, index + 1);
    });
}
