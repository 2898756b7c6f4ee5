// The shell's wiring: the launch order, the notification handlers, sign-in and quitting,
// against the recording shell, the interview's fakes and a FakeBackend.

#include "ShellFakes.h"

#include "APIClient.h"
#include "DashboardViewModel.h"
#include "LogCapture.h"
#include "MenuBarViewModel.h"
#include "TelemetryClient.h"

#include <QAbstractItemModelTester>
#include <QSignalSpy>
#include <QTest>
#include <QUrlQuery>

namespace {

class AppDelegateTest : public ::testing::Test, protected DelegateRig {
protected:
    AppDelegateTest()
    {
        h.notifications.addObserver(
            Notifications::overlayVisibilityChanged, nullptr, [this](const Notification& n) {
                shell.log.append(u"overlay visible "_s + n.object.toString());
            });
    }

    void launch(std::optional<FakeBackend::Response> refreshedBy = {})
    {
        DelegateRig::launch(shell, std::move(refreshedBy));
        settle();
    }

    void settle()
    {
        for (int k = 0; k < 5; ++k) {
            if (!delegate->lastTask().isFinished())
                awaitTask([](TaskHandle task) -> QCoro::Task<> {
                    co_await task.finished();
                }(delegate->lastTask()));
            QCoreApplication::processEvents();
        }
    }

    QStringList telemetryEvents() const
    {
        QStringList names;
        for (const auto& event : delegate->telemetry().buffer())
            names.append(event.name);
        return names;
    }
};

// Signed out: the launch runs in order and ends on the welcome panel; the overlay's toggles
// reach the menu; only a route and an integer status are reported as a failed request; the
// callback of a pending browser sign-in from another host, with the right scheme, ends nothing.
// (An update's install ending the program runs in the update test.)
TEST_F(AppDelegateTest, SignedOutLaunchRunsInOrderAndHandlesTheOverlayFailuresAndForeignCallbacks)
{
    launch();
    EXPECT_EQ(shell.log,
              (QStringList{u"make token store"_s, u"make interview services"_s,
                           u"give client to interview"_s, u"install crash reporter after wiring"_s,
                           u"create menu bar item"_s, u"create overlay"_s, u"install tap"_s,
                           u"create dashboard"_s, u"create welcome"_s, u"install key monitors"_s,
                           u"start update check"_s, u"show welcome"_s}));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !delegate->updateService().isChecking(); }, 5000));
    // No stored token: the update check alone, for this kind of install (not a per-user folder).
    ASSERT_EQ(backend.totalRequests(), 1);
    EXPECT_EQ(backend.requests("GET", "/download/check-update").value(0).target,
              "/download/check-update?v=1.2.3&platform=linux");

    // A start that asks for the overlay leaves it showing.
    shell.log.clear();
    auto* menu = delegate->menuBar();
    menu->toggleOverlay();
    EXPECT_TRUE(menu->isOverlayVisible());
    delegate->handleLaunchArguments({u"--show-overlay"_s});
    h.notifications.post(Notifications::toggleOverlay);
    EXPECT_FALSE(menu->isOverlayVisible());
    EXPECT_EQ(shell.log, (QStringList{u"show overlay"_s, u"overlay visible true"_s,
                                      u"hide overlay"_s, u"overlay visible false"_s}));

    for (const auto& props : {QVariantMap{{u"route"_s, u"/api/v1/x"_s}, {u"status"_s, u"500"_s}},
                              QVariantMap{{u"status"_s, 500}},
                              QVariantMap{{u"route"_s, u"/api/v1/x"_s}, {u"status"_s, 503}}})
        h.notifications.post(Notifications::apiRequestFailed, {}, props);
    settle();
    ASSERT_EQ(telemetryEvents().count(u"api_failed"_s), 1);
    EXPECT_EQ(delegate->telemetry().buffer().at(telemetryEvents().indexOf(u"api_failed"_s)).props,
              (TelemetryClient::Props{{u"route"_s, u"/api/v1/x"_s}, {u"status"_s, qint64(503)}}));

    h.notifications.post(Notifications::startOAuthLogin);
    ASSERT_EQ(opened.size(), 1);
    const QString state = QUrlQuery(opened.first()).queryItemValue(u"state"_s);
    delegate->openURLs({QUrl(u"ravlet://other?code=c-0&state="_s + state)});
    settle();
    EXPECT_TRUE(delegate->oauthService().isPending());
    // Only the exchange counts: the overlay shown above may still be asking for resumes.
    EXPECT_EQ(backend.requestCount("POST", "/api/v1/auth/exchange"), 0);
}

