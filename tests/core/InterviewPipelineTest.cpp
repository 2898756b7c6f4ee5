#include "InterviewHarness.h"

#include "APIError.h"
#include "AudioCaptureService.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

namespace {

// Nothing of the pipeline is left running.
void expectNothingRunning(H& h)
{
    EXPECT_EQ(h.vm.runningTaskCount(), 0);
    EXPECT_FALSE(h.vm.hasActivePipeline() || h.vm.isRecording());
    EXPECT_FALSE(h.systemAudio.isRunning || h.microphone.isRunning);
    for (const auto& recognizer : std::as_const(h.recognizers))
        EXPECT_FALSE(recognizer->isRunning)
            << "a recogniser of " << toText(recognizer->speaker()).toStdString();
    for (const auto& channel : std::as_const(h.channels))
        EXPECT_FALSE(channel->isOpen);
    for (const Speaker speaker : {Speaker::interviewer, Speaker::user})
        EXPECT_FALSE(h.vm.recognizer(speaker) || h.vm.audioStream(speaker));
    EXPECT_EQ(h.clock.pendingTimerCount(), 0u);
}

// A start that cannot go ahead ends in error with nothing left running. Signed out, the backend
// is asked nothing, not even for the pending upload; otherwise the session it opened is closed at
// once, with no duration.
TEST(StartFailureTest, EndsInErrorAndLeavesNothingRunning)
{
    const QString failed = u"Unable to start interview: "_s;
    const struct {
        const char* name;
        std::function<void(H&)> arrange;
        QString status, error;
        bool opensSession;
        int recognizersMade = 0;
    } cases[] = {
        {"signedOut", [](H& h) { h.vm.setLoggedIn(false); }, u"Sign in required"_s,
         u"vm.sign_in_required"_s, false},
        {"noBackend", [](H& h) { h.vm.setBackend(nullptr); }, u"Sign in required"_s,
         u"vm.sign_in_required"_s, false},
        {"noToken", [](H& h) { h.backend->token.reset(); }, u"Auth error"_s, u"vm.auth_error"_s,
         false},
        {"speechTokenRefused",
         [](H& h) {
             h.backend->speechTokenFailures.add(failureOf(SpeechTokenError(u"Quota exceeded"_s)));
         },
         u"Failed to start"_s, failed + u"Quota exceeded"_s, true},
        {"systemAudioMissing",
         [](H& h) {
             h.rights.systemAudio = false;
             h.systemAudio.startFailures.add(
                 failureOf(AudioCaptureError(AudioCaptureError::Case::noDisplay)));
         },
         u"Waiting for system audio"_s, u"vm.missing_screen_permission"_s, true},
        {"interviewerRecognizerFails",
         [](H& h) {
             h.prepareRecognizer = [](FakeRecognizer& r) {
                 r.startFailures.add(failureOf(std::runtime_error("down")));
             };
         },
         u"Failed to start"_s, failed + u"down"_s, true, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        H h;
        c.arrange(h);
        h.start();
        H::settle();
        EXPECT_TRUE(h.shown().startsWith(u"error | "_s + c.status + u" | "_s));
        EXPECT_EQ(h.vm.error(), c.error.startsWith(u"vm."_s) ? h.strings.text(c.error) : c.error);
        EXPECT_FALSE(h.vm.isStartingInterview() || h.vm.currentSession());
        EXPECT_EQ(std::pair(h.recognizers.size(), h.microphone.startCount),
                  std::pair(qsizetype(c.recognizersMade), 0));
        expectNothingRunning(h);
        const QStringList opened{u"fetchAccountStatus"_s, u"createSession en-US en"_s,
                                 u"fetchSpeechToken"_s, u"completeSession session-1 0"_s};
        EXPECT_EQ(h.backend->calls, c.opensSession ? opened : QStringList());
        // A stop is still possible and leaves the error showing.
        h.stop();
        EXPECT_EQ(h.vm.pipelineState(), State::error);
    }

    // Signed out, not even a pending upload goes; the next signed-in start clears the error.
    H h;
    h.leaveUndelivered(u"Earlier question"_s);
    h.vm.setLoggedIn(false);
    h.start();
    EXPECT_TRUE(h.backend->calls.isEmpty() && h.vm.error());
    h.vm.setLoggedIn(true);
    h.start();
    EXPECT_TRUE(h.vm.pipelineState() == State::recording && !h.vm.error());
}

// Without a cloud session the interview records locally: no upload channel, no answers, and
// nothing sent at the end.
TEST(InterviewPipelineTest, ASessionFailureRecordsLocallyWithoutUploadOrAnswers)
{
    H h;
    h.backend->createSessionFailures.add(failureOf(APIError::serverError(502)));
    h.start();
    EXPECT_TRUE(h.shown().startsWith(u"recording | Recording live | "_s
                                     + h.strings.text(u"vm.cloud_unavailable"_s)));
    ASSERT_TRUE(h.vm.currentSession());
    EXPECT_FALSE(h.vm.currentSessionUsesBackend());
    EXPECT_TRUE(h.channels.isEmpty() && !h.vm.canRequestAnswer());

    h.backend->calls.clear();
    h.say(Speaker::interviewer, u"Introduce yourself."_s);
    h.vm.triggerAIAnswer();
    h.clock.advance(10s);
    h.stop();
    EXPECT_TRUE(h.backend->calls.isEmpty() && !h.vm.sttStartTimeMs());
    EXPECT_EQ(h.vm.pastSessions().value(0).status, InterviewSession::SessionStatus::completed);
    // The next start clears what the last one reported.
    h.start();
    EXPECT_TRUE(h.shown().endsWith(u"- | -"_s) && h.vm.currentSessionUsesBackend());
}

// The microphone is optional: denied, or its speech token refused, the interviewer's side records
// on alone (with the microphone running unread until the stop).
TEST(InterviewPipelineTest, AFailingMicrophoneSideLeavesTheInterviewRecording)
{
    for (const bool denied : {true, false}) {
        SCOPED_TRACE(denied ? "microphone denied" : "second speech token refused");
        H h;
        h.rights.microphone = !denied;
        if (!denied) {
            h.backend->speechTokenFailures.add(nullptr);
            h.backend->speechTokenFailures.add(failureOf(APIError::serverError(500)));
        }
        h.start();
        EXPECT_TRUE(h.shown().startsWith(u"recording | Recording live | "_s));
        EXPECT_TRUE(h.vm.recognizer(Speaker::interviewer) && !h.vm.recognizer(Speaker::user));
        EXPECT_EQ(h.microphone.isRunning, !denied);
        h.stop();
        expectNothingRunning(h);
    }
}

TEST(InterviewPipelineTest, AHangingCaptureHoldsTheStopForTwoSecondsAtMost)
{
    H h;
    h.start();
    h.gates.hold(u"systemAudio.stop"_s);
    h.gates.hold(u"microphone.stop"_s);
    auto stop = h.vm.stopInterview();
    h.clock.advance(1999ms);
    EXPECT_EQ(h.vm.pipelineState(), State::stopping);
    h.clock.advance(1ms);
    awaitTask(std::move(stop));
    EXPECT_EQ(h.callCount(u"completeSession"_s), 1);
    h.gates.release(u"systemAudio.stop"_s);
    h.gates.release(u"microphone.stop"_s);
}

TEST(InterviewPipelineTest, AModelDestroyedMidInterviewLeavesNothingBehind)
{
    // A second model over the same fakes, so that it can go while its tasks wait: a restart
    // in its back-off and an answer streaming.
    H h;
    h.settings.setAutoTriggerAIAnswers(true);
    h.backend->finishAnswers = false;
    auto vm = std::make_unique<InterviewViewModel>(h.clock, h.settings, h.strings, h.services());
    vm->setBackend(h.backend);
    vm->setLoggedIn(true);
    awaitTask(vm->startInterview());
    ASSERT_TRUE(vm->isRecording());
    h.say(Speaker::interviewer, u"Question"_s);
    h.passTime(4s);
    ASSERT_TRUE(vm->isGeneratingAnswer());
    h.fail(Speaker::user, u"socket lost"_s);
    const auto calls = h.backend->calls;

    vm.reset();
    h.passTime(1min);
    // Nothing woke to fetch a token or to ask again; the cut-off answer is logged as it stands.
    EXPECT_EQ(h.backend->calls.mid(calls.size()), QStringList{u"saveAnswerLog log-1 An answer."_s});
    EXPECT_EQ(h.clock.pendingTimerCount(), 0u);
}

TEST(InterviewPipelineTest, TroubleReportedBeforeRecordingIsHandledOnceRecordingBegins)
{
    // The vendor refuses the interviewer's token a moment after the socket opens, while the
    // microphone is still being set up.
    H h;
    const auto refuseWhileTheMicrophoneStarts = [&] {
        h.gates.hold(u"microphone.start"_s);
        auto start = h.vm.startInterview();
        EXPECT_TRUE(h.gates.isWaiting(u"microphone.start"_s));
        h.clock.advance(1ms);
        h.fail(Speaker::interviewer, u"Deepgram disconnected: token refused"_s);
        return start;
    };
    auto start = refuseWhileTheMicrophoneStarts();
    h.gates.release(u"microphone.start"_s);
    awaitTask(std::move(start));
    ASSERT_TRUE(h.vm.isRecording());
    h.passTime(500ms);
    EXPECT_EQ(std::pair(h.recognizerOf(Speaker::interviewer)->starts.size(),
                        h.telemetry->events.filter(u"stt_failed"_s).size()),
              std::pair(qsizetype(2), qsizetype(1)));
    EXPECT_EQ(h.vm.statusMessage(), u"Recording live"_s);

    // A stop discards what a start had kept back.
    h.stop();
    auto second = refuseWhileTheMicrophoneStarts();
    const int tokensBefore = h.backend->speechTokensIssued;
    h.stop();
    h.gates.release(u"microphone.start"_s);
    awaitTask(std::move(second));
    h.passTime(1s);
    EXPECT_EQ(h.backend->speechTokensIssued, tokensBefore);
    expectNothingRunning(h);
}

TEST(InterviewPipelineTest, AChannelWithoutARecognizerKeepsOnlyTheNewestTenSecondsOfAudio)
{
    H h;
    LogCapture log;
    h.start();
    h.backend->speechTokenFailures.failAlways(failureOf(APIError::serverError(503)));
    h.fail(Speaker::interviewer, u"socket lost"_s);
    const auto stream = h.vm.audioStream(Speaker::interviewer);
    ASSERT_TRUE(stream);

    // One hour at 16 kHz in blocks of 1,600 frames, with nothing reading them.
    constexpr std::size_t frames = 1600;
    for (int second = 0; second < 3600; ++second) {
        for (int k = 0; k < 10; ++k)
            stream->push(PcmBuffer{std::vector<float>(frames, 0.25f)});
        h.clock.advance(1s);
    }
    H::settle();
    EXPECT_LT(stream->bufferedCount() * frames * sizeof(float), 1'000'000u);
    EXPECT_GE(stream->bufferedCount(), 100u); // the newest ten seconds are still there

    h.stop();
    const auto dropped = log.lines().filter(u"[Audio] Dropped"_s);
    ASSERT_EQ(dropped.size(), 1) << log.lines().join(u'\n').toStdString();
    EXPECT_TRUE(dropped.first().contains(u"3590 s of interviewer audio"_s))
        << dropped.first().toStdString();
}

// A start while another runs, stops or records is refused and changes nothing; once the stop
// has ended, a start goes ahead.
TEST(InterviewPipelineTest, AStartWaitsUntilAStopThatInterruptedAStartHasEnded)
{
    H h;
    h.gates.hold(u"fetchSpeechToken"_s);
    auto first = h.vm.startInterview();
    ASSERT_TRUE(h.gates.isWaiting(u"fetchSpeechToken"_s));
    h.start();
    EXPECT_EQ(h.callCount(u"fetchAccountStatus"_s), 1);
    h.gates.hold(u"completeSession"_s);
    auto stop = h.vm.stopInterview();
    ASSERT_TRUE(h.gates.isWaiting(u"completeSession"_s));
    h.gates.release(u"fetchSpeechToken"_s);
    awaitTask(std::move(first));

    awaitTask(h.vm.startInterview());
    EXPECT_TRUE(h.vm.pipelineState() == State::stopping && h.backend->sessionsCreated == 1);

    h.gates.release(u"completeSession"_s);
    awaitTask(std::move(stop));
    h.start();
    EXPECT_EQ(h.vm.statusMessage(), u"Recording live"_s);
    ASSERT_TRUE(h.vm.currentSession() && h.vm.pastSessions().size() == 1);
    EXPECT_EQ(h.vm.currentSession()->id + h.vm.pastSessions().first().id, u"session-2session-1"_s);
    const auto calls = h.backend->calls;
    h.start();
    EXPECT_EQ(h.backend->calls, calls);
}

// A stop that arrives while the start waits at one of its suspension points ends idle, with
// nothing running and only the prescribed requests made. Each point is reached by holding the
// gates in turn: the first, then, once the start waits there, the next.
TEST(StopDuringStartTest, EndsIdleWithNothingRunningAndOnlyThePrescribedRequests)
{
    // The calls made, one letter each: p(ost), a(ccount), c(reate), t(oken), x (complete).
    const std::map<char, QString> call{{'p', u"postTranscript session-1 1"_s},
                                       {'a', u"fetchAccountStatus"_s},
                                       {'c', u"createSession en-US en"_s},
                                       {'t', u"fetchSpeechToken"_s},
                                       {'x', u"completeSession session-2 0"_s}};
    const struct {
        const char* name;
        QStringList gates;
        std::string calls;
    } points[] = {
        {"retryingThePendingUpload", {u"postTranscript"_s}, "p"},
        {"askingForTheAccount", {u"fetchAccountStatus"_s}, "pa"},
        // The session the stop could not see is closed as soon as it exists.
        {"creatingTheSession", {u"createSession"_s}, "pacx"},
        {"fetchingTheFirstToken", {u"fetchSpeechToken"_s}, "pacxt"},
        {"startingSystemAudio", {u"systemAudio.start"_s}, "pactx"},
        {"startingTheInterviewerRecognizer", {u"interviewerRecognizer.start"_s}, "pactx"},
        {"connectingTheUploadChannel", {u"channel.start"_s}, "pactx"},
        {"askingForTheMicrophone", {u"rights.microphone"_s}, "pactx"},
        {"startingTheMicrophone", {u"microphone.start"_s}, "pactx"},
        {"fetchingTheSecondToken", {u"microphone.start"_s, u"fetchSpeechToken"_s}, "pactxt"},
        {"startingTheUserRecognizer", {u"userRecognizer.start"_s}, "pacttx"},
    };
    for (const auto& point : points) {
        SCOPED_TRACE(point.name);
        H h;
        // A previous interview whose transcript could not be delivered, so that the start has a
        // pending upload to retry first.
        h.leaveUndelivered(u"Earlier question"_s);
        ASSERT_TRUE(h.vm.pendingTranscriptUpload());

        h.gates.hold(point.gates.first());
        auto start = h.vm.startInterview();
        for (qsizetype k = 1; k < point.gates.size(); ++k) {
            ASSERT_TRUE(h.gates.isWaiting(point.gates.at(k - 1)))
                << point.gates.at(k - 1).toStdString();
            h.gates.hold(point.gates.at(k));
            h.gates.release(point.gates.at(k - 1));
        }
        ASSERT_TRUE(h.gates.isWaiting(point.gates.last())) << point.gates.last().toStdString();
        h.stop();
        EXPECT_EQ(h.vm.pipelineState(), State::idle);
        h.gates.release(point.gates.last());
        awaitTask(std::move(start));
        H::settle();

        // A notice of the start, such as a recovered upload, goes with the start.
        EXPECT_TRUE(h.shown().startsWith(u"idle | Ready | - | "_s)) << h.shown().toStdString();
        EXPECT_FALSE(h.vm.isStartingInterview() || h.vm.isStoppingInterview()
                     || h.vm.currentSessionUsesBackend());
        expectNothingRunning(h);
        QStringList expectedCalls;
        for (const char letter : point.calls)
            expectedCalls.append(call.at(letter));
        EXPECT_EQ(h.backend->calls, expectedCalls);
        // The earlier interview is archived once only; the interrupted one once it had a token.
        EXPECT_EQ(h.vm.pastSessions().size(), point.calls.find('t') == std::string::npos ? 1 : 2);
        h.start();
        EXPECT_EQ(h.vm.pipelineState(), State::recording);
    }
}

} // namespace
