#include "InterviewHarness.h"

#include "APIError.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

using namespace std::chrono_literals;

namespace {

using Speaker = TranscriptEntry::Speaker;
using State = InterviewViewModel::PipelineState;

const QString reconnectingInBackground = u"Recording — reconnecting in background"_s;

// The token fetches of ten counted failures in a row, in ms after the first event: 0.5 s, then
// each scheduled attempt waits its delay and the doubled back-off again, up to 15 + 15.
const QList<qint64> backOffSchedule{500,    2'500,  6'500,   14'500,  30'500,
                                    60'500, 90'500, 120'500, 150'500, 180'500};

// Raises a recovery event on the channel's recogniser; the model's reader task handles it.
void fail(InterviewHarness& h, Speaker speaker, const QString& reason,
          bool countsTowardLimit = true)
{
    h.recognizerOf(speaker)->fail(reason, countsTowardLimit);
    InterviewHarness::settle();
}

// A moment of the test: the time and how many backend calls had been made by then.
struct Mark {
    qsizetype call;
    qint64 ms;
};

Mark mark(const InterviewHarness& h)
{
    return {h.backend->calls.size(), h.clock.nowMs()};
}

// When each speech token was fetched after `from`, relative to it.
QList<qint64> tokenFetchOffsets(const InterviewHarness& h, Mark from)
{
    QList<qint64> offsets;
    for (qsizetype k = from.call; k < h.backend->calls.size(); ++k) {
        if (h.backend->calls.at(k).startsWith(u"fetchSpeechToken"_s))
            offsets.append(h.backend->callTimesMs.at(k) - from.ms);
    }
    return offsets;
}

// A channel's restart count and back-off in seconds, compared as one.
std::pair<int, double> backOff(const InterviewHarness& h, Speaker speaker)
{
    return {h.vm.restartCount(speaker), h.vm.reconnectBackoffSeconds(speaker)};
}

int tokenFetches(const InterviewHarness& h)
{
    return static_cast<int>(h.backend->callsOf(u"fetchSpeechToken"_s).size());
}

QStringList sttFailures(const FakeTelemetry& telemetry)
{
    return telemetry.events.filter(u"stt_failed "_s);
}

// Counts every change of what the user sees of the pipeline.
struct VisibleChanges {
    explicit VisibleChanges(InterviewViewModel& vm)
    {
        for (const auto signal : {&InterviewViewModel::pipelineStateChanged, &InterviewViewModel::statusMessageChanged,
                                  &InterviewViewModel::lastNoticeChanged,
                                  &InterviewViewModel::lastRecoverableErrorChanged})
            QObject::connect(&vm, signal, &context, [this] { ++total; });
    }
    QObject context; // ends the connections with the counter
    int total = 0;
};

class SpeechRecoveryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        h.start();
        ASSERT_TRUE(h.vm.isRecording());
        interviewer = h.recognizerOf(Speaker::interviewer);
        user = h.recognizerOf(Speaker::user);
        ASSERT_TRUE(interviewer && user);
    }

    InterviewHarness h;
    std::shared_ptr<FakeRecognizer> interviewer;
    std::shared_ptr<FakeRecognizer> user;
};

