#include "AuthService.h"
#include "AwaitTask.h"
#include "LogCapture.h"
#include "QtPrinters.h"

#include <QCoroTask>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

// A desktop without a Secret Service: saves are logged and lost, reads give nothing, and
// neither waits for the time-out.
TEST(AuthServiceTest, WithoutSecretServiceSavesAreLoggedAndReadsGiveNothing)
{
    // An address where nothing listens, set before anything in this process talks D-Bus; this
    // test must never reach the session's real keyring.
    QTemporaryDir scratch;
    qputenv("DBUS_SESSION_BUS_ADDRESS",
            "unix:path=" + QFile::encodeName(scratch.filePath(u"no-bus"_s)));
    for (const char* name : {"XDG_CURRENT_DESKTOP", "DESKTOP_SESSION", "KDE_FULL_SESSION"})
        qunsetenv(name);

    AuthService store(std::make_shared<const KeychainHelper>());
    LogCapture logs;
    // D-Bus gives up on a call after 25 s: a wait that reached it would miss these deadlines.
    awaitTask(store.saveTokens(u"access-Tk9"_s, u"refresh-Tk9"_s), 10'000);
    EXPECT_FALSE(awaitTask(store.getAccessToken(), 10'000));
    awaitTask(store.clearTokens(), 10'000);

    // The error code, and never the token.
    EXPECT_EQ(logs.lines().join(u'\n').remove(
                  QRegularExpression(u": [1-9][0-9]*$"_s, QRegularExpression::MultilineOption)),
              u"[Keychain] save failed for ravlet.accessToken\n[Keychain] save failed for "
              u"ravlet.refreshToken\n"
              u"[Keychain] read failed for ravlet.accessToken"_s);
}
