// Start and stop of the live pipeline.

#include "InterviewViewModel.h"

#include "AppStrings.h"
#include "AsyncQueue.h"
#include "AudioCaptureService.h"
#include "Clock.h"
#include "Helpers.h"
#include "InterviewSupport.h"
#include "Log.h"
#include "UserSettings.h"
#include "WhenCancelled.h"

using namespace Qt::StringLiterals;

namespace {

QCoro::Task<> stopAndSignal(AudioCapture* capture, std::shared_ptr<AsyncQueue<bool>> done)
{
    try {
        co_await capture->stop();
    } catch (const std::exception& e) {
        logLine(u"InterviewViewModel", u"Capture stop failed: "_s + QString::fromUtf8(e.what()));
    }
    done->push(true);
}

// Stops the captures side by side and returns when the first of them has stopped or `cap` has
// passed; the others go on stopping on their own.
QCoro::Task<> stopCapturesWithin(Clock* clock, QList<AudioCapture*> captures,
                                 std::chrono::milliseconds cap)
{
    auto done = std::make_shared<AsyncQueue<bool>>();
    for (auto* capture : std::as_const(captures)) {
        if (capture)
            stopAndSignal(capture, done);
    }
    if (done->bufferedCount() > 0)
        co_return;
    const auto timer = clock->startTimer(cap.count(), [done] { done->push(false); });
    co_await done->next();
    clock->cancelTimer(timer);
}

} // namespace

QCoro::Task<> InterviewViewModel::startInterview()
{
    return runStart();
}

void InterviewViewModel::requestStartInterview()
{
    TaskHandle::run([this](const CancellationToken&) { return startInterview(); });
}

void InterviewViewModel::requestStopInterview()
{
    TaskHandle::run([this](const CancellationToken&) { return stopInterview(); });
}

QCoro::Task<> InterviewViewModel::startMockInterview(QString sessionId)
{
    return runMockStart(std::move(sessionId));
}

QCoro::Task<> InterviewViewModel::runStart()
{
    // A stop that is still running could otherwise finish a later session: a start is refused
    // until it has ended, as it is while an interview records or starts.
    if (m_isRecording || m_isStartingInterview || m_isStoppingInterview)
        co_return;
    QPointer self(this);
    const StartingScope starting(this);
    // Each suspension may let a stop run; a start that resumes after one gives back what it
    // acquired meanwhile and ends.
    const quint64 stopCount = m_stopCount;
    const auto stopped = [&] { return !self || overtakenByStop(stopCount); };

    if (!beginStart(u"vm.checking_permissions"_s))
        co_return;
    const std::optional<QString> sessionNotice = co_await prepareSession(stopCount);
    if (stopped())
        co_return;

    setPipelineState(PipelineState::idle, u"vm.connecting"_s);
    const auto backend = m_backend;
    const auto speechToken = co_await attempt(backend->fetchSpeechToken());
    if (stopped())
        co_return;
    if (speechToken.failure) {
        co_await handleStartFailure(speechToken.failure, stopCount);
        co_return;
    }
    applyProviderText(speechToken.value->provider, false);
    resetForLiveInterview();

    const auto interviewer = co_await startInterviewerChannel(*speechToken.value, stopCount);
    if (stopped())
        co_return;
    if (interviewer.failure) {
        co_await handleStartFailure(interviewer.failure, stopCount);
        co_return;
    }
    if (m_currentSessionUsesBackend && backend->accessToken() && m_currentSession) {
        co_await connectTranscriptChannel(u"InterviewViewModel"_s, stopCount);
        if (stopped())
            co_return;
    }
    startChannelTasks(channel(Speaker::interviewer).recognizer, Speaker::interviewer);

    co_await startOptionalUserChannel(stopCount);
    if (stopped())
        co_return;
    beginRecording();
    setNotice(sessionNotice);
}

void InterviewViewModel::resetForLiveInterview()
{
    m_transcript.reset();
    clearAnswers();
    m_hasActivePipeline = true;
    // The user channel's count and back-off carry over from the last interview by design.
    auto& interviewer = channel(Speaker::interviewer);
    interviewer.restartCount = 0;
    interviewer.backoffSeconds = initialBackoffSeconds;
    setMockMode(false);
    m_recordingBegan = CancellationToken();
}