// The same schedule and limit on both channels; only the interviewer's is shown and reported.
TEST_F(SpeechRecoveryTest, FailingTokenFetchesFollowTheBackOffScheduleUpToTheLimit)
{
    for (const Speaker speaker : {Speaker::interviewer, Speaker::user}) {
        const bool isInterviewer = speaker == Speaker::interviewer;
        const Speaker other = isInterviewer ? Speaker::user : Speaker::interviewer;
        SCOPED_TRACE(isInterviewer ? "interviewer" : "user");
        InterviewHarness row;
        row.start();
        VisibleChanges changes(row.vm);
        row.backend->speechTokenFailures.failAlways(failureOf(APIError::serverError(503)));
        const Mark t0 = mark(row);
        fail(row, speaker, u"socket closed"_s);

        row.passTime(195'499ms);
        EXPECT_EQ(tokenFetchOffsets(row, t0), backOffSchedule);
        EXPECT_EQ(backOff(row, speaker), std::pair(10, 15.0));
        EXPECT_EQ(row.recognizerOf(speaker)->starts.size(), 1);

        // The eleventh counted event gives up on the attempt and only reschedules, every 30 s.
        for (int count = 11; count <= 13; ++count) {
            SCOPED_TRACE(count);
            row.passTime(1ms);
            EXPECT_EQ(row.vm.restartCount(speaker), count);
            EXPECT_TRUE(row.vm.hasScheduledReconnect(speaker));
            EXPECT_FALSE(row.vm.isRestarting(speaker));
            if (isInterviewer) {
                EXPECT_EQ(row.vm.statusMessage(), reconnectingInBackground);
                EXPECT_EQ(row.vm.lastRecoverableError(),
                          u"Speech recognition reconnecting: Scheduled reconnect"_s);
                EXPECT_EQ(row.vm.lastRecoverableErrorAtMs(), row.clock.nowMs());
            }
            row.passTime(29'999ms);
            EXPECT_EQ(row.vm.restartCount(speaker), count);
        }
        EXPECT_EQ(tokenFetchOffsets(row, t0), backOffSchedule);
        EXPECT_EQ(row.vm.pipelineState(), State::recording);
        EXPECT_TRUE(row.vm.isRecording());
        EXPECT_EQ(sttFailures(*row.telemetry).size(), isInterviewer ? 13 : 0);
        EXPECT_EQ(row.vm.restartCount(other), 0);
        if (!isInterviewer) {
            EXPECT_EQ(changes.total, 0);
            EXPECT_EQ(row.vm.statusMessage(), u"Recording live"_s);
            EXPECT_FALSE(row.vm.lastNotice());
            EXPECT_FALSE(row.vm.lastRecoverableError());
        }
    }
}

TEST_F(SpeechRecoveryTest, CountedSuccessRestartsTheSameRecognizerAndResetsTheBackOff)
{
    LogCapture log;
    const auto audio = h.vm.audioStream(Speaker::interviewer);
    h.backend->speechTokenFailures.add(failureOf(APIError::networkError()), 2);
    const Mark t0 = mark(h);
    fail(h, Speaker::interviewer, u"vendor closed 1011"_s);
    h.passTime(6'499ms);
    EXPECT_EQ(backOff(h, Speaker::interviewer), std::pair(3, 2.0));

    h.gates.hold(u"fetchSpeechToken"_s);
    h.passTime(1ms);
    ASSERT_TRUE(h.gates.isWaiting(u"fetchSpeechToken"_s));
    EXPECT_EQ(h.vm.pipelineState(), State::reconnecting);
    EXPECT_EQ(h.vm.statusMessage(), u"Reconnecting"_s);
    h.gates.release(u"fetchSpeechToken"_s);
    InterviewHarness::settle();

    EXPECT_EQ(h.vm.pipelineState(), State::recording);
    EXPECT_EQ(h.vm.statusMessage(), u"Recording live"_s);
    EXPECT_EQ(backOff(h, Speaker::interviewer), std::pair(0, 0.5));
    EXPECT_FALSE(h.vm.isRestarting(Speaker::interviewer));
    // Only the four stream readers are left.
    EXPECT_EQ(h.vm.runningTaskCount(), 4);

    // No new recogniser: the same object is started again, on the same audio, with the new token;
    // without an endpoint in the token the vendor's default origin stays.
    EXPECT_EQ(h.recognizers.size(), 2);
    ASSERT_EQ(interviewer->starts.size(), 2);
    EXPECT_FALSE(interviewer->origin);
    EXPECT_EQ(interviewer->starts[1].token, u"speech-token-3"_s);
    EXPECT_EQ(interviewer->starts[1].audio, audio);
    EXPECT_EQ(interviewer->starts[1].language, u"en-US"_s);
    EXPECT_EQ(interviewer->starts[1].model, u"nova-3"_s);
    EXPECT_TRUE(log.lines().contains(
        u"[SpeechProvider] Restarting interviewer recognizer: vendor closed 1011"_s));

    // The readers never stopped.
    interviewer->say(u"Can you hear me now?"_s, true, h.clock.nowMs());
    InterviewHarness::settle();
    EXPECT_EQ(h.vm.transcriptManager().latestInterviewerText(), u"Can you hear me now?"_s);

    // The next failure starts again at 0.5 s, at the endpoint the token now names.
    h.backend->endpoint = u"wss://eu.speech.test"_s;
    const Mark t1 = mark(h);
    fail(h, Speaker::interviewer, u"again"_s);
    h.passTime(499ms);
    EXPECT_TRUE(tokenFetchOffsets(h, t1).isEmpty());
    h.passTime(1ms);
    EXPECT_EQ(tokenFetchOffsets(h, t1), QList<qint64>{500});
    EXPECT_EQ(tokenFetchOffsets(h, t0), (QList<qint64>{500, 2'500, 6'500, t1.ms - t0.ms + 500}));
    EXPECT_EQ(interviewer->starts.size(), 3);
    EXPECT_EQ(interviewer->origin, u"wss://eu.speech.test"_s);
}

TEST_F(SpeechRecoveryTest, UncountedEventRestartsAtOnceAndShowsNothing)
{
    VisibleChanges changes(h.vm);
    h.gates.hold(u"fetchSpeechToken"_s);
    fail(h, Speaker::interviewer, u"token renewal"_s, false);
    EXPECT_TRUE(h.gates.isWaiting(u"fetchSpeechToken"_s));
    EXPECT_EQ(h.vm.pipelineState(), State::recording);
    EXPECT_EQ(h.vm.statusMessage(), u"Recording live"_s);
    h.gates.release(u"fetchSpeechToken"_s);
    InterviewHarness::settle();
    ASSERT_EQ(interviewer->starts.size(), 2);
    EXPECT_EQ(interviewer->starts[1].token, u"speech-token-3"_s);
    EXPECT_EQ(changes.total, 0);
    EXPECT_TRUE(sttFailures(*h.telemetry).isEmpty());

    // With a count and a back-off standing, an uncounted success leaves both.
    h.backend->speechTokenFailures.add(failureOf(APIError::serverError(500)));
    fail(h, Speaker::interviewer, u"dropped"_s);
    h.passTime(500ms);
    ASSERT_EQ(backOff(h, Speaker::interviewer), std::pair(1, 1.0));
    fail(h, Speaker::interviewer, u"token renewal"_s, false);
    EXPECT_EQ(interviewer->starts.size(), 3);
    EXPECT_EQ(backOff(h, Speaker::interviewer), std::pair(1, 1.0));
    EXPECT_EQ(h.vm.statusMessage(), u"Recording live"_s);

    // A failed uncounted restart still doubles the back-off, and the reschedule uses it.
    h.backend->speechTokenFailures.add(failureOf(APIError::serverError(500)));
    const Mark t1 = mark(h);
    fail(h, Speaker::interviewer, u"token renewal"_s, false);
    EXPECT_EQ(backOff(h, Speaker::interviewer), std::pair(1, 2.0));
    h.passTime(4s);
    EXPECT_EQ(tokenFetchOffsets(h, t1), (QList<qint64>{0, 4'000}));
    EXPECT_EQ(h.vm.restartCount(Speaker::interviewer), 0);
    EXPECT_EQ(interviewer->starts.size(), 4);
}

TEST_F(SpeechRecoveryTest, EventDuringARestartAddsNothing)
{
    h.gates.hold(u"fetchSpeechToken"_s);
    fail(h, Speaker::interviewer, u"first break"_s);
    h.passTime(500ms);
    ASSERT_TRUE(h.gates.isWaiting(u"fetchSpeechToken"_s));
    ASSERT_TRUE(h.vm.isRestarting(Speaker::interviewer));

    for (const bool counts : {true, false}) {
        awaitTask(h.vm.handleInterviewerRecovery(u"second break"_s, counts), 1000);
        EXPECT_EQ(backOff(h, Speaker::interviewer), std::pair(1, 0.5));
        EXPECT_EQ(h.vm.pipelineState(), State::reconnecting);
        EXPECT_FALSE(h.vm.hasScheduledReconnect(Speaker::interviewer));
    }
    h.gates.release(u"fetchSpeechToken"_s);
    InterviewHarness::settle();
    EXPECT_EQ(tokenFetches(h), 3);
    EXPECT_EQ(interviewer->starts.size(), 2);
    EXPECT_EQ(h.vm.restartCount(Speaker::interviewer), 0);
    // The telemetry of a counted failure goes out before the guard.
    EXPECT_EQ(sttFailures(*h.telemetry).size(), 2);
}

TEST_F(SpeechRecoveryTest, RecognizerStartIsRetriedOnceWhenTheFailureIsRetryable)
{
    struct Case {
        const char* name;
        std::vector<std::exception_ptr> startFailures;
        int expectedStarts; // including the start of the interview
        std::optional<QString> failure;
    };
    const std::vector<Case> cases{
        {"TimeoutThenSuccess",
         {failureOf(TransportError(QNetworkReply::TimeoutError, u"timed out"_s))},
         3,
         std::nullopt},
        {"ServerErrorTwice",
         {failureOf(APIError::serverError(502)), failureOf(APIError::serverError(502))},
         3,
         u"Speech channel reconnection failed: Server error (502)"_s},
        {"Unauthorized", {failureOf(APIError::unauthorized())}, 2,
         u"Speech channel reconnection failed: Authentication required"_s},
        {"HandshakeRefused", {failureOf(DescribedError(u"handshake refused"_s))}, 2,
         u"Speech channel reconnection failed: handshake refused"_s},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        InterviewHarness row;
        row.start();
        const auto recognizer = row.recognizerOf(Speaker::interviewer);
        ASSERT_TRUE(recognizer);
        for (const auto& failure : c.startFailures)
            recognizer->startFailures.add(failure);
        fail(row, Speaker::interviewer, u"closed"_s);
        row.passTime(500ms);
        ASSERT_EQ(recognizer->starts.size(), 2);
        const bool retried = c.expectedStarts == 3;
        EXPECT_EQ(row.vm.isRestarting(Speaker::interviewer), retried);
        row.passTime(349ms);
        EXPECT_EQ(recognizer->starts.size(), 2);
        row.passTime(1ms);
        ASSERT_EQ(recognizer->starts.size(), c.expectedStarts);
        EXPECT_EQ(recognizer->starts.last().token, u"speech-token-3"_s);
        EXPECT_EQ(tokenFetches(row), 3);
        EXPECT_FALSE(row.vm.isRestarting(Speaker::interviewer));
        EXPECT_EQ(row.vm.lastRecoverableError(), c.failure);
        if (c.failure) {
            EXPECT_EQ(backOff(row, Speaker::interviewer), std::pair(1, 1.0));
            EXPECT_EQ(row.vm.statusMessage(), reconnectingInBackground);
        } else {
            EXPECT_EQ(row.vm.restartCount(Speaker::interviewer), 0);
            EXPECT_EQ(row.vm.statusMessage(), u"Recording live"_s);
        }
    }
}

TEST_F(SpeechRecoveryTest, FailedRestartReportsTheErrorTheNoticeAndTelemetry)
{
    InterviewHarness openai;
    openai.backend->speechProvider = u"openai"_s;
    openai.start();
    ASSERT_EQ(openai.vm.speechProvider(), SpeechProvider::openai);
    openai.backend->speechTokenFailures.failAlways(failureOf(APIError::serverError(503)));
    const QString reason =
        u"WebSocket closed with code 1006 after the vendor stopped answering pings, twice"_s;
    ASSERT_GT(reason.size(), 64);
    fail(openai, Speaker::interviewer, reason);
    EXPECT_EQ(sttFailures(*openai.telemetry),
              QStringList{u"stt_failed openai "_s + reason.left(64)});
    openai.passTime(500ms);

    EXPECT_EQ(openai.vm.lastRecoverableError(),
              u"Speech channel reconnection failed: Server error (503)"_s);
    EXPECT_EQ(openai.vm.lastRecoverableErrorAtMs(), openai.clock.nowMs());
    EXPECT_EQ(openai.vm.lastNotice(), u"Reconnection failed. RavletAI will keep trying."_s);
    EXPECT_EQ(openai.vm.pipelineState(), State::recording);
    EXPECT_EQ(openai.vm.statusMessage(), reconnectingInBackground);
    EXPECT_TRUE(openai.vm.hasScheduledReconnect(Speaker::interviewer));
    EXPECT_TRUE(openai.vm.isRecording());
}

TEST_F(SpeechRecoveryTest, UserChannelRestartsSilentlyAndKeepsItsCountAcrossInterviews)
{
    const auto microphoneAudio = h.vm.audioStream(Speaker::user);
    VisibleChanges changes(h.vm);
    h.backend->endpoint = u"wss://eu.speech.test"_s;
    fail(h, Speaker::user, u"mic socket closed"_s);
    h.passTime(500ms);
    ASSERT_EQ(user->starts.size(), 2);
    EXPECT_EQ(user->starts[1].token, u"speech-token-3"_s);
    EXPECT_EQ(user->starts[1].audio, microphoneAudio);
    EXPECT_EQ(user->origin, u"wss://eu.speech.test"_s);
    EXPECT_EQ(interviewer->starts.size(), 1);
    EXPECT_EQ(h.vm.restartCount(Speaker::user), 0);

    EXPECT_EQ(changes.total, 0);

    h.backend->speechTokenFailures.failAlways(failureOf(APIError::serverError(503)));
    fail(h, Speaker::user, u"mic socket closed"_s);
    h.passTime(225'500ms);
    ASSERT_EQ(h.vm.restartCount(Speaker::user), 12);

    // The next live start resets the interviewer's count and back-off but not the candidate's,
    // whose channel therefore cannot recover in that interview.
    fail(h, Speaker::interviewer, u"interviewer socket closed"_s);
    h.passTime(500ms);
    ASSERT_EQ(backOff(h, Speaker::interviewer), std::pair(1, 1.0));
    h.stop();
    h.backend->speechTokenFailures.clear();
    h.start();
    ASSERT_TRUE(h.vm.isRecording());
    EXPECT_EQ(backOff(h, Speaker::interviewer), std::pair(0, 0.5));
    EXPECT_EQ(backOff(h, Speaker::user), std::pair(12, 15.0));

    const int fetchesBefore = tokenFetches(h);
    fail(h, Speaker::user, u"mic socket closed"_s);
    fail(h, Speaker::interviewer, u"interviewer socket closed"_s);
    h.passTime(500ms);
    EXPECT_EQ(h.vm.restartCount(Speaker::user), 13);
    EXPECT_EQ(tokenFetches(h), fetchesBefore + 1);
    EXPECT_EQ(h.recognizerOf(Speaker::user)->starts.size(), 1);
    EXPECT_EQ(h.recognizerOf(Speaker::interviewer)->starts.size(), 2);
    EXPECT_EQ(h.vm.restartCount(Speaker::interviewer), 0);
}

TEST_F(SpeechRecoveryTest, EventsAfterStopAreIgnored)
{
    h.backend->speechTokenFailures.add(failureOf(APIError::serverError(503)));
    fail(h, Speaker::interviewer, u"socket closed"_s);
    fail(h, Speaker::user, u"mic socket closed"_s);
    h.passTime(500ms);
    ASSERT_TRUE(h.vm.hasScheduledReconnect(Speaker::interviewer));
    const int fetchesBefore = tokenFetches(h);
    const auto telemetryBefore = sttFailures(*h.telemetry);

    h.stop();
    EXPECT_FALSE(h.vm.hasScheduledReconnect(Speaker::interviewer));
    EXPECT_FALSE(h.vm.hasScheduledReconnect(Speaker::user));
    awaitTask(h.vm.handleInterviewerRecovery(u"late"_s, true), 1000);
    awaitTask(h.vm.handleUserRecovery(u"late"_s, true), 1000);
    h.passTime(120s);
    EXPECT_EQ(tokenFetches(h), fetchesBefore);
    EXPECT_EQ(h.vm.restartCount(Speaker::interviewer), 1);
    EXPECT_EQ(sttFailures(*h.telemetry), telemetryBefore);
    EXPECT_EQ(h.vm.pipelineState(), State::idle);
    EXPECT_EQ(h.vm.statusMessage(), u"Ready"_s);
    EXPECT_EQ(interviewer->starts.size(), 1);
}

TEST_F(SpeechRecoveryTest, StopDuringARestartWins)
{
    struct Case {
        const char* name;
        QString gate;               // held while the stop comes; empty: the back-off sleep
        bool failRecognizerStart;   // the stop comes in the wait before the start's retry
        qsizetype expectedStarts;
        std::chrono::milliseconds before;
    };
    const std::vector<Case> cases{
        {"DuringBackOff", QString(), false, 1, 200ms},
        {"DuringTokenFetch", u"fetchSpeechToken"_s, false, 1, 500ms},
        {"DuringStartRetryWait", QString(), true, 2, 600ms},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        InterviewHarness row;
        row.start();
        const auto recognizer = row.recognizerOf(Speaker::interviewer);
        ASSERT_TRUE(recognizer);
        if (c.failRecognizerStart)
            recognizer->startFailures.add(failureOf(APIError::networkError()));
        if (!c.gate.isEmpty())
            row.gates.hold(c.gate);
        fail(row, Speaker::interviewer, u"socket closed"_s);
        row.passTime(c.before);
        ASSERT_TRUE(row.vm.isRestarting(Speaker::interviewer));

        auto stopping = row.vm.stopInterview();
        if (!c.gate.isEmpty()) {
            ASSERT_TRUE(row.gates.isWaiting(c.gate));
            row.gates.release(c.gate);
        }
        awaitTask(std::move(stopping));

        EXPECT_EQ(row.vm.pipelineState(), State::idle);
        EXPECT_EQ(row.vm.statusMessage(), u"Ready"_s);
        EXPECT_EQ(row.vm.runningTaskCount(), 0);
        EXPECT_FALSE(row.vm.isRestarting(Speaker::interviewer));
        EXPECT_FALSE(row.vm.hasScheduledReconnect(Speaker::interviewer));
        EXPECT_TRUE(recognizer->isStopped);
        EXPECT_FALSE(row.vm.lastNotice());
        row.passTime(60s);
        EXPECT_EQ(recognizer->starts.size(), c.expectedStarts);
        EXPECT_FALSE(recognizer->isRunning);
        EXPECT_EQ(row.vm.pipelineState(), State::idle);
    }
}

} // namespace
