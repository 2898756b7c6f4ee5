#include "AppDelegate.h"

#include "APIClient.h"
#include "AuthTokenStore.h"
#include "AuthViewModel.h"
#include "DashboardViewModel.h"
#include "InterviewAdapters.h"
#include "LaunchArguments.h"
#include "MenuBarViewModel.h"
#include "NotificationCenter.h"
#include "OverlayViewModel.h"
#include "ResumeCount.h"
#include "TelemetryClient.h"
#include "TriggerName.h"
#include "UpdateService.h"
#include "UserSettings.h"
#include "WelcomeViewModel.h"

#include <QGuiApplication>
#include <QTimer>

using namespace Qt::StringLiterals;
using Panel = ShellWindows::Panel;

AppDelegate::AppDelegate(Environment environment, QObject* parent)
    : QObject(parent)
    , m_env(std::move(environment))
{
    m_oauthService = std::make_unique<OAuthService>(m_env.backendOrigin, m_env.clock, m_env.openUrl);
    m_authService = m_env.makeAuthService();
    m_userSettings = std::make_unique<UserSettings>(m_env.preferences, m_env.notifications);
    m_telemetry = std::make_unique<TelemetryClient>(m_env.backendOrigin, m_env.preferences, m_env.clock,
                                                    TelemetryClient::Environment::current(), m_env.network);
    m_interviewViewModel = std::make_unique<InterviewViewModel>(m_env.clock, *m_userSettings, m_env.strings,
                                                                m_env.makeInterviewServices());
    m_authViewModel = std::make_unique<AuthViewModel>(*m_authService);
    m_updateService = std::make_unique<UpdateService>(m_env.backendOrigin, m_env.version, m_env.clock,
        m_env.installation, m_env.packageOpener, UpdateService::Paths::standard(), m_env.network);
    connect(m_updateService.get(), &UpdateService::terminationRequested, this, &AppDelegate::quit);
    m_triggerName = std::make_unique<TriggerName>(TriggerName::Services{*m_userSettings, m_env.strings,
        &m_env.keysRight, m_env.shortcutPortal, QCoreApplication::applicationFilePath()});
}

AppDelegate::~AppDelegate()
{
    m_env.windows.destroyWindows();
    m_env.notifications.removeObservers(this);
}

QCoro::Task<> AppDelegate::applicationDidFinishLaunching()
{
    QPointer self(this);
    // The last piece of the sign-in state's construction: the secret store answers over D-Bus.
    auto* auth = m_authViewModel.get();
    co_await auth->loadStoredTokens();
    if (!self)
        co_return;

    // No main window: closing the last one leaves the program in the tray.
    QGuiApplication::setQuitOnLastWindowClosed(false);

    m_apiClient = std::make_unique<APIClient>(m_env.backendOrigin, *m_authService, m_env.notifications,
                                              m_env.network);
    m_authViewModel->setApiClient(m_apiClient.get());
    m_interviewViewModel->setBackend(m_env.makeInterviewBackend(*m_apiClient));
    m_authViewModel->setTelemetry(m_telemetry.get());
    m_interviewViewModel->setTelemetry(std::make_shared<TelemetryClientReporter>(m_telemetry.get()));
    m_updateService->setTelemetry(m_telemetry.get());

    m_env.installCrashReporter(m_telemetry.get(), [self] { return self ? self->lastState() : u"idle"_s; });

    tellTelemetry([](TelemetryClient& telemetry) {
        telemetry.start();
        telemetry.appLaunched();
    });

    m_welcome = std::make_unique<WelcomeViewModel>(
        WelcomeViewModel::Services{m_env.clock, m_env.preferences, m_env.notifications, m_env.audioRights,
                                   m_env.keysRight, m_env.openSoundSettings, m_env.strings, *m_authViewModel});
    m_welcome->setSettings(m_userSettings.get());
    m_menuBar = std::make_unique<MenuBarViewModel>(*m_interviewViewModel, *m_authViewModel, m_env.strings,
                                                   m_env.notifications, [this] { quit(); });
    m_dashboard = std::make_unique<DashboardViewModel>(DashboardViewModel::Services{
        m_env.strings, *m_authViewModel, m_env.notifications, *m_updateService,
        {*m_interviewViewModel, *m_userSettings, m_env.strings, m_env.audioRights, m_env.keysRight,
         m_env.openSoundSettings}, m_env.version, m_env.build, m_telemetry.get(),
        {*m_userSettings, m_env.strings, m_env.clock, m_env.keySource, QCoreApplication::applicationFilePath(), m_env.shortcutPortal,
          m_env.gnomeShortcuts, m_triggerName.get()}});
    m_overlay = std::make_unique<OverlayViewModel>(
        OverlayViewModel::Services{*m_interviewViewModel, *m_userSettings, m_env.strings, m_env.notifications,
                                   m_env.clock, ResumeCount::through(m_apiClient.get()), m_triggerName.get()});

    // Every window is made now, so that a first "showDashboard" finds its page.
    m_env.windows.createMenuBarItem(*m_menuBar);
    m_env.windows.createPanel(Panel::overlay, *m_overlay);
    m_env.keyMonitors.attach(*m_interviewViewModel, *m_userSettings, m_env.windows.window(Panel::overlay));
    m_env.keyMonitors.installEventTap();
    m_env.windows.createPanel(Panel::dashboard, *m_dashboard);
    m_env.windows.createPanel(Panel::welcome, *m_welcome);

    addObservers();
    m_env.keyMonitors.installKeyMonitors();
    m_updateService->startPeriodicCheck();

    if (!m_authViewModel->isLoggedIn())
        m_env.windows.show(Panel::welcome);
    else
        m_lastTask = TaskHandle::run([this](const CancellationToken&) { return restoreAndContinue(); });
}

