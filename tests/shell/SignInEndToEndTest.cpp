// The program as a user meets it, in real processes under Xvfb: a signed-out start, the browser
// sign-in completed by a second start with the callback address, and a third start that
// brings the dashboard forward. Tokens land in the private keyring of the "Keyring" fixture.

#include "QtPrinters.h"

#include "../accounts/PrivateKeyring.h"
#include "AuthTokenStore.h"
#include "AwaitTask.h"
#include "DisplayFixture.h"
#include "FakeBackend.h"
#include "KeychainHelper.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

const QString welcomeTitle = u"Welcome to RavletAI"_s;
const QString overlayTitle = u"RavletAI Overlay"_s;
const QString dashboardTitle = u"RavletAI"_s;

QString readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).trimmed() : QString();
}

class SignInEndToEndTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (const auto reason = DisplayFixture::skipReason())
            GTEST_SKIP() << *reason;
        if (const auto reason = PrivateKeyring::attach())
            GTEST_SKIP() << *reason;
        if (QStandardPaths::findExecutable(u"xdotool"_s).isEmpty())
            GTEST_SKIP() << "xdotool is needed to press the sign-in button";
        awaitTask(KeychainHelper().remove(AuthTokenStore::accessTokenKey));
        awaitTask(KeychainHelper().remove(AuthTokenStore::refreshTokenKey));

        for (const auto* folder : {"runtime", "config", "data", "home", "browser", "empty"})
            QDir(home.path()).mkpath(QString::fromLatin1(folder));
        QFile::setPermissions(home.filePath(u"runtime"_s), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

        environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"HOME"_s, home.filePath(u"home"_s));
        environment.insert(u"XDG_RUNTIME_DIR"_s, home.filePath(u"runtime"_s));
        environment.insert(u"XDG_CONFIG_HOME"_s, home.filePath(u"config"_s));
        environment.insert(u"XDG_DATA_HOME"_s, home.filePath(u"data"_s));
        // No system-wide handlers: xdg-open then hands web addresses to $BROWSER.
        environment.insert(u"XDG_DATA_DIRS"_s, home.filePath(u"empty"_s));
        environment.insert(u"XDG_CONFIG_DIRS"_s, home.filePath(u"empty"_s));
        environment.remove(u"XDG_CURRENT_DESKTOP"_s);
        environment.insert(u"BROWSER"_s, QStringLiteral(RAVLET_FAKE_BROWSER));
        environment.insert(u"RAVLET_BROWSER_DIR"_s, home.filePath(u"browser"_s));
        environment.insert(u"RAVLET_TEST_PROGRAM"_s, QStringLiteral(RAVLET_PROGRAM_UNDER_TEST));
        environment.insert(u"RAVLET_TEST_BACKEND_ORIGIN"_s, backend.origin());
        environment.insert(u"PULSE_SERVER"_s, u"unix:/nonexistent/ravlet-no-server"_s);

        backend.setRoute("POST", "/api/v1/auth/exchange",
                         FakeBackend::Response::json(200, QJsonDocument(QJsonObject{
                             {u"accessToken"_s, u"access-from-exchange"_s},
                             {u"refreshToken"_s, u"refresh-from-exchange"_s},
                             {u"user"_s, QJsonObject{{u"id"_s, u"u-1"_s}, {u"email"_s, u"a@example.com"_s}}}}).toJson()));
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

TEST_F(SignInEndToEndTest, BrowserSignInThroughASecondStartAndTheDashboardThroughAThird)
{
    first.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    start(first);
    ASSERT_TRUE(first.waitForStarted());
    ASSERT_TRUE(waitFor([] { return DisplayFixture::isWindowViewable(welcomeTitle); })) << "no welcome panel";
    EXPECT_FALSE(DisplayFixture::isWindowViewable(overlayTitle));

    // A first start shows the notice on anonymous usage data over the panel: the user answers
    // "OK, got it", then presses "Sign In", the first control under the greeting.
    const auto click = [](int x, int y) {
        QProcess::execute(u"xdotool"_s, {u"search"_s, u"--sync"_s, u"--onlyvisible"_s, u"--name"_s, welcomeTitle,
                                        u"mousemove"_s, u"--window"_s, u"%1"_s, QString::number(x), QString::number(y),
                                        u"sleep"_s, u"0.2"_s, u"click"_s, u"1"_s});
    };
    click(342, 341);
    QTest::qWait(300);
    click(220, 192);

    const QString browser = home.filePath(u"browser"_s);
    ASSERT_TRUE(waitFor([&] { return QFile::exists(browser + u"/second.result"_s); }))
        << "the browser was never opened: " << readAll(browser + u"/opened"_s).toStdString();
    const QUrl opened(readAll(browser + u"/opened"_s));
    EXPECT_EQ(opened.toString(QUrl::RemoveQuery), backend.origin() + u"/auth/login"_s);

    const auto result = readAll(browser + u"/second.result"_s).split(u' ');
    ASSERT_EQ(result.size(), 2);
    EXPECT_EQ(result.at(0), u"0"_s) << readAll(browser + u"/second.out"_s).toStdString();
    EXPECT_LT(result.at(1).toInt(), 2000) << "the second start took " << result.at(1).toStdString() << " ms";

    ASSERT_TRUE(waitFor([&] { return DisplayFixture::isWindowViewable(overlayTitle); })) << "no overlay";
    EXPECT_FALSE(DisplayFixture::isWindowViewable(welcomeTitle));
    const auto exchanges = backend.requests("POST", "/api/v1/auth/exchange");
    ASSERT_EQ(exchanges.size(), 1);
    EXPECT_EQ(QJsonDocument::fromJson(exchanges.first().body).object().value(u"code"_s).toString(),
              u"one-time-code"_s);
    EXPECT_EQ(awaitTask(KeychainHelper().read(AuthTokenStore::accessTokenKey)), u"access-from-exchange"_s);
    EXPECT_EQ(awaitTask(KeychainHelper().read(AuthTokenStore::refreshTokenKey)), u"refresh-from-exchange"_s);

    // A start with no address, where no tray is clicked, brings the dashboard forward.
    EXPECT_FALSE(DisplayFixture::isWindowViewable(dashboardTitle));
    EXPECT_EQ(runAgain({}), 0);
    EXPECT_TRUE(waitFor([&] { return DisplayFixture::isWindowViewable(dashboardTitle); })) << "no dashboard";

    // The desktop entry's Quit action ends the first process.
    EXPECT_EQ(runAgain({u"--quit"_s}), 0);
    ASSERT_TRUE(first.waitForFinished(10'000));
    EXPECT_EQ(first.exitCode(), 0);
}

TEST_F(SignInEndToEndTest, SocketLeftByACrashedRunIsReplaced)
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
