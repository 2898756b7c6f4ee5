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
using H = InterviewHarness;

const QString reconnectingInBackground = u"Recording — reconnecting in background"_s;
const QString live = u"recording | Recording live | - | -"_s;

// The token fetches of ten counted failures in a row, in ms after the first event: 0.5 s, then
// each scheduled attempt waits its delay and the doubled back-off again, up to 15 + 15.
const QList<qint64> backOffSchedule{500,    2'500,  6'500,   14'500,  30'500,
                                    60'500, 90'500, 120'500, 150'500, 180'500};

// When each speech token was fetched since the test's mark, relative to it.
struct Mark {
    explicit Mark(const H& h)
        : call(h.backend->calls.size())
        , ms(h.clock.nowMs())
    {
    }
    QList<qint64> tokenFetches(const H& h) const
    {
        return h.backend->timesOf(u"fetchSpeechToken"_s, ms, call);
    }
    qsizetype call;
    qint64 ms;
};

// A channel's restart count and back-off in seconds, compared as one.
std::pair<int, double> backOff(const H& h, Speaker speaker)
{
    return {h.vm.restartCount(speaker), h.vm.reconnectBackoffSeconds(speaker)};
}

int tokenFetches(const H& h)
{
    return int(h.backend->callsOf(u"fetchSpeechToken"_s).size());
}
QStringList sttFailures(const H& h)
{
    return h.telemetry->events.filter(u"stt_failed "_s);
}

// Counts every change of what the user sees of the pipeline.
struct VisibleChanges {
    explicit VisibleChanges(InterviewViewModel& vm)
    {
        for (const auto signal :
             {&InterviewViewModel::pipelineStateChanged, &InterviewViewModel::statusMessageChanged,
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
        interviewer = h.recognizerOf(Speaker::interviewer);
        user = h.recognizerOf(Speaker::user);
        ASSERT_TRUE(h.vm.isRecording() && interviewer && user);
    }

    H h;
    std::shared_ptr<FakeRecognizer> interviewer;
    std::shared_ptr<FakeRecognizer> user;
};

// The same schedule and limit on both channels; only the interviewer's is shown and reported.
TEST_F(SpeechRecoveryTest, FailingTokenFetchesFollowTheBackOffScheduleUpToTheLimit)
{
    for (const Speaker speaker : {Speaker::interviewer, Speaker::user}) {
        const bool isInterviewer = speaker == Speaker::interviewer;
        SCOPED_TRACE(toText(speaker).toStdString());
        H row;
        row.backend->speechProvider = u"openai"_s;
        row.start();
        VisibleChanges changes(row.vm);
        row.backend->speechTokenFailures.failAlways(failureOf(APIError::serverError(503)));
        const Mark t0(row);
        // The reported reason is cut to 64 characters.
        const QString reason =
            u"WebSocket closed with code 1006 after the vendor stopped answering pings, twice"_s;
        row.fail(speaker, reason);
        EXPECT_EQ(sttFailures(row), isInterviewer
                                        ? QStringList{u"stt_failed openai "_s + reason.left(64)}
                                        : QStringList());
        row.passTime(500ms);
        EXPECT_EQ(row.shown(),
                  isInterviewer ? u"recording | "_s + reconnectingInBackground
                                      + u" | Reconnection failed. RavletAI will keep trying. | "
                                        u"Speech channel reconnection failed: Server error (503)"_s
                                : live);
        EXPECT_TRUE(!isInterviewer || row.vm.lastRecoverableErrorAtMs() == row.clock.nowMs());
        EXPECT_TRUE(row.vm.hasScheduledReconnect(speaker));

        row.passTime(194'999ms);
        EXPECT_EQ(t0.tokenFetches(row), backOffSchedule);
        EXPECT_EQ(backOff(row, speaker), std::pair(10, 15.0));
        EXPECT_EQ(row.recognizerOf(speaker)->starts.size(), 1);

        // The eleventh counted event gives up on the attempt and only reschedules, every 30 s.
        for (int count = 11; count <= 13; ++count) {
            SCOPED_TRACE(count);
            row.passTime(1ms);
            EXPECT_EQ(row.vm.restartCount(speaker), count);
            EXPECT_TRUE(row.vm.hasScheduledReconnect(speaker) && !row.vm.isRestarting(speaker));
            EXPECT_TRUE(!isInterviewer
                        || (row.vm.statusMessage() == reconnectingInBackground
                            && row.vm.lastRecoverableError()
                                   == u"Speech recognition reconnecting: Scheduled reconnect"_s
                            && row.vm.lastRecoverableErrorAtMs() == row.clock.nowMs()))
                << row.shown().toStdString();
            row.passTime(29'999ms);
            EXPECT_EQ(row.vm.restartCount(speaker), count);
        }
        EXPECT_EQ(t0.tokenFetches(row), backOffSchedule);
        EXPECT_TRUE(row.vm.isRecording());
        EXPECT_EQ(sttFailures(row).size(), isInterviewer ? 13 : 0);
        EXPECT_EQ(row.vm.restartCount(isInterviewer ? Speaker::user : Speaker::interviewer), 0);
        EXPECT_TRUE(isInterviewer || (changes.total == 0 && row.shown() == live));
    }
}

TEST_F(SpeechRecoveryTest, CountedSuccessRestartsTheSameRecognizerAndResetsTheBackOff)
{
    LogCapture log;
    const auto audio = h.vm.audioStream(Speaker::interviewer);
    h.backend->speechTokenFailures.add(failureOf(APIError::networkError()), 2);
    const Mark t0(h);
    h.fail(Speaker::interviewer, u"vendor closed 1011"_s);
    h.passTime(6'499ms);
    EXPECT_EQ(backOff(h, Speaker::interviewer), std::pair(3, 2.0));

    h.gates.hold(u"fetchSpeechToken"_s);
    h.passTime(1ms);
    ASSERT_TRUE(h.gates.isWaiting(u"fetchSpeechToken"_s));
    EXPECT_TRUE(h.shown().startsWith(u"reconnecting | Reconnecting | "_s));
    h.gates.release(u"fetchSpeechToken"_s);
    H::settle();

    EXPECT_TRUE(h.shown().startsWith(u"recording | Recording live | "_s));
    EXPECT_EQ(backOff(h, Speaker::interviewer), std::pair(0, 0.5));
    EXPECT_FALSE(h.vm.isRestarting(Speaker::interviewer));
    // Only the four stream readers are left.
    EXPECT_EQ(h.vm.runningTaskCount(), 4);

    // No new recogniser: the same object is started again, on the same audio, with the new token;
    // without an endpoint in the token the vendor's default origin stays.
    EXPECT_EQ(h.recognizers.size(), 2);
    ASSERT_EQ(interviewer->starts.size(), 2);
    EXPECT_FALSE(interviewer->origin);
    const auto& again = interviewer->starts[1];
    EXPECT_EQ((QStringList{again.token, again.language, again.model.value_or(u"-"_s)}),
              (QStringList{u"speech-token-3"_s, u"en-US"_s, u"nova-3"_s}));
    EXPECT_EQ(again.audio, audio);
    EXPECT_TRUE(log.lines().contains(
        u"[SpeechProvider] Restarting interviewer recognizer: vendor closed 1011"_s));

    // The readers never stopped.
    h.say(Speaker::interviewer, u"Can you hear me now?"_s);
    EXPECT_EQ(h.vm.transcriptManager().latestInterviewerText(), u"Can you hear me now?"_s);

    // The next failure starts again at 0.5 s, at the endpoint the token now names.
    h.backend->endpoint = u"wss://eu.speech.test"_s;
    const Mark t1(h);
    h.fail(Speaker::interviewer, u"again"_s);
    h.passTime(499ms);
    EXPECT_TRUE(t1.tokenFetches(h).isEmpty());
    h.passTime(1ms);
    EXPECT_EQ(t0.tokenFetches(h), (QList<qint64>{500, 2'500, 6'500, t1.ms - t0.ms + 500}));
    EXPECT_EQ(interviewer->starts.size(), 3);
    EXPECT_EQ(interviewer->origin, u"wss://eu.speech.test"_s);
}

TEST_F(SpeechRecoveryTest, UncountedEventRestartsAtOnceAndShowsNothing)
{
    VisibleChanges changes(h.vm);
    h.gates.hold(u"fetchSpeechToken"_s);
    h.fail(Speaker::interviewer, u"token renewal"_s, false);
    EXPECT_TRUE(h.gates.isWaiting(u"fetchSpeechToken"_s) && h.shown() == live);
    h.gates.release(u"fetchSpeechToken"_s);
    H::settle();
    ASSERT_EQ(interviewer->starts.size(), 2);
    EXPECT_EQ(interviewer->starts[1].token, u"speech-token-3"_s);
    EXPECT_TRUE(changes.total == 0 && sttFailures(h).isEmpty());

    // With a count and a back-off standing, an uncounted success leaves both.
    h.backend->speechTokenFailures.add(failureOf(APIError::serverError(500)));
    h.fail(Speaker::interviewer, u"dropped"_s);
    h.passTime(500ms);
    ASSERT_EQ(backOff(h, Speaker::interviewer), std::pair(1, 1.0));
    h.fail(Speaker::interviewer, u"token renewal"_s, false);
    EXPECT_EQ(interviewer->starts.size(), 3);
    EXPECT_EQ(backOff(h, Speaker::interviewer), std::pair(1, 1.0));
    EXPECT_TRUE(h.shown().startsWith(u"recording | Recording live"_s));

    // A failed uncounted restart still doubles the back-off, and the reschedule uses it.
    h.backend->speechTokenFailures.add(failureOf(APIError::serverError(500)));
    const Mark t1(h);
    h.fail(Speaker::interviewer, u"token renewal"_s, false);
    EXPECT_EQ(backOff(h, Speaker::interviewer), std::pair(1, 2.0));
    h.passTime(4s);
    EXPECT_EQ(t1.tokenFetches(h), (QList<qint64>{0, 4'000}));
    EXPECT_EQ(backOff(h, Speaker::interviewer).first + interviewer->starts.size(), 4);
}

TEST_F(SpeechRecoveryTest, EventDuringARestartAddsNothing)
{
    h.gates.hold(u"fetchSpeechToken"_s);
    h.fail(Speaker::interviewer, u"first break"_s);
    h.passTime(500ms);
    ASSERT_TRUE(h.gates.isWaiting(u"fetchSpeechToken"_s)
                && h.vm.isRestarting(Speaker::interviewer));

    for (const bool counts : {true, false}) {
        awaitTask(h.vm.handleInterviewerRecovery(u"second break"_s, counts), 1000);
        EXPECT_EQ(backOff(h, Speaker::interviewer), std::pair(1, 0.5));
        EXPECT_TRUE(h.vm.pipelineState() == State::reconnecting
                    && !h.vm.hasScheduledReconnect(Speaker::interviewer));
    }
    h.gates.release(u"fetchSpeechToken"_s);
    H::settle();
    EXPECT_EQ((std::tuple(tokenFetches(h), interviewer->starts.size(),
                          h.vm.restartCount(Speaker::interviewer))),
              std::tuple(3, 2, 0));
    // The telemetry of a counted failure goes out before the guard.
    EXPECT_EQ(sttFailures(h).size(), 2);
}

TEST_F(SpeechRecoveryTest, RecognizerStartIsRetriedOnceWhenTheFailureIsRetryable)
{
    const auto timeout = failureOf(TransportError(QNetworkReply::TimeoutError, u"timed out"_s)),
               badGateway = failureOf(APIError::serverError(502)),
               unauthorized = failureOf(APIError::unauthorized());
    const QString failed = u"Speech channel reconnection failed: "_s;
    const struct {
        const char* name;
        std::vector<std::exception_ptr> startFailures;
        int expectedStarts; // including the start of the interview
        std::optional<QString> failure;
    } cases[] = {
        {"TimeoutThenSuccess", {timeout}, 3, {}},
        {"ServerErrorTwice", {badGateway, badGateway}, 3, failed + u"Server error (502)"_s},
        {"Unauthorized", {unauthorized}, 2, failed + u"Authentication required"_s},
        {"HandshakeRefused", {failureOf(DescribedError(u"refused"_s))}, 2, failed + u"refused"_s},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        H row;
        row.start();
        const auto recognizer = row.recognizerOf(Speaker::interviewer);
        for (const auto& failure : c.startFailures)
            recognizer->startFailures.add(failure);
        row.fail(Speaker::interviewer, u"closed"_s);
        row.passTime(500ms);
        ASSERT_EQ(recognizer->starts.size(), 2);
        EXPECT_EQ(row.vm.isRestarting(Speaker::interviewer), c.expectedStarts == 3);
        row.passTime(349ms);
        EXPECT_EQ(recognizer->starts.size(), 2);
        row.passTime(1ms);
        ASSERT_EQ(recognizer->starts.size(), c.expectedStarts);
        EXPECT_EQ(recognizer->starts.last().token, u"speech-token-3"_s);
        EXPECT_EQ(tokenFetches(row), 3);
        EXPECT_FALSE(row.vm.isRestarting(Speaker::interviewer));
        EXPECT_EQ(row.vm.lastRecoverableError(), c.failure);
        EXPECT_EQ(backOff(row, Speaker::interviewer),
                  c.failure ? std::pair(1, 1.0) : std::pair(0, 0.5));
        EXPECT_EQ(row.vm.statusMessage(),
                  c.failure ? reconnectingInBackground : u"Recording live"_s);
    }
}

// A stop wins over a restart wherever it stands: in its back-off, fetching its token, waiting to
// retry the recogniser's start, or scheduled after a failure. Events after the stop change nothing.
TEST_F(SpeechRecoveryTest, StopDuringARestartWins)
{
    const struct {
        const char* name;
        QString gate; // held while the stop comes
        std::function<void(H&, FakeRecognizer&)> trouble;
        qsizetype expectedStarts;
        std::chrono::milliseconds before;
        bool failedAlready = false; // the failure's notice shows before the stop
    } cases[] = {
        {"DuringBackOff", QString(), [](H&, FakeRecognizer&) {}, 1, 200ms},
        {"DuringTokenFetch", u"fetchSpeechToken"_s, [](H&, FakeRecognizer&) {}, 1, 500ms},
        {"DuringStartRetryWait", QString(),
         [](H&, FakeRecognizer& r) { r.startFailures.add(failureOf(APIError::networkError())); }, 2,
         600ms},
        {"Scheduled", QString(),
         [](H& h, FakeRecognizer&) {
             h.backend->speechTokenFailures.add(failureOf(APIError::serverError(503)));
             h.fail(Speaker::user, u"mic socket closed"_s);
         },
         1, 500ms, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        H row;
        row.start();
        const auto recognizer = row.recognizerOf(Speaker::interviewer);
        if (!c.gate.isEmpty())
            row.gates.hold(c.gate);
        row.fail(Speaker::interviewer, u"socket closed"_s);
        c.trouble(row, *recognizer);
        row.passTime(c.before);
        ASSERT_TRUE(row.vm.isRestarting(Speaker::interviewer)
                    || row.vm.hasScheduledReconnect(Speaker::interviewer));
        const int restartCount = row.vm.restartCount(Speaker::interviewer);
        const auto telemetry = sttFailures(row);
        const auto notice = row.vm.lastNotice();
        EXPECT_EQ(bool(notice), c.failedAlready);

        auto stopping = row.vm.stopInterview();
        if (!c.gate.isEmpty()) {
            ASSERT_TRUE(row.gates.isWaiting(c.gate));
            row.gates.release(c.gate);
        }
        awaitTask(std::move(stopping));
        EXPECT_EQ(row.vm.runningTaskCount(), 0);
        EXPECT_FALSE(row.vm.isRestarting(Speaker::interviewer)
                     || row.vm.hasScheduledReconnect(Speaker::interviewer)
                     || row.vm.hasScheduledReconnect(Speaker::user) || !recognizer->isStopped);
        const int fetches = tokenFetches(row);
        awaitTask(row.vm.handleInterviewerRecovery(u"late"_s, true), 1000);
        awaitTask(row.vm.handleUserRecovery(u"late"_s, true), 1000);
        row.passTime(60s);
        EXPECT_EQ((std::tuple(tokenFetches(row), recognizer->starts.size(), recognizer->isRunning,
                              row.vm.restartCount(Speaker::interviewer))),
                  std::tuple(fetches, c.expectedStarts, false, restartCount));
        EXPECT_EQ(sttFailures(row), telemetry);
        EXPECT_TRUE(row.shown().startsWith(u"idle | Ready | "_s + notice.value_or(u"-"_s)))
            << row.shown().toStdString();
    }
}

} // namespace
