#pragma once

#include <QFile>
#include <QStandardPaths>
#include <QString>
#include <QStringList>

#include <stdexcept>
#include <utility>

// A value of the state file scripts/test-pulse.sh writes for a server it started: PULSE_SERVER,
// PULSE_PID, SCRATCH, SYSTEM_SINK, MIC_SINK, MIC_SOURCE; or MISSING, the tool it lacked.
inline QString stateValue(const QString& path, const char* key)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw std::runtime_error("no sound server state at '" + path.toStdString()
                                 + "': run these tests through ctest, whose Pulse fixture starts a "
                                   "private sound server");
    for (const auto& line : file.readAll().split('\n')) {
        if (line.startsWith(QByteArray(key) + '='))
            return QString::fromUtf8(line.mid(qstrlen(key) + 1));
    }
    return {};
}

// Points this process, and the tools it runs, at the private sound server of `state` and its
// scratch folders: libpulse keeps a cookie under the home and GStreamer a plugin cache, and
// neither may touch the real ones. Returns why the tests cannot run, or nothing.
inline QString usePrivateSoundServer(const QString& state, const QStringList& tools)
{
    const QString install =
        QStringLiteral(" is not installed (scripts/install-deps.sh installs it)");
    if (const auto missing = stateValue(state, "MISSING"); !missing.isEmpty())
        return QStringLiteral("the private sound server needs ") + missing + u',' + install;
    for (const auto& tool : tools) {
        if (QStandardPaths::findExecutable(tool).isEmpty())
            return tool + install;
    }
    qputenv("PULSE_SERVER", stateValue(state, "PULSE_SERVER").toUtf8());
    const std::pair<const char*, const char*> folders[] = {{"HOME", "/home"},
                                                           {"XDG_CONFIG_HOME", "/config"},
                                                           {"XDG_CACHE_HOME", "/cache"},
                                                           {"XDG_RUNTIME_DIR", "/runtime"},
                                                           {"PULSE_RUNTIME_PATH", "/runtime"}};
    for (const auto& [name, folder] : folders)
        qputenv(name, QFile::encodeName(stateValue(state, "SCRATCH") + QLatin1String(folder)));
    return {};
}
