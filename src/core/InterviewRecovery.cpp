// Recovery of a speech channel: a fresh token and a restart of the same recogniser on the same
// audio, with back-off and a limit. Only the interviewer's channel shows anything.

#include "InterviewViewModel.h"

#include "AppStrings.h"
#include "Clock.h"
#include "InterviewSupport.h"
#include "Log.h"
#include "UserSettings.h"

#include <cmath>

using namespace Qt::StringLiterals;

namespace {

std::chrono::milliseconds fromSeconds(double seconds)
{
    return std::chrono::milliseconds(std::llround(seconds * 1000.0));
}

} // namespace

QCoro::Task<> InterviewViewModel::handleInterviewerRecovery(QString reason, bool countsTowardLimit)
{
    return handleRecovery(Speaker::interviewer, std::move(reason), countsTowardLimit, {});
}

QCoro::Task<> InterviewViewModel::handleUserRecovery(QString reason, bool countsTowardLimit)
{
    return handleRecovery(Speaker::user, std::move(reason), countsTowardLimit, {});
}

QCoro::Task<> InterviewViewModel::handleRecovery(Speaker speaker, QString reason,
                                                 bool countsTowardLimit, CancellationToken token,
                                                 quint64 connection)
{
    if (!m_isRecording || !m_currentSession || m_isStoppingInterview)
        co_return;
    // Both ends of one broken socket report; by the time the second report is read, the first
    // may have replaced that socket, and the new one is healthy.
    if (const auto& current = channel(speaker).recognizer;
        connection != 0 && current && current->currentConnection() != connection)
        co_return;
    setRecognizerRunning(speaker, false);
    QPointer self(this);
    Clock& clock = m_clock;
    const bool isInterviewer = speaker == Speaker::interviewer;
    if (countsTowardLimit && isInterviewer && m_telemetry)
        m_telemetry->sttFailed(toText(m_speechProvider), reason.left(reasonTelemetryLength));

    // Two failures of one socket make one restart.
    if (channel(speaker).isRestarting)
        co_return;
    if (countsTowardLimit && ++channel(speaker).restartCount >= restartCountLimit) {
        if (isInterviewer) {
            setRecoverableError(m_strings.format(u"vm.reconnecting_reason"_s, {reason}));
            setPipelineState(PipelineState::recording, u"vm.recording_reconnecting"_s);
        }
        scheduleReconnect(speaker, limitRetrySeconds);
        co_return;
    }

    channel(speaker).isRestarting = true;
    const auto recognizer = channel(speaker).recognizer;
    const auto stream = channel(speaker).audioStream;
    if (!recognizer || !stream) {
        channel(speaker).isRestarting = false;
        co_return;
    }
    // A stop during the restart wins: the restart ends at its next look, and leaves the flags,
    // which the stop has cleared and a later start may own, alone.
    const quint64 stopCount = m_stopCount;
    const auto stopped = [&] {
        return !self || overtakenByStop(stopCount) || !m_isRecording || m_isStoppingInterview;
    };

    if (countsTowardLimit && channel(speaker).backoffSeconds > 0) {
        // A cancelled sleep goes on all the same.
        co_await clock.sleep(fromSeconds(channel(speaker).backoffSeconds), token);
        if (stopped())
            co_return;
    }
    logLine(u"SpeechProvider", (isInterviewer ? u"Restarting interviewer recognizer: "_s
                                              : u"Restarting user recognizer: "_s)
                                   + reason);
    if (countsTowardLimit && isInterviewer)
        setPipelineState(PipelineState::reconnecting, u"status.reconnecting"_s);
    if (!m_backend) {
        channel(speaker).isRestarting = false;
        co_return;
    }
    const auto backend = m_backend;

    const auto fetched = co_await attempt(backend->fetchSpeechToken());
    if (stopped())
        co_return;
    std::exception_ptr failure = fetched.failure;
    const auto& speechToken = fetched.value;
    if (!failure) {
        if (speechToken->endpoint)
            recognizer->setOrigin(*speechToken->endpoint);
        const QString language = m_settings.inputLanguage();
        // The same object keeps its streams, so the readers go on without a break.
        for (int round = 1;; ++round) {
            const auto started = co_await attempt(
                recognizer->start(speechToken->token, language, stream, speechToken->sttModel));
            failure = started.failure;
            if (stopped())
                co_return;
            if (!failure || round > 1 || !isRetryableNetworkError(failure))
                break;
            co_await clock.sleep(tokenRetryDelay, token);
            if (stopped())
                co_return;
        }
    }

    auto& state = channel(speaker);
    if (!failure) {
        if (countsTowardLimit) {
            state.restartCount = 0;
            state.backoffSeconds = initialBackoffSeconds;
        }
        if (isInterviewer)
            setPipelineState(PipelineState::recording, u"vm.recording_live"_s);
        setRecognizerRunning(speaker, true);
        state.isRestarting = false;
        co_return;
    }
    state.backoffSeconds = std::min(state.backoffSeconds * 2, maxBackoffSeconds);
    if (isInterviewer) {
        setRecoverableError(u"Speech channel reconnection failed: "_s + errorDescription(failure));
        setNotice(reconnectionFailedNotice);
        setPipelineState(PipelineState::recording, u"vm.recording_reconnecting"_s);
    }
    scheduleReconnect(speaker, state.backoffSeconds);
    state.isRestarting = false;
}

void InterviewViewModel::scheduleReconnect(Speaker speaker, double delaySeconds)
{
    auto& task = channel(speaker).reconnectTask;
    task.cancel();
    task = TaskHandle::run([&](const CancellationToken& token) {
        return runScheduledReconnect(speaker, delaySeconds, token);
    });
}

QCoro::Task<> InterviewViewModel::runScheduledReconnect(Speaker speaker, double delaySeconds,
                                                        CancellationToken token)
{
    QPointer self(this);
    Clock& clock = m_clock;
    const bool slept = co_await clock.sleep(fromSeconds(delaySeconds), token);
    if (!slept || !self || token.isCancelled())
        co_return;
    if (m_isRecording && !m_isStoppingInterview)
        co_await handleRecovery(speaker, u"Scheduled reconnect"_s, true, token);
}
