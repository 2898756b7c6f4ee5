#include "RavletApplication.h"

#include "APIClient.h"
#include "AppDelegate.h"
#include "AppStrings.h"
#include "AudioCaptureService.h"
#include "AuthService.h"
#include "BuildConfig.h"
#include "Clock.h"
#include "CrashReporter.h"
#include "DesktopIntegration.h"
#include "DesktopKeysRight.h"
#include "DesktopSession.h"
#include "DesktopShortcuts.h"
#include "GlobalKeys.h"
#include "GnomeCustomShortcuts.h"
#include "GlobalShortcutsPortal.h"
#include "InterviewAdapters.h"
#include "LaunchArguments.h"
#include "LocalServer.h"
#include "Log.h"
#include "MicrophoneService.h"
#include "NotificationCenter.h"
#include "PopplerPdfTextExtractor.h"
#include "PreferencesStore.h"
#include "QtCameraService.h"
#include "QtTTSPlayer.h"
#include "PulseAudioRights.h"
#include "PulseMicrophoneSource.h"
#include "PulseSystemAudioSource.h"
#include "QmlShellWindows.h"
#include "RendererChoice.h"
#include "SingleInstance.h"
#include "SoundSettings.h"
#include "X11KeySource.h"
#include "X11Workspaces.h"
#include "XdgPackageOpener.h"

#include <QApplication>
#include <QDesktopServices>
#include <QDir>
#include <QNetworkAccessManager>
#include <QTimer>
#include <QtQml/qqmlextensionplugin.h>

#include <cstdio>
#include <string_view>

Q_IMPORT_QML_PLUGIN(Ravlet_ShellPlugin)

using namespace Qt::StringLiterals;

namespace {

// An installed program has its desktop entry from the install; one started from anywhere
// else (its build folder) writes its own.
bool isInstalled(const QString& programPath)
{
    return QDir::cleanPath(programPath).startsWith(QDir::cleanPath(QString::fromUtf16(BuildConfig::installBinDir)) + u'/');
}

QCoro::Task<> launchThenWait(AppDelegate* delegate, LocalServer* localServer, QStringList arguments,
                             RavletApplicationOptions* options)
{
    // Every step of the launch may reach the backend (telemetry, the session restore, the
    // update check): a server of our own answers first.
    co_await localServer->ensureRunning();
    co_await delegate->applicationDidFinishLaunching();
    // A first start that was given an address: the callback of a sign-in begun by an earlier
    // run, or an action of the desktop entry.
    if (!arguments.isEmpty())
        delegate->handleLaunchArguments(arguments);
    if (options->whenIdle)
        QTimer::singleShot(0, delegate, [delegate, options] { options->whenIdle(*delegate); });
}

} // namespace

