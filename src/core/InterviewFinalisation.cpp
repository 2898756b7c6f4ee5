// The end of a session: what the live channel did not deliver goes up, the session is closed,
// and a transcript that could not be delivered is kept for one retry at the next start.

#include "InterviewViewModel.h"

#include "AppStrings.h"
#include "Clock.h"
#include "InterviewSupport.h"

using namespace Qt::StringLiterals;

QCoro::Task<> InterviewViewModel::finishSession()
{
    QPointer self(this);
    Clock& clock = m_clock;

    QList<QJsonObject> entries;
    bool channelAccounted = false;
    // Dropped here rather than at the next start: a stop during that start must not ask this
    // channel again for lines that belong to this session.
    if (const auto uploads = std::exchange(m_transcriptUploadService, nullptr)) {
        // An empty answer means the live channel has done its work.
        // A channel that cannot say what it delivered leaves the whole transcript to send.
        const auto unacknowledged = co_await attempt(uploads->stop());
        if (!self)
            co_return;
        channelAccounted = unacknowledged.value.has_value();
        for (const auto& entry : unacknowledged.value.value_or(QList<TranscriptEntry>())) {
            if (entry.isFinal)
                entries.append(entry.uploadForm());
        }
    }
    // Until a start has built its pipeline the transcript on screen is the last interview's,
    // which is not this session's to deliver.
    if (!channelAccounted && m_hasActivePipeline)
        entries = m_transcript.finalEntriesForUpload();

    if (m_currentSessionUsesBackend && m_backend && m_currentSession) {
        const auto backend = m_backend;
        const QString sessionId = m_currentSession->id;
        const qint64 audioDurationMs =
            m_sttStartTimeMs ? std::max<qint64>(0, clock.nowMs() - *m_sttStartTimeMs) : 0;
        m_sttStartTimeMs.reset();

        // Closed first; the server takes the last lines after completion.
        const auto completed =
            co_await attempt(backend->completeSession(sessionId, audioDurationMs));
        if (!self)
            co_return;
        if (completed.failure) {
            setNotice(m_strings.text(u"vm.upload_server_fail"_s));
            setRecoverableError(u"Session finalize failed: "_s
                                + errorDescription(completed.failure));
        }

        if (!entries.isEmpty()) {
            const auto posted = co_await attempt(deliverTranscript(backend, sessionId, entries));
            if (!self)
                co_return;
            if (const auto failure = posted.failure) {
                // At most one is held: an older record and its transcript give way.
                setPendingTranscriptUpload(
                    PendingTranscriptUpload{sessionId, entries, clock.nowMs()});
                setNotice(m_strings.text(u"vm.transcript_retry"_s));
                setRecoverableError(u"Transcript upload failed: "_s + errorDescription(failure));
            }
        }
    }
    // A local interview reports no duration either, and must not leave one for the next.
    m_sttStartTimeMs.reset();

    // A session that a stop during a start finds is the last interview's, already archived.
    const bool sessionIsOpen =
        m_currentSession && m_currentSession->status == InterviewSession::SessionStatus::active;
    const qint64 durationSeconds =
        sessionIsOpen ? std::max<qint64>(
            0, m_currentSession->startedAt.secsTo(QDateTime::fromMSecsSinceEpoch(clock.nowMs())))
                      : 0;
    if (m_telemetry)
        m_telemetry->sessionCompleted(durationSeconds, m_aiAnswerHistory.size());
    setRecording(false);
    m_hasActivePipeline = false;
    if (sessionIsOpen) {
        m_currentSession->endedAt = QDateTime::fromMSecsSinceEpoch(clock.nowMs(), Qt::UTC);
        m_currentSession->status = InterviewSession::SessionStatus::completed;
        Q_EMIT currentSessionChanged();
        m_pastSessions.prepend(*m_currentSession);
        Q_EMIT pastSessionsChanged();
    }
    setUsesBackend(false);
    setMockMode(false);
}

QCoro::Task<> InterviewViewModel::retryPendingUpload(quint64 stopCount)
{
    if (!m_isLoggedIn || !m_backend || !m_pendingTranscriptUpload)
        co_return;
    QPointer self(this);
    const auto backend = m_backend;
    const PendingTranscriptUpload pending = *m_pendingTranscriptUpload;
    const auto delivered =
        co_await attempt(deliverTranscript(backend, pending.sessionId, pending.entries));
    if (!self)
        co_return;
    if (!delivered.failure && m_pendingTranscriptUpload
        && m_pendingTranscriptUpload->capturedAtMs == pending.capturedAtMs
        && m_pendingTranscriptUpload->sessionId == pending.sessionId)
        setPendingTranscriptUpload(std::nullopt);
    // The notice belongs to the start, which a stop has ended meanwhile.
    if (overtakenByStop(stopCount))
        co_return;
    if (!delivered.failure) {
        setNotice(m_strings.text(u"vm.recovered_upload"_s));
        co_return;
    }
    const qint64 secondsAgo = (m_clock.nowMs() - pending.capturedAtMs) / 1000;
    setNotice(m_strings.format(u"vm.pending_upload"_s, {secondsAgo}));
}

QCoro::Task<> InterviewViewModel::deliverTranscript(std::shared_ptr<InterviewBackend> backend,
                                                    QString sessionId, QList<QJsonObject> entries)
{
    Clock& clock = m_clock;
    const auto first = co_await attempt(backend->postTranscript(sessionId, entries));
    if (!first.failure)
        co_return;
    if (!isRetryableNetworkError(first.failure))
        std::rethrow_exception(first.failure);
    // No token: a cancelled wait still posts the second time.
    co_await clock.sleep(transcriptRetryDelay);
    co_await backend->postTranscript(sessionId, entries);
}

void InterviewViewModel::setPendingTranscriptUpload(std::optional<PendingTranscriptUpload> upload)
{
    m_pendingTranscriptUpload = std::move(upload);
    Q_EMIT pendingTranscriptUploadChanged();
}
