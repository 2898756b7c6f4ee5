#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QUrl>
#include <QWebSocket>
#include <QWebSocketServer>

#include <utility>

// A speech vendor on 127.0.0.1 with a port the system picks: a real WebSocket server that
// records each connection's request and every frame it receives, and lets the test answer,
// send garbage or hang up. It says nothing unless told to, so a silent vendor is the default.
class FakeVendorServer : public QObject {
    Q_OBJECT

public:
    struct Frame {
        bool isText = true;
        QByteArray payload; // UTF-8 for text frames
        QString text() const { return QString::fromUtf8(payload); }
    };

    struct Connection {
        QUrl url;
        QList<std::pair<QByteArray, QByteArray>> headers;
        QStringList requestedSubprotocols;
        QList<Frame> frames;
        QPointer<QWebSocket> socket;

        QByteArray header(const QByteArray& name) const;
        QList<QByteArray> binaryFrames() const;
    };

    enum class Behaviour {
        scripted, // accepts everything and answers only what the test sends
        // Deepgram's live service: v2 sockets accept only their five query keys and are
        // closed on a JSON keep-alive.
        deepgramToday,
    };
    void setBehaviour(Behaviour behaviour) { m_behaviour = behaviour; }
    // Whether binary frames are kept in `frames`; a long run that only listens to the audio
    // as it arrives turns this off, so that the fake does not hold every second of it.
    void setKeepsBinaryFrames(bool keeps) { m_keepsBinaryFrames = keeps; }

    // `subprotocols`: those the server accepts (it answers with the first one requested).
    explicit FakeVendorServer(QStringList subprotocols = {}, QObject* parent = nullptr);

    QString origin() const
    {
        return QStringLiteral("ws://127.0.0.1:") + QString::number(m_server->serverPort());
    }

    const QList<Connection>& connections() const { return m_connections; }
    const Connection& last() const { return m_connections.last(); }
    int connectionCount() const { return int(m_connections.size()); }
    int openConnectionCount() const;

    // To the latest connection: a close handshake with this code, or a TCP reset with none.
    void sendText(const QString& text) { latest().sendTextMessage(text); }
    void sendBinary(const QByteArray& bytes) { latest().sendBinaryMessage(bytes); }
    void close(int code = 1000, const QString& reason = {})
    {
        latest().close(QWebSocketProtocol::CloseCode(code), reason);
    }
    void abort() { latest().abort(); }

    // Wait (spinning the event loop) until the latest connection has `count` frames, or until
    // `count` connections were made.
    bool waitForFrames(int count, int deadlineMs = 10'000) const;
    bool waitForConnections(int count, int deadlineMs = 10'000) const;

Q_SIGNALS:
    // Every binary frame, kept or not, with the index of its connection.
    void binaryFrameReceived(int connection, const QByteArray& bytes);

private:
    void onNewConnection();
    // A test that speaks before any connection, or to one the fake no longer holds, is wrong.
    QWebSocket& latest() const;

    QWebSocketServer* m_server;
    QList<Connection> m_connections;
    Behaviour m_behaviour = Behaviour::scripted;
    bool m_keepsBinaryFrames = true;
};
