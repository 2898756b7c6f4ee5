#include "GeneralPageViewModel.h"

#include "AudioSource.h"
#include "InterviewViewModel.h"
#include "ShellInterfaces.h"
#include "StatusStyle.h"

#include <QDateTime>
#include <QPointer>

using namespace Qt::StringLiterals;

GeneralPageViewModel::GeneralPageViewModel(Services services, QObject* parent)
    : QObject(parent)
    , m_services(std::move(services))
{
    auto& interview = m_services.interview;
    connect(&interview, &InterviewViewModel::pipelineStateChanged, this, &GeneralPageViewModel::statusChanged);
    connect(&interview, &InterviewViewModel::statusMessageChanged, this, &GeneralPageViewModel::statusChanged);
    connect(&interview, &InterviewViewModel::lastRecoverableErrorChanged, this,
            &GeneralPageViewModel::statusChanged);
    for (const auto changed : {&UserSettings::overlayOpacityChanged, &UserSettings::overlayFontSizeChanged,
                               &UserSettings::autoTriggerAIAnswersChanged,
                               &UserSettings::sendAnonymousTelemetryChanged})
        connect(&m_services.settings, changed, this, &GeneralPageViewModel::displayChanged);
    connect(&m_services.strings, &AppStrings::languageCodeChanged, this, &GeneralPageViewModel::statusChanged);
}

GeneralPageViewModel::~GeneralPageViewModel()
{
    m_rightsRead.cancel();
}

QString GeneralPageViewModel::opacityText() const
{
    return QString::number(m_services.settings.overlayOpacity(), 'f', 2);
}

QString GeneralPageViewModel::fontSizeText() const
{
    return QString::number(qRound(m_services.settings.overlayFontSize()));
}

QString GeneralPageViewModel::statusText() const
{
    const auto& interview = m_services.interview;
    return StatusStyle::wordOf(interview.pipelineState(), interview.statusMessage(), m_services.strings);
}

QColor GeneralPageViewModel::statusColor() const
{
    return StatusStyle::colorOf(m_services.interview.pipelineState());
}

QString GeneralPageViewModel::lastIssueText() const
{
    const auto& interview = m_services.interview;
    const auto error = interview.lastRecoverableError();
    if (!error)
        return {};
    const auto at = interview.lastRecoverableErrorAtMs();
    const QString time =
        at ? QDateTime::fromMSecsSinceEpoch(*at).toLocalTime().toString(u"HH:mm"_s) : u"--:--"_s;
    return m_services.strings.format(u"error.last_issue"_s, {time, *error});
}

void GeneralPageViewModel::refreshRights()
{
    m_rightsRead.cancel();
    m_rightsRead = TaskHandle::run([this](const CancellationToken& token) { return readRights(token); });
}

QCoro::Task<> GeneralPageViewModel::readRights(CancellationToken token)
{
    QPointer self(this);
    auto& audio = m_services.audioRights;
    const bool screen = co_await audio.systemAudioGranted();
    if (!self || token.isCancelled())
        co_return;
    const auto keys = m_services.keysRight.route();
    if (screen == m_screenPermission && keys == m_keysRoute)
        co_return;
    m_screenPermission = screen;
    m_keysRoute = keys;
    m_keysRow = GlobalKeysRow::forRoute(keys);
    Q_EMIT rightsChanged();
}

void GeneralPageViewModel::openSystemAudioSettings()
{
    const bool opened = m_services.openSoundSettings && m_services.openSoundSettings();
    m_settingsHintKey = opened ? QString() : u"welcome.allow_screen"_s;
    Q_EMIT rightsChanged();
}

void GeneralPageViewModel::openKeysSettings()
{
    GlobalKeysRow::openSettings(m_keysRoute, m_services.keysRight, [this] { Q_EMIT keybindsRequested(); });
}