QCoro::Task<> AppDelegate::restoreAndContinue()
{
    QPointer self(this);
    auto* auth = m_authViewModel.get();
    co_await auth->restoreSession();
    if (!self)
        co_return;
    if (m_authViewModel->isLoggedIn())
        postSignIn(false);
    else
        m_env.windows.show(Panel::welcome);
}

void AppDelegate::addObservers()
{
    auto& center = m_env.notifications;
    center.addObserver(Notifications::userDidLogout, this, [this](const Notification&) { handleLogout(); });
    center.addObserver(Notifications::showDashboard, this, [this](const Notification& n) { handleShowDashboard(n); });
    center.addObserver(Notifications::toggleOverlay, this, [this](const Notification&) { handleToggleOverlay(); });
    center.addObserver(Notifications::triggerAI, this, [this](const Notification&) { handleTriggerAI(); });
    center.addObserver(Notifications::startOAuthLogin, this, [this](const Notification&) { handleStartOAuthLogin(); });
    center.addObserver(Notifications::apiRequestFailed, this, [this](const Notification& n) { handleApiRequestFailed(n); });
    center.addObserver(Notifications::startMockInterview, this, [this](const Notification& n) { handleStartMockInterview(n); });
    center.addObserver(Notifications::aiTriggerKeyChanged, this,
                       [this](const Notification&) { m_env.keyMonitors.installKeyMonitors(); });
}

void AppDelegate::tellTelemetry(std::function<void(TelemetryClient&)> event)
{
    QTimer::singleShot(0, this, [telemetry = QPointer(m_telemetry.get()), event = std::move(event)] {
        if (telemetry)
            event(*telemetry);
    });
}

void AppDelegate::postSignIn(bool afterBrowserSignIn)
{
    m_interviewViewModel->setLoggedIn(true);
    const auto& user = m_authViewModel->currentUser();
    m_interviewViewModel->setUserEmail(user ? std::optional(user->email) : std::nullopt);
    m_updateService->setUserId(user ? std::optional(user->id) : std::nullopt);
    if (afterBrowserSignIn)
        m_env.windows.hide(Panel::welcome);

    // Rebuilding the tap here makes the arrow keys work right after the right was granted.
    m_env.keyMonitors.removeEventTap();
    m_env.keyMonitors.installEventTap();
    setOverlayVisible(true);
}

void AppDelegate::setOverlayVisible(bool visible)
{
    if (visible)
        m_env.windows.show(Panel::overlay);
    else
        m_env.windows.hide(Panel::overlay);
    m_env.notifications.post(Notifications::overlayVisibilityChanged, visible);
    tellTelemetry([visible](TelemetryClient& telemetry) { telemetry.overlayToggled(visible); });
}

void AppDelegate::handleLogout()
{
    // A running interview is left alone: its captures and recognisers stop by their own logic.
    m_env.windows.hide(Panel::dashboard);
    m_env.windows.hide(Panel::overlay);
    tellTelemetry([](TelemetryClient& telemetry) { telemetry.overlayToggled(false); });
    m_env.windows.show(Panel::welcome);
}