QCoro::Task<Attempt<void>>
InterviewViewModel::startInterviewerChannel(APIClient::SpeechTokenResponse speechToken,
                                            quint64 stopCount)
{
    QPointer self(this);
    const auto stopped = [&] { return !self || overtakenByStop(stopCount); };
    AudioCapture* const audioCapture = m_services.audioCapture;
    const auto captureStart = co_await attempt(audioCapture->start());
    if (stopped()) {
        // The stop may have stopped the capture before it had started.
        if (self && !captureStart.failure) {
            const QList<AudioCapture*> started{audioCapture};
            co_await stopCapturesWithin(&m_clock, started, captureStopCap);
        }
        co_return {};
    }
    if (captureStart.failure)
        co_return captureStart;

    const auto recognizer = m_services.makeRecognizer(m_speechProvider, Speaker::interviewer);
    if (speechToken.endpoint)
        recognizer->setOrigin(*speechToken.endpoint);
    const auto stream = audioCapture->audioStream();
    auto& interviewer = channel(Speaker::interviewer);
    interviewer.audioStream = stream;
    setRecognizerRunning(Speaker::interviewer, false);
    const QString language = m_settings.inputLanguage();
    const auto recognizerStart = co_await attempt(
        recognizer->start(speechToken.token, language, stream, speechToken.sttModel));
    if (stopped()) {
        if (self && !recognizerStart.failure)
            co_await recognizer->stop();
        co_return {};
    }
    if (recognizerStart.failure) {
        stream->finish();
        co_return recognizerStart;
    }
    channel(Speaker::interviewer).recognizer = recognizer;
    setRecognizerRunning(Speaker::interviewer, true);
    co_return {};
}

QCoro::Task<> InterviewViewModel::startOptionalUserChannel(quint64 stopCount)
{
    QPointer self(this);
    // The user may take as long as he likes; the interviewer's channel is live meanwhile.
    bool microphoneGranted = true;
    if (m_services.rights)
        microphoneGranted = co_await m_services.rights->microphoneGranted();
    if (!self || overtakenByStop(stopCount))
        co_return;
    logLine(u"Mic", u"Permission: "_s + (microphoneGranted ? u"true"_s : u"false"_s));
    if (!microphoneGranted) {
        logLine(u"Mic", u"Permission denied, skipping user pipeline");
        co_return;
    }
    const auto userChannel = co_await attempt(startUserChannel(stopCount));
    if (!self || overtakenByStop(stopCount))
        co_return;
    if (userChannel.failure)
        logLine(u"Mic", u"Pipeline FAILED: "_s + errorDescription(userChannel.failure));
}

void InterviewViewModel::beginRecording()
{
    m_sttStartTimeMs = m_clock.nowMs();
    setRecording(true);
    setPipelineState(PipelineState::recording, u"vm.recording_live"_s);
    // Trouble the recognisers reported while the start ran is handled from here on.
    m_recordingBegan.cancel();
}

void InterviewViewModel::setRecognizerRunning(Speaker speaker, bool running)
{
    const auto& stream = channel(speaker).audioStream;
    if (!stream)
        return;
    if (!running) {
        if (!stream->hasBacklogLimit())
            stream->setBacklogLimit(idleBacklogFrames);
        return;
    }
    reportDroppedAudio(speaker);
    stream->setBacklogLimit(std::nullopt);
}

void InterviewViewModel::reportDroppedAudio(Speaker speaker)
{
    const auto& stream = channel(speaker).audioStream;
    if (!stream || stream->droppedFrames() == 0)
        return;
    const qint64 seconds = qint64(stream->droppedFrames()) / nominalSampleRate;
    logLine(u"Audio",
            u"Dropped %1 s of %2 audio while no recognizer was running"_s.arg(seconds).arg(
                toText(speaker)));
    // One line per outage: the count starts again.
    stream->setBacklogLimit(idleBacklogFrames);
}

bool InterviewViewModel::beginStart(const QString& statusKey)
{
    clearErrors();
    m_isStoppingInterview = false;
    setPipelineState(PipelineState::idle, statusKey);
    // Speech needs the backend's tokens in every mode.
    if (!m_isLoggedIn || !m_backend) {
        setError(m_strings.text(u"vm.sign_in_required"_s));
        setPipelineState(PipelineState::error, u"vm.sign_in_short"_s);
        return false;
    }
    if (!m_backend->accessToken()) {
        setError(m_strings.text(u"vm.auth_error"_s));
        setPipelineState(PipelineState::error, u"vm.auth_error_short"_s);
        return false;
    }
    return true;
}

