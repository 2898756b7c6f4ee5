#include "MockInterviewCoordinator.h"

#include "Clock.h"
#include "MockInterviewPipeline.h"
#include "TelemetryClient.h"
#include "TTSPlayer.h"
#include "WhenCancelled.h"

using namespace Qt::StringLiterals;
using Kind = MockInterviewCoordinator::State::Kind;

MockInterviewCoordinator::MockInterviewCoordinator(MockInterviewAPI& api, TTSPlayer& player,
                                                   std::shared_ptr<MockInterviewPipeline> pipeline,
                                                   Clock& clock, TelemetryClient* telemetry,
                                                   QObject* parent)
    : QObject(parent)
    , m_api(&api)
    , m_player(&player)
    , m_pipeline(std::move(pipeline))
    , m_clock(clock)
    , m_telemetry(telemetry)
{
}

MockInterviewCoordinator::~MockInterviewCoordinator()
{
    // The loop holds this object weakly; waking it lets its frame end instead of waiting forever.
    m_sessionToken.cancel();
    m_driverTask.cancel();
}

QString MockInterviewCoordinator::phase() const
{
    switch (m_state.kind) {
    case Kind::playingQuestion:
        return u"playingQuestion"_s;
    case Kind::waitingForAnswer:
        return u"waitingForAnswer"_s;
    case Kind::aborted:
        return u"aborted"_s;
    case Kind::idle:
        return u"idle"_s;
    case Kind::fetchingAvatar:
        return u"fetchingAvatar"_s;
    case Kind::fetchingQuestions:
        return u"fetchingQuestions"_s;
    case Kind::advancing:
        return u"advancing"_s;
    case Kind::finished:
        return u"finished"_s;
    }
    return {};
}

void MockInterviewCoordinator::setAvatarImage(QImage image)
{
    if (image == m_avatarImage)
        return;
    m_avatarImage = std::move(image);
    Q_EMIT avatarImageChanged();
}

void MockInterviewCoordinator::setState(State state)
{
    if (state == m_state)
        return;
    m_state = std::move(state);
    Q_EMIT stateChanged();
}

void MockInterviewCoordinator::setCurrentIndex(int index)
{
    if (index == m_currentIndex)
        return;
    m_currentIndex = index;
    Q_EMIT currentIndexChanged();
}

QCoro::Task<> MockInterviewCoordinator::startSession(std::optional<QString> resumeId,
                                                     std::optional<QString> jobDescriptionId,
                                                     QString language, int count)
{
    return runStart(std::move(resumeId), std::move(jobDescriptionId), std::move(language), count);
}

QCoro::Task<> MockInterviewCoordinator::runStart(std::optional<QString> resumeId,
                                                 std::optional<QString> jobDescriptionId,
                                                 QString language, int count)
{
    if (m_state.kind != Kind::idle)
        co_return;
    QPointer self(this);
    setState({Kind::fetchingQuestions, 0, {}});
    m_startedAtMs = m_clock.nowMs();

    std::optional<QuestionsResponse> response;
    // Declared outside the conditions: GCC 12 destroys a variable declared in the condition of
    // an `if` whose body suspends twice.
    const QPointer api = m_api;
    try {
        if (api)
            response = co_await api->fetchQuestions(resumeId, jobDescriptionId, language, count);
    } catch (const std::exception&) {
        // The screen words the aborted state; the error itself is not shown.
    }
    // A session closed while the questions were on their way stays closed.
    if (!self || m_state.kind != Kind::fetchingQuestions)
        co_return;
    if (!response) {
        setState({Kind::aborted, 0, u"api_error"_s});
        if (m_telemetry)
            m_telemetry->mockInterviewAborted(u"api_error"_s, 0);
        co_return;
    }

    m_questions = response->questions;
    Q_EMIT questionsChanged();
    m_sessionId = response->sessionId.isEmpty() ? std::nullopt : std::optional(response->sessionId);
    setCurrentIndex(0);
    m_userTriggeredAIAnswersThisSession = 0;
    if (m_telemetry)
        m_telemetry->mockInterviewStarted(m_questions.size(), resumeId.has_value(),
                                          jobDescriptionId.has_value());

    if (m_sessionId) {
        if (m_pipeline) {
            m_pipelineStart = TaskHandle::run(
                [pipeline = m_pipeline, id = *m_sessionId](const CancellationToken&) {
                    return startPipeline(pipeline, id);
                });
        }
        // Not recording in time is no error: the interview then starts without the pipeline.
        const qint64 deadline = m_clock.nowMs() + pipelineStartDeadline.count();
        while (!(m_pipeline && m_pipeline->isRecording()) && m_clock.nowMs() < deadline) {
            co_await m_clock.sleep(pipelinePollInterval, m_sessionToken);
            if (!self || m_state.kind != Kind::fetchingQuestions)
                co_return;
        }
    }

    m_driverTask =
        TaskHandle::run([self](const CancellationToken& token) { return runLoop(self, token); });
}

