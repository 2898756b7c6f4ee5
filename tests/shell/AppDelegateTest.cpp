// The shell's wiring: the launch order, the notification handlers, sign-in and quitting,
// against recording windows, the interview's fakes and a FakeBackend.

#include "ShellFakes.h"

#include "APIClient.h"
#include "AuthTokenStore.h"
#include "AuthViewModel.h"
#include "LogCapture.h"
#include "MenuBarViewModel.h"
#include "SettingsViewModel.h"
#include "TelemetryClient.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QUrlQuery>


#include <gtest/gtest.h>

namespace {

QString accessTokenFor(const QString& id, const QString& email)
{
    const auto payload = QJsonDocument(QJsonObject{{u"sub"_s, id}, {u"email"_s, email}}).toJson(QJsonDocument::Compact);
    return u"h."_s + QString::fromLatin1(payload.toBase64()) + u".s"_s;
}

// The backend's answer to a refresh or an exchange: a new pair for the given user.
FakeBackend::Response tokenPair(const QString& id, const QString& email)
{
    return FakeBackend::Response::json(
        200, QJsonDocument(QJsonObject{{u"accessToken"_s, accessTokenFor(id, email)}, {u"refreshToken"_s, u"refresh-2"_s},
                                       {u"user"_s, QJsonObject{{u"id"_s, u"u-1"_s}, {u"email"_s, u"a@example.com"_s}}}})
                 .toJson());
}

class AppDelegateTest : public ::testing::Test {
protected:
    void TearDown() override { awaitResumeCheck(delegate.get(), backend); }

    AppDelegateTest()
    {
        notifications.addObserver(Notifications::overlayVisibilityChanged, nullptr,
                                  [this](const Notification& n) { log.add(u"overlay visible "_s + n.object.toString()); });
    }

    // The delegate, made and launched; `storedRefreshToken` makes a returning user.
    void launch(std::optional<QString> storedRefreshToken = std::nullopt)
    {
        delegate = std::make_unique<AppDelegate>(AppDelegate::Environment{
            backend.origin(), clock, preferences, notifications, strings, windows, keys, updates, interview.rights,
            keysRight,
            [this, storedRefreshToken] {
                log.add(u"make token store"_s);
                auto store = std::make_unique<InMemoryTokenStore>();
                if (storedRefreshToken)
                    awaitTask(store->saveTokens(accessTokenFor(u"u-9"_s, u"back@example.com"_s), *storedRefreshToken));
                tokens = store.get();
                return store;
            },
            [this] {
                log.add(u"make interview services"_s);
                return interview.make();
            },
            [this](APIClient&) {
                log.add(u"give client to interview"_s);
                return interviewBackend;
            },
            [this](TelemetryClient* telemetry, std::function<QString()> lastState) {
                const bool wired = delegate->authViewModel().apiClient() && updates.telemetry == telemetry;
                log.add(u"install crash reporter"_s + (wired ? u" after wiring"_s : u""_s));
                crashLastState = std::move(lastState);
            },
            [this](const QUrl& url) {
                opened.append(url);
                return true;
            },
            [] { return false; },
            [this] { log.add(u"terminate"_s); },
        });
        awaitTask(delegate->applicationDidFinishLaunching());
        settle();
    }

    // A returning user whose stored token the backend refreshes.
    void launchSignedIn()
    {
        backend.setRoute("POST", "/api/v1/auth/refresh", tokenPair(u"u-9"_s, u"back@example.com"_s));
        launch(u"refresh-1"_s);
    }

