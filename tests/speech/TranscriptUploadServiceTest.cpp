// The transcript upload channel against a fake server on loopback: the address it builds, which
// lines go out and how, the acknowledgement rules, stop, reconnects and the handshake's time-out.
#include "TranscriptUploadService.h"
#include "AwaitTask.h"
#include "ClockWait.h"
#include "FakeTranscriptChannel.h"
#include "QtPrinters.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTest>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using Speaker = TranscriptEntry::Speaker;
using Reaction = FakeTranscriptChannel::Reaction;
using Frame = FakeTranscriptChannel::Frame;

namespace {
bool waitFor(const std::function<bool()>& condition)
{
    return QTest::qWaitFor(condition, 10'000);
}

TranscriptEntry line(const QString& id, const QString& content = u"a line"_s, bool isFinal = true)
{
    return {id, Speaker::interviewer, content, 1'700'000'000'000, std::nullopt, isFinal};
}

QStringList ids(const QList<TranscriptEntry>& entries,
                QString TranscriptEntry::*field = &TranscriptEntry::id)
{
    QStringList result;
    for (const auto& entry : entries)
        result.append(entry.*field);
    return result;
}

// A stop() left running while the test drives sockets and the manual clock.
struct Running {
    using Result = std::shared_ptr<std::optional<QList<TranscriptEntry>>>;
    explicit Running(QCoro::Task<QList<TranscriptEntry>> task) { drive(std::move(task), result); }
    static QCoro::Task<> drive(QCoro::Task<QList<TranscriptEntry>> task, Result result)
    {
        *result = co_await task;
    }
    bool isDone() const { return result->has_value(); }
    Result result = std::make_shared<std::optional<QList<TranscriptEntry>>>();
};

const auto ignoreAll = [](const Frame&) { return Reaction::ignore; };
} // namespace

class TranscriptUploadServiceTest : public ::testing::Test {
protected:
    void startChannel(std::function<Reaction(const Frame&)> rule = {})
    {
        server.setFrameRule(std::move(rule));
        awaitTask(service->start(server.baseURL(), u"tok"_s, u"session-1"_s), 10'000);
        ASSERT_TRUE(waitFor([&] { return server.openConnectionCount() == 1; }));
    }
    bool hasTimerIn(std::chrono::milliseconds delay) const
    {
        const auto next = clock.nextDeadlineMs();
        return next && *next - clock.nowMs() == delay.count();
    }
    // Runs stop() to its end: its half-second wait is on the manual clock.
    QList<TranscriptEntry> stop()
    {
        Running stopping(service->stop());
        for (int round = 0; round < 2000 && !stopping.isDone(); ++round) {
            QTest::qWait(1);
            clock.advance(50ms);
        }
        EXPECT_TRUE(stopping.isDone());
        return stopping.result->value_or(QList<TranscriptEntry>());
    }

    ManualClock clock;
    FakeTranscriptChannel server;
    std::unique_ptr<TranscriptUploadService> service =
        std::make_unique<TranscriptUploadService>(clock);
};

TEST(TranscriptUploadURLTest, BuiltFromBaseTokenAndSession)
{
    const auto url = [](const QString& base, const QString& token = u"t"_s,
                        const QString& session = u"s"_s) {
        const auto built = TranscriptUploadService::uploadURL(base, token, session);
        return built ? built->toString(QUrl::FullyEncoded) : u"none"_s;
    };
    // (http to ws on the local server is the whole-product test's.)
    const auto path = u"/api/v1/interview/ws?token=t&sessionId=s"_s;
    EXPECT_EQ(url(u"https://host/base"_s), u"wss://host/base"_s + path);
    EXPECT_EQ(url(u"https://http://host"_s), u"wss://host"_s + path) << "every scheme prefix goes";
    // The query keeps "+", "/", "=", "&" and "?" and escapes a blank, "%" and UTF-8.
    EXPECT_EQ(url(u"http://h"_s, u"a b+c/d=e&f%g?\u00e9"_s, u"s 1"_s),
              u"ws://h/api/v1/interview/ws?token=a%20b+c/d=e&f%25g?%C3%A9&sessionId=s%201"_s);
    EXPECT_EQ(url(u"http://bad host"_s), u"none"_s);
}

// Only final lines with text go out, in order, one text frame each; a line handed over before
// the start goes first. JSON cannot hold NaN: that frame says nothing, so no ack can name it.
// (The frame's fields are read by the real server in the client contract test.)
TEST_F(TranscriptUploadServiceTest, FinalLinesWithTextGoOutAsFrames)
{
    service->send(line(u"before-start"_s));
    startChannel();
    service->send({u"u1"_s, Speaker::user, u"I led the team"_s, 1'700'000'000'123, 0.93, true});
    service->send(line(u"i1"_s));
    service->send(line(u"partial"_s, u"Tell me"_s, false));
    service->send(line(u"blank"_s, u" \n\t "_s));
    auto unwritable = line(u"nan"_s);
    unwritable.confidence = std::numeric_limits<double>::quiet_NaN();
    service->send(unwritable);
    ASSERT_TRUE(
        waitFor([&] { return server.frames().size() == 4 && service->pendingIds().size() == 1; }));
    EXPECT_EQ(server.receivedIds(), (QStringList{u"before-start"_s, u"u1"_s, u"i1"_s, QString()}));
    EXPECT_FALSE(server.frames()[1].isBinary);
    EXPECT_EQ(server.frames()[3].data, "{}");
    EXPECT_EQ(ids(stop()), QStringList{u"nan"_s});
}

// An ack takes out the lines it names once they were sent, as text or as a binary frame of
// valid UTF-8 throughout (read leniently, the broken one would take out b). Neither an ack read
// before its line went out nor a frame too deeply nested to read changes anything. Stop waits
// half a second for acks and reads one more message after it began: the second is never read.
TEST_F(TranscriptUploadServiceTest,
       AcksTakeOutOnlyTheSentLinesTheyNameAndStopWaitsHalfASecondForThem)
{
    startChannel(ignoreAll);
    service->send(line(u"a"_s));
    service->send(line(u"b"_s));
    ASSERT_TRUE(waitFor([&] { return server.frames().size() == 2; }));
    server.sendAck({u"c"_s});
    server.sendBinary("{\"type\":\"ack\",\"ids\":[\"b\"],\"x\":\"\xc3\x28\"}");
    server.sendText(QString(10 << 20, u'['));
    server.sendAck({u"a"_s});
    ASSERT_TRUE(waitFor([&] { return service->pendingIds() == QStringList{u"b"_s}; }));
    server.sendBinary(R"({"type":"ack","ids":["b"]})");
    ASSERT_TRUE(waitFor([&] { return service->pendingIds().isEmpty(); }));
    service->send(line(u"c"_s));
    service->send(line(u"d"_s));
    ASSERT_TRUE(waitFor([&] { return server.frames().size() == 4; }));
    QTest::qWait(20);
    EXPECT_EQ(service->pendingIds(), (QStringList{u"c"_s, u"d"_s}));
    EXPECT_EQ(service->acknowledgedIds(), (QSet<QString>{u"a"_s, u"b"_s}));

    Running stopping(service->stop());
    ASSERT_TRUE(waitFor([&] { return hasTimerIn(TranscriptUploadService::stopAckWait); }));
    server.sendAck({u"c"_s});
    server.sendAck({u"d"_s});
    ASSERT_TRUE(waitFor([&] { return !service->pendingIds().contains(u"c"_s); }));
    QTest::qWait(50);
    ASSERT_TRUE(happensExactlyAfter(clock, TranscriptUploadService::stopAckWait,
                                    [&] { return stopping.isDone(); }));
    EXPECT_EQ(ids(**stopping.result), QStringList{u"d"_s});
}

// A cut connection hands its unacknowledged lines back to the front of the queue; refused ones
// keep them there. The next attempt comes after a second every time, as each opened socket
// resets the back-off, and a line handed over during the handshake waits for it behind the others.
TEST_F(TranscriptUploadServiceTest,
       CutOrRefusedConnectionsRetryEverySecondWithTheLinesInFlightFirst)
{
    int received = 0;
    startChannel([&](const Frame&) { return ++received == 2 ? Reaction::drop : Reaction::ack; });
    service->send(line(u"a"_s));
    service->send(line(u"b"_s));
    ASSERT_TRUE(waitFor([&] { return !service->isConnected(); }));
    service->send(line(u"c"_s));
    EXPECT_EQ(ids(service->bufferedEntries()), (QStringList{u"b"_s, u"c"_s}));
    EXPECT_TRUE(service->pendingIds().isEmpty());
    server.setRefusing(true);
    for (int attempt = 2; attempt <= 4; ++attempt) {
        ASSERT_TRUE(hasTimerIn(1s)) << "before attempt " << attempt;
        ASSERT_TRUE(happensExactlyAfter(
            clock, 1s,
            [&] { return server.handshakeAttempts() == attempt && !service->isConnected(); }))
            << "attempt " << attempt;
    }
    server.setRefusing(false);
    clock.advance(1s);
    service->send(line(u"d"_s));
    EXPECT_EQ(ids(service->bufferedEntries()), (QStringList{u"b"_s, u"c"_s, u"d"_s}));
    ASSERT_TRUE(waitFor([&] { return service->acknowledgedIds().size() == 4; }));
    EXPECT_EQ(server.receivedIds(), (QStringList{u"a"_s, u"b"_s, u"b"_s, u"c"_s, u"d"_s}));
    EXPECT_EQ(server.connections().last().query, server.connections().first().query);
    EXPECT_TRUE(stop().isEmpty());
}

// A stop while the retry waits gives the lines back at once and ends the retries. A service
// destroyed mid-flight ends every call it suspended: stop's wait for acks, and the handshake
// another one waits for.
TEST_F(TranscriptUploadServiceTest,
       AHandshakeThatNeverEndsFailsAfterTenSecondsAndNothingOutlivesAStopOrTheService)
{
    QTcpServer silent; // takes the TCP connection and never answers the upgrade
    ASSERT_TRUE(silent.listen(QHostAddress::LocalHost, 0));
    const auto silentURL = u"http://127.0.0.1:"_s + QString::number(silent.serverPort());
    awaitTask(service->start(silentURL, u"t"_s, u"s"_s));
    service->send(line(u"a"_s));
    ASSERT_TRUE(happensExactlyAfter(clock, TranscriptUploadService::handshakeTimeout,
                                    [&] { return !service->isConnected(); }));
    EXPECT_EQ(ids(service->bufferedEntries()), QStringList{u"a"_s});
    EXPECT_TRUE(hasTimerIn(1s));
    service->send(line(u"b"_s));
    Running stopped(service->stop());
    ASSERT_TRUE(stopped.isDone());
    EXPECT_EQ(ids(**stopped.result), (QStringList{u"a"_s, u"b"_s}));
    EXPECT_EQ(clock.pendingTimerCount(), 0u);

    startChannel(ignoreAll);
    service->send(line(u"c"_s));
    Running stopping(service->stop());
    ASSERT_TRUE(waitFor([&] { return hasTimerIn(TranscriptUploadService::stopAckWait); }));
    auto connecting = std::make_unique<TranscriptUploadService>(clock);
    awaitTask(connecting->start(silentURL, u"t"_s, u"s"_s));
    connecting->send(line(u"d"_s));
    service.reset();
    connecting.reset();
    ASSERT_TRUE(stopping.isDone());
    EXPECT_TRUE(stopping.result->value().isEmpty());
    EXPECT_EQ(clock.pendingTimerCount(), 0u);
}

// Acks of a line that grew: by id alone each covers the oldest send not yet covered; with
// revisions each covers what it names. Neither clears the newer text early.
class GrownLineAckTest : public TranscriptUploadServiceTest,
                         public ::testing::WithParamInterface<bool> {};

TEST_P(GrownLineAckTest, CoversOnlyTheTextItWasFor)
{
    const auto ack = [&](int frame) {
        const auto revision = server.frames()[frame].revision();
        server.sendText(
            GetParam()
                ? u"{\"type\":\"ack\",\"ids\":[\"a\"],\"revisions\":{\"a\":%1}}"_s.arg(revision)
                : u"{\"type\":\"ack\",\"ids\":[\"a\"]}"_s);
    };
    startChannel(ignoreAll);
    service->send(line(u"a"_s, u"Tell me"_s));
    ASSERT_TRUE(waitFor([&] { return server.frames().size() == 1; }));
    service->send(line(u"a"_s, u"Tell me more"_s));
    ASSERT_TRUE(waitFor([&] { return server.frames().size() == 2; }));
    EXPECT_EQ(server.frames()[0].revision() + 1, server.frames()[1].revision());
    ack(0);
    QTest::qWait(50);
    EXPECT_EQ(service->pendingIds(), QStringList{u"a"_s});

    // Cut before the newer text was acknowledged: it goes out again, and only it.
    server.closeAbruptly();
    ASSERT_TRUE(waitFor([&] { return !service->isConnected(); }));
    clock.advance(1s);
    ASSERT_TRUE(waitFor([&] { return server.frames().size() == 3; }));
    EXPECT_EQ(server.frames()[2].content(), u"Tell me more"_s);
    EXPECT_EQ(server.frames()[2].revision(), server.frames()[1].revision());
    ack(2);
    ASSERT_TRUE(waitFor([&] { return service->pendingIds().isEmpty(); }));
    // A duplicate covers nothing, and a line that grows again goes out again.
    ack(2);
    QTest::qWait(50);
    service->send(line(u"a"_s, u"Tell me more, please"_s));
    ASSERT_TRUE(waitFor([&] { return server.frames().size() == 4; }));
    QTest::qWait(20);
    EXPECT_EQ(ids(stop(), &TranscriptEntry::content), QStringList{u"Tell me more, please"_s});
}

INSTANTIATE_TEST_SUITE_P(BothAckForms, GrownLineAckTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Revisions" : "IdsAlone"; });
