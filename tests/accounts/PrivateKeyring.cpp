#include "PrivateKeyring.h"

#include "KeychainHelper.h"

#include <QFile>
#include <QProcess>
#include <QStandardPaths>

#include <stdexcept>

using namespace Qt::StringLiterals;

std::optional<std::string> PrivateKeyring::attach()
{
    const auto statePath = qEnvironmentVariable("RAVLET_KEYRING_STATE");
    if (statePath.isEmpty())
        throw std::runtime_error("RAVLET_KEYRING_STATE is not set: run these tests through ctest, "
                                 "whose Keyring fixture starts a private Secret Service");
    QFile state(statePath);
    if (!state.open(QIODevice::ReadOnly))
        throw std::runtime_error("no keyring state file at " + statePath.toStdString()
                                 + ": did the keyring_start test fail?");

    QByteArray address;
    for (const auto& line : state.readAll().split('\n')) {
        const auto equals = line.indexOf('=');
        if (line.left(equals) == "MISSING")
            return "the private Secret Service needs "
                   + line.mid(equals + 1).trimmed().toStdString()
                   + ", which is not installed (scripts/install-deps.sh installs it)";
        if (line.left(equals) == "DBUS_SESSION_BUS_ADDRESS")
            address = line.mid(equals + 1).trimmed();
    }
    if (address.isEmpty())
        throw std::runtime_error("the keyring state file names no bus");

    qputenv("DBUS_SESSION_BUS_ADDRESS", address);
    // QtKeychain picks its backend from the desktop in use; whatever runs the tests, take the
    // Secret Service.
    for (const char* name : {"XDG_CURRENT_DESKTOP", "DESKTOP_SESSION", "KDE_FULL_SESSION"})
        qunsetenv(name);
    return std::nullopt;
}

bool PrivateKeyring::hasSecretTool()
{
    return !QStandardPaths::findExecutable(u"secret-tool"_s).isEmpty();
}

bool PrivateKeyring::storeRawItem(const QString& key, const QByteArray& bytes, Form form)
{
    const bool base64 = form == Form::Base64;
    QProcess tool;
    tool.start(u"secret-tool"_s,
               {u"store"_s, u"--label=test item"_s, u"user"_s, key, u"server"_s,
                KeychainHelper::service, u"type"_s, base64 ? u"base64"_s : u"plaintext"_s});
    tool.write(base64 ? bytes.toBase64() : bytes);
    tool.closeWriteChannel();
    // secret-tool, like our code, answers within seconds or has hung; a hung one dies with `tool`.
    return tool.waitForFinished(20'000) && tool.exitStatus() == QProcess::NormalExit
           && tool.exitCode() == 0;
}