QCoro::Task<std::optional<QString>> InterviewViewModel::prepareSession(quint64 stopCount)
{
    QPointer self(this);
    if (!m_isLoggedIn || !m_backend) {
        setCurrentSession(makeLocalSession(uuidUpper()));
        setUsesBackend(false);
        std::optional<QString> notice = m_strings.text(u"vm.recording_locally"_s);
        co_return notice;
    }
    const auto backend = m_backend;
    co_await retryPendingUpload(stopCount);
    if (!self || overtakenByStop(stopCount))
        co_return std::nullopt;

    // The account's vendor is only a hint, and its failure is ignored: the speech token names
    // the vendor again.
    const auto status = co_await attempt(backend->fetchAccountStatus());
    if (!self || overtakenByStop(stopCount))
        co_return std::nullopt;
    if (status.value && status.value->speechProvider)
        applyProviderText(*status.value->speechProvider, true);

    const QString languageInput = m_settings.inputLanguage();
    const QString languageOutput = m_settings.outputLanguage();
    const auto created = co_await attempt(backend->createSession(languageInput, languageOutput));
    const std::optional<InterviewSession>& session = created.value;
    if (!self)
        co_return std::nullopt;
    if (overtakenByStop(stopCount)) {
        // The stop could not see this session; it must not stay open on the server.
        if (session)
            runDetached(backend, backend->completeSession(session->id, 0));
        co_return std::nullopt;
    }
    if (session) {
        setCurrentSession(session);
        setUsesBackend(true);
        if (m_telemetry)
            m_telemetry->firstInterviewStarted();
        co_return std::nullopt;
    }
    setCurrentSession(makeLocalSession(uuidUpper()));
    setUsesBackend(false);
    setRecoverableError(u"Cloud session unavailable: "_s + errorDescription(created.failure));
    std::optional<QString> notice = m_strings.text(u"vm.cloud_unavailable"_s);
    co_return notice;
}

InterviewSession InterviewViewModel::makeLocalSession(QString id) const
{
    InterviewSession session;
    session.id = std::move(id);
    session.languageInput = m_settings.inputLanguage();
    session.languageOutput = m_settings.outputLanguage();
    session.startedAt = QDateTime::fromMSecsSinceEpoch(m_clock.nowMs(), Qt::UTC);
    session.status = InterviewSession::SessionStatus::active;
    return session;
}

void InterviewViewModel::applyProviderText(const QString& text, bool report)
{
    const auto provider = speechProviderFromText(text);
    if (!provider || *provider == m_speechProvider)
        return;
    m_speechProvider = *provider;
    Q_EMIT speechProviderChanged();
    if (report && m_telemetry)
        m_telemetry->sttProviderChanged(toText(*provider));
}

QCoro::Task<> InterviewViewModel::connectTranscriptChannel(QString logTag, quint64 stopCount)
{
    QPointer self(this);
    const auto backend = m_backend;
    const auto channel = m_services.makeTranscriptChannel();
    const QString baseURL = backend->baseURL();
    const QString token = backend->accessToken().value_or(QString());
    const QString sessionId = m_currentSession->id;
    const auto started = co_await attempt(channel->start(baseURL, token, sessionId));
    if (!self || overtakenByStop(stopCount)) {
        // Nothing was sent on it; it only has to be closed.
        if (!started.failure)
            co_await channel->stop();
        co_return;
    }
    if (started.failure)
        logLine(logTag,
                u"Transcript upload WebSocket failed: "_s + errorDescription(started.failure));
    else
        m_transcriptUploadService = channel;
}

QCoro::Task<> InterviewViewModel::startUserChannel(quint64 stopCount)
{
    QPointer self(this);
    const auto stopped = [&] { return !self || overtakenByStop(stopCount); };
    AudioCapture* const microphone = m_services.microphone;
    co_await microphone->start();
    if (stopped()) {
        if (self) {
            const QList<AudioCapture*> started{microphone};
            co_await stopCapturesWithin(&m_clock, started, captureStopCap);
        }
        co_return;
    }
    logLine(u"Mic", u"Capture started");
    auto& user = channel(Speaker::user);
    const auto stream = microphone->audioStream();
    user.audioStream = stream;
    // Until its recogniser runs, the microphone's audio must not pile up.
    setRecognizerRunning(Speaker::user, false);
    const auto recognizer = m_services.makeRecognizer(m_speechProvider, Speaker::user);

    logLine(u"Mic", u"Fetching speech token...");
    const auto backend = m_backend;
    const auto speechToken = co_await backend->fetchSpeechToken();
    if (stopped())
        co_return;
    if (speechToken.endpoint)
        recognizer->setOrigin(*speechToken.endpoint);
    logLine(u"Mic", u"Token received, starting recognition (provider: "_s + toText(m_speechProvider)
                        + u')');
    const QString language = m_settings.inputLanguage();
    co_await recognizer->start(speechToken.token, language, stream, speechToken.sttModel);
    if (stopped()) {
        if (self)
            co_await recognizer->stop();
        co_return;
    }
    channel(Speaker::user).recognizer = recognizer;
    setRecognizerRunning(Speaker::user, true);
    startChannelTasks(recognizer, Speaker::user);
    logLine(u"Mic", u"Recognition started successfully");
}

