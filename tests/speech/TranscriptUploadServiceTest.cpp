// The transcript upload channel against a fake server on loopback: the URL it builds, which
// lines go out and how, acks, stop, reconnects, hostile frames, and a seeded random session.
#include "QtPrinters.h"

#include "AwaitTask.h"
#include "Clock.h"
#include "FakeTranscriptChannel.h"
#include "TranscriptUploadService.h"

#include <QMap>
#include <QRandomGenerator>
#include <QTcpServer>
#include <QTest>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using Speaker = TranscriptEntry::Speaker;
using Reaction = FakeTranscriptChannel::Reaction;

namespace {

constexpr int deadlineMs = 10'000;

TranscriptEntry line(const QString& id, const QString& content = u"a line"_s, bool isFinal = true)
{
    return {id, Speaker::interviewer, content, 1'700'000'000'000, std::nullopt, isFinal};
}

QStringList ids(const QList<TranscriptEntry>& entries)
{
    QStringList result;
    for (const auto& entry : entries)
        result.append(entry.id);
    return result;
}

// stop() left running while the test drives sockets and the manual clock.
class Running {
public:
    explicit Running(QCoro::Task<QList<TranscriptEntry>> task) { drive(std::move(task), m_state); }
    bool isDone() const { return m_state->done; }
    bool waitDone() const
    {
        return QTest::qWaitFor([state = m_state] { return state->done; }, deadlineMs);
    }
    QList<TranscriptEntry> result() const
    {
        if (m_state->error)
            std::rethrow_exception(m_state->error);
        return m_state->value;
    }

private:
    struct State {
        QList<TranscriptEntry> value;
        std::exception_ptr error;
        bool done = false;
    };
    static QCoro::Task<> drive(QCoro::Task<QList<TranscriptEntry>> task, std::shared_ptr<State> state)
    {
        try {
            state->value = co_await task;
        } catch (...) {
            state->error = std::current_exception();
        }
        state->done = true;
    }

    std::shared_ptr<State> m_state = std::make_shared<State>();
};

bool waitFor(const std::function<bool()>& condition)
{
    return QTest::qWaitFor(condition, deadlineMs);
}

bool hasTimerIn(const ManualClock& clock, std::chrono::milliseconds delay)
{
    const auto next = clock.nextDeadlineMs();
    return next && *next - clock.nowMs() == delay.count();
}

// Runs stop() to its end: its half-second wait is on the manual clock.
QList<TranscriptEntry> stopOn(TranscriptUploadService& service, ManualClock& clock)
{
    Running stopping(service.stop());
    for (int round = 0; round < 2000 && !stopping.isDone(); ++round) {
        QTest::qWait(1);
        clock.advance(50ms);
    }
    EXPECT_TRUE(stopping.isDone());
    return stopping.isDone() ? stopping.result() : QList<TranscriptEntry>();
}

} // namespace

class TranscriptUploadServiceTest : public ::testing::Test {
protected:
    using AckPolicy = FakeTranscriptChannel::AckPolicy;
    void startChannel(AckPolicy policy = AckPolicy::ackEverything, int k = 0)
    {
        server.setAckPolicy(policy, k);
        awaitTask(service->start(server.baseURL(), u"tok"_s, u"session-1"_s), deadlineMs);
        ASSERT_TRUE(waitFor([&] { return server.openConnectionCount() == 1; }));
    }
    // Started against a server that refuses every handshake until told otherwise.
    void startRefused()
    {
        server.setRefusing(true);
        awaitTask(service->start(server.baseURL(), u"tok"_s, u"s"_s), deadlineMs);
    }
    void send(const TranscriptEntry& entry) { service->send(entry); }

    ManualClock clock;
    FakeTranscriptChannel server;
    std::unique_ptr<TranscriptUploadService> service =
        std::make_unique<TranscriptUploadService>(clock);
};

