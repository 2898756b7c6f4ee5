#pragma once

#include "ShellInterfaces.h"

#include <QObject>
#include <QString>
#include <QtQmlIntegration>

// What the program knows of updates, as the dashboard shows it: a check running, up to date, or
// a newer version (perhaps one the user must install). Whoever checks reports here; the
// dashboard's buttons ask for a check or the install through its signals.
class UpdateStatus : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the shell")
    Q_PROPERTY(Phase phase READ phase NOTIFY changed)
    Q_PROPERTY(QString version READ version NOTIFY changed)
    Q_PROPERTY(bool isForced READ isForced NOTIFY changed)

public:
    enum class Phase { checking, upToDate, newVersion };
    Q_ENUM(Phase)

    using QObject::QObject;

    Phase phase() const { return m_phase; }
    // The newer version, when there is one.
    QString version() const { return m_version; }
    bool isForced() const { return m_forced; }

    void reportChecking();
    void reportUpToDate();
    void reportNewVersion(const QString& version, bool forced);

    Q_INVOKABLE void checkNow() { Q_EMIT checkRequested(); }
    Q_INVOKABLE void downloadAndInstall() { Q_EMIT installRequested(); }

Q_SIGNALS:
    void changed();
    void checkRequested();
    void installRequested();

private:
    void set(Phase phase, const QString& version, bool forced);

    Phase m_phase = Phase::checking;
    QString m_version;
    bool m_forced = false;
};

// Stands in for the update service until it comes: it checks nothing, says so in one log line
// and reports that this build knows of no newer version.
class LoggedUpdateChecks final : public UpdateChecks {
public:
    explicit LoggedUpdateChecks(UpdateStatus& status);
    void setTelemetry(TelemetryClient*) override {}
    void setUserId(std::optional<QString>) override {}
    void startPeriodicCheck() override;

private:
    UpdateStatus& m_status;
};
