#pragma once

#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

class QWebSocket;
class QWebSocketServer;

// The backend's transcript WebSocket: a real server on 127.0.0.1 with a port the system picks.
// It records what each connection asked for and every frame it received, and answers each frame
// by an ack policy or by a rule of the test. Tests can also push arbitrary frames (garbage,
// binary, huge) and cut connections without a close frame.
class FakeTranscriptChannel : public QObject {
    Q_OBJECT

public:
    enum class AckPolicy {
        ackEverything,
        ackNothing,
        // Acks every frame but cuts each connection at its k-th frame, which stays unacknowledged.
        dropAfterFrames,
        // Acks every frame twice, then acks an id that nobody sent.
        duplicateAndUnknown,
    };

    // What a rule of the test does with one received frame.
    enum class Reaction {
        ack,         // at once, one id per ack frame
        hold,        // later, with releaseHeld(), if the connection is still open
        ignore,      // never
        drop,        // cut the connection without acking
        ackThenDrop, // ack, then cut the connection: the ack may or may not arrive
    };

    struct Frame {
        int connection = 0; // index into connections()
        bool isBinary = false;
        QByteArray data;

        // Empty when the frame is not a JSON object.
        QJsonObject json() const;
        QString id() const { return json().value(QStringLiteral("id")).toString(); }
        QString content() const { return json().value(QStringLiteral("content")).toString(); }
        // 0 for a client that does not number its sends.
        int revision() const { return json().value(QStringLiteral("revision")).toInt(); }
    };

    struct ConnectionRecord {
        QString path;
        QString query; // as requested, percent-encoding included
        bool isOpen = true;
        // From the client's close frame; nothing when the connection was cut without one.
        std::optional<int> closeCode;
    };

    static inline const QString unknownAckId = QStringLiteral("unknown-ack-id");

    explicit FakeTranscriptChannel(QObject* parent = nullptr);
    ~FakeTranscriptChannel() override;

    // "http://127.0.0.1:<port>", as the backend's base URL is given.
    QString baseURL() const;

    void setAckPolicy(AckPolicy policy, int k = 0);
    // Decides for every frame instead of the policy.
    void setFrameRule(std::function<Reaction(const Frame&)> rule);
    // A refusing server answers every handshake with 403.
    void setRefusing(bool refusing) { m_refusing = refusing; }
    // Whether each ack also names, in "revisions", the highest revision received of each id.
    void setAckRevisions(bool withRevisions) { m_withRevisions = withRevisions; }
    // Whether a new connection is greeted with {"type":"connected"}; on by default.
    void setGreeting(bool greeting) { m_greeting = greeting; }

    int handshakeAttempts() const { return m_handshakeAttempts; }
    const QList<ConnectionRecord>& connections() const { return m_records; }
    int openConnectionCount() const;
    const QList<Frame>& frames() const { return m_frames; }
    // The ids of the received frames, in order, repeats included.
    QStringList receivedIds() const;
    // Every id the server has put into an ack frame.
    const QSet<QString>& acknowledgedIds() const { return m_acknowledged; }
    // What the server holds of a line: the text of the highest revision received, a later
    // frame winning a tie; and the text that an ack of the server confirmed to the client.
    QString latestText(const QString& id) const { return m_latest.value(id).content; }
    std::optional<QString> acknowledgedText(const QString& id) const;

    // On the newest open connection; false when none is open.
    bool sendAck(const QStringList& ids);
    bool sendText(const QString& text);
    bool sendBinary(const QByteArray& bytes);
    // Acks the held ids of each open connection in one frame; held ids of closed ones are lost.
    void releaseHeld();
    // Every open connection, without a close frame.
    void closeAbruptly();

private:
    struct Peer {
        QWebSocket* socket = nullptr;
        int index = 0;
        int framesReceived = 0;
        QList<Frame> held;
        bool wasCut = false;
    };

    void onNewConnection();
    void onFrame(Peer* peer, bool isBinary, const QByteArray& data);
    void ack(Peer* peer, const QList<Frame>& frames);
    void sendAckFrame(Peer* peer, const QStringList& ids);
    void cut(Peer* peer);
    Peer* newestOpen();

    QWebSocketServer* m_server;
    std::vector<std::unique_ptr<Peer>> m_peers;
    QList<ConnectionRecord> m_records;
    QList<Frame> m_frames;
    QSet<QString> m_acknowledged;
    struct Line {
        int revision = -1;
        QString content;
    };
    QHash<QString, Line> m_latest;
    QHash<QString, Line> m_acknowledgedLines;
    bool m_withRevisions = false;
    AckPolicy m_policy = AckPolicy::ackEverything;
    int m_dropAfter = 0;
    std::function<Reaction(const Frame&)> m_rule;
    bool m_refusing = false;
    bool m_greeting = true;
    int m_handshakeAttempts = 0;
};
