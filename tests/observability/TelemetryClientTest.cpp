#include "TelemetryClient.h"
#include "AwaitTask.h"
#include "ClockWait.h"
#include "FakeBackend.h"
#include "PreferencesStore.h"
#include "QtPrinters.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>
#include <QTest>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {
const QByteArray eventsPath = "/api/v1/telemetry/events";
const TelemetryClient::Environment environment{u"1.2.3"_s, u"6.1.0"_s, u"x64"_s, u"de_DE"_s};

QStringList namesOf(const QList<TelemetryClient::PendingEvent>& events)
{
    QStringList names;
    for (const auto& event : events)
        names.append(event.name);
    return names;
}
} // namespace

class TelemetryClientTest : public ::testing::Test {
protected:
    TelemetryClientTest() { batchesMeet(200); }

    void batchesMeet(int status)
    {
        server.setRoute("POST", eventsPath, FakeBackend::Response::json(status, "{}"));
    }

    void trackNumbered(int from, int to)
    {
        for (int i = from; i < to; ++i)
            client.track(u"e%1"_s.arg(i), u"feature"_s);
    }
    void config(const QByteArray& body, int status = 200)
    {
        server.setRoute("GET", "/api/v1/telemetry/config",
                        FakeBackend::Response::json(status, body));
        awaitTask(client.fetchConfig());
    }

    FakeBackend server;
    PreferencesStore preferences;
    ManualClock clock;
    TelemetryClient client{server.origin(), preferences, clock, environment};
};

TEST_F(TelemetryClientTest, ServerDownKeepsTheLatest200)
{
    // A refused connection fails each flush at once: every track past the batch size starts one,
    // and none may still be in flight when the client goes.
    QTcpServer closed;
    ASSERT_TRUE(closed.listen(QHostAddress::LocalHost, 0));
    const auto origin = u"http://127.0.0.1:"_s + QString::number(closed.serverPort());
    closed.close();
    TelemetryClient offline(origin, preferences, clock, environment);
    for (int i = 0; i < 205; ++i)
        offline.track(u"e%1"_s.arg(i), u"feature"_s);
    // The flushes started on the way fail, raise nothing, and must not lose or duplicate anything.
    QTest::qWait(300);
    const auto names = namesOf(offline.buffer());
    EXPECT_EQ(names.size(), 200);
    EXPECT_EQ((QStringList{names.first(), names.last()}), (QStringList{u"e5"_s, u"e204"_s}));
}

// The user's opt-out drops events and empties the buffer. The backend steers: a failed batch stays
// at the head, a 204 stops sending for this run until a config enables it again, and a config's
// sample rate is clamped; bodies it can't read change nothing.
TEST_F(TelemetryClientTest, OptOutAndTheBackendSteerBatchesAndSampling)
{
    trackNumbered(0, 3);
    preferences.setBool(u"sendAnonymousTelemetry"_s, false);
    client.track(u"dropped"_s, u"feature"_s);
    EXPECT_EQ(client.buffer().size(), 3);
    awaitTask(client.flush());
    EXPECT_TRUE(client.buffer().isEmpty());
    EXPECT_EQ(server.totalRequests(), 0);
    preferences.remove(u"sendAnonymousTelemetry"_s); // absent counts as on

    batchesMeet(500);
    trackNumbered(0, 3);
    awaitTask(client.flush());
    client.track(u"later"_s, u"feature"_s);
    EXPECT_EQ(namesOf(client.buffer()), (QStringList{u"e0"_s, u"e1"_s, u"e2"_s, u"later"_s}));
    batchesMeet(200);
    awaitTask(client.flush());
    EXPECT_TRUE(client.buffer().isEmpty());

    batchesMeet(204);
    trackNumbered(0, 2);
    awaitTask(client.flush());
    const auto sent = server.requestCount("POST", eventsPath);
    trackNumbered(0, 25);
    awaitTask(client.flush());
    EXPECT_TRUE(client.buffer().isEmpty());
    EXPECT_EQ(server.requestCount("POST", eventsPath), sent) << "nothing more is sent in this run";
    config(R"({"enabled": true})");
    client.track(u"back"_s, u"feature"_s);
    EXPECT_EQ(client.buffer().size(), 1);

    config(R"({"sampleRate": 1.5})");
    EXPECT_EQ(client.sampleRate(), 1.0);
    config(R"({"sampleRate": -1})");
    EXPECT_EQ(client.sampleRate(), 0.0);
    client.track(u"out"_s, u"feature"_s);
    EXPECT_EQ(client.buffer().size(), 1) << "a rate of 0 drops every device";
    config(R"({"enabled": false, "sampleRate": 0.25})");
    for (const auto& [body, status] : {std::pair<QByteArray, int>("not json", 200),
                                       {"[1]", 200},
                                       {R"({"enabled":"yes","sampleRate":"1"})", 200},
                                       {R"({"enabled": true})", 500}}) {
        config(body, status);
        EXPECT_FALSE(client.killSwitchEnabled()) << body.toStdString();
        EXPECT_EQ(client.sampleRate(), 0.25) << body.toStdString();
    }
}