TEST(TranscriptUploadURLTest, BuiltFromBaseTokenAndSession)
{
    const auto path = u"/api/v1/interview/ws?"_s;
    const struct {
        const char* name;
        QString baseURL;
        QString expectedOrigin; // then the path and the query
        QString token = u"t"_s;
        QString sessionId = u"s"_s;
        QString query = u"token=t&sessionId=s"_s;
    } cases[] = {
        {"HttpsGivesWss", u"https://api.ravlet.ai"_s, u"wss://api.ravlet.ai"_s},
        {"HttpGivesWs", u"http://127.0.0.1:8787"_s, u"ws://127.0.0.1:8787"_s},
        {"PathOfTheBaseIsKept", u"https://host/base"_s, u"wss://host/base"_s},
        {"NoSchemeGivesWs", u"host:9000"_s, u"ws://host:9000"_s},
        {"EverySchemePrefixIsRemoved", u"https://http://host"_s, u"wss://host"_s},
        // The query set leaves "+", "/", "=", "&" and "?" alone and escapes space, "%" and UTF-8.
        {"QueryCharacterSet", u"http://h"_s, u"ws://h"_s, u"a b+c/d=e&f%g?\u00e9"_s, u"s 1"_s,
         u"token=a%20b+c/d=e&f%25g?%C3%A9&sessionId=s%201"_s},
    };
    for (const auto& c : cases) {
        const auto url = TranscriptUploadService::uploadURL(c.baseURL, c.token, c.sessionId);
        ASSERT_TRUE(url.has_value()) << c.name;
        EXPECT_EQ(url->toString(QUrl::FullyEncoded), c.expectedOrigin + path + c.query) << c.name;
    }
    EXPECT_FALSE(TranscriptUploadService::uploadURL(u"http://bad host"_s, u"t"_s, u"s"_s));
}

TEST_F(TranscriptUploadServiceTest, BadBaseURLFailsStartAndNothingConnects)
{
    send(line(u"early"_s));
    EXPECT_THROW(awaitTask(service->start(u"http://bad host"_s, u"t"_s, u"s"_s), deadlineMs),
                 TranscriptUploadService::BadURLError);
    EXPECT_FALSE(service->isConnected());
    EXPECT_EQ(ids(stopOn(*service, clock)), QStringList{u"early"_s});
    EXPECT_EQ(clock.pendingTimerCount(), 0u);
    EXPECT_EQ(server.handshakeAttempts(), 0);
}

TEST_F(TranscriptUploadServiceTest, SendsFinalNonEmptyLinesAsFramesAndDropsTheRest)
{
    send(line(u"before-start"_s)); // no connection yet: buffered, and first out after start
    startChannel();
    const TranscriptEntry user{u"u1"_s, Speaker::user, u"I led the team"_s,
                               1'700'000'000'123, 0.93, true};
    send(user);
    send(line(u"i1"_s, u"Tell me more"_s));
    send(line(u"partial"_s, u"Tell me"_s, false));
    send(line(u"blank"_s, u" \n\t "_s));
    // JSON cannot hold NaN: the frame says nothing, so no ack can name the line.
    TranscriptEntry unwritable = line(u"nan"_s);
    unwritable.confidence = std::numeric_limits<double>::quiet_NaN();
    send(unwritable);
    ASSERT_TRUE(waitFor(
        [&] { return server.frames().size() == 4 && service->pendingIds().size() == 1; }));

    EXPECT_EQ(server.connections().first().path, u"/api/v1/interview/ws"_s);
    EXPECT_EQ(server.connections().first().query, u"token=tok&sessionId=session-1"_s);
    EXPECT_EQ(server.receivedIds(), (QStringList{u"before-start"_s, u"u1"_s, u"i1"_s, QString()}));
    const auto& frames = server.frames();
    for (const auto& frame : frames)
        EXPECT_FALSE(frame.isBinary);
    EXPECT_EQ(frames[1].json(), (QJsonObject{{u"type"_s, u"transcript_entry"_s},
                                             {u"id"_s, u"u1"_s},
                                             {u"revision"_s, 1},
                                             {u"speaker"_s, u"user"_s},
                                             {u"content"_s, u"I led the team"_s},
                                             {u"timestampMs"_s, qint64(1'700'000'000'123)},
                                             {u"confidence"_s, 0.93}}));
    EXPECT_TRUE(frames[1].data.contains("\"timestampMs\":1700000000123"))
        << frames[1].data.toStdString();
    EXPECT_EQ(frames[2].json().value(u"speaker"_s).toString(), u"interviewer"_s);
    EXPECT_FALSE(frames[2].json().contains(u"confidence"_s));
    EXPECT_EQ(frames[3].data, "{}");

    EXPECT_EQ(service->pendingIds(), QStringList{u"nan"_s});
    EXPECT_TRUE(service->bufferedEntries().isEmpty());
    EXPECT_EQ(ids(stopOn(*service, clock)), QStringList{u"nan"_s});
}