int runRavletApplication(int argc, char* argv[], RavletApplicationOptions options)
{
    // Answered before the application exists, so that it needs no display (scripts, packages).
    if (argc == 2 && std::string_view(argv[1]) == "--version") {
        std::printf("RavletAI %s\n", QString::fromUtf16(BuildConfig::version).toUtf8().constData());
        return 0;
    }
    // A key's action bound in the desktop's shortcut settings: handed to the running program
    // at once, before any display or window is set up, so that the press acts in a few
    // milliseconds. It never starts a program of its own.
    QStringList rawArguments;
    for (int i = 1; i < argc; ++i)
        rawArguments.append(QString::fromLocal8Bit(argv[i]));
    if (LaunchArguments::findKeyAction(rawArguments)) {
        if (SingleInstance().forwardToRunning(rawArguments))
            return 0;
        std::fprintf(stderr, "ravletai %s: RavletAI is not running, so there is nothing to act on\n",
                     qPrintable(rawArguments.join(u' ')));
        return 1;
    }
    QmlShellWindows::prepareDrawing();
    const auto session = applyDesktopSession();
    const auto renderer = applyRendererChoice();
    QApplication app(argc, argv);
    QCoreApplication::setApplicationName(u"RavletAI"_s);
    QCoreApplication::setApplicationVersion(QString::fromUtf16(BuildConfig::version));
    QGuiApplication::setDesktopFileName(u"ravletai"_s);

    const QStringList arguments = QCoreApplication::arguments().mid(1);
    SingleInstance instance;
    if (instance.forwardToRunning(arguments))
        return 0;
    instance.listen();

    auto& strings = AppStrings::shared();
    if (strings.isRightToLeft())
        QGuiApplication::setLayoutDirection(Qt::RightToLeft);

    JsonPreferencesStore preferences;
    SystemClock clock;
    QNetworkAccessManager network;
    // Only the one running instance gets here, so only it starts a server.
    LocalServer localServer(QUrl(options.backendOrigin), QCoreApplication::applicationDirPath(), clock, network);
    PopplerPdfTextExtractor pdfText;
    AudioCaptureService systemAudio([&clock] { return std::make_unique<PulseSystemAudioSource>(clock); });
    MicrophoneService microphone([&clock] { return std::make_unique<PulseMicrophoneSource>(clock); });
    SystemAudioCapture systemAudioCapture(systemAudio);
    MicrophoneCapture microphoneCapture(microphone);
    PulseAudioRights rights(clock);
    X11KeySource keySource;
    QmlShellWindows windows;
    windows.setAllWorkspaces(showOnAllWorkspaces);
    GlobalKeys keyMonitors(keySource);
    // On Wayland the X11 source sees only keys typed into our own windows; where the desktop
    // offers its shortcut portal, the keys come through it instead.
    std::unique_ptr<GlobalShortcutsPortal> portal;
    if (session.kind == DesktopSession::Kind::wayland && GlobalShortcutsPortal::isAvailable()) {
        portal = std::make_unique<GlobalShortcutsPortal>();
        keyMonitors.setDesktopShortcuts(
            [&portal](const AITriggerKey& key) { portal->bind(DesktopShortcuts::forTriggerKey(key)); });
        QObject::connect(portal.get(), &GlobalShortcutsPortal::activated, &keyMonitors, [&keyMonitors](const QString& id) {
            if (const auto action = DesktopShortcuts::actionOf(id))
                keyMonitors.performKeyAction(*action);
        });
        logLine(u"Keys", u"global shortcuts go through the desktop's shortcut portal");
    }
    DesktopKeysRight keysRight(session, keySource,
                               portal ? std::function<void()>([&keyMonitors] { keyMonitors.installKeyMonitors(); })
                                      : std::function<void()>());
    XdgPackageOpener packageOpener;
    GnomeCustomShortcuts gnomeShortcuts(QCoreApplication::applicationFilePath(), session.desktop);

    AppDelegate delegate(AppDelegate::Environment{
        options.backendOrigin,
        clock,
        preferences,
        NotificationCenter::defaultCenter(),
        strings,
        windows,
        keyMonitors,
        QString::fromUtf16(BuildConfig::version),
        // No build counter exists apart from the version.
        QString::fromUtf16(BuildConfig::version),
        rights,
        keysRight,
        [] { return std::make_unique<AuthService>(std::make_shared<const KeychainHelper>()); },
        [&] {
            InterviewViewModel::Services services;
            services.audioCapture = &systemAudioCapture;
            services.microphone = &microphoneCapture;
            services.rights = &rights;
            services.makeRecognizer = vendorRecognizers(clock);
            services.makeTranscriptChannel = [&clock] { return std::make_shared<TranscriptUploadChannel>(clock); };
            return services;
        },
        [&pdfText](APIClient& client) {
            client.setPdfTextExtractor(&pdfText);
            return std::make_shared<APIClientInterviewBackend>(client);
        },
        [](TelemetryClient* telemetry, std::function<QString()> lastState) {
            CrashReporter::shared().install(telemetry, std::move(lastState));
        },
        [](const QUrl& url) { return QDesktopServices::openUrl(url); },
        &SoundSettings::open,
        [] { QCoreApplication::quit(); },
        &network,
        Installation::current(),
        &packageOpener,
        &keySource,
        portal.get(),
        &gnomeShortcuts,
        PracticeDevices{
            [](Clock& clock) { return std::make_unique<QtTTSPlayer>(clock); },
            [] { return std::make_unique<QtCameraService>(); },
            [](CameraService& camera) -> QObject* { return static_cast<QtCameraService&>(camera).session(); },
            [&windows](MockMeetingViewModel& meeting) { return windows.openPracticeWindow(meeting); },
        },
    });
    QObject::connect(&instance, &SingleInstance::argumentsReceived, &delegate, &AppDelegate::handleLaunchArguments);

    DesktopIntegration desktop;
    if (!isInstalled(QCoreApplication::applicationFilePath()))
        desktop.registerSchemeHandler(QCoreApplication::applicationFilePath());

    logLine(u"App", u"RavletAI "_s + QCoreApplication::applicationVersion() + u" started; interface language "_s
                        + strings.languageCode());
    logLine(u"App", session.logLine);
    logLine(u"App", (renderer.software ? u"drawing with Qt Quick's software renderer: "_s : u"drawing through OpenGL: "_s)
                        + renderer.reason);
    const auto launch = TaskHandle(CancellationToken(), launchThenWait(&delegate, &localServer, arguments, &options));
    return app.exec();
}
