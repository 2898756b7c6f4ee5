// Answers: the trigger, the automatic trigger, the streamed answer and the selections.

#include "InterviewViewModel.h"

#include "AppStrings.h"
#include "Clock.h"
#include "InterviewSupport.h"
#include "UserSettings.h"

using namespace Qt::StringLiterals;

bool InterviewViewModel::canRequestAnswer() const
{
    return m_isRecording && !m_isGeneratingAnswer && m_isLoggedIn && m_currentSessionUsesBackend;
}

QString InterviewViewModel::currentAnswerText() const
{
    if (!m_selectedAnswerIndex || *m_selectedAnswerIndex < 0
        || *m_selectedAnswerIndex >= m_aiAnswerHistory.size())
        return {};
    return m_aiAnswerHistory.at(*m_selectedAnswerIndex).answer;
}

bool InterviewViewModel::isSelectedAnswerStreaming() const
{
    return m_selectedAnswerIndex && m_isGeneratingAnswer
           && *m_selectedAnswerIndex == m_aiAnswerHistory.size() - 1;
}

QList<TranscriptEntry> InterviewViewModel::finalDisplayedRows() const
{
    QList<TranscriptEntry> rows;
    for (const auto& entry : m_transcript.displayedEntries()) {
        if (entry.isFinal)
            rows.append(entry);
    }
    return rows;
}

void InterviewViewModel::triggerAIAnswer()
{
    if (!canRequestAnswer())
        return;
    if (m_selectedTranscriptIndex) {
        const auto rows = finalDisplayedRows();
        const int position = *m_selectedTranscriptIndex;
        if (position < 0 || position >= rows.size() || rows.at(position).content.isEmpty())
            return;
        setSelectedTranscriptIndex(std::nullopt);
        scheduleAnswer(true, rows.at(position).content);
        return;
    }
    if (!m_transcript.latestInterviewerText())
        return;
    scheduleAnswer(true, std::nullopt);
}

void InterviewViewModel::scheduleAnswer(bool immediate, std::optional<QString> question)
{
    // One handle for the wait and the answer: whatever it held is superseded.
    m_aiAnswerTask.cancel();
    m_aiAnswerTask = TaskHandle::run([&](const CancellationToken& token) {
        return runAnswerTask(immediate, std::move(question), token);
    });
}

QCoro::Task<> InterviewViewModel::runAnswerTask(bool immediate, std::optional<QString> question,
                                                CancellationToken token)
{
    QPointer self(this);
    Clock& clock = m_clock;
    if (!immediate) {
        const bool slept = co_await clock.sleep(autoTriggerDelay, token);
        if (!slept || token.isCancelled())
            co_return;
    }
    if (!self)
        co_return;
    co_await generateAnswer(std::move(question), token);
}

AIAnswerEntry* InterviewViewModel::answerById(const QUuid& id)
{
    for (auto& entry : m_aiAnswerHistory) {
        if (entry.id == id)
            return &entry;
    }
    return nullptr;
}

