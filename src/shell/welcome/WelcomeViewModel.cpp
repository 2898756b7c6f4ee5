#include "WelcomeViewModel.h"

#include "AudioSource.h"
#include "Clock.h"
#include "NotificationCenter.h"
#include "PreferencesStore.h"
#include "ShellInterfaces.h"
#include "UserSettings.h"

using namespace Qt::StringLiterals;

WelcomeViewModel::WelcomeViewModel(Services services, QObject* parent)
    : QObject(parent)
    , m_services(std::move(services))
{
}

WelcomeViewModel::~WelcomeViewModel()
{
    m_permissionTimer.cancel();
}

void WelcomeViewModel::appear()
{
    m_permissionTimer.cancel();
    m_permissionTimer = TaskHandle::run([this](const CancellationToken& token) { return poll(token); });
    Q_EMIT isPollingChanged();

    if (!m_services.preferences.boolean(UserSettings::Keys::telemetryNoticeShown).value_or(false))
        setShowTelemetryNotice(true);
}

void WelcomeViewModel::disappear()
{
    m_permissionTimer.cancel();
    m_permissionTimer = {};
    Q_EMIT isPollingChanged();
    // A notice closed with the panel comes back at the next appearance.
    setShowTelemetryNotice(false);
}

QCoro::Task<> WelcomeViewModel::poll(CancellationToken token)
{
    QPointer self(this);
    auto& clock = m_services.clock;
    while (!token.isCancelled()) {
        co_await readRights(token);
        if (!self || token.isCancelled())
            co_return;
        if (!co_await clock.sleep(pollInterval, token))
            co_return;
    }
}

QCoro::Task<> WelcomeViewModel::readRights(CancellationToken token)
{
    QPointer self(this);
    auto& audio = m_services.audioRights;
    const bool screen = co_await audio.systemAudioGranted();
    if (!self || token.isCancelled())
        co_return;
    const bool microphone = co_await audio.microphoneGranted();
    if (!self || token.isCancelled())
        co_return;
    const auto keys = m_services.keysRight.route();
    if (screen == m_screenPermission && microphone == m_micPermission && keys == m_keysRoute)
        co_return;
    m_screenPermission = screen;
    m_micPermission = microphone;
    m_keysRoute = keys;
    m_keysRow = GlobalKeysRow::forRoute(keys);
    Q_EMIT rightsChanged();
}

void WelcomeViewModel::signIn()
{
    m_services.notifications.post(Notifications::startOAuthLogin);
}

void WelcomeViewModel::acceptTelemetry()
{
    dismissNotice();
}

void WelcomeViewModel::turnOffTelemetry()
{
    // Off before the notice counts as seen, so that a crash in between never leaves it on.
    if (m_settings)
        m_settings->setSendAnonymousTelemetry(false);
    dismissNotice();
}

void WelcomeViewModel::dismissNotice()
{
    m_services.preferences.setBool(UserSettings::Keys::telemetryNoticeShown, true);
    setShowTelemetryNotice(false);
}

void WelcomeViewModel::setShowTelemetryNotice(bool show)
{
    if (m_showTelemetryNotice == show)
        return;
    m_showTelemetryNotice = show;
    Q_EMIT showTelemetryNoticeChanged();
}

void WelcomeViewModel::openSettingsOr(const QString& hintKey)
{
    const bool opened = m_services.openSoundSettings && m_services.openSoundSettings();
    const QString key = opened ? QString() : hintKey;
    if (key == m_settingsHintKey)
        return;
    m_settingsHintKey = key;
    Q_EMIT settingsHintKeyChanged();
}

void WelcomeViewModel::openSystemAudioSettings()
{
    openSettingsOr(u"welcome.allow_screen"_s);
}

void WelcomeViewModel::allowMicrophone()
{
    // Linux has no per-program microphone prompt: the sound settings pick and unmute the input.
    openSettingsOr(u"welcome.allow_microphone"_s);
}

void WelcomeViewModel::openKeysSettings()
{
    // The Keybinds page lists the commands to bind.
    GlobalKeysRow::openSettings(m_keysRoute, m_services.keysRight, [this] {
        m_services.notifications.post(Notifications::showDashboard, {}, {{u"page"_s, u"keybinds"_s}});
    });
}