// Restored at launch, signed out from the settings, back by a deep link: with no sign-in
// pending, its code is exchanged without a state; then quits in the middle of an interview.
TEST_F(AppDelegateTest, ReturningUserIsRestoredSignsOutComesBackByADeepLinkAndQuits)
{
    launch(tokenPair(u"u-9"_s, u"back@example.com"_s));
    EXPECT_EQ(shell.log.mid(shell.log.indexOf(u"start update check"_s) + 1),
              (QStringList{u"remove tap"_s, u"install tap"_s, u"show overlay"_s,
                           u"overlay visible true"_s}));
    EXPECT_EQ(delegate->interviewViewModel().userEmail(), u"back@example.com"_s);
    // The signed-in user's id goes with the package's download.
    AppUpdate update;
    update.downloadURL = u"http://h/p"_s;
    EXPECT_EQ(QUrlQuery(delegate->updateService().downloadAddress(update)).queryItemValue(u"uid"_s),
              u"u-9"_s);

    h.notifications.post(Notifications::showDashboard);
    shell.log.clear();
    delegate->dashboard()->profile()->signOut();
    settle();
    EXPECT_EQ(shell.log, (QStringList{u"hide dashboard"_s, u"hide overlay"_s, u"show welcome"_s}));
    EXPECT_EQ(tokens->item(AuthTokenStore::refreshTokenKey), std::nullopt);

    backend.setRoute("POST", "/api/v1/auth/exchange", tokenPair(u"u-1"_s, u"a@example.com"_s));
    delegate->openURLs({QUrl(u"ravlet://auth-callback?code=c-2"_s)});
    settle();
    EXPECT_EQ(backend.requestCount("POST", "/api/v1/auth/exchange"), 1);
    EXPECT_TRUE(delegate->authViewModel().isLoggedIn());

    // Quitting during a recording stops nothing.
    awaitTask(delegate->interviewViewModel().startInterview(), 5000);
    ASSERT_TRUE(delegate->interviewViewModel().isRecording());
    EXPECT_EQ(crashLastState(), u"recording"_s);
    shell.log.clear();
    delegate->handleLaunchArguments({u"--quit"_s});
    settle();
    EXPECT_EQ(shell.log, QStringList{u"terminate"_s});
    EXPECT_TRUE(delegate->interviewViewModel().isRecording());
    EXPECT_EQ(h.systemAudio.stopCount + h.microphone.stopCount, 0);
}

// Refused at launch, the user is signed out everywhere: the dashboard's requests land on sign-in.
TEST_F(AppDelegateTest, ReturningUserRefusedByTheBackendIsSignedOutEverywhere)
{
    LogCapture logs;
    launch(FakeBackend::Response::json(401, "{}"));
    EXPECT_EQ(shell.log.last(), u"show welcome"_s);
    EXPECT_FALSE(shell.log.contains(u"show overlay"_s));

    shell.log.clear();
    h.notifications.post(Notifications::showDashboard);
    delegate->handleLaunchArguments({});
    delegate->handleLaunchArguments({u"--settings"_s});
    EXPECT_EQ(shell.log, QStringList(3, u"show welcome"_s));
    settle();
    EXPECT_FALSE(telemetryEvents().contains(u"settings_opened"_s));
    // The sign-out's request to the server ends before the test does.
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return !logs.lines().filter(u"[Auth] logout"_s).isEmpty(); }, 5000));
}

} // namespace

namespace {

// The dashboard as the delegate wires it: "showDashboard" picks a page only by its raw value,
// and the sidebar follows the page and the language.
TEST_F(AppDelegateTest, ShowDashboardSelectsAPageOnlyByItsRawValue)
{
    launch();
    auto* dashboard = delegate->dashboard();
    auto* sidebar = dashboard->sidebar();
    QAbstractItemModelTester tester(sidebar, QAbstractItemModelTester::FailureReportingMode::Fatal);
    using enum SidebarItem;
    // The page value posted, then the page shown.
    const std::pair<QVariant, SidebarItem> cases[] = {
        {u"resume"_s, resume},
        {QVariant(), resume},
        {u"Resume"_s, resume},
        {u"helpCenter"_s, helpCenter},
    };
    for (const auto& [page, shown] : cases) {
        h.notifications.post(Notifications::showDashboard, {},
                             page.isValid() ? QVariantMap{{u"page"_s, page}} : QVariantMap{});
        EXPECT_EQ(dashboard->currentPage(), shown) << page.toString().toStdString();
    }

    // A new language renames the rows in place.
    QSignalSpy reset(sidebar, &QAbstractItemModel::modelReset);
    QSignalSpy removed(sidebar, &QAbstractItemModel::rowsRemoved);
    h.strings.setLanguageCode(u"de"_s);
    EXPECT_EQ(sidebar->index(0).data(SidebarModel::TitleRole).toString(), u"Allgemein"_s);
    EXPECT_EQ(reset.count() + removed.count(), 0);
}

} // namespace
