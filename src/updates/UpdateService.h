#pragma once

#include "TaskHandle.h"
#include "TelemetryClient.h"
#include "UpdatePackage.h"

#include <QCoroTask>
#include <QDateTime>
#include <QObject>
#include <QNetworkReply>
#include <QPointer>
#include <QString>
#include <QUrl>

#include <chrono>
#include <optional>

class Clock;
class PackageOpener;
class QNetworkAccessManager;

struct AppUpdate {
    QString version;
    QString changelog;
    QString downloadURL;
    QString size;
    QString date;
    bool forceUpdate = false;
    QString sha256; // of the package, hex; the download must match it
};

// Keeps the installed program current: asks the backend whether a newer build exists, at
// launch and every four hours, publishes the answer for the screens, and on the user's word
// downloads the package, checks it, unpacks it and hands the replacement of the install
// folder to a script that outlives the program. When that cannot work, the package is left
// for the user to install by hand.
class UpdateService : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool hasAvailableUpdate READ hasAvailableUpdate NOTIFY availableUpdateChanged)
    Q_PROPERTY(QString availableVersion READ availableVersion NOTIFY availableUpdateChanged)
    Q_PROPERTY(QString availableChangelog READ availableChangelog NOTIFY availableUpdateChanged)
    Q_PROPERTY(QString availableSize READ availableSize NOTIFY availableUpdateChanged)
    Q_PROPERTY(QString availableDate READ availableDate NOTIFY availableUpdateChanged)
    Q_PROPERTY(bool isForceUpdate READ isForceUpdate NOTIFY availableUpdateChanged)
    Q_PROPERTY(bool isChecking READ isChecking NOTIFY isCheckingChanged)
    Q_PROPERTY(bool isDownloading READ isDownloading NOTIFY isDownloadingChanged)
    // Invalid until the first check got an answer.
    Q_PROPERTY(QDateTime lastCheckDate READ lastCheckDate NOTIFY lastCheckDateChanged)
    Q_PROPERTY(QString currentVersion READ currentVersion CONSTANT)

public:
    struct Paths {
        QString workRoot;  // a private folder per update is made in here
        QString downloads; // where a package is left for the user
        static Paths standard();
    };

    static constexpr std::chrono::hours checkInterval{4};
    static constexpr int checkTimeoutMs = 60'000;
    static constexpr int downloadTimeoutMs = 60'000;

    UpdateService(QString origin, QString version, Clock& clock, Installation installation,
                  PackageOpener* opener, Paths paths = Paths::standard(),
                  QNetworkAccessManager* network = nullptr, QObject* parent = nullptr);
    ~UpdateService() override;

    void setTelemetry(TelemetryClient* telemetry) { m_telemetry = telemetry; }
    void setUserId(std::optional<QString> userId) { m_userId = std::move(userId); }

    // Checks at once and then every four hours of the clock; a second call restarts the cycle.
    void startPeriodicCheck();
    // Fire and forget, for the screens.
    Q_INVOKABLE void checkForUpdates();
    Q_INVOKABLE void downloadAndInstall();
    // Forgets the offered update, unless it is forced.
    Q_INVOKABLE void dismiss();
    // Ends a check under way now, as a failed one: at quit, so that nothing waits on a reply
    // that the closing program would never deliver.
    void abortCheck();

    // The same two operations, to be awaited.
    QCoro::Task<> check();
    QCoro::Task<> install();

    std::optional<AppUpdate> availableUpdate() const { return m_availableUpdate; }
    bool hasAvailableUpdate() const { return m_availableUpdate.has_value(); }
    QString availableVersion() const
    {
        return m_availableUpdate ? m_availableUpdate->version : QString();
    }
    QString availableChangelog() const
    {
        return m_availableUpdate ? m_availableUpdate->changelog : QString();
    }
    QString availableSize() const
    {
        return m_availableUpdate ? m_availableUpdate->size : QString();
    }
    QString availableDate() const
    {
        return m_availableUpdate ? m_availableUpdate->date : QString();
    }
    bool isForceUpdate() const { return m_availableUpdate && m_availableUpdate->forceUpdate; }
    bool isChecking() const { return m_isChecking; }
    bool isDownloading() const { return m_isDownloading; }
    QDateTime lastCheckDate() const { return m_lastCheckDate; }
    QString currentVersion() const { return m_version; }
    const Installation& installation() const { return m_installation; }

    QUrl checkAddress() const;
    QUrl downloadAddress(const AppUpdate& update) const;
    QString userAgent() const;

Q_SIGNALS:
    void availableUpdateChanged();
    void isCheckingChanged();
    void isDownloadingChanged();
    void lastCheckDateChanged();
    // The replacement script runs and waits for this process to end: quit normally.
    void terminationRequested();

private:
    enum class Download { done, failed, mismatch };

    QCoro::Task<> periodicChecks(CancellationToken token);
    QCoro::Task<Download> fetchPackage(AppUpdate update, QString path);
    QCoro::Task<> failInstall(QString workFolder, QString reason);
    QCoro::Task<> fallback();
    void report(const QString& phase, bool success);
    void setAvailableUpdate(std::optional<AppUpdate> update);
    void setChecking(bool checking);
    void setDownloading(bool downloading);

    QString m_origin;
    QString m_version;
    Clock& m_clock;
    Installation m_installation;
    PackageOpener* m_opener;
    Paths m_paths;
    QPointer<QNetworkAccessManager> m_network;
    QPointer<QNetworkReply> m_checkReply;
    QString m_osVersion;
    QPointer<TelemetryClient> m_telemetry;
    std::optional<QString> m_userId;
    std::optional<AppUpdate> m_availableUpdate;
    bool m_isChecking = false;
    bool m_isDownloading = false;
    QDateTime m_lastCheckDate;
    TaskHandle m_periodic;
};