TEST_F(TranscriptUploadServiceTest, AcksTakeOutOnlyTheIdsTheyNameOnceSentAndBinaryAcksCount)
{
    startChannel(AckPolicy::duplicateAndUnknown);
    send(line(u"a"_s));
    send(line(u"b"_s));
    ASSERT_TRUE(waitFor([&] { return service->acknowledgedIds().size() == 2; }));
    EXPECT_EQ(service->acknowledgedIds(), (QSet<QString>{u"a"_s, u"b"_s}));
    EXPECT_TRUE(service->pendingIds().isEmpty());

    // An ack for a line not yet sent covers nothing. It is read before the binary ack of c,
    // which comes after it on the same socket, and so before d goes out.
    server.setAckPolicy(AckPolicy::ackNothing);
    send(line(u"c"_s));
    ASSERT_TRUE(waitFor([&] { return server.frames().size() == 3; }));
    server.sendAck({u"d"_s});
    server.sendBinary(R"({"type":"ack","ids":["c"]})");
    ASSERT_TRUE(waitFor([&] { return service->pendingIds().isEmpty(); }));
    send(line(u"d"_s));
    ASSERT_TRUE(waitFor([&] { return server.frames().size() == 4; }));
    EXPECT_EQ(service->pendingIds(), QStringList{u"d"_s});
    EXPECT_FALSE(service->acknowledgedIds().contains(u"d"_s));
    EXPECT_EQ(server.connections().size(), 1);
    EXPECT_EQ(ids(stopOn(*service, clock)), QStringList{u"d"_s});
}

TEST_F(TranscriptUploadServiceTest, StopWaitsHalfASecondForAcksAndTakesOneMoreFrame)
{
    startChannel(AckPolicy::ackNothing);
    for (const auto& id : {u"a"_s, u"b"_s, u"c"_s})
        send(line(id));
    ASSERT_TRUE(waitFor([&] { return server.frames().size() == 3; }));

    Running stopping(service->stop());
    ASSERT_TRUE(waitFor([&] { return hasTimerIn(clock, TranscriptUploadService::stopAckWait); }));
    // The receive loop tests for stopping after each message, so the second ack is never read.
    server.sendAck({u"a"_s});
    server.sendAck({u"b"_s});
    ASSERT_TRUE(waitFor([&] { return !service->pendingIds().contains(u"a"_s); }));
    QTest::qWait(50);
    clock.advance(499ms);
    QTest::qWait(10);
    EXPECT_FALSE(stopping.isDone());
    clock.advance(1ms);
    ASSERT_TRUE(stopping.waitDone());
    EXPECT_EQ(ids(stopping.result()), (QStringList{u"b"_s, u"c"_s}));
    ASSERT_TRUE(waitFor([&] { return server.openConnectionCount() == 0; }));
    EXPECT_EQ(server.connections().first().closeCode, 1000);
}

TEST_F(TranscriptUploadServiceTest, DroppedConnectionResendsLinesInFlightFirstAfterOneSecond)
{
    startChannel(AckPolicy::dropAfterFrames, 2);
    send(line(u"a"_s));
    send(line(u"b"_s)); // the server records it, then cuts the connection unacknowledged
    ASSERT_TRUE(waitFor([&] { return !service->isConnected(); }));
    send(line(u"c"_s));
    EXPECT_EQ(ids(service->bufferedEntries()), (QStringList{u"b"_s, u"c"_s}));
    EXPECT_TRUE(service->pendingIds().isEmpty());

    server.setAckPolicy(AckPolicy::ackEverything);
    EXPECT_TRUE(hasTimerIn(clock, 1s));
    clock.advance(999ms);
    QTest::qWait(20);
    EXPECT_EQ(server.handshakeAttempts(), 1);
    clock.advance(1ms);
    ASSERT_TRUE(waitFor([&] { return server.frames().size() == 4; }));
    send(line(u"d"_s));
    ASSERT_TRUE(waitFor([&] { return service->acknowledgedIds().size() == 4; }));
    EXPECT_EQ(server.receivedIds(), (QStringList{u"a"_s, u"b"_s, u"b"_s, u"c"_s, u"d"_s}));
    EXPECT_EQ(server.connections()[1].query, server.connections()[0].query);
    EXPECT_TRUE(stopOn(*service, clock).isEmpty());
}