TEST_F(TelemetryClientTest, FlushLoopSendsEvery15SecondsOnTheClock)
{
    client.start();
    client.track(u"a"_s, u"feature"_s);
    ASSERT_TRUE(happensExactlyAfter(clock, 15s, [&] { return client.buffer().isEmpty(); }));
    EXPECT_EQ(server.requestCount("POST", eventsPath), 1);

    client.start(); // a second start replaces the loop rather than adding one
    client.track(u"b"_s, u"feature"_s);
    clock.advance(15s);
    ASSERT_TRUE(QTest::qWaitFor([&] { return client.buffer().isEmpty(); }, 10'000));
    QTest::qWait(20);
    EXPECT_EQ(server.requestCount("POST", eventsPath), 2);
}

// The twentieth event sends the batch at once, inside the whole envelope. Events carry codes,
// buckets and counts only; the device id is kept across starts.
TEST_F(TelemetryClientTest, TwentiethEventSendsTheBatchInItsEnvelope)
{
    using T = TelemetryClient;
    EXPECT_EQ(
        (QStringList{T::countBucket(0), T::countBucket(4), T::countBucket(5), T::countBucket(20)}),
        (QStringList{u"zero"_s, u"1_4"_s, u"5_19"_s, u"20_plus"_s}));
    EXPECT_EQ((QStringList{T::durationBucket(59.9), T::durationBucket(60), T::durationBucket(899),
                           T::durationBucket(1800), T::durationBucket(3600)}),
              (QStringList{u"under_1m"_s, u"1_5m"_s, u"5_15m"_s, u"30_60m"_s, u"over_60m"_s}));

    EXPECT_EQ(client.deviceId().size(), 36) << "a UUID";
    EXPECT_EQ(TelemetryClient(server.origin(), preferences, clock, environment).deviceId(),
              client.deviceId());
    client.track(u"typed"_s, u"feature"_s,
                 TelemetryClient::Props{
                     {u"s"_s, u"5_15m"_s}, {u"n"_s, qint64(3)}, {u"ok"_s, true}, {u"r"_s, 0.5}});
    // Once per installation, whichever client of it asks.
    client.firstInterviewStarted();
    client.firstInterviewStarted();
    client.firstAnswerReceived(900);
    TelemetryClient(server.origin(), preferences, clock, environment).firstAnswerReceived(10);
    client.sessionCompleted(1500, 7);
    client.resumeUpload(false, u"serverError"_s);
    client.jdUpload(true, u"ignored on success"_s);
    // A batch sent before the twentieth would show below as a second request or a shorter batch.
    trackNumbered(0, 13);
    client.track(u"twentieth"_s, u"feature"_s);
    ASSERT_TRUE(QTest::qWaitFor([&] { return client.buffer().isEmpty(); }, 10'000));
    ASSERT_EQ(server.requestCount("POST", eventsPath), 1);

    const auto request = server.requests("POST", eventsPath).first();
    EXPECT_EQ(request.header("User-Agent"), "RavletAI/1.2.3 (Linux; telemetry)");
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_FALSE(request.headers.contains("authorization"));
    auto body = QJsonDocument::fromJson(request.body).object();
    const auto events = body.take(u"events"_s).toArray();
    EXPECT_EQ(body, (QJsonObject{{u"deviceId"_s, client.deviceId()},
                                 {u"platform"_s, u"linux"_s},
                                 {u"appVersion"_s, u"1.2.3"_s},
                                 {u"osVersion"_s, u"6.1.0"_s},
                                 {u"arch"_s, u"x64"_s},
                                 {u"locale"_s, u"de_DE"_s},
                                 {u"region"_s, u"global"_s}}));
    ASSERT_EQ(events.size(), 20);
    EXPECT_EQ(events[0].toObject().value(u"clientTs"_s).toString(), u"2023-11-14T22:13:20.000Z"_s);
    EXPECT_EQ(events[0].toObject().value(u"category"_s).toString(), u"feature"_s);
    QJsonArray named;
    for (qsizetype i = 0; i < 6; ++i) {
        auto event = events[i].toObject();
        event.remove(u"category"_s);
        event.remove(u"clientTs"_s);
        named.append(event);
    }
    EXPECT_EQ(named, QJsonDocument::fromJson(R"([
        {"name": "typed", "props": {"s": "5_15m", "n": 3, "ok": true, "r": 0.5}},
        {"name": "first_interview_started"},
        {"name": "first_answer_received", "props": {"latency_ms": 900}},
        {"name": "session_completed",
         "props": {"duration_bucket": "15_30m", "answer_count_bucket": "5_19"}},
        {"name": "resume_upload", "props": {"success": false, "error_code": "serverError"}},
        {"name": "jd_upload", "props": {"success": true}}])")
                         .array());
}
