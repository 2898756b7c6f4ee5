// The single running instance, in real processes under Xvfb: a socket left behind by a killed
// run must not swallow the next start, and a second start hands its arguments to the running
// one. (Sign-in through the browser, the dashboard through a third start and Quit from the
// running program are covered by the whole-product test in tests/e2e.)

#include "QtPrinters.h"

#include "../accounts/PrivateKeyring.h"
#include "AuthTokenStore.h"
#include "AwaitTask.h"
#include "DisplayFixture.h"
#include "FakeBackend.h"
#include "KeychainHelper.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

TEST(ProgramInstanceTest, SocketLeftByAKilledRunIsReplacedAndTheNextStartsHandOver)
{
    if (const auto reason = DisplayFixture::skipReason())
        GTEST_SKIP() << *reason;
    if (const auto reason = PrivateKeyring::attach())
        GTEST_SKIP() << *reason;
    for (const auto& key : {AuthTokenStore::accessTokenKey, AuthTokenStore::refreshTokenKey})
        awaitTask(KeychainHelper().remove(key)); // signed out: the welcome panel shows

    QTemporaryDir home;
    FakeBackend backend;
    auto environment = QProcessEnvironment::systemEnvironment();
    const std::pair<QString, QString> folders[] = {
        {u"HOME"_s, u"home"_s}, {u"XDG_RUNTIME_DIR"_s, u"runtime"_s}, {u"XDG_CONFIG_HOME"_s, u"config"_s}, {u"XDG_DATA_HOME"_s, u"data"_s}};
    for (const auto& [name, folder] : folders) {
        QDir(home.path()).mkpath(folder);
        environment.insert(name, home.filePath(folder));
    }
    QFile::setPermissions(home.filePath(u"runtime"_s), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    environment.remove(u"XDG_CURRENT_DESKTOP"_s);
    environment.insert(u"RAVLET_TEST_BACKEND_ORIGIN"_s, backend.origin());
    environment.insert(u"PULSE_SERVER"_s, u"unix:/nonexistent/ravlet-no-server"_s);
    const auto start = [&](QProcess& process, const QStringList& arguments = {}) {
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral(RAVLET_PROGRAM_UNDER_TEST), arguments);
    };
    // Runs the program once more to its end; its exit code, or -1.
    const auto runAgain = [&](const QStringList& arguments) {
        QProcess again;
        start(again, arguments);
        const bool ended = again.waitForFinished(10'000) && again.exitStatus() == QProcess::NormalExit;
        return ended ? again.exitCode() : -1;
    };
    // Waits while the FakeBackend answers: it lives on this thread's event loop.
    const auto waitFor = [](const std::function<bool()>& condition) { return QTest::qWaitFor(condition, 15'000); };

    // A socket file nobody listens on, as a killed program leaves it.
    const QString socket = home.filePath(u"runtime/ravletai.socket"_s);
    QProcess killed;
    start(killed);
    ASSERT_TRUE(waitFor([&] { return QFile::exists(socket); }));
    killed.kill();
    killed.waitForFinished(5000);
    ASSERT_TRUE(QFile::exists(socket));

    QProcess first;
    start(first);
    ASSERT_TRUE(waitFor([] { return DisplayFixture::isWindowViewable(u"Welcome to RavletAI"_s); }));
    EXPECT_EQ(first.state(), QProcess::Running) << "the new start must not hand over to a dead socket";

    // A ravlet:// address given to a second start reaches the running one, which exchanges its code.
    EXPECT_EQ(runAgain({u"ravlet://auth-callback?code=c-1"_s}), 0);
    EXPECT_TRUE(waitFor([&] { return backend.requestCount("POST", "/api/v1/auth/exchange") == 1; }));
    EXPECT_EQ(runAgain({u"--quit"_s}), 0);
    EXPECT_TRUE(first.waitForFinished(10'000));
}

} // namespace