TEST_F(TranscriptUploadServiceTest, RefusingServerIsRetriedEverySecondAndLineInFlightComesBack)
{
    startRefused();
    EXPECT_TRUE(service->isConnected()); // up as soon as opened, before the server answers
    // During the handshake a line waits in the queue, and stays there when the socket fails.
    send(line(u"early"_s));
    EXPECT_EQ(ids(service->bufferedEntries()), QStringList{u"early"_s});
    ASSERT_TRUE(waitFor([&] { return !service->isConnected(); }));
    EXPECT_EQ(ids(service->bufferedEntries()), QStringList{u"early"_s});
    EXPECT_TRUE(service->pendingIds().isEmpty());

    // The attempt counter resets whenever a socket is opened, so the wait never grows.
    for (int attempt = 2; attempt <= 4; ++attempt) {
        ASSERT_TRUE(hasTimerIn(clock, 1s)) << "before attempt " << attempt;
        clock.advance(1s);
        ASSERT_TRUE(waitFor(
            [&] { return server.handshakeAttempts() == attempt && !service->isConnected(); }));
    }
    server.setRefusing(false);
    clock.advance(1s);
    ASSERT_TRUE(waitFor([&] { return service->acknowledgedIds().contains(u"early"_s); }));
    EXPECT_EQ(server.receivedIds(), QStringList{u"early"_s});
    EXPECT_TRUE(stopOn(*service, clock).isEmpty());
}

TEST_F(TranscriptUploadServiceTest, StopWhileReconnectingReturnsLinesUnsentAndEndsTheRetries)
{
    startRefused();
    ASSERT_TRUE(waitFor([&] { return !service->isConnected(); }));
    send(line(u"a"_s));
    send(line(u"b"_s));

    Running stopping(service->stop());
    EXPECT_TRUE(stopping.isDone()); // no half-second wait without a connection
    EXPECT_EQ(ids(stopping.result()), (QStringList{u"a"_s, u"b"_s}));
    EXPECT_EQ(clock.pendingTimerCount(), 0u);
    clock.advance(60s);
    QTest::qWait(20);
    EXPECT_EQ(server.handshakeAttempts(), 1);
    EXPECT_TRUE(server.frames().isEmpty());
}

// Acks of a line that grew: by id alone each covers the oldest send not yet covered; with
// revisions each covers what it names. Neither clears the newer text early.
class GrownLineAckTest : public TranscriptUploadServiceTest,
                         public ::testing::WithParamInterface<bool> {};

TEST_P(GrownLineAckTest, CoversOnlyTheTextItWasFor)
{
    const bool withRevisions = GetParam();
    const auto ack = [&](int revision) {
        if (withRevisions)
            server.sendText(u"{\"type\":\"ack\",\"ids\":[\"a\"],\"revisions\":{\"a\":%1}}"_s.arg(revision));
        else
            server.sendAck({u"a"_s});
    };
    startChannel(AckPolicy::ackNothing);
    send(line(u"a"_s, u"Tell me"_s));
    ASSERT_TRUE(waitFor([&] { return server.frames().size() == 1; }));
    send(line(u"a"_s, u"Tell me more"_s));
    ASSERT_TRUE(waitFor([&] { return server.frames().size() == 2; }));
    EXPECT_EQ(server.frames()[0].revision() + 1, server.frames()[1].revision());

    ack(server.frames()[0].revision());
    server.sendAck({u"unknown"_s});
    QTest::qWait(50);
    EXPECT_EQ(service->pendingIds(), QStringList{u"a"_s});
    EXPECT_FALSE(service->acknowledgedIds().contains(u"a"_s));

    // Cut before the newer text was acknowledged: it goes out again, and only it.
    server.closeAbruptly();
    ASSERT_TRUE(waitFor([&] { return !service->isConnected(); }));
    clock.advance(1s);
    ASSERT_TRUE(waitFor([&] { return server.frames().size() == 3; }));
    EXPECT_EQ(server.frames()[2].content(), u"Tell me more"_s);
    EXPECT_EQ(server.frames()[2].revision(), server.frames()[1].revision());

    ack(server.frames()[2].revision());
    ASSERT_TRUE(waitFor([&] { return service->pendingIds().isEmpty(); }));
    EXPECT_TRUE(service->acknowledgedIds().contains(u"a"_s));
    // A duplicate covers nothing, and a line that grows again goes out again.
    ack(server.frames()[2].revision());
    QTest::qWait(50);
    send(line(u"a"_s, u"Tell me more, please"_s));
    ASSERT_TRUE(waitFor([&] { return server.frames().size() == 4; }));
    QTest::qWait(20);
    const auto returned = stopOn(*service, clock);
    ASSERT_EQ(returned.size(), 1);
    EXPECT_EQ(returned[0].content, u"Tell me more, please"_s);
}

