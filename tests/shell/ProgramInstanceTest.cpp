// The single running instance, in real processes under Xvfb: a socket left behind by a killed
// run must not swallow the next start. (Sign-in through a second start, the dashboard through a
// third and Quit are covered by the whole-product test in tests/e2e.)

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

const QString welcomeTitle = u"Welcome to RavletAI"_s;

class ProgramInstanceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (const auto reason = DisplayFixture::skipReason())
            GTEST_SKIP() << *reason;
        if (const auto reason = PrivateKeyring::attach())
            GTEST_SKIP() << *reason;
        awaitTask(KeychainHelper().remove(AuthTokenStore::accessTokenKey));
        awaitTask(KeychainHelper().remove(AuthTokenStore::refreshTokenKey));

        for (const auto* folder : {"runtime", "config", "data", "home"})
            QDir(home.path()).mkpath(QString::fromLatin1(folder));
        QFile::setPermissions(home.filePath(u"runtime"_s), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

        environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"HOME"_s, home.filePath(u"home"_s));
        environment.insert(u"XDG_RUNTIME_DIR"_s, home.filePath(u"runtime"_s));
        environment.insert(u"XDG_CONFIG_HOME"_s, home.filePath(u"config"_s));
        environment.insert(u"XDG_DATA_HOME"_s, home.filePath(u"data"_s));
        environment.remove(u"XDG_CURRENT_DESKTOP"_s);
        environment.insert(u"RAVLET_TEST_BACKEND_ORIGIN"_s, backend.origin());
        environment.insert(u"PULSE_SERVER"_s, u"unix:/nonexistent/ravlet-no-server"_s);
    }

    void TearDown() override
    {
        if (first.state() != QProcess::NotRunning) {
            first.kill();
            first.waitForFinished(5000);
        }
    }

    void start(QProcess& process, const QStringList& arguments = {})
    {
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral(RAVLET_PROGRAM_UNDER_TEST), arguments);
    }

    // Runs the program once more and waits for it to end; its exit status.
    int runAgain(const QStringList& arguments)
    {
        QProcess second;
        start(second, arguments);
        if (second.waitForFinished(10'000))
            return second.exitStatus() == QProcess::NormalExit ? second.exitCode() : -1;
        second.kill();
        second.waitForFinished();
        return -1;
    }

    // Waits while the FakeBackend answers: it lives on this thread's event loop.
    static bool waitFor(const std::function<bool()>& condition) { return QTest::qWaitFor(condition, 15'000); }

    QTemporaryDir home;
    FakeBackend backend;
    QProcessEnvironment environment;
    QProcess first;
};

TEST_F(ProgramInstanceTest, SocketLeftByACrashedRunIsReplaced)
{
    // A socket file nobody listens on, as a killed program leaves it.
    const QString socket = home.filePath(u"runtime/ravletai.socket"_s);
    {
        QProcess crashed;
        start(crashed);
        ASSERT_TRUE(waitFor([&] { return QFile::exists(socket); }));
        crashed.kill();
        crashed.waitForFinished(5000);
    }
    ASSERT_TRUE(QFile::exists(socket));

    start(first);
    ASSERT_TRUE(waitFor([] { return DisplayFixture::isWindowViewable(welcomeTitle); }));
    EXPECT_EQ(first.state(), QProcess::Running) << "the new start must not hand over to a dead socket";
    EXPECT_EQ(runAgain({u"--quit"_s}), 0);
    EXPECT_TRUE(first.waitForFinished(10'000));
}

} // namespace
