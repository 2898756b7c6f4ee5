#include "UpdateStatus.h"

#include "Log.h"

void UpdateStatus::reportChecking()
{
    set(Phase::checking, {}, false);
}

void UpdateStatus::reportUpToDate()
{
    set(Phase::upToDate, {}, false);
}

void UpdateStatus::reportNewVersion(const QString& version, bool forced)
{
    set(Phase::newVersion, version, forced);
}

void UpdateStatus::set(Phase phase, const QString& version, bool forced)
{
    if (phase == m_phase && version == m_version && forced == m_forced)
        return;
    m_phase = phase;
    m_version = version;
    m_forced = forced;
    Q_EMIT changed();
}

LoggedUpdateChecks::LoggedUpdateChecks(UpdateStatus& status) : m_status(status)
{
    QObject::connect(&status, &UpdateStatus::checkRequested, &status, [this] { startPeriodicCheck(); });
}

void LoggedUpdateChecks::startPeriodicCheck()
{
    m_status.reportChecking();
    logLine(u"Update", u"update checks are not available in this build");
    m_status.reportUpToDate();
}
