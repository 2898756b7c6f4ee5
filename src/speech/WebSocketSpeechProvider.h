#pragma once

#include "SpeechRecognitionProvider.h"
#include "TaskHandle.h"

#include <QList>
#include <QPointer>
#include <QStringList>
#include <QUrl>

#include <chrono>
#include <variant>

class Clock;
class QWebSocket;

// What the three vendors' recognisers share: one socket per start, a send loop with one
// message per audio buffer and one send in flight, a receive loop that hands text frames to
// the vendor, an optional keep-alive, and the restart and stop rules.
class WebSocketSpeechProvider : public SpeechRecognitionProvider {
    Q_OBJECT

public:
    // A text or a binary frame.
    using Message = std::variant<QString, QByteArray>;

    ~WebSocketSpeechProvider() override;

    QCoro::Task<> start(QString token, QString language, std::shared_ptr<AudioStream> audio,
                        std::optional<QString> model) override;
    QCoro::Task<> stop() override;

    // The frame one buffer makes on this vendor's socket, or nothing for a buffer that makes
    // no message.
    virtual std::optional<Message> audioMessage(const PcmBuffer& buffer) const = 0;

    // The vendor origin ("wss://host[:port]") for the next start; a speech token may name one.
    void setOrigin(QString origin) override { m_origin = std::move(origin); }
    QString origin() const { return m_origin; }
    bool isStopping() const { return m_isStopping; }

protected:
    struct Connection {
        QUrl url;
        QList<std::pair<QByteArray, QByteArray>> headers;
        QStringList subprotocols;
    };

    WebSocketSpeechProvider(Speaker speaker, QString origin, QString vendorPrefix, Clock& clock,
                            QObject* parent);

    // Called once per start, before the socket opens.
    virtual Connection connection(const QString& token, const QString& language,
                                  const std::optional<QString>& model) = 0;
    virtual void handleMessage(const QString& text) = 0;
    // Sent at stop, best effort.
    virtual std::optional<QString> closingMessage() const = 0;
    // Sent and awaited before any audio; a failure ends the start.
    virtual std::optional<QString> openingMessage() const { return std::nullopt; }
    virtual QString openingFailurePrefix() const { return {}; }
    virtual std::optional<std::pair<std::chrono::milliseconds, QString>> keepAlive() const
    {
        return std::nullopt;
    }

    void emitSegment(const QString& text, bool isFinal, std::optional<double> confidence = std::nullopt);
    // Adds the vendor prefix and names the current connection; nothing once stopping.
    void raiseRecovery(const QString& text);
    Clock& clock() const { return m_clock; }

private:
    struct Incoming {
        std::optional<QString> text; // nothing: the socket failed with `error`
        QString error;
    };

    void resetConnection();
    void cancelTasks();
    void raiseRecovery(const QString& text, quint64 connection);
    static QCoro::Task<bool> sendWhenConnected(Clock* clock, QPointer<QWebSocket> socket, Message message,
                                               CancellationToken token, QString* error);
    static QCoro::Task<> closeSocket(Clock* clock, QPointer<QWebSocket> socket, std::optional<QString> message);
    QCoro::Task<> receiveLoop(std::shared_ptr<AsyncQueue<Incoming>> incoming, quint64 connection,
                              CancellationToken token);
    QCoro::Task<> sendLoop(QPointer<QWebSocket> socket, std::shared_ptr<AudioStream> audio,
                           quint64 connection, CancellationToken token);
    QCoro::Task<> keepAliveLoop(QPointer<QWebSocket> socket, std::chrono::milliseconds interval,
                                QString message, CancellationToken token);

    QString m_origin;
    QString m_vendorPrefix;
    Clock& m_clock;
    QPointer<QWebSocket> m_socket;
    TaskHandle m_receiveTask;
    TaskHandle m_audioSendTask;
    TaskHandle m_keepAliveTask;
    bool m_isStopping = false;
};