void InterviewViewModel::startChannelTasks(
    const std::shared_ptr<SpeechRecognitionProvider>& recognizer, Speaker speaker)
{
    const auto segments = recognizer->transcriptSegments();
    const auto events = recognizer->recoveryEvents();
    m_recognitionTasks.append(TaskHandle::run(
        [&](const CancellationToken& token) { return consumeSegments(segments, speaker, token); }));
    m_recognitionTasks.append(TaskHandle::run(
        [&](const CancellationToken& token) { return consumeRecovery(events, speaker, token); }));
}

QCoro::Task<> InterviewViewModel::consumeSegments(
    std::shared_ptr<SpeechRecognitionProvider::SegmentStream> segments, Speaker speaker,
    CancellationToken token)
{
    QPointer self(this);
    while (true) {
        const auto segment = co_await segments->next(token);
        if (!segment || !self || token.isCancelled())
            co_return;
        const auto entry = m_transcript.processSegment(*segment);
        // Handed over without waiting: the channel keeps the order, and the screen and the
        // automatic trigger never wait for it.
        if (entry && m_transcriptUploadService)
            m_transcriptUploadService->send(*entry);
        // The user's speech never asks for an answer.
        if (speaker == Speaker::interviewer && segment->isFinal
            && m_settings.autoTriggerAIAnswers())
            scheduleAnswer(false, std::nullopt);
    }
}

QCoro::Task<> InterviewViewModel::consumeRecovery(
    std::shared_ptr<SpeechRecognitionProvider::RecoveryStream> events, Speaker speaker,
    CancellationToken token)
{
    QPointer self(this);
    while (true) {
        const auto event = co_await events->next(token);
        if (!event || !self || token.isCancelled())
            co_return;
        // Trouble reported while the start still runs waits until the interview records; a
        // stop or a failed start cancels this task, and the event with it.
        if (!m_isRecording && m_isStartingInterview) {
            const CancellationToken began = m_recordingBegan;
            const bool recording = co_await WhenCancelled(began, token);
            if (!self || !recording || token.isCancelled())
                co_return;
        }
        co_await handleRecovery(speaker, event->reason, event->countsTowardLimit, token,
                                event->connection);
        if (!self)
            co_return;
    }
}

QCoro::Task<> InterviewViewModel::handleStartFailure(std::exception_ptr error, quint64 stopCount)
{
    QPointer self(this);
    co_await tearDownPipeline();
    if (!self || overtakenByStop(stopCount))
        co_return;
    if (m_currentSessionUsesBackend && m_currentSession && m_backend)
        runDetached(m_backend, m_backend->completeSession(m_currentSession->id, 0));
    setRecording(false);
    m_hasActivePipeline = false;
    setUsesBackend(false);
    setCurrentSession(std::nullopt);
    const QString description = errorDescription(error);
    logLine(u"InterviewViewModel", u"Start failed: "_s + description);

    bool accessGranted = true;
    if (m_services.rights)
        accessGranted = co_await m_services.rights->systemAudioGranted();
    if (!self || overtakenByStop(stopCount))
        co_return;
    bool noPermission = false;
    try {
        std::rethrow_exception(error);
    } catch (const AudioCaptureError& captureError) {
        noPermission = captureError.which() == AudioCaptureError::Case::noPermission;
    } catch (...) {
    }
    if (m_telemetry)
        m_telemetry->audioCaptureFailed(
            errorCode(error), !accessGranted || noPermission ? u"permission"_s : u"loopback"_s);
    if (accessGranted) {
        setPipelineState(PipelineState::error, u"vm.failed_to_start"_s);
        setError(u"Unable to start interview: "_s + description);
    } else {
        // There is no system dialog to open for the sound server: the text tells the user
        // what to bring up.
        setError(m_strings.text(u"vm.missing_screen_permission"_s));
        setPipelineState(PipelineState::error, u"vm.waiting_permission"_s);
    }
}

