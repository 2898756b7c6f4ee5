#include "DesktopIntegration.h"

#include "DesktopEntryTemplate.h"
#include "Log.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSaveFile>
#include <QStandardPaths>

using namespace Qt::StringLiterals;

namespace {

// Whether `path` can stand unquoted as the first word of an Exec key. Debian 12's xdg-open
// (the generic path that Chromium and plain window managers use) takes that word with any quotes
// still on it, so a quoted path never starts; only a path of these characters is safe there.
bool needsNoQuoting(const QString& path)
{
    if (path.isEmpty())
        return false;
    for (const QChar c : path) {
        if (!c.isLetterOrNumber() && !u"/._-+,@:"_s.contains(c))
            return false;
    }
    return true;
}

// The Exec key's quoting: a path in double quotes, with the four reserved characters escaped.
QString quotedExec(const QString& programPath)
{
    QString escaped;
    for (const QChar c : programPath) {
        if (c == u'"' || c == u'`' || c == u'$' || c == u'\\')
            escaped.append(u'\\');
        escaped.append(c);
    }
    // In a desktop file a backslash is itself escaped once more.
    escaped.replace(u"\\"_s, u"\\\\"_s);
    return u'"' + escaped + u'"';
}

// The launcher's text: it starts the program at `programPath`, single-quoted for the shell.
QByteArray launcherText(const QString& programPath)
{
    QString quoted = programPath;
    quoted.replace(u"'"_s, u"'\\''"_s);
    return (u"#!/bin/sh\n# Written by RavletAI: its desktop entry starts the program through this file,\n"
            u"# because the program's own path needs quoting, which some desktops cannot read.\n"
            u"exec '"_s + quoted + u"' \"$@\"\n"_s)
        .toUtf8();
}

// What the Exec keys start: the program itself where its path needs no quoting, else the
// launcher, else (a data folder that needs quoting too) the quoted path, which GNOME, KDE and
// GIO read correctly.
QString execFor(const QString& programPath)
{
    if (needsNoQuoting(programPath))
        return programPath;
    const QString launcher = DesktopIntegration::launcherPath();
    if (needsNoQuoting(launcher))
        return launcher;
    return quotedExec(programPath);
}

} // namespace

QString DesktopIntegration::entryText(const QString& programPath)
{
    return QString::fromUtf16(desktopEntryTemplate).replace(u"{exec}"_s, execFor(programPath));
}

QString DesktopIntegration::launcherPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + u"/RavletAI/ravletai-launcher"_s;
}

bool DesktopIntegration::writeLauncher(const QString& programPath)
{
    const QString path = launcherPath();
    const QByteArray text = launcherText(programPath);
    QFile current(path);
    if (current.open(QIODevice::ReadOnly) && current.readAll() == text
        && current.permissions().testFlag(QFileDevice::ExeOwner))
        return true;
    current.close();
    QDir().mkpath(QFileInfo(path).absolutePath());
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) < 0 || !file.commit())
        return false;
    return QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner
                                           | QFileDevice::ReadGroup | QFileDevice::ExeGroup
                                           | QFileDevice::ReadOther | QFileDevice::ExeOther);
}

QString DesktopIntegration::userEntryPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) + u"/applications/"_s + fileName;
}

bool DesktopIntegration::isCurrent(const QString& entryPath, const QString& programPath)
{
    QFile file(entryPath);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    return QString::fromUtf8(file.readAll()) == entryText(programPath);
}

void DesktopIntegration::registerSchemeHandler(const QString& programPath)
{
    if (execFor(programPath) == launcherPath() && !writeLauncher(programPath)) {
        logLine(u"App", u"could not write the launcher "_s + launcherPath());
        Q_EMIT finished(false);
        return;
    }
    const QString path = userEntryPath();
    if (!isCurrent(path, programPath)) {
        QDir().mkpath(QFileInfo(path).absolutePath());
        QSaveFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(entryText(programPath).toUtf8()) < 0 || !file.commit()) {
            logLine(u"App", u"could not write the desktop entry "_s + path);
            Q_EMIT finished(false);
            return;
        }
    }

    if (QStandardPaths::findExecutable(u"xdg-mime"_s).isEmpty()) {
        logLine(u"App", u"xdg-mime (xdg-utils) is not installed; sign-in callbacks need it to reach RavletAI"_s);
        Q_EMIT finished(false);
        return;
    }
    // Set every time, never only when `xdg-mime query` disagrees: that query also finds the
    // entry by its MimeType line alone, which xdg-open accepts but GIO (GNOME, and xdg-open
    // inside GNOME) does not; only a line in mimeapps.list serves both.
    setDefaultHandler();
}

void DesktopIntegration::setDefaultHandler()
{
    auto* setter = new QProcess(this);
    connect(setter, &QProcess::finished, this, [this, setter](int exitCode, QProcess::ExitStatus status) {
        setter->deleteLater();
        const bool ok = status == QProcess::NormalExit && exitCode == 0;
        if (!ok)
            logLine(u"App", u"xdg-mime could not make RavletAI the handler of ravlet:// addresses"_s);
        Q_EMIT finished(ok);
    });
    setter->start(QStandardPaths::findExecutable(u"xdg-mime"_s), {u"default"_s, fileName, schemeMimeType});
}
