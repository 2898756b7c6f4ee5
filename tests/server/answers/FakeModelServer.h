#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QString>
#include <QTcpServer>

class QTcpSocket;

// A loopback model server on a port the system picks. Each request gets the scripted reply:
// a status, then the body pieces written `gapMs` apart.
class FakeModelServer : public QObject {
    Q_OBJECT

public:
    struct Reply {
        int status = 200;
        QByteArray contentType = "text/event-stream";
        QList<QByteArray> pieces;
        int gapMs = 0;
        // Chunked transfer lets a close before the last chunk be seen as a broken body;
        // without it the body simply ends when the connection closes.
        bool chunked = true;
        bool closeBeforeEnd = false;
    };

    struct Request {
        QByteArray method;
        QByteArray path;
        QHash<QByteArray, QByteArray> headers; // names in lower case
        QByteArray body;
    };

    FakeModelServer();

    QString origin() const;
    void setReply(Reply reply) { m_reply = std::move(reply); }
    const QList<Request>& requests() const { return m_requests; }
    int piecesSent() const { return m_piecesSent; }
    bool clientClosed() const { return m_clientClosed; }

Q_SIGNALS:
    void clientDisconnected();

private:
    void onReadyRead(QTcpSocket* socket, QByteArray* buffer);
    void writePiece(QTcpSocket* socket, qsizetype index);

    QTcpServer m_server;
    Reply m_reply;
    QList<Request> m_requests;
    int m_piecesSent = 0;
    bool m_clientClosed = false;
    bool m_finishedWriting = false;
};
