#include "InterviewViewModel.h"

#include "AppStrings.h"
#include "Clock.h"
#include "UserSettings.h"

#include <QVariantMap>

using namespace Qt::StringLiterals;

InterviewViewModel::InterviewViewModel(Clock& clock, UserSettings& settings, AppStrings& strings,
                                       Services services, QObject* parent)
    : QObject(parent)
    , m_clock(clock)
    , m_settings(settings)
    , m_strings(strings)
    , m_services(std::move(services))
    , m_transcript(clock)
    , m_statusMessage(strings.text(u"status.ready"_s))
{
    // The selection of a transcript line and the answer view follow the transcript.
    connect(&m_transcript, &TranscriptManager::entriesChanged, this,
            &InterviewViewModel::answerViewChanged);
}

InterviewViewModel::~InterviewViewModel()
{
    // Suspended readers and timers would otherwise wait for streams that never end. Counted as
    // a stop, so that a start or a restart woken by the cancellation gives up at once.
    ++m_stopCount;
    for (const auto& task : std::as_const(m_recognitionTasks))
        task.cancel();
    m_aiAnswerTask.cancel();
    for (auto& channel : m_channels)
        channel.reconnectTask.cancel();
}

void InterviewViewModel::setBackend(std::shared_ptr<InterviewBackend> backend)
{
    m_backend = std::move(backend);
    Q_EMIT canRequestAnswerChanged();
}

void InterviewViewModel::setTelemetry(std::shared_ptr<InterviewTelemetry> telemetry)
{
    m_telemetry = std::move(telemetry);
}

void InterviewViewModel::setLoggedIn(bool loggedIn)
{
    if (m_isLoggedIn == loggedIn)
        return;
    m_isLoggedIn = loggedIn;
    Q_EMIT isLoggedInChanged();
    Q_EMIT canRequestAnswerChanged();
}

int InterviewViewModel::runningTaskCount() const
{
    int count = 0;
    for (const auto& task : m_recognitionTasks)
        count += task.isFinished() ? 0 : 1;
    for (const auto* task :
         {&m_aiAnswerTask, &m_channels[0].reconnectTask, &m_channels[1].reconnectTask})
        count += task->isFinished() ? 0 : 1;
    return count;
}

void InterviewViewModel::setPipelineState(PipelineState state, const QString& messageKey)
{
    const QString message = m_strings.text(messageKey);
    if (m_pipelineState == state && m_statusMessage == message)
        return;
    if (m_pipelineState != state) {
        m_pipelineState = state;
        Q_EMIT pipelineStateChanged();
    }
    if (m_statusMessage != message) {
        m_statusMessage = message;
        Q_EMIT statusMessageChanged();
    }
}

void InterviewViewModel::setNotice(std::optional<QString> text)
{
    if (m_lastNotice == text)
        return;
    m_lastNotice = std::move(text);
    Q_EMIT lastNoticeChanged();
}

void InterviewViewModel::setError(std::optional<QString> text)
{
    if (m_error == text)
        return;
    m_error = std::move(text);
    Q_EMIT errorChanged();
}

void InterviewViewModel::setRecoverableError(std::optional<QString> text)
{
    m_lastRecoverableErrorAtMs = text ? std::optional(m_clock.nowMs()) : std::nullopt;
    m_lastRecoverableError = std::move(text);
    Q_EMIT lastRecoverableErrorChanged();
}

void InterviewViewModel::clearErrors()
{
    setError(std::nullopt);
    if (m_lastRecoverableError || m_lastRecoverableErrorAtMs)
        setRecoverableError(std::nullopt);
}

void InterviewViewModel::setRecording(bool recording)
{
    if (m_isRecording == recording)
        return;
    m_isRecording = recording;
    Q_EMIT isRecordingChanged();
    Q_EMIT canRequestAnswerChanged();
}

void InterviewViewModel::setCurrentSession(std::optional<InterviewSession> session)
{
    m_currentSession = std::move(session);
    Q_EMIT currentSessionChanged();
}

void InterviewViewModel::setUsesBackend(bool usesBackend)
{
    if (m_currentSessionUsesBackend == usesBackend)
        return;
    m_currentSessionUsesBackend = usesBackend;
    Q_EMIT canRequestAnswerChanged();
}

void InterviewViewModel::setMockMode(bool mockMode)
{
    if (m_isMockMode == mockMode)
        return;
    m_isMockMode = mockMode;
    Q_EMIT isMockModeChanged();
}

QDateTime InterviewViewModel::lastRecoverableErrorAtDate() const
{
    return m_lastRecoverableErrorAtMs ? QDateTime::fromMSecsSinceEpoch(*m_lastRecoverableErrorAtMs)
                                      : QDateTime();
}

QVariantList InterviewViewModel::aiAnswerHistoryList() const
{
    QVariantList list;
    for (const auto& entry : m_aiAnswerHistory) {
        list.append(QVariantMap{{u"id"_s, entry.id.toString(QUuid::WithoutBraces)},
                                {u"question"_s, entry.question},
                                {u"answer"_s, entry.answer},
                                {u"createdAt"_s, entry.createdAtMs}});
    }
    return list;
}

QVariantList InterviewViewModel::pastSessionsList() const
{
    QVariantList list;
    for (const auto& session : m_pastSessions)
        list.append(session.toJson().toVariantMap());
    return list;
}
