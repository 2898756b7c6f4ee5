#pragma once

#include <QByteArray>
#include <QHash>
#include <QJsonDocument>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QWebSocketServer>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

class QWebSocket;

// The backend's transcript WebSocket: a real server on 127.0.0.1 with a port the system picks.
// It records what each connection asked for and every frame it received, and answers each frame
// by a rule of the test (an ack by default). Tests can also push frames of their own and cut
// connections without a close frame.
class FakeTranscriptChannel : public QObject {
    Q_OBJECT

public:
    // What the server does with one received frame.
    enum class Reaction {
        ack,         // at once, one id per ack frame
        ignore,      // never
        drop,        // cut the connection without acking
        ackThenDrop, // ack, then cut the connection: the ack may or may not arrive
    };

    struct Frame {
        bool isBinary = false;
        QByteArray data;

        // Empty when the frame is not a JSON object.
        QJsonObject json() const { return QJsonDocument::fromJson(data).object(); }
        QString id() const { return json().value(QStringLiteral("id")).toString(); }
        QString content() const { return json().value(QStringLiteral("content")).toString(); }
        int revision() const { return json().value(QStringLiteral("revision")).toInt(); }
    };

    struct ConnectionRecord {
        QString query; // as requested, percent-encoding included
        bool isOpen = true;
    };

    explicit FakeTranscriptChannel(QObject* parent = nullptr);
    ~FakeTranscriptChannel() override;

    // "http://127.0.0.1:<port>", as the backend's base URL is given.
    QString baseURL() const
    {
        return QStringLiteral("http://127.0.0.1:") + QString::number(m_server->serverPort());
    }

    void setFrameRule(std::function<Reaction(const Frame&)> rule) { m_rule = std::move(rule); }
    // A refusing server answers every handshake with 403.
    void setRefusing(bool refusing) { m_refusing = refusing; }
    // Whether each ack also names, in "revisions", the highest revision received of each id.
    void setAckRevisions(bool withRevisions) { m_withRevisions = withRevisions; }

    int handshakeAttempts() const { return m_handshakeAttempts; }
    const QList<ConnectionRecord>& connections() const { return m_records; }
    int openConnectionCount() const;
    const QList<Frame>& frames() const { return m_frames; }
    // The ids of the received frames, in order, repeats included.
    QStringList receivedIds() const;
    // The text of a line that an ack of the server confirmed to the client.
    std::optional<QString> acknowledgedText(const QString& id) const;

    // On the newest open connection; false when none is open.
    bool sendAck(const QStringList& ids);
    bool sendText(const QString& text) { return send(text.toUtf8(), false); }
    bool sendBinary(const QByteArray& bytes) { return send(bytes, true); }
    // Every open connection, without a close frame.
    void closeAbruptly();

private:
    struct Peer {
        QWebSocket* socket = nullptr;
        int index = 0;
    };
    struct Line {
        int revision = -1;
        QString content;
    };

    void onNewConnection();
    void onFrame(Peer* peer, const Frame& frame);
    void ack(Peer* peer, const Frame& frame);
    void sendAckFrame(Peer* peer, const QStringList& ids);
    bool send(const QByteArray& data, bool isBinary);
    void cut(Peer* peer);
    Peer* newestOpen();

    QWebSocketServer* m_server;
    std::vector<std::unique_ptr<Peer>> m_peers;
    QList<ConnectionRecord> m_records;
    QList<Frame> m_frames;
    QHash<QString, Line> m_latest; // the highest revision received, a later frame winning a tie
    QHash<QString, Line> m_acknowledgedLines; // what an ack confirmed
    bool m_withRevisions = false;
    std::function<Reaction(const Frame&)> m_rule;
    bool m_refusing = false;
    int m_handshakeAttempts = 0;
};