void AppDelegate::handleShowDashboard(const Notification& notification)
{
    m_dashboard->showPage(notification.userInfo.value(u"page"_s));
    if (!m_authViewModel->isLoggedIn()) {
        m_env.windows.show(Panel::welcome);
        return;
    }
    m_env.windows.show(Panel::dashboard);
    tellTelemetry([](TelemetryClient& telemetry) { telemetry.settingsOpened(); });
}

void AppDelegate::handleToggleOverlay()
{
    if (!m_env.windows.hasPanel(Panel::overlay))
        return;
    setOverlayVisible(!m_env.windows.isVisible(Panel::overlay));
}

void AppDelegate::handleTriggerAI()
{
    m_interviewViewModel->triggerAIAnswer();
    tellTelemetry([name = m_userSettings->aiTriggerKey().displayName](TelemetryClient& telemetry) {
        telemetry.hotkeyUsed(name);
    });
}

void AppDelegate::handleStartOAuthLogin()
{
    m_oauthService->setPresentationAnchor(m_env.windows.window(Panel::welcome));
    m_oauthService->startLogin([self = QPointer(this)](std::optional<QString> code) {
        if (!code || !self)
            return;
        self->m_lastTask = TaskHandle::run(
            [delegate = self.data(), code = *code](const CancellationToken&) { return delegate->finishSignIn(code); });
    });
}

QCoro::Task<> AppDelegate::finishSignIn(QString code)
{
    QPointer self(this);
    auto* auth = m_authViewModel.get();
    co_await auth->exchangeCode(std::move(code));
    if (self && m_authViewModel->isLoggedIn())
        postSignIn(true);
}

void AppDelegate::handleApiRequestFailed(const Notification& notification)
{
    const auto route = notification.userInfo.value(u"route"_s);
    const auto status = notification.userInfo.value(u"status"_s);
    static const QList<int> integers{QMetaType::Int, QMetaType::LongLong, QMetaType::UInt, QMetaType::ULongLong};
    if (route.typeId() != QMetaType::QString || !integers.contains(status.typeId()))
        return;
    tellTelemetry([route = route.toString(), status = status.toLongLong()](TelemetryClient& telemetry) {
        telemetry.apiFailed(route, status);
    });
}

void AppDelegate::openURLs(const QList<QUrl>& urls)
{
    // While a browser sign-in waits, its callback ends it and must carry the state it sent.
    if (m_oauthService->isPending() && !urls.isEmpty() && OAuthService::isCallback(urls.first())) {
        m_oauthService->handleCallback(urls.first());
        return;
    }
    const auto code = OAuthService::deepLinkCode(urls);
    if (!code)
        return;
    m_lastTask = TaskHandle::run([this, code = *code](const CancellationToken&) { return finishSignIn(code); });
}

void AppDelegate::handleLaunchArguments(const QStringList& arguments)
{
    const auto parsed = LaunchArguments::parse(arguments);
    switch (parsed.action) {
    case LaunchArguments::Action::quit:
        quit();
        return;
    case LaunchArguments::Action::showOverlay:
        if (!m_env.windows.isVisible(Panel::overlay))
            m_env.notifications.post(Notifications::toggleOverlay);
        return;
    case LaunchArguments::Action::openUrls:
        openURLs(parsed.urls);
        return;
    case LaunchArguments::Action::showDashboard:
        m_env.notifications.post(Notifications::showDashboard);
        return;
    case LaunchArguments::Action::keyAction:
        if (parsed.keyAction == KeyAction::toggleOverlay)
            m_env.notifications.post(Notifications::toggleOverlay);
        else
            m_env.keyMonitors.performKeyAction(parsed.keyAction);
        return;
    }
}

void AppDelegate::handleStartMockInterview(const Notification& notification)
{
    if (!m_apiClient)
        return;
    if (!m_practice)
        m_practice = std::make_unique<PracticeSessions>(m_env.practice, PracticeSessions::Services{*m_apiClient,
            m_env.network, m_env.notifications, m_env.clock, m_interviewViewModel.get(), m_env.strings, m_telemetry.get()});
    m_practice->start(notification.userInfo, m_userSettings->inputLanguage());
}

void AppDelegate::quit()
{
    // No stop of the interview, no upload, no telemetry flush: the process simply ends.
    m_updateService->abortCheck();
    m_env.terminate();
}

QString AppDelegate::lastState() const
{
    return m_interviewViewModel->isRecording()          ? u"recording"_s
         : m_interviewViewModel->isGeneratingAnswer() ? u"generating"_s
                                                       : u"idle"_s;
}