    void settle()
    {
        for (int k = 0; k < 5; ++k) {
            if (!delegate->lastTask().isFinished())
                awaitTask([](TaskHandle task) -> QCoro::Task<> { co_await task.finished(); }(delegate->lastTask()));
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

    EventLog log;
    FakeBackend backend;
    ManualClock clock;
    PreferencesStore preferences;
    NotificationCenter notifications;
    AppStrings strings{QStringList{u"en"_s}};
    RecordingWindows windows{log};
    RecordingKeyMonitors keys{log};
    RecordingUpdates updates{log};
    FixedKeysRight keysRight;
    FakeInterviewServices interview;
    std::shared_ptr<ScriptedBackend> interviewBackend = std::make_shared<ScriptedBackend>(clock, interview.gates);
    InMemoryTokenStore* tokens = nullptr;
    std::function<QString()> crashLastState;
    QList<QUrl> opened;
    LogCapture logs;
    std::unique_ptr<AppDelegate> delegate;
};

TEST_F(AppDelegateTest, SignedOutLaunchRunsInOrderAndEndsOnTheWelcomePanel)
{
    launch();

    EXPECT_EQ(log.events(),
              (QStringList{u"make token store"_s, u"make interview services"_s, u"give client to interview"_s,
                           u"install crash reporter after wiring"_s, u"create menu bar item"_s, u"create overlay"_s,
                           u"install tap"_s, u"create settings"_s, u"create welcome"_s, u"install key monitors"_s,
                           u"start update check"_s, u"show welcome"_s}));
    EXPECT_EQ(backend.totalRequests(), 0) << "no stored token, no request";
    EXPECT_TRUE(logs.lines().contains(u"[Auth] init: hasStoredTokens=false, refreshToken=false"_s));
    for (const auto& name : {Notifications::userDidLogout, Notifications::showDashboard, Notifications::toggleOverlay,
                             Notifications::triggerAI, Notifications::startOAuthLogin, Notifications::apiRequestFailed,
                             Notifications::startMockInterview, Notifications::aiTriggerKeyChanged})
        EXPECT_EQ(notifications.observerCount(name), 1u) << name.toStdString();
    EXPECT_EQ(crashLastState(), u"idle"_s);
    EXPECT_TRUE(telemetryEvents().contains(u"app_launched"_s));
}

TEST_F(AppDelegateTest, ReturningUserIsRestoredAndSignOutPutsThePanelsAway)
{
    launchSignedIn();

    const auto tail = log.events().mid(log.events().indexOf(u"start update check"_s) + 1);
    EXPECT_EQ(tail, (QStringList{u"remove tap"_s, u"install tap"_s, u"show overlay"_s, u"overlay visible true"_s}));
    EXPECT_TRUE(delegate->interviewViewModel().isLoggedIn());
    EXPECT_EQ(delegate->interviewViewModel().userEmail(), u"back@example.com"_s);
    EXPECT_EQ(updates.userId, u"u-9"_s);
    EXPECT_TRUE(telemetryEvents().contains(u"overlay_toggled"_s));

    notifications.post(Notifications::showDashboard);
    log.clear();
    delegate->models().settingsPage->signOut();
    settle();
    EXPECT_EQ(log.events(), (QStringList{u"hide settings"_s, u"hide overlay"_s, u"show welcome"_s}));
    EXPECT_FALSE(delegate->authViewModel().isLoggedIn());
    EXPECT_EQ(tokens->item(AuthTokenStore::refreshTokenKey), std::nullopt);
}

// Refused at launch, the user is signed out everywhere: the dashboard's requests land on sign-in.
TEST_F(AppDelegateTest, ReturningUserRefusedByTheBackendIsSignedOutEverywhere)
{
    backend.setRoute("POST", "/api/v1/auth/refresh", FakeBackend::Response::json(401, "{}"));
    launch(u"revoked"_s);

    EXPECT_EQ(log.events().last(), u"show welcome"_s);
    EXPECT_FALSE(log.events().contains(u"show overlay"_s));
    EXPECT_FALSE(delegate->authViewModel().isLoggedIn());
    EXPECT_EQ(tokens->item(AuthTokenStore::refreshTokenKey), std::nullopt);

    log.clear();
    notifications.post(Notifications::showDashboard);
    delegate->handleLaunchArguments({});
    delegate->handleLaunchArguments({u"--settings"_s});
    EXPECT_EQ(log.events(), (QStringList{u"show welcome"_s, u"show welcome"_s, u"show welcome"_s}));
    settle();
    EXPECT_FALSE(telemetryEvents().contains(u"settings_opened"_s));
}

TEST_F(AppDelegateTest, OnlyARouteAndAnIntegerStatusAreReportedAsApiFailures)
{
    launch();
    notifications.post(Notifications::apiRequestFailed, {}, {{u"route"_s, u"/api/v1/x"_s}, {u"status"_s, u"500"_s}});
    notifications.post(Notifications::apiRequestFailed, {}, {{u"status"_s, 500}});
    settle();
    EXPECT_FALSE(telemetryEvents().contains(u"api_failed"_s));

    notifications.post(Notifications::apiRequestFailed, {}, {{u"route"_s, u"/api/v1/x"_s}, {u"status"_s, 503}});
    settle();
    const auto& buffer = delegate->telemetry().buffer();
    ASSERT_EQ(telemetryEvents().count(u"api_failed"_s), 1);
    const auto& event = *std::find_if(buffer.begin(), buffer.end(), [](const auto& e) { return e.name == u"api_failed"_s; });
    EXPECT_EQ(event.props, (TelemetryClient::Props{{u"route"_s, u"/api/v1/x"_s}, {u"status"_s, qint64(503)}}));
}

TEST_F(AppDelegateTest, QuittingDuringARecordingStopsNothing)
{
    launchSignedIn();
    awaitTask(delegate->interviewViewModel().startInterview(), 5000);
    ASSERT_TRUE(delegate->interviewViewModel().isRecording());
    EXPECT_EQ(crashLastState(), u"recording"_s);
    log.clear();

    delegate->handleLaunchArguments({u"--quit"_s});
    settle();

    EXPECT_EQ(log.events(), QStringList{u"terminate"_s});
    EXPECT_TRUE(delegate->interviewViewModel().isRecording());
    EXPECT_EQ(interview.systemAudio.stopCount, 0);
    EXPECT_EQ(interview.microphone.stopCount, 0);
    for (const auto& recognizer : interview.recognizers)
        EXPECT_FALSE(recognizer->isStopped);
}

TEST_F(AppDelegateTest, BrowserSignInExchangesTheCodeHidesTheWelcomePanelAndShowsTheOverlay)
{
    backend.setRoute("POST", "/api/v1/auth/exchange", tokenPair(u"u-1"_s, u"a@example.com"_s));
    launch();
    log.clear();

    notifications.post(Notifications::startOAuthLogin);
    ASSERT_EQ(opened.size(), 1);
    EXPECT_EQ(opened.first().path(), u"/auth/login"_s);
    const QString state = QUrlQuery(opened.first()).queryItemValue(u"state"_s);

    // Another host, with the right scheme, ends nothing and exchanges nothing.
    delegate->openURLs({QUrl(u"ravlet://other?code=c-0&state="_s + state)});
    settle();
    EXPECT_TRUE(delegate->oauthService().isPending());
    EXPECT_EQ(backend.totalRequests(), 0);

    delegate->handleLaunchArguments({u"ravlet://auth-callback?code=c-1&state="_s + state});
    settle();

    ASSERT_EQ(backend.requestCount("POST", "/api/v1/auth/exchange"), 1);
    EXPECT_EQ(tokens->item(AuthTokenStore::refreshTokenKey), u"refresh-2"_s);
    EXPECT_EQ(log.events(),
              (QStringList{u"hide welcome"_s, u"remove tap"_s, u"install tap"_s, u"show overlay"_s, u"overlay visible true"_s}));
    EXPECT_TRUE(delegate->interviewViewModel().isLoggedIn());
    EXPECT_EQ(delegate->interviewViewModel().userEmail(), u"a@example.com"_s);
}

TEST_F(AppDelegateTest, DeepLinkWithoutAPendingSignInIsExchangedWithoutAState)
{
    backend.setRoute("POST", "/api/v1/auth/exchange", tokenPair(u"u-1"_s, u"a@example.com"_s));
    launch();
    delegate->openURLs({QUrl(u"ravlet://auth-callback?code=c-2"_s)});
    settle();
    EXPECT_EQ(backend.requestCount("POST", "/api/v1/auth/exchange"), 1);
    EXPECT_TRUE(delegate->authViewModel().isLoggedIn());
}

TEST_F(AppDelegateTest, OverlayToggleFlipsVisibilityAndTellsTheMenu)
{
    launch();
    log.clear();
    delegate->models().menuBar->toggleOverlay();
    EXPECT_TRUE(delegate->models().menuBar->isOverlayVisible());
    delegate->handleLaunchArguments({u"--show-overlay"_s}); // already visible: stays
    notifications.post(Notifications::toggleOverlay);
    EXPECT_FALSE(delegate->models().menuBar->isOverlayVisible());
    EXPECT_EQ(log.events(), (QStringList{u"show overlay"_s, u"overlay visible true"_s, u"hide overlay"_s,
                                         u"overlay visible false"_s}));
}

} // namespace
