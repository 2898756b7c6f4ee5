#pragma once

#include "CancellationToken.h"
#include "Records.h"
#include "TaskHandle.h"

#include <QCoroTask>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QString>
#include <QUrl>
#include <QWebSocketProtocol>

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>

class Clock;
class QWebSocket;

// Carries finished transcript lines to the backend over a WebSocket while the interview runs.
// A line grows as final pieces join it and is sent again under its id, each new text with a
// higher revision. Its newest text is kept until the server acknowledges that revision; what
// is still unacknowledged when the channel stops is handed back by stop(), so the newest text
// of every line is either acknowledged or returned. Nothing is reported during the session:
// failures only lead to reconnecting.
class TranscriptUploadService : public QObject {
    Q_OBJECT

public:
    // The first connect of start() could not form the channel's address.
    class BadURLError : public std::runtime_error {
    public:
        BadURLError() : std::runtime_error("The transcript channel address is not a valid URL") {}
    };

    static constexpr std::chrono::milliseconds stopAckWait{500};
    static constexpr std::chrono::seconds maxReconnectDelay{15};
    // A handshake still running after this long counts as a failed socket. Lines wait for the
    // handshake (Qt 6.4 drops frames sent before it) and Qt has no time-out of its own, so a
    // server that never answers would otherwise hold every line.
    static constexpr std::chrono::seconds handshakeTimeout{10};

    // `clock` runs the back-off and the waits; it must outlive the service.
    explicit TranscriptUploadService(Clock& clock, QObject* parent = nullptr);
    ~TranscriptUploadService() override;

    // Throws BadURLError when the address cannot be formed.
    QCoro::Task<> start(QString baseURL, QString token, QString sessionId);
    // Never waits: a line the socket cannot take at once queues in order behind the others.
    void send(TranscriptEntry entry);
    // Flushes, waits briefly for acknowledgements and closes; returns every line the server
    // did not acknowledge (in flight first, then never sent).
    QCoro::Task<QList<TranscriptEntry>> stop();

    // Nothing when the address cannot be formed.
    static std::optional<QUrl> uploadURL(const QString& baseURL, const QString& token,
                                         const QString& sessionId);
    // The frame of one revision of a line; "{}" when the line cannot be written as JSON.
    static QString frameText(const TranscriptEntry& entry, int revision);
    // The text of a binary frame from the server; nothing unless it is valid UTF-8 throughout.
    static std::optional<QString> binaryFrameText(const QByteArray& bytes);

    // Read-only views of the bookkeeping, for diagnostics and tests.
    bool isConnected() const { return m_isConnected; }
    QList<QString> pendingIds() const;
    QList<TranscriptEntry> bufferedEntries() const { return m_bufferedEntries; }
    // The lines whose newest text the server has acknowledged.
    QSet<QString> acknowledgedIds() const;

private:
    // The fuzz harness drives the acknowledgement bookkeeping without a socket.
    friend struct TranscriptUploadProbe;

    struct Connection;
    // What the channel knows of one line over the whole session.
    struct Line {
        QString content;      // the newest text handed over
        int revision = 0;     // of that text
        int sent = 0;         // the newest revision that went out on a socket
        int acknowledged = 0; // the highest revision the server has acknowledged
    };

    void connectSocket();
    // Sends what waits, in order, once the socket is open; lines stay in flight until acknowledged.
    void flushBuffered();
    bool sendNow(const TranscriptEntry& entry);
    QCoro::Task<> receiveLoop(std::shared_ptr<Connection> connection, CancellationToken token);
    QCoro::Task<> reconnectLoop(CancellationToken token);
    void handleMessage(const QString& text);
    void acknowledge(const QString& id, int revision);
    // The lines in flight that still lack an acknowledgement go back to the front of the queue.
    void takeBackInFlight();
    void reconnect();
    void discard(const std::shared_ptr<Connection>& connection, QWebSocketProtocol::CloseCode code);
    static bool isGone(const QPointer<TranscriptUploadService>& self);

    Clock& m_clock;
    std::shared_ptr<Connection> m_connection; // the socket and what it delivers
    TaskHandle m_receiveTask;
    TaskHandle m_reconnectTask;
    std::map<QString, TranscriptEntry> m_pendingEntries; // sent, newest text not yet acknowledged
    QList<TranscriptEntry> m_bufferedEntries;            // not yet sent, in order
    std::map<QString, Line> m_lines;                     // for the whole session
    // The revisions sent on the current socket and not yet answered, oldest first: an ack that
    // names only the id covers the oldest of them.
    std::map<QString, std::deque<int>> m_unansweredSends;
    bool m_isConnected = false;
    bool m_isStopping = false;
    QString m_baseURL;
    QString m_token;
    QString m_sessionId;
    int m_reconnectAttempt = 0;
    // Cancelled when the service is destroyed, so that suspended calls end instead of
    // touching the half-destroyed object.
    CancellationToken m_lifetime;
};
