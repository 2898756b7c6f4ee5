#include "InterviewHarness.h"

#include "APIError.h"
#include "AuthTokenStore.h"

#include <QHostAddress>
#include <QNetworkAccessManager>
#include <QTcpServer>

#include <gtest/gtest.h>

#include <optional>
#include <vector>

namespace {

const QString aiUnavailable = u"AI answer is temporarily unavailable. Recording continues."_s;

QList<qint64> askedAt(const H& h, qint64 originMs)
{
    return h.backend->timesOf(u"streamAnswer"_s, originMs);
}

// Goes live, automatic answers on or off. Given `openChunks`, each answer stream sends those
// and then stays open for the test to drive.
void goLive(H& h, bool autoTrigger, std::optional<QStringList> openChunks = std::nullopt)
{
    if (openChunks) {
        h.backend->finishAnswers = false;
        h.backend->answerChunks = *openChunks;
    }
    h.settings.setAutoTriggerAIAnswers(autoTrigger);
    h.start();
    ASSERT_TRUE(h.vm.isRecording());
}

// Goes live without automatic answers and asks about `question` with the key.
void ask(H& h, const QString& question, std::optional<QStringList> openChunks = std::nullopt)
{
    goLive(h, false, openChunks);
    h.say(Speaker::interviewer, question);
    h.vm.triggerAIAnswer();
}

// Neither the candidate nor an unsettled interviewer piece starts or puts back the 4 s wait;
// a final piece while an answer streams cancels it, and the wait starts over.
TEST(AIAnswersTest, AutomaticAnswerComesFourSecondsAfterTheLastFinalInterviewerPiece)
{
    H h;
    goLive(h, true, QStringList{u"First "_s});
    const qint64 t0 = h.clock.nowMs();
    h.say(Speaker::interviewer, u"Tell me"_s);
    h.passTime(3s);
    h.say(Speaker::interviewer, u"about yourself"_s);
    h.passTime(3s);
    h.say(Speaker::interviewer, u"please."_s);
    h.passTime(1s);
    h.say(Speaker::user, u"Sure."_s);
    h.passTime(1s);
    h.say(Speaker::interviewer, u"and"_s, false);
    h.passTime(1999ms);
    EXPECT_TRUE(askedAt(h, t0).isEmpty());
    h.passTime(1ms);
    EXPECT_EQ(askedAt(h, t0), QList<qint64>{10'000});
    EXPECT_EQ(h.backend->answerRequests.value(0).question, u"Tell me about yourself please."_s);
    // The key cannot interrupt a streaming answer.
    EXPECT_FALSE(h.vm.canRequestAnswer());
    h.vm.triggerAIAnswer();

    h.passTime(1s);
    h.backend->answerChunks = {u"Second"_s};
    h.say(Speaker::interviewer, u"And a semaphore?"_s);
    EXPECT_FALSE(h.vm.isGeneratingAnswer());
    h.backend->answerStreams[0]->push(u"too late"_s);
    H::settle();
    // The cut-off answer is kept and logged as it stands.
    EXPECT_EQ(h.backend->calls.filter(u"saveAnswerLog"_s),
              QStringList{u"saveAnswerLog log-1 First "_s});
    h.passTime(3999ms);
    EXPECT_EQ(askedAt(h, t0).size(), 1);
    h.passTime(1ms);
    EXPECT_EQ(askedAt(h, t0), (QList<qint64>{10'000, 15'000}));
    const auto& history = h.vm.aiAnswerHistory();
    ASSERT_EQ(history.size(), 2);
    EXPECT_EQ((QStringList{history[0].answer, history[1].question, history[1].answer}),
              (QStringList{u"First "_s, u"And a semaphore?"_s, u"Second"_s}))
        << "the asked entry was closed, so the new piece stands alone";
    h.passTime(30s);
    EXPECT_EQ(askedAt(h, t0).size(), 2);

    // Signed out, the key asks nothing; a stop cancels the automatic answer waiting.
    h.say(Speaker::interviewer, u"Thank you for your time."_s);
    h.vm.setLoggedIn(false);
    h.vm.triggerAIAnswer();
    EXPECT_FALSE(h.vm.canRequestAnswer());
    h.vm.setLoggedIn(true);
    h.passTime(2s);
    h.stop();
    h.passTime(10s);
    EXPECT_EQ(askedAt(h, t0).size(), 2);
}

// One retry 700 ms later, for retryable failures only (which those are is
// RetryableNetworkErrorTest's); a new piece that supersedes the answer
// in its retry wait does not cancel the retry. An answer failure never touches the recording.
TEST(AIAnswersTest, RequestFailuresAreRetriedOnlyWhenRetryable)
{
    const auto serverError = [](int status) { return failureOf(APIError::serverError(status)); };
    const QString failed = u"AI answer failed: "_s;
    const struct {
        const char* name;
        std::vector<std::exception_ptr> failures;
        QList<qint64> askedAt;
        std::optional<QString> failure; // the recoverable error, absent for a success
    } cases[] = {
        {"ServerError503ThenSuccess", {serverError(503)}, {0, 700}, std::nullopt},
        {"BadRequest", {serverError(400)}, {0}, failed + u"Server error (400)"_s},
        {"RetryableTwice",
         {serverError(503), failureOf(APIError::networkError())},
         {0, 700},
         failed + u"Network connection failed"_s},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        H h;
        for (const auto& failure : c.failures)
            h.backend->streamAnswerFailures.add(failure);
        ask(h, u"Why should we hire you?"_s);
        const qint64 t0 = h.clock.nowMs();
        h.passTime(699ms);
        EXPECT_EQ(h.vm.isGeneratingAnswer(), c.askedAt.size() > 1);
        h.passTime(20s);
        EXPECT_EQ(askedAt(h, t0), c.askedAt);
        EXPECT_EQ(h.shown(),
                  u"recording | Recording live | "_s
                      + (c.failure ? aiUnavailable + u" | "_s + *c.failure : u"- | -"_s));
        EXPECT_TRUE(!h.vm.isGeneratingAnswer() && h.vm.canRequestAnswer());
        EXPECT_EQ(h.vm.aiAnswerHistory().value(0).answer, c.failure ? QString() : u"An answer."_s);
    }

    H h;
    goLive(h, true);
    h.say(Speaker::interviewer, u"Walk me through your CV."_s);
    h.backend->streamAnswerFailures.add(failureOf(APIError::serverError(502)));
    const qint64 t0 = h.clock.nowMs();
    h.vm.triggerAIAnswer();
    h.passTime(300ms);
    h.say(Speaker::interviewer, u"Briefly."_s);
    EXPECT_EQ(askedAt(h, t0), (QList<qint64>{0, 300}));
    EXPECT_FALSE(h.vm.isGeneratingAnswer() || h.vm.lastNotice());
}

// What a real request reports when the backend stalls, refuses or cannot be routed to is worth
// the one retry, as are the server's faults; refusals and local errors are not. The transfer
// time-out is cut from 60 s to 300 ms on the test's manager.
TEST(RetryableNetworkErrorTest, RetryableErrorsAreLostConnectionsAndServerFaults)
{
    QTcpServer stalling; // takes the request and never answers
    QTcpServer closed;
    ASSERT_TRUE(stalling.listen(QHostAddress::LocalHost, 0)
                && closed.listen(QHostAddress::LocalHost, 0));
    const quint16 refusedPort = closed.serverPort();
    closed.close();
    NotificationCenter notifications;
    InMemoryTokenStore tokens;
    QNetworkAccessManager network;
    network.setTransferTimeout(300);
    const auto realFailure = [&](const QString& origin) -> std::exception_ptr {
        try {
            APIClient client(origin, tokens, notifications, &network);
            awaitTask(client.fetchAccountStatus(), 20'000);
        } catch (...) {
            return std::current_exception();
        }
        return failureOf(std::runtime_error("the request succeeded"));
    };
    const auto transport = [](QNetworkReply::NetworkError code) {
        return failureOf(TransportError(code, u"transport"_s));
    };
    const std::vector<std::tuple<const char*, std::exception_ptr, bool>> table{
        {"stalled", realFailure(u"http://127.0.0.1:"_s + QString::number(stalling.serverPort())),
         true},
        {"refused", realFailure(u"http://127.0.0.1:"_s + QString::number(refusedPort)), true},
        {"unroutable", realFailure(u"http://[100::1]:80"_s), true},
        {"connection lost", transport(QNetworkReply::RemoteHostClosedError), true},
        {"cancelled", transport(QNetworkReply::OperationCanceledError), false},
        {"TLS failure", transport(QNetworkReply::SslHandshakeFailedError), false},
        {"500", failureOf(APIError::serverError(500)), true},
        {"499", failureOf(APIError::serverError(499)), false},
        {"unauthorized", failureOf(APIError::unauthorized()), false},
        {"no error", nullptr, false},
    };
    for (const auto& [name, failure, retryable] : table)
        EXPECT_EQ(isRetryableNetworkError(failure), retryable)
            << name << ": " << errorCode(failure).toStdString();
}

// An answer is logged whole by the whole-product test. An open stream ends when it breaks (kept as
// it stands, reported, not asked again), after 90 s of reading, or with the stop; what comes after
// is dropped.
TEST(AIAnswersTest, StreamFillsTheEntryAndEndsKeepingWhatItHad)
{
    const struct {
        const char* name;
        std::function<void(H&, AnswerStream&)> end;
        QString answer;
        std::optional<QString> error;
    } open[] = {
        {"breaks",
         [](H& h, AnswerStream& stream) {
             h.passTime(2s);
             stream.fail(failureOf(APIError::networkError()));
         },
         u"Part"_s, u"AI answer failed: Network connection failed"_s},
        {"ninetySeconds",
         [](H& h, AnswerStream& stream) {
             h.passTime(88'500ms);
             stream.push(u" on time"_s);
             H::settle();
             EXPECT_TRUE(h.vm.isGeneratingAnswer());
             h.passTime(1ms);
             stream.push(u" too late"_s);
         },
         u"Part on time"_s, std::nullopt},
        {"stop", [](H& h, AnswerStream&) { h.stop(); }, u"Part"_s, std::nullopt},
    };
    for (const auto& c : open) {
        SCOPED_TRACE(c.name);
        H h;
        ask(h, u"Tell me everything."_s, QStringList{QString()});
        const auto stream = h.backend->answerStreams.value(0);
        ASSERT_TRUE(stream);
        h.passTime(1500ms);
        stream->push(u"Part"_s);
        H::settle();
        EXPECT_EQ(h.vm.currentAnswerText(), u"Part"_s);
        EXPECT_TRUE(h.backend->calls.filter(u"saveAnswerLog"_s).isEmpty());
        c.end(h, *stream);
        H::settle();
        EXPECT_FALSE(h.vm.isGeneratingAnswer());
        EXPECT_EQ(h.vm.runningTaskCount(), c.name == std::string("stop") ? 0 : 4);
        EXPECT_TRUE(h.shown().endsWith(c.error ? aiUnavailable + u" | "_s + *c.error : u"- | -"_s));
        EXPECT_EQ(h.backend->calls.filter(u"saveAnswerLog"_s),
                  c.error ? QStringList() : QStringList{u"saveAnswerLog log-1 "_s + c.answer});
        stream->push(u" too late"_s);
        h.passTime(10s);
        EXPECT_EQ(h.vm.aiAnswerHistory().value(0).answer, c.answer);
        EXPECT_EQ(h.callCount(u"streamAnswer"_s), 1);
    }
}

// The arrows walk the last five final rows; the selected line is asked and the selection goes.
// The request carries the last ten final entries as context, no partials. (Its session and
// language are checked on every request of the chaos test.)
TEST(AIAnswersTest, TheSelectedLineIsAskedWithTheLastTenFinalEntries)
{
    H h;
    goLive(h, false);
    h.vm.selectPreviousTranscript();
    EXPECT_FALSE(h.vm.selectedTranscriptIndex());
    QList<QJsonObject> expectedContext;
    for (int k = 1; k <= 12; ++k) {
        const auto speaker = k % 2 ? Speaker::interviewer : Speaker::user;
        h.say(speaker, u"line "_s + QString::number(k));
        h.passTime(5001ms);
        if (k >= 3)
            expectedContext.append(
                {{u"speaker"_s, toText(speaker)}, {u"content"_s, u"line "_s + QString::number(k)}});
    }
    // On screen, but neither chosen nor sent.
    h.say(Speaker::user, u"unfinished"_s, false);
    h.say(Speaker::interviewer, u"also unfinished"_s, false);
    ASSERT_EQ(h.vm.transcriptManager().displayedEntries().size(), 7);

    // Positive steps go back, negative ones forward.
    const auto walk = [&](int steps) {
        for (; steps > 0; --steps)
            h.vm.selectPreviousTranscript();
        for (; steps < 0; ++steps)
            h.vm.selectNextTranscript();
        return h.vm.selectedTranscriptIndex();
    };
    EXPECT_FALSE(walk(-1));
    EXPECT_EQ(walk(1), 4);
    EXPECT_EQ(walk(6), 0);
    EXPECT_EQ(walk(-4), 4);
    EXPECT_FALSE(walk(-1));

    // Position 0 is the oldest of the five rows shown, not of the whole transcript.
    walk(5);
    h.vm.triggerAIAnswer();
    ASSERT_EQ(h.backend->answerRequests.size(), 1);
    EXPECT_EQ(h.backend->answerRequests[0].question, u"line 8"_s);
    EXPECT_EQ(h.backend->answerRequests[0].context, expectedContext);
    EXPECT_FALSE(h.vm.selectedTranscriptIndex());
}

} // namespace