QCoro::Task<>
MockInterviewCoordinator::startPipeline(std::shared_ptr<MockInterviewPipeline> pipeline,
                                        QString sessionId)
{
    try {
        co_await pipeline->startMockInterview(std::move(sessionId));
    } catch (const std::exception&) {
        // The pipeline words its own failures; the questions go on without it.
    }
}

QCoro::Task<> MockInterviewCoordinator::runLoop(QPointer<MockInterviewCoordinator> self,
                                                CancellationToken token)
{
    while (self && !token.isCancelled() && self->m_currentIndex < self->m_questions.size()) {
        const int index = self->m_currentIndex;
        const MockQuestion question = self->m_questions.at(index);
        if (self->m_pipeline)
            self->m_pipeline->injectMockQuestion(question.text);
        self->setState({Kind::playingQuestion, index, {}});

        std::optional<QByteArray> speech;
        const QPointer api = self->m_api;
        try {
            if (api)
                speech = co_await api->synthesizeSpeech(question.text);
        } catch (const std::exception&) {
        }
        // Closed while the speech was on its way: nothing more is played.
        if (!self || token.isCancelled())
            co_return;
        if (speech) {
            const QPointer player = self->m_player;
            if (player)
                co_await player->play(*speech);
            if (!self || token.isCancelled())
                co_return;
        } else if (self->m_telemetry) {
            // The question stands in the transcript, unspoken; the session goes on.
            self->m_telemetry->mockInterviewAborted(u"tts_error"_s, index);
        }

        self->setState({Kind::waitingForAnswer, index, {}});
        if (self->m_telemetry)
            self->m_telemetry->mockQuestionPlayed(index, question.category);

        // Only the user moves on: no time limit, and nothing heard in the transcript counts.
        CancellationToken skipped;
        self->m_skipContinuation = skipped;
        co_await WhenCancelled(skipped, token);
        if (!self)
            co_return;
        self->m_skipContinuation.reset();
        if (token.isCancelled())
            co_return;
        self->setState({Kind::advancing, 0, {}});
        self->setCurrentIndex(index + 1);
    }
    if (self && !token.isCancelled())
        self->finish();
}

void MockInterviewCoordinator::finish()
{
    setState({Kind::finished, 0, {}});
    const qint64 durationSeconds = m_startedAtMs ? (m_clock.nowMs() - *m_startedAtMs) / 1000 : 0;
    if (m_telemetry) {
        const qint64 count = m_questions.size();
        m_telemetry->mockInterviewCompleted(count, count, m_userTriggeredAIAnswersThisSession,
                                            durationSeconds);
    }
}

void MockInterviewCoordinator::skip()
{
    if (auto continuation = std::exchange(m_skipContinuation, std::nullopt))
        continuation->cancel();
}

QCoro::Task<> MockInterviewCoordinator::abort(QString reason)
{
    m_driverTask.cancel();
    m_sessionToken.cancel();
    if (m_player)
        m_player->stop();
    skip();
    setState({Kind::aborted, 0, reason});
    if (m_telemetry)
        m_telemetry->mockInterviewAborted(reason, m_currentIndex);
    co_return;
}
