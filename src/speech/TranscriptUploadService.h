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
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>

class Clock;
class QWebSocket;

// Carries finished transcript lines to the backend over a WebSocket while the interview runs.
// Every line is kept until the server acknowledges it; what is still unacknowledged when the
// channel stops is handed back by stop(), so a line is either acknowledged or returned.
// Nothing is reported during the session: failures only lead to reconnecting.
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
    // A handshake still running after this long counts as a failed socket. Sends must wait for
    // the handshake (Qt 6.4 drops frames sent before it) and Qt has no time-out of its own, so a
    // server that never answers would otherwise hold every line.
    static constexpr std::chrono::seconds handshakeTimeout{10};

    // `clock` runs the back-off and the waits; it must outlive the service.
    explicit TranscriptUploadService(Clock& clock, QObject* parent = nullptr);
    ~TranscriptUploadService() override;

    // Throws BadURLError when the address cannot be formed.
    QCoro::Task<> start(QString baseURL, QString token, QString sessionId);
    QCoro::Task<> send(TranscriptEntry entry);
    // Flushes, waits briefly for acknowledgements and closes; returns every line the server
    // did not acknowledge (in flight first, then never sent).
    QCoro::Task<QList<TranscriptEntry>> stop();

    // Nothing when the address cannot be formed.
    static std::optional<QUrl> uploadURL(const QString& baseURL, const QString& token,
                                         const QString& sessionId);
    // The frame of one line; "{}" when the line cannot be written as JSON.
    static QString frameText(const TranscriptEntry& entry);

    // Read-only views of the bookkeeping, for diagnostics and tests.
    bool isConnected() const { return m_isConnected; }
    QList<QString> pendingIds() const;
    QList<TranscriptEntry> bufferedEntries() const { return m_bufferedEntries; }
    QSet<QString> acknowledgedIds() const { return m_ackedIds; }

private:
    struct Connection;

    void connectSocket();
    QCoro::Task<> flushBuffered(std::shared_ptr<Connection> connection);
    // Sends every buffered line, each kept in flight until acknowledged; false once the
    // service is gone.
    QCoro::Task<bool> sendBuffered(std::shared_ptr<Connection> connection);
    QCoro::Task<bool> sendFrame(std::shared_ptr<Connection> connection, QString frame);
    QCoro::Task<> receiveLoop(std::shared_ptr<Connection> connection, CancellationToken token);
    QCoro::Task<> reconnectLoop(CancellationToken token);
    void handleMessage(const QString& text);
    void reconnect();
    void discard(const std::shared_ptr<Connection>& connection, QWebSocketProtocol::CloseCode code);
    static bool isGone(const QPointer<TranscriptUploadService>& self);

    Clock& m_clock;
    std::shared_ptr<Connection> m_connection; // the socket and what it delivers
    TaskHandle m_receiveTask;
    TaskHandle m_reconnectTask;
    std::map<QString, TranscriptEntry> m_pendingEntries; // sent, not yet acknowledged
    QList<TranscriptEntry> m_bufferedEntries;            // not yet sent, in order
    QSet<QString> m_ackedIds;                            // for the whole session
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