INSTANTIATE_TEST_SUITE_P(BothAckForms, GrownLineAckTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Revisions" : "IdsAlone"; });

TEST_F(TranscriptUploadServiceTest, HandshakeThatNeverEndsCountsAsAFailedSend)
{
    QTcpServer silent; // takes the TCP connection and never answers the upgrade
    ASSERT_TRUE(silent.listen(QHostAddress::LocalHost, 0));
    const auto base = u"http://127.0.0.1:"_s + QString::number(silent.serverPort());
    awaitTask(service->start(base, u"t"_s, u"s"_s), deadlineMs);
    send(line(u"a"_s));
    QTest::qWait(50);
    EXPECT_EQ(ids(service->bufferedEntries()), QStringList{u"a"_s});
    clock.advance(TranscriptUploadService::handshakeTimeout);
    ASSERT_TRUE(waitFor([&] { return !service->isConnected(); }));
    EXPECT_EQ(ids(service->bufferedEntries()), QStringList{u"a"_s});
    EXPECT_TRUE(hasTimerIn(clock, 1s));
}

TEST_F(TranscriptUploadServiceTest, DestroyedMidFlightEndsEverySuspendedCall)
{
    startChannel(AckPolicy::ackNothing);
    send(line(u"a"_s));
    Running stopping(service->stop());
    ASSERT_TRUE(waitFor([&] { return hasTimerIn(clock, TranscriptUploadService::stopAckWait); }));

    FakeTranscriptChannel refusing;
    refusing.setRefusing(true);
    auto reconnecting = std::make_unique<TranscriptUploadService>(clock);
    awaitTask(reconnecting->start(refusing.baseURL(), u"t"_s, u"s"_s), deadlineMs);
    reconnecting->send(line(u"b"_s)); // waits for the handshake

    service.reset();
    reconnecting.reset();
    EXPECT_TRUE(stopping.isDone());
    EXPECT_TRUE(stopping.result().isEmpty());
    EXPECT_EQ(clock.pendingTimerCount(), 0u);
}

// Frames that must change nothing. Each is followed by an ack for a marker line, which proves
// the receive loop is still reading afterwards.
TEST_F(TranscriptUploadServiceTest, BadFramesAreIgnoredAndTheChannelGoesOn)
{
    constexpr int tenMegabytes = 10 << 20;
    const struct {
        const char* name;
        bool isBinary;
        QByteArray frame;
    } cases[] = {
        {"Truncated", false, R"({"type":"ack","ids":["target"])"},
        {"ArrayNotObject", false, R"([{"type":"ack","ids":["target"]}])"},
        {"Scalar", false, R"("ack")"},
        {"TypeNotText", false, R"({"type":["ack"],"ids":["target"]})"},
        {"IdsMissing", false, R"({"type":"ack"})"},
        {"IdsText", false, R"({"type":"ack","ids":"target"})"},
        {"IdsNotAllText", false, R"({"type":"ack","ids":["target",7]})"},
        {"UnknownType", false, R"({"type":"acked","ids":["target"]})"},
        // Read leniently, this would ack the target: one bad byte in a key nobody reads.
        {"BinaryInvalidUtf8", true, "{\"type\":\"ack\",\"ids\":[\"target\"],\"x\":\"\xc3\x28\"}"},
        {"BinaryGarbage", true, QByteArray("\x00\xff\x01{\x80[\"", 8)},
        {"TenMegabytesOfNesting", false, QByteArray(tenMegabytes, '[')},
        {"TenMegabytesUnknownType", false,
         R"({"type":"note","text":")" + QByteArray(tenMegabytes, 'x') + R"("})"},
        {"TenMegabytesBinaryInvalidUtf8", true, QByteArray(tenMegabytes, '\xfe')},
    };
    startChannel(AckPolicy::ackNothing);
    send(line(u"target"_s));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const QString marker = u"marker-"_s + QString::fromLatin1(c.name);
        send(line(marker));
        ASSERT_TRUE(waitFor([&] { return server.receivedIds().contains(marker); }));
        if (c.isBinary)
            server.sendBinary(c.frame);
        else
            server.sendText(QString::fromUtf8(c.frame));
        server.sendAck({marker});
        ASSERT_TRUE(waitFor([&] { return service->acknowledgedIds().contains(marker); }));
        EXPECT_EQ(service->pendingIds(), QStringList{u"target"_s});
        EXPECT_TRUE(service->isConnected());
        EXPECT_EQ(server.handshakeAttempts(), 1);
    }
}

