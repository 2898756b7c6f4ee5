#include "PrivateKeyring.h"

#include "KeychainHelper.h"

#include <QFile>
#include <QProcess>

#include <stdexcept>

using namespace Qt::StringLiterals;

std::optional<std::string> PrivateKeyring::attach()
{
    // Without the fixture's state the tests would reach the session's keyring: never an option.
    QFile state(qEnvironmentVariable("RAVLET_KEYRING_STATE"));
    if (state.fileName().isEmpty() || !state.open(QIODevice::ReadOnly))
        throw std::runtime_error(
            "no keyring state file (RAVLET_KEYRING_STATE): run these tests through "
            "ctest, whose Keyring fixture starts a private Secret Service");
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
