#pragma once

#include "TaskHandle.h"

#include <QCoroTask>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QString>

#include <chrono>
#include <optional>
#include <utility>
#include <variant>

class Clock;
class PreferencesStore;
class QNetworkAccessManager;

// Anonymous product events, sent to the backend in small batches. It identifies a device,
// never a person, carries no interview content, and never shows or raises anything: every
// failure stays inside it. The backend can thin it out or switch it off; so can the user.
class TelemetryClient : public QObject {
    Q_OBJECT

public:
    using PropValue = std::variant<QString, qint64, double, bool>;
    using Props = QList<std::pair<QString, PropValue>>;

    struct PendingEvent {
        QString name;
        QString category;
        QString clientTs;
        std::optional<Props> props;
    };

    // What the events say about the program and the machine.
    struct Environment {
        QString appVersion;
        QString osVersion; // the kernel's major.minor.patch
        QString arch;      // "x64" or "arm64", as built
        QString locale;
        static Environment current();
    };

    static constexpr int maxBufferSize = 200;
    static constexpr int flushBatchSize = 20;
    static constexpr std::chrono::seconds flushInterval{15};
    static constexpr int timeoutMs = 60'000;
    static constexpr int maxCrashMessageLength = 512;
    static constexpr int maxCrashStackLength = 16384;

    TelemetryClient(QString baseURL, PreferencesStore& preferences, Clock& clock,
                    Environment environment = Environment::current(),
                    QNetworkAccessManager* network = nullptr, QObject* parent = nullptr);
    ~TelemetryClient() override;

    // Starts the flush loop, cancelling an earlier one.
    void start();
    QCoro::Task<> fetchConfig();
    void track(const QString& name, const QString& category, std::optional<Props> props = std::nullopt);
    QCoro::Task<> flush();
    // One POST of a crash report; the answer is not looked at.
    QCoro::Task<> reportCrash(QString exceptionType, QString exceptionMessage, QString stackTrace,
                              QString lastState);

    // One helper per event; none of them takes interview content.
    void appLaunched();
    void authSuccess();
    void firstInterviewStarted();
    void firstAnswerReceived(qint64 latencyMs);
    void sessionCompleted(qint64 durationSeconds, qint64 answerCount);
    void audioCaptureFailed(const QString& errorCode, const QString& category);
    void sttFailed(const QString& provider, const QString& errorCode);
    void sttProviderChanged(const QString& provider);
    void apiFailed(const QString& route, qint64 status);
    void resumeUpload(bool success, const std::optional<QString>& errorCode = std::nullopt);
    void jdUpload(bool success, const std::optional<QString>& errorCode = std::nullopt);
    void mockInterviewStarted(qint64 questionCount, bool hasResume, bool hasJd);
    void mockInterviewCompleted(qint64 questionCount, qint64 answeredCount, qint64 aiTriggeredCount,
                                qint64 durationSeconds);
    void mockInterviewAborted(const QString& reason, qint64 questionIndex);
    void mockQuestionPlayed(qint64 questionIndex, const QString& category);
    void mockAvatarGenerated(bool firstTime);
    void selfUpdate(const QString& phase, bool success);
    void hotkeyUsed(const QString& hotkeyName);
    void settingsOpened();
    void overlayToggled(bool visible);

    static QString countBucket(qint64 count);
    static QString durationBucket(double seconds);

    // Whether events may be recorded and sent now.
    bool isAllowed() const;
    QString deviceId() const { return m_deviceId; }
    QString userAgent() const;
    bool killSwitchEnabled() const { return m_killSwitchEnabled; }
    double sampleRate() const { return m_sampleRate; }
    const QList<PendingEvent>& buffer() const { return m_buffer; }

private:
    enum class SendResult { sent, stopped, failed };

    QCoro::Task<SendResult> sendBatch(QList<PendingEvent> batch);
    QCoro::Task<> runFlushLoop(CancellationToken token);
    void trimBuffer();
    QJsonObject commonFields() const;

    QString m_baseURL;
    PreferencesStore& m_preferences;
    Clock& m_clock;
    Environment m_environment;
    QPointer<QNetworkAccessManager> m_network;
    QString m_deviceId;
    QList<PendingEvent> m_buffer;
    TaskHandle m_flushTask;
    bool m_killSwitchEnabled = true; // true: telemetry may run; false: the backend switched it off
    double m_sampleRate = 1.0;
};