namespace {

// One session against a server that acks, holds, ignores and cuts at random, while lines
// grow, clock jumps and abrupt closes come in random order. Half the seeds get acks that name
// the revision, half acks by id alone.
void runRandomSession(quint32 seed)
{
    QRandomGenerator rng(seed);
    QRandomGenerator serverRng(seed ^ 0x9e3779b9u);
    ManualClock clock;
    FakeTranscriptChannel server;
    server.setAckRevisions(seed % 2 == 0);
    server.setFrameRule([&serverRng](const FakeTranscriptChannel::Frame&) {
        const auto roll = serverRng.bounded(100);
        return roll < 55 ? Reaction::ack
               : roll < 70 ? Reaction::hold
               : roll < 80 ? Reaction::ignore
               : roll < 90 ? Reaction::drop
                           : Reaction::ackThenDrop;
    });
    auto service = std::make_unique<TranscriptUploadService>(clock);
    awaitTask(service->start(server.baseURL(), u"tok"_s, u"s"_s), deadlineMs);

    QMap<QString, TranscriptEntry> latest; // what the transcript shows of each line
    QStringList dropped;
    const int steps = 40 + int(rng.bounded(40));
    for (int step = 0; step < steps; ++step) {
        const auto roll = rng.bounded(100);
        if (roll < 35 || (roll < 50 && latest.isEmpty())) {
            const auto entry = line(u"line-%1"_s.arg(step), u"words %1"_s.arg(step));
            latest.insert(entry.id, entry);
            service->send(entry);
        } else if (roll < 50) {
            // A final piece joins a line that went out before.
            auto& grown = latest[latest.keys().at(int(rng.bounded(int(latest.size()))))];
            grown.content += u" and %1"_s.arg(step);
            service->send(grown);
        } else if (roll < 56) {
            const bool partial = rng.bounded(2) == 0;
            dropped.append(u"dropped-%1"_s.arg(step));
            const auto content = partial ? u"part"_s : u"  "_s;
            service->send(line(dropped.last(), content, !partial));
        } else if (roll < 68) {
            server.releaseHeld();
        } else if (roll < 74) {
            server.closeAbruptly();
        } else if (roll < 88) {
            clock.advance(std::chrono::milliseconds(rng.bounded(2500)));
        } else {
            QTest::qWait(int(rng.bounded(4)));
        }
        QCoreApplication::processEvents();
    }
    QTest::qWait(2);
    const auto returned = stopOn(*service, clock);

    // Each line's newest text was acknowledged by the server, or the line is returned with it.
    const auto acknowledged = service->acknowledgedIds();
    const QStringList returnedIds = ids(returned);
    EXPECT_EQ(QSet<QString>(returnedIds.begin(), returnedIds.end()).size(), returnedIds.size())
        << "a line returned twice";
    for (const auto& entry : std::as_const(latest)) {
        const bool isAcknowledged = acknowledged.contains(entry.id);
        const auto at = returnedIds.indexOf(entry.id);
        EXPECT_NE(isAcknowledged, at >= 0)
            << entry.id.toStdString() << (isAcknowledged ? " in both" : " lost");
        if (isAcknowledged) {
            EXPECT_EQ(server.acknowledgedText(entry.id), entry.content) << entry.id.toStdString();
        }
        if (at >= 0) {
            EXPECT_EQ(returned[at], entry);
        }
    }
    const QStringList received = server.receivedIds();
    for (const auto& id : std::as_const(dropped)) {
        EXPECT_FALSE(received.contains(id) || returnedIds.contains(id) || acknowledged.contains(id))
            << id.toStdString();
    }
}

} // namespace

TEST_F(TranscriptUploadServiceTest, RandomDropsAndAcksLeaveEveryNewestTextAcknowledgedOrReturnedNeverBoth)
{
    // Fixed unless asked otherwise, so that every run (CI's included) tries the same series.
    const QByteArray fixed = qgetenv("RAVLET_TEST_SEED");
    const quint32 baseSeed = fixed.isEmpty() ? 20'261'124u : fixed.toUInt();
    constexpr int runs = 100;
    for (int run = 0; run < runs && !HasFailure(); ++run) {
        const quint32 seed = baseSeed + quint32(run);
        SCOPED_TRACE(testing::Message() << "seed " << seed << " (RAVLET_TEST_SEED=" << baseSeed
                                        << " repeats this series)");
        runRandomSession(seed);
    }
}
