#include "InterviewHarness.h"

#include "APIError.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

const QString reconnectingInBackground = u"Recording — reconnecting in background"_s;

// The token fetches of ten counted failures in a row, in ms after the first event: 0.5 s, then
// each scheduled attempt waits its delay and the doubled back-off again, up to 15 + 15.
const QList<qint64> backOffSchedule{500,    2'500,  6'500,   14'500,  30'500,
                                    60'500, 90'500, 120'500, 150'500, 180'500};

// When each speech token was fetched since `from` (a call index) and `originMs`.
QList<qint64> tokenFetches(const H& h, qsizetype from, qint64 originMs)
{
    return h.backend->timesOf(u"fetchSpeechToken"_s, originMs, from);
}

// A channel's restart count and back-off in seconds, compared as one.
std::pair<int, double> backOff(const H& h, Speaker speaker = Speaker::interviewer)
{
    return {h.vm.restartCount(speaker), h.vm.reconnectBackoffSeconds(speaker)};
}

QStringList sttFailures(const H& h)
{
    return h.telemetry->events.filter(u"stt_failed "_s);
}

// Both channels share the schedule and the limit; only the interviewer's is shown and reported.
TEST(SpeechRecoveryTest, FailingTokenFetchesFollowTheBackOffScheduleUpToTheLimit)
{
    H h;
    h.backend->speechProvider = u"openai"_s;
    h.start();
    h.backend->speechTokenFailures.failAlways(failureOf(APIError::serverError(503)));
    const auto from = h.backend->calls.size();
    const qint64 t0 = h.clock.nowMs();
    // The reported reason is cut to 64 characters.
    const QString reason =
        u"WebSocket closed with code 1006 after the vendor stopped answering pings, twice"_s;
    h.fail(Speaker::interviewer, reason);
    EXPECT_EQ(sttFailures(h), QStringList{u"stt_failed openai "_s + reason.left(64)});
    h.passTime(500ms);
    EXPECT_EQ(h.vm.lastRecoverableError(),
              u"Speech channel reconnection failed: Server error (503)"_s);

    h.passTime(194'999ms);
    EXPECT_EQ(tokenFetches(h, from, t0), backOffSchedule);
    EXPECT_EQ(backOff(h), std::pair(10, 15.0));

    // The eleventh counted event gives up on the attempt and only reschedules, every 30 s.
    for (int count = 11; count <= 13; ++count) {
        SCOPED_TRACE(count);
        h.passTime(1ms);
        EXPECT_EQ(h.vm.restartCount(Speaker::interviewer), count);
        EXPECT_TRUE(h.vm.hasScheduledReconnect(Speaker::interviewer)
                    && !h.vm.isRestarting(Speaker::interviewer));
        EXPECT_EQ(h.vm.lastRecoverableError(),
                  u"Speech recognition reconnecting: Scheduled reconnect"_s);
        h.passTime(29'999ms);
        EXPECT_EQ(h.vm.restartCount(Speaker::interviewer), count);
    }
    EXPECT_EQ(tokenFetches(h, from, t0), backOffSchedule);
    EXPECT_EQ(h.recognizerOf(Speaker::interviewer)->starts.size(), 1);
    EXPECT_EQ(sttFailures(h).size(), 13);
    EXPECT_EQ(h.vm.restartCount(Speaker::user), 0);
}

// An event while a restart runs adds nothing but its telemetry; the restart's success resets
// the count and the back-off.
TEST(SpeechRecoveryTest, CountedSuccessRestartsTheSameRecognizerAndResetsTheBackOff)
{
    H h;
    h.start();
    const auto interviewer = h.recognizerOf(Speaker::interviewer);
    h.backend->speechTokenFailures.add(failureOf(APIError::networkError()), 2);
    const auto from = h.backend->calls.size();
    const qint64 t0 = h.clock.nowMs();
    h.fail(Speaker::interviewer, u"vendor closed 1011"_s);
    h.passTime(6'499ms);
    EXPECT_EQ(backOff(h), std::pair(3, 2.0));

    h.gates.hold(u"fetchSpeechToken"_s);
    h.passTime(1ms);
    ASSERT_TRUE(h.gates.isWaiting(u"fetchSpeechToken"_s));
    EXPECT_TRUE(h.shown().startsWith(u"reconnecting | Reconnecting | "_s));
    const auto reported = sttFailures(h).size();
    for (const bool counts : {true, false}) {
        awaitTask(h.vm.handleInterviewerRecovery(u"second break"_s, counts), 1000);
        EXPECT_EQ(backOff(h), std::pair(3, 2.0));
        EXPECT_EQ(h.vm.pipelineState(), State::reconnecting);
    }
    EXPECT_EQ(sttFailures(h).size(), reported + 1);
    h.gates.release(u"fetchSpeechToken"_s);
    H::settle();
    EXPECT_TRUE(h.shown().startsWith(u"recording | Recording live | "_s));
    EXPECT_EQ(backOff(h), std::pair(0, 0.5));
    EXPECT_FALSE(h.vm.hasScheduledReconnect(Speaker::interviewer));
    EXPECT_EQ(h.vm.runningTaskCount(), 4); // only the stream readers

    // The same recogniser is started again, on the same audio, with the new token; without an
    // endpoint in the token the vendor's default origin stays.
    EXPECT_EQ(h.recognizers.size(), 2);
    ASSERT_EQ(interviewer->starts.size(), 2);
    EXPECT_FALSE(interviewer->origin);
    const auto& again = interviewer->starts[1];
    EXPECT_EQ((QStringList{again.token, again.language, again.model.value_or(u"-"_s)}),
              (QStringList{u"speech-token-3"_s, u"en-US"_s, u"nova-3"_s}));
    EXPECT_EQ(again.audio, h.vm.audioStream(Speaker::interviewer));

    // The next failure starts again at 0.5 s, at the endpoint the token now names.
    h.backend->endpoint = u"wss://eu.speech.test"_s;
    const qint64 t1 = h.clock.nowMs();
    h.fail(Speaker::interviewer, u"again"_s);
    h.passTime(499ms);
    EXPECT_EQ(tokenFetches(h, from, t0).size(), 3);
    h.passTime(1ms);
    EXPECT_EQ(tokenFetches(h, from, t0), (QList<qint64>{500, 2'500, 6'500, t1 - t0 + 500}));
    EXPECT_EQ(interviewer->starts.size(), 3);
    EXPECT_EQ(interviewer->origin, u"wss://eu.speech.test"_s);
}

// An uncounted event (a token renewal) restarts at once, reports nothing and leaves a standing
// count and back-off as they are.
TEST(SpeechRecoveryTest, UncountedEventRestartsAtOnceAndLeavesTheCount)
{
    H h;
    h.start();
    const auto interviewer = h.recognizerOf(Speaker::interviewer);
    h.backend->speechTokenFailures.add(failureOf(APIError::serverError(500)));
    h.fail(Speaker::interviewer, u"dropped"_s);
    h.passTime(500ms);
    ASSERT_EQ(backOff(h), std::pair(1, 1.0));
    const auto reported = sttFailures(h);
    h.fail(Speaker::interviewer, u"token renewal"_s, false);
    ASSERT_EQ(interviewer->starts.size(), 2);
    EXPECT_EQ(interviewer->starts[1].token, u"speech-token-3"_s);
    EXPECT_EQ(backOff(h), std::pair(1, 1.0));
    EXPECT_EQ(sttFailures(h), reported);
}

// A failed recogniser start is tried once more after 350 ms when the failure is retryable
// (which failures are is RetryableNetworkErrorTest's).
// A stop wins over a restart wherever it stands: in its back-off, fetching its token, waiting
// to retry the start, or scheduled after a failure; events after the stop change nothing.
TEST(SpeechRecoveryTest, RecognizerStartRetryAndStopDuringARestart)
{
    const auto timeout = failureOf(TransportError(QNetworkReply::TimeoutError, u"timed out"_s)),
               badGateway = failureOf(APIError::serverError(502));
    const QString failed = u"Speech channel reconnection failed: "_s;
    const struct {
        const char* name;
        std::vector<std::exception_ptr> startFailures;
        qsizetype starts; // including the start of the interview
        std::optional<QString> failure;
    } retries[] = {
        {"TimeoutThenSuccess", {timeout}, 3, {}},
        {"ServerErrorTwice", {badGateway, badGateway}, 3, failed + u"Server error (502)"_s},
        {"HandshakeRefused", {failureOf(DescribedError(u"refused"_s))}, 2, failed + u"refused"_s},
    };
    for (const auto& c : retries) {
        SCOPED_TRACE(c.name);
        H h;
        h.start();
        const auto recognizer = h.recognizerOf(Speaker::interviewer);
        for (const auto& failure : c.startFailures)
            recognizer->startFailures.add(failure);
        h.fail(Speaker::interviewer, u"closed"_s);
        h.passTime(849ms);
        ASSERT_EQ(recognizer->starts.size(), 2);
        h.passTime(1ms);
        ASSERT_EQ(recognizer->starts.size(), c.starts);
        EXPECT_EQ(recognizer->starts.last().token, u"speech-token-3"_s);
        EXPECT_EQ(h.vm.lastRecoverableError(), c.failure);
        EXPECT_EQ(backOff(h), c.failure ? std::pair(1, 1.0) : std::pair(0, 0.5));
        EXPECT_EQ(h.vm.statusMessage(), c.failure ? reconnectingInBackground : u"Recording live"_s);
    }

    const struct {
        const char* name;
        QString gate; // held while the stop comes
        std::function<void(H&, FakeRecognizer&)> trouble;
        qsizetype starts;
        std::chrono::milliseconds before;
    } stops[] = {
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
         1, 500ms},
    };
    for (const auto& c : stops) {
        SCOPED_TRACE(c.name);
        H h;
        h.start();
        const auto recognizer = h.recognizerOf(Speaker::interviewer);
        if (!c.gate.isEmpty())
            h.gates.hold(c.gate);
        h.fail(Speaker::interviewer, u"socket closed"_s);
        c.trouble(h, *recognizer);
        h.passTime(c.before);
        ASSERT_TRUE(h.vm.isRestarting(Speaker::interviewer)
                    || h.vm.hasScheduledReconnect(Speaker::interviewer));
        const int restartCount = h.vm.restartCount(Speaker::interviewer);
        const auto telemetry = sttFailures(h);
        const auto notice = h.vm.lastNotice();
        // No speech token is fetched once the stop has begun, not even by a wait it cut short; a
        // held fetch is counted when it is let go.
        const auto fetches = h.callCount(u"fetchSpeechToken"_s) + (c.gate.isEmpty() ? 0 : 1);

        // A task caught in a fetch that ignores cancellation does not hold the stop up.
        auto stopping = h.vm.stopInterview();
        H::settle();
        EXPECT_EQ(h.vm.pipelineState(), State::idle);
        h.gates.release(c.gate);
        awaitTask(std::move(stopping));
        EXPECT_EQ(h.vm.runningTaskCount(), 0);
        EXPECT_FALSE(h.vm.isRestarting(Speaker::interviewer)
                     || h.vm.hasScheduledReconnect(Speaker::interviewer)
                     || h.vm.hasScheduledReconnect(Speaker::user) || !recognizer->isStopped);
        awaitTask(h.vm.handleInterviewerRecovery(u"late"_s, true), 1000);
        awaitTask(h.vm.handleUserRecovery(u"late"_s, true), 1000);
        h.passTime(60s);
        EXPECT_EQ((std::tuple(h.callCount(u"fetchSpeechToken"_s), recognizer->starts.size(),
                              recognizer->isRunning, h.vm.restartCount(Speaker::interviewer))),
                  std::tuple(fetches, c.starts, false, restartCount));
        EXPECT_EQ(sttFailures(h), telemetry);
        EXPECT_TRUE(h.shown().startsWith(u"idle | Ready | "_s + notice.value_or(u"-"_s)))
            << h.shown().toStdString();
    }
}

} // namespace
