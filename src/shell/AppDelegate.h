#pragma once

#include "InterviewViewModel.h"
#include "OAuthService.h"
#include "PracticeSessions.h"
#include "ShellInterfaces.h"
#include "TaskHandle.h"
#include "UpdatePackage.h"

#include <QList>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QUrl>

#include <functional>
#include <memory>

class APIClient;
class AppStrings;
class AudioRights;
class AuthTokenStore;
class AuthViewModel;
class Clock;
class DashboardViewModel;
class InterviewBackend;
class MenuBarViewModel;
class NotificationCenter;
class OverlayViewModel;
class PreferencesStore;
class QNetworkAccessManager;
class TelemetryClient;
class TriggerName;
class PackageOpener;
class UpdateService;
class UserSettings;
class WelcomeViewModel;
struct Notification;

// Owns every long-lived object of the program and wires them together; handles the program's
// notifications. The windows' behaviour lives in their view models.
class AppDelegate : public QObject {
    Q_OBJECT

public:
    // What the entry point picks for this desktop. References must outlive the delegate.
    struct Environment {
        QString backendOrigin;
        Clock& clock;
        PreferencesStore& preferences;
        NotificationCenter& notifications;
        AppStrings& strings;
        ShellWindows& windows;
        KeyMonitors& keyMonitors;
        QString version;
        QString build;
        AudioRights& audioRights;
        GlobalKeysRight& keysRight;
        std::function<std::unique_ptr<AuthTokenStore>()> makeAuthService;
        std::function<InterviewViewModel::Services()> makeInterviewServices;
        std::function<std::shared_ptr<InterviewBackend>(APIClient&)> makeInterviewBackend;
        // Installs the crash handlers with the telemetry client and a last-state function.
        std::function<void(TelemetryClient*, std::function<QString()>)> installCrashReporter;
        OAuthService::UrlOpener openUrl;
        // Opens the desktop's sound settings; false when none is installed.
        std::function<bool()> openSoundSettings;
        std::function<void()> terminate;
        QNetworkAccessManager* network = nullptr; // the shared one; null: each client its own
        Installation installation = {};        // what the update service may replace
        PackageOpener* packageOpener = nullptr; // hands a package to the user when it cannot
        // The keys the keybinds page records and tests; none: it reads no key.
        KeySource* keySource = nullptr;
        QObject* shortcutPortal = nullptr; // where the desktop binds our shortcuts
        QObject* gnomeShortcuts = nullptr; // adds our commands to GNOME's own shortcuts
        PracticeDevices practice = {};     // none: practice sessions cannot start
    };

    explicit AppDelegate(Environment environment, QObject* parent = nullptr);
    ~AppDelegate() override;

    // Reads the stored sign-in, then runs the launch: client, crash reporter, windows,
    // observers, key monitors, update check, and the welcome panel or the session restore.
    QCoro::Task<> applicationDidFinishLaunching();

    // Callback addresses that reached the program from outside (the desktop entry).
    void openURLs(const QList<QUrl>& urls);
    // The arguments of a later start of the program, forwarded by the single-instance socket.
    void handleLaunchArguments(const QStringList& arguments);
    // Ends the program at once; an interview that is running is not stopped.
    void quit();

    // The objects it owns, for the entry point and for tests.
    AuthTokenStore& authService() const { return *m_authService; }
    UserSettings& userSettings() const { return *m_userSettings; }
    TelemetryClient& telemetry() const { return *m_telemetry; }
    InterviewViewModel& interviewViewModel() const { return *m_interviewViewModel; }
    AuthViewModel& authViewModel() const { return *m_authViewModel; }
    UpdateService& updateService() const { return *m_updateService; }
    OAuthService& oauthService() const { return *m_oauthService; }
    APIClient* apiClient() const { return m_apiClient.get(); }
    // The windows' root view models, made at launch.
    OverlayViewModel* overlay() const { return m_overlay.get(); }
    WelcomeViewModel* welcome() const { return m_welcome.get(); }
    MenuBarViewModel* menuBar() const { return m_menuBar.get(); }
    DashboardViewModel* dashboard() const { return m_dashboard.get(); }
    // Made by the first practice start.
    PracticeSessions* practice() const { return m_practice.get(); }
    // The last task this delegate started (tests wait for it).
    const TaskHandle& lastTask() const { return m_lastTask; }

    // The last state a crash report would carry.
    QString lastState() const;

private:
    void addObservers();
    void handleLogout();
    void handleShowDashboard(const Notification& notification);
    void handleToggleOverlay();
    void handleTriggerAI();
    void handleStartOAuthLogin();
    void handleApiRequestFailed(const Notification& notification);
    void handleStartMockInterview(const Notification& notification);

    void postSignIn(bool afterBrowserSignIn);
    void setOverlayVisible(bool visible);
    QCoro::Task<> restoreAndContinue();
    QCoro::Task<> finishSignIn(QString code);
    // Telemetry is told on the main thread's event loop a turn later, as the designed tasks
    // are, and only while it exists.
    void tellTelemetry(std::function<void(TelemetryClient&)> event);

    Environment m_env;
    // Owned objects, made at construction in this order.
    std::unique_ptr<OAuthService> m_oauthService;
    std::unique_ptr<AuthTokenStore> m_authService;
    std::unique_ptr<UserSettings> m_userSettings;
    std::unique_ptr<TelemetryClient> m_telemetry;
    std::unique_ptr<InterviewViewModel> m_interviewViewModel;
    std::unique_ptr<AuthViewModel> m_authViewModel;
    std::unique_ptr<UpdateService> m_updateService;
    // Named by the overlay and the Keybinds page alike, so it outlives both.
    std::unique_ptr<TriggerName> m_triggerName;
    // Made at launch.
    std::unique_ptr<APIClient> m_apiClient;
    std::unique_ptr<WelcomeViewModel> m_welcome;
    std::unique_ptr<MenuBarViewModel> m_menuBar;
    std::unique_ptr<DashboardViewModel> m_dashboard;
    std::unique_ptr<OverlayViewModel> m_overlay;
    std::unique_ptr<PracticeSessions> m_practice;
    TaskHandle m_lastTask;
};