QCoro::Task<> InterviewViewModel::stopInterview()
{
    const bool somethingRuns = m_isRecording || m_hasActivePipeline || !m_recognitionTasks.isEmpty()
                               || m_aiAnswerTask.isValid() || m_isStartingInterview;
    if (!somethingRuns || m_isStoppingInterview)
        co_return;
    QPointer self(this);
    m_isStoppingInterview = true;
    ++m_stopCount;
    // A notice of a start shows only while that start runs.
    if (m_isStartingInterview)
        setNotice(std::nullopt);
    setPipelineState(PipelineState::stopping, u"vm.stopping"_s);
    co_await tearDownPipeline();
    if (!self)
        co_return;
    co_await finishSession();
    if (!self)
        co_return;
    setPipelineState(PipelineState::idle, u"status.ready"_s);
    m_isStoppingInterview = false;
}

QCoro::Task<> InterviewViewModel::tearDownPipeline()
{
    QPointer self(this);
    Clock& clock = m_clock;
    const QList<TaskHandle> readers = std::exchange(m_recognitionTasks, {});
    std::vector<TaskHandle> cancelled(readers.begin(), readers.end());
    for (const auto& task : cancelled)
        task.cancel();
    for (auto* task : {&m_aiAnswerTask, &channel(Speaker::interviewer).reconnectTask}) {
        task->cancel();
        cancelled.push_back(std::exchange(*task, {}));
    }
    setGeneratingAnswer(false);

    for (const Speaker speaker : {Speaker::interviewer, Speaker::user}) {
        if (const auto recognizer = std::exchange(channel(speaker).recognizer, nullptr)) {
            co_await recognizer->stop();
            if (!self)
                co_return;
        }
    }
    auto& userReconnect = channel(Speaker::user).reconnectTask;
    userReconnect.cancel();
    cancelled.push_back(std::exchange(userReconnect, {}));

    // Cancelled tasks end at once as a rule: the wait ends with the first that does, and a
    // task caught in a call that ignores cancellation holds the stop for a second at most.
    co_await TaskHandle::firstFinished(clock, cancelled, taskWaitCap);
    if (!self)
        co_return;

    const QList<AudioCapture*> captures{m_services.audioCapture, m_services.microphone};
    co_await stopCapturesWithin(&clock, captures, captureStopCap);
    if (!self)
        co_return;
    for (const Speaker speaker : {Speaker::interviewer, Speaker::user}) {
        reportDroppedAudio(speaker);
        channel(speaker).audioStream.reset();
        channel(speaker).isRestarting = false;
    }
}

QCoro::Task<> InterviewViewModel::runMockStart(QString sessionId)
{
    if (m_isRecording || m_isStartingInterview || m_isStoppingInterview)
        co_return;
    QPointer self(this);
    const StartingScope starting(this);
    const quint64 stopCount = m_stopCount;
    if (!beginStart(u"vm.connecting"_s))
        co_return;
    setCurrentSession(makeLocalSession(std::move(sessionId)));
    setUsesBackend(true);
    setMockMode(true);
    m_transcript.reset();
    clearAnswers();
    m_hasActivePipeline = true;
    m_recordingBegan = CancellationToken();
    channel(Speaker::interviewer).restartCount = 0;
    channel(Speaker::user).restartCount = 0;

    co_await connectTranscriptChannel(u"Mock"_s, stopCount);
    if (!self || overtakenByStop(stopCount))
        co_return;
    beginRecording();

    const auto userChannel = co_await attempt(startUserChannel(stopCount));
    if (!self || overtakenByStop(stopCount))
        co_return;
    if (userChannel.failure)
        logLine(u"Mock", u"Microphone pipeline FAILED: "_s + errorDescription(userChannel.failure));
}

void InterviewViewModel::injectMockQuestion(const QString& text)
{
    m_transcript.closeActiveEntry(Speaker::interviewer);
    TranscriptSegment segment;
    segment.text = text;
    segment.isFinal = true;
    segment.speaker = Speaker::interviewer;
    segment.timestampMs = m_clock.nowMs();
    segment.confidence = 1.0;
    if (const auto entry = m_transcript.processSegment(segment); entry && m_transcriptUploadService)
        m_transcriptUploadService->send(*entry);
    m_transcript.closeActiveEntry(Speaker::interviewer);
}