QCoro::Task<> InterviewViewModel::generateAnswer(std::optional<QString> question,
                                                 CancellationToken token)
{
    if (!m_isLoggedIn || !m_currentSessionUsesBackend || !m_backend || !m_isRecording
        || m_isStoppingInterview)
        co_return;
    QPointer self(this);
    Clock& clock = m_clock;
    const auto backend = m_backend;

    QString asked;
    if (question) {
        asked = *question;
    } else {
        asked = m_transcript.latestInterviewerText().value_or(QString());
        // Whatever is said from now on opens a new entry instead of growing the one asked about.
        m_transcript.closeAllActiveEntries();
    }
    if (asked.isEmpty())
        co_return;

    AIAnswerEntry entry;
    entry.id = QUuid::createUuid();
    entry.question = asked;
    entry.createdAtMs = clock.nowMs();
    const QUuid id = entry.id;
    m_aiAnswerHistory.append(entry);
    Q_EMIT aiAnswerHistoryChanged();
    setSelectedAnswerIndex(static_cast<int>(m_aiAnswerHistory.size()) - 1);
    setGeneratingAnswer(true);

    APIClient::AnswerRequest request;
    request.question = asked;
    const auto& entries = m_transcript.entries();
    for (auto k = std::max<qsizetype>(0, entries.size() - answerContextCount); k < entries.size();
         ++k)
        request.context.append(entries.at(k).contextForm());
    if (m_currentSession)
        request.sessionId = m_currentSession->id;
    request.language = m_settings.outputLanguage();
    request.resumeId = m_settings.activeResumeId();
    request.jobDescriptionId = m_settings.activeJobDescriptionId();

    auto opened = co_await attempt(backend->streamAnswer(request));
    if (!self)
        co_return;
    if (opened.failure && isRetryableNetworkError(opened.failure)) {
        // A cancelled wait still retries.
        co_await clock.sleep(answerRetryDelay, token);
        if (!self)
            co_return;
        opened = co_await attempt(backend->streamAnswer(request));
        if (!self)
            co_return;
    }
    if (opened.failure) {
        answerFailed(opened.failure);
        co_return;
    }
    const auto& result = opened.value;

    if (auto* entry = answerById(id))
        entry->logId = result->logId;
    const qint64 startedMs = clock.nowMs();
    const qint64 deadlineMs = startedMs + std::chrono::milliseconds(answerStreamLimit).count();
    const auto stream = result->stream;
    bool firstChunkSeen = false;
    std::exception_ptr failure;
    try {
        while (true) {
            const auto chunk = co_await stream->next(token);
            if (!self)
                co_return;
            if (!chunk || token.isCancelled() || !m_isRecording || m_isStoppingInterview
                || clock.nowMs() > deadlineMs)
                break;
            auto* target = answerById(id);
            if (!target)
                break;
            target->answer += *chunk;
            Q_EMIT aiAnswerHistoryChanged();
            Q_EMIT answerViewChanged();
            if (!firstChunkSeen && !chunk->isEmpty()) {
                firstChunkSeen = true;
                if (m_telemetry)
                    m_telemetry->firstAnswerReceived(clock.nowMs() - startedMs);
            }
        }
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self)
        co_return;
    if (failure) {
        answerFailed(failure);
        co_return;
    }
    setGeneratingAnswer(false);
    const auto* finished = answerById(id);
    if (finished && finished->logId && !finished->answer.isEmpty())
        runDetached(backend, backend->saveAnswerLog(*finished->logId, finished->answer));
}

void InterviewViewModel::answerFailed(const std::exception_ptr& error)
{
    setRecoverableError(u"AI answer failed: "_s + errorDescription(error));
    setNotice(m_strings.text(u"vm.ai_unavailable"_s));
    setGeneratingAnswer(false);
}

void InterviewViewModel::setGeneratingAnswer(bool generating)
{
    if (m_isGeneratingAnswer == generating)
        return;
    m_isGeneratingAnswer = generating;
    Q_EMIT isGeneratingAnswerChanged();
    Q_EMIT answerViewChanged();
    Q_EMIT canRequestAnswerChanged();
}

void InterviewViewModel::setSelectedAnswerIndex(std::optional<int> index)
{
    if (m_selectedAnswerIndex == index)
        return;
    m_selectedAnswerIndex = index;
    Q_EMIT selectedAnswerIndexChanged();
    Q_EMIT answerViewChanged();
}

void InterviewViewModel::setSelectedTranscriptIndex(std::optional<int> index)
{
    if (m_selectedTranscriptIndex == index)
        return;
    m_selectedTranscriptIndex = index;
    Q_EMIT selectedTranscriptIndexChanged();
}

void InterviewViewModel::clearAnswers()
{
    if (!m_aiAnswerHistory.isEmpty()) {
        m_aiAnswerHistory.clear();
        Q_EMIT aiAnswerHistoryChanged();
    }
    setSelectedAnswerIndex(std::nullopt);
}

void InterviewViewModel::selectNextAnswer()
{
    if (m_selectedAnswerIndex && *m_selectedAnswerIndex < m_aiAnswerHistory.size() - 1)
        setSelectedAnswerIndex(*m_selectedAnswerIndex + 1);
}

void InterviewViewModel::selectPreviousAnswer()
{
    if (m_selectedAnswerIndex && *m_selectedAnswerIndex > 0)
        setSelectedAnswerIndex(*m_selectedAnswerIndex - 1);
}

void InterviewViewModel::selectPreviousTranscript()
{
    const auto rows = finalDisplayedRows();
    if (rows.isEmpty())
        return;
    if (!m_selectedTranscriptIndex)
        setSelectedTranscriptIndex(static_cast<int>(rows.size()) - 1);
    else if (*m_selectedTranscriptIndex > 0)
        setSelectedTranscriptIndex(*m_selectedTranscriptIndex - 1);
}

void InterviewViewModel::selectNextTranscript()
{
    const auto rows = finalDisplayedRows();
    if (rows.isEmpty() || !m_selectedTranscriptIndex)
        return;
    // Past the last row the question goes back to the newest interviewer text.
    if (*m_selectedTranscriptIndex >= rows.size() - 1)
        setSelectedTranscriptIndex(std::nullopt);
    else
        setSelectedTranscriptIndex(*m_selectedTranscriptIndex + 1);
}
