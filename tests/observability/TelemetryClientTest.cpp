#include "AwaitTask.h"
#include "QtPrinters.h"
#include "Clock.h"
#include "FakeBackend.h"
#include "PreferencesStore.h"
#include "TelemetryClient.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QSet>
#include <QTcpServer>
#include <QTest>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {
const QByteArray eventsPath = "/api/v1/telemetry/events";
const QByteArray configPath = "/api/v1/telemetry/config";

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
    TelemetryClientTest() { server.setRoute("POST", eventsPath, FakeBackend::Response::json(200, "{}")); }

    void trackNumbered(int from, int to)
    {
        for (int i = from; i < to; ++i)
            client.track(u"e%1"_s.arg(i), u"feature"_s);
    }
    QJsonObject lastBatch() const
    {
        return QJsonDocument::fromJson(server.requests("POST", eventsPath).last().body).object();
    }
    void config(const QByteArray& body)
    {
        server.setRoute("GET", configPath, FakeBackend::Response::json(200, body));
        awaitTask(client.fetchConfig());
    }

    FakeBackend server;
    PreferencesStore preferences;
    ManualClock clock;
    TelemetryClient client{server.origin(), preferences, clock, environment};
};

TEST_F(TelemetryClientTest, TwentiethEventFlushesAtOnceWithTheWholeEnvelope)
{
    trackNumbered(0, 19);
    QTest::qWait(50);
    EXPECT_EQ(server.requestCount("POST", eventsPath), 0);

    client.track(u"session_completed"_s, u"feature"_s,
                 TelemetryClient::Props{{u"duration_bucket"_s, u"5_15m"_s}, {u"count"_s, qint64(3)}, {u"ok"_s, true}, {u"r"_s, 0.5}});
    ASSERT_TRUE(QTest::qWaitFor([&] { return client.buffer().isEmpty(); }, 10'000));
    ASSERT_EQ(server.requestCount("POST", eventsPath), 1);

    const auto request = server.requests("POST", eventsPath).first();
    EXPECT_EQ(request.header("User-Agent"), "RavletAI/1.2.3 (Linux; telemetry)");
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_FALSE(request.headers.contains("authorization"));
    const auto body = lastBatch();
    EXPECT_EQ(body.value(u"deviceId"_s).toString(), client.deviceId());
    EXPECT_EQ(body.value(u"platform"_s).toString(), u"linux"_s);
    EXPECT_EQ(body.value(u"osVersion"_s).toString(), u"6.1.0"_s);
    EXPECT_EQ(body.value(u"arch"_s).toString(), u"x64"_s);
    EXPECT_EQ(body.value(u"locale"_s).toString(), u"de_DE"_s);
    EXPECT_EQ(body.value(u"region"_s).toString(), u"global"_s);
    const auto events = body.value(u"events"_s).toArray();
    ASSERT_EQ(events.size(), 20);
    EXPECT_FALSE(events.first().toObject().contains(u"props"_s)) << "no props, no key";
    EXPECT_EQ(events.first().toObject().value(u"clientTs"_s).toString(), u"2023-11-14T22:13:20.000Z"_s);
    const auto props = events.last().toObject().value(u"props"_s).toObject();
    EXPECT_EQ(props, (QJsonObject{{u"duration_bucket"_s, u"5_15m"_s}, {u"count"_s, 3}, {u"ok"_s, true}, {u"r"_s, 0.5}}));
}

TEST_F(TelemetryClientTest, OptOutDropsEventsAndEmptiesTheBuffer)
{
    trackNumbered(0, 3);
    preferences.setBool(u"sendAnonymousTelemetry"_s, false);
    client.track(u"dropped"_s, u"feature"_s);
    EXPECT_EQ(namesOf(client.buffer()), (QStringList{u"e0"_s, u"e1"_s, u"e2"_s}));
    awaitTask(client.flush());
    EXPECT_TRUE(client.buffer().isEmpty());
    EXPECT_EQ(server.totalRequests(), 0);

    preferences.remove(u"sendAnonymousTelemetry"_s); // absent counts as on
    client.track(u"kept"_s, u"feature"_s);
    EXPECT_EQ(client.buffer().size(), 1);
}

TEST_F(TelemetryClientTest, ServerDownKeepsTheLatest200)
{
    QTcpServer closed;
    ASSERT_TRUE(closed.listen(QHostAddress::LocalHost, 0));
    const auto origin = u"http://127.0.0.1:"_s + QString::number(closed.serverPort());
    closed.close();
    TelemetryClient offline(origin, preferences, clock, environment);
    for (int i = 0; i < 205; ++i)
        offline.track(u"e%1"_s.arg(i), u"feature"_s);
    EXPECT_EQ(offline.buffer().size(), 200);
    EXPECT_EQ(offline.buffer().first().name, u"e5"_s);
    // The flushes started on the way fail and must not lose or duplicate anything.
    QTest::qWait(300);
    EXPECT_EQ(offline.buffer().size(), 200);
    EXPECT_EQ(offline.buffer().first().name, u"e5"_s);
    EXPECT_EQ(offline.buffer().last().name, u"e204"_s);
}

TEST_F(TelemetryClientTest, FailedBatchStaysAtTheHeadAndA204StopsTheRun)
{
    server.setRoute("POST", eventsPath, FakeBackend::Response::json(500, "{}"));
    trackNumbered(0, 3);
    awaitTask(client.flush());
    client.track(u"later"_s, u"feature"_s);
    EXPECT_EQ(namesOf(client.buffer()), (QStringList{u"e0"_s, u"e1"_s, u"e2"_s, u"later"_s}));

    server.setRoute("POST", eventsPath, FakeBackend::Response::json(200, ""));
    awaitTask(client.flush());
    EXPECT_TRUE(client.buffer().isEmpty());

    server.setRoute("POST", eventsPath, FakeBackend::Response::json(204, ""));
    trackNumbered(0, 2);
    awaitTask(client.flush());
    EXPECT_TRUE(client.buffer().isEmpty());
    EXPECT_FALSE(client.killSwitchEnabled());
    const auto sent = server.requestCount("POST", eventsPath);
    trackNumbered(0, 25);
    awaitTask(client.flush());
    EXPECT_TRUE(client.buffer().isEmpty());
    EXPECT_EQ(server.requestCount("POST", eventsPath), sent) << "nothing more is sent in this run";

    // Only a later config can switch it on again.
    config(R"({"enabled": true})");
    client.track(u"back"_s, u"feature"_s);
    EXPECT_EQ(client.buffer().size(), 1);
}

TEST_F(TelemetryClientTest, ConfigClampsTheSampleRateAndIgnoresBadBodies)
{
    config(R"({"sampleRate": 1.5})");
    EXPECT_EQ(client.sampleRate(), 1.0);
    config(R"({"sampleRate": -1})");
    EXPECT_EQ(client.sampleRate(), 0.0);
    client.track(u"out"_s, u"feature"_s);
    EXPECT_TRUE(client.buffer().isEmpty()) << "a rate of 0 drops every device";

    config(R"({"enabled": false, "sampleRate": 0.25})");
    for (const QByteArray& bad : {QByteArray("not json"), QByteArray("[1]"), QByteArray(R"({"enabled":"yes","sampleRate":"1"})")}) {
        config(bad);
        EXPECT_FALSE(client.killSwitchEnabled()) << bad.toStdString();
        EXPECT_EQ(client.sampleRate(), 0.25) << bad.toStdString();
    }
    server.setRoute("GET", configPath, FakeBackend::Response::json(500, R"({"enabled": true})"));
    awaitTask(client.fetchConfig());
    EXPECT_FALSE(client.killSwitchEnabled()) << "a failed request changes nothing";
}

TEST_F(TelemetryClientTest, DeviceIdIsKeptAndAnEmptyOneReplaced)
{
    const auto first = client.deviceId();
    EXPECT_TRUE(QRegularExpression(u"^[0-9a-f-]{36}$"_s).match(first).hasMatch());
    EXPECT_EQ(preferences.string(u"telemetryDeviceId"_s), first);
    EXPECT_EQ(TelemetryClient(server.origin(), preferences, clock, environment).deviceId(), first);

    preferences.setString(u"telemetryDeviceId"_s, QString());
    const TelemetryClient replaced(server.origin(), preferences, clock, environment);
    EXPECT_FALSE(replaced.deviceId().isEmpty());
    EXPECT_NE(replaced.deviceId(), first);
}

TEST_F(TelemetryClientTest, FlushLoopSendsEvery15SecondsOnTheClock)
{
    client.start();
    client.track(u"a"_s, u"feature"_s);
    clock.advance(14'999ms);
    QTest::qWait(20);
    EXPECT_EQ(server.requestCount("POST", eventsPath), 0);
    clock.advance(1ms);
    ASSERT_TRUE(QTest::qWaitFor([&] { return client.buffer().isEmpty(); }, 10'000));
    EXPECT_EQ(server.requestCount("POST", eventsPath), 1);

    client.start(); // a second start replaces the loop rather than adding one
    client.track(u"b"_s, u"feature"_s);
    clock.advance(15s);
    ASSERT_TRUE(QTest::qWaitFor([&] { return client.buffer().isEmpty(); }, 10'000));
    QTest::qWait(20);
    EXPECT_EQ(server.requestCount("POST", eventsPath), 2);
}

TEST_F(TelemetryClientTest, BucketsAndOncePerInstallationEvents)
{
    EXPECT_EQ(TelemetryClient::countBucket(0), u"zero"_s);
    EXPECT_EQ(TelemetryClient::countBucket(4), u"1_4"_s);
    EXPECT_EQ(TelemetryClient::countBucket(5), u"5_19"_s);
    EXPECT_EQ(TelemetryClient::countBucket(20), u"20_plus"_s);
    EXPECT_EQ(TelemetryClient::durationBucket(59.9), u"under_1m"_s);
    EXPECT_EQ(TelemetryClient::durationBucket(60), u"1_5m"_s);
    EXPECT_EQ(TelemetryClient::durationBucket(899), u"5_15m"_s);
    EXPECT_EQ(TelemetryClient::durationBucket(1800), u"30_60m"_s);
    EXPECT_EQ(TelemetryClient::durationBucket(3600), u"over_60m"_s);

    client.firstInterviewStarted();
    client.firstInterviewStarted();
    client.firstAnswerReceived(900);
    TelemetryClient(server.origin(), preferences, clock, environment).firstAnswerReceived(10);
    EXPECT_EQ(namesOf(client.buffer()), (QStringList{u"first_interview_started"_s, u"first_answer_received"_s}));
    EXPECT_EQ(preferences.boolean(u"telemetryFirstAnswerLogged"_s), true);
}

// Events carry codes, buckets and counts only: each event's properties are exactly its own,
// so a caller cannot slip interview content into a payload.
TEST_F(TelemetryClientTest, PayloadsCarryOnlyTheirOwnProperties)
{
    const QHash<QString, QSet<QString>> schema{
        {u"app_launched"_s, {u"cold_start"_s}},
        {u"auth_success"_s, {u"method"_s}},
        {u"first_interview_started"_s, {}},
        {u"first_answer_received"_s, {u"latency_ms"_s}},
        {u"session_completed"_s, {u"duration_bucket"_s, u"answer_count_bucket"_s}},
        {u"audio_capture_failed"_s, {u"error_code"_s, u"category"_s}},
        {u"stt_failed"_s, {u"provider"_s, u"error_code"_s}},
        {u"stt_provider_changed"_s, {u"provider"_s}},
        {u"api_failed"_s, {u"route"_s, u"status"_s}},
        {u"resume_upload"_s, {u"success"_s, u"error_code"_s}},
        {u"jd_upload"_s, {u"success"_s}},
        {u"mock_interview_started"_s, {u"question_count"_s, u"has_resume"_s, u"has_jd"_s}},
        {u"mock_interview_completed"_s, {u"question_count"_s, u"answered_count_bucket"_s, u"ai_triggered_count_bucket"_s, u"duration_bucket"_s}},
        {u"mock_interview_aborted"_s, {u"reason"_s, u"question_index"_s}},
        {u"mock_question_played"_s, {u"question_index"_s, u"category"_s}},
        {u"mock_avatar_generated"_s, {u"first_time"_s}},
        {u"self_update"_s, {u"phase"_s, u"success"_s}},
        {u"hotkey_used"_s, {u"hotkey_name"_s}},
        {u"settings_opened"_s, {u"page"_s}},
        {u"overlay_toggled"_s, {u"visible"_s}},
    };
    client.appLaunched();
    client.authSuccess();
    client.firstInterviewStarted();
    client.firstAnswerReceived(1200);
    client.sessionCompleted(1500, 7);
    client.audioCaptureFailed(u"noDisplay"_s, u"system_audio"_s);
    client.sttFailed(u"deepgram"_s, u"auth"_s);
    client.sttProviderChanged(u"openai"_s);
    client.apiFailed(u"/api/v1/resume"_s, 500);
    client.resumeUpload(false, u"serverError"_s);
    client.jdUpload(true, u"ignored on success"_s);
    client.mockInterviewStarted(5, true, false);
    client.mockInterviewCompleted(5, 4, 2, 700);
    client.mockInterviewAborted(u"user"_s, 3);
    client.mockQuestionPlayed(2, u"behavioral"_s);
    client.mockAvatarGenerated(true);
    client.selfUpdate(u"download"_s, false);
    client.hotkeyUsed(u"overlay_ai_button"_s);
    client.settingsOpened();
    client.overlayToggled(true); // the twentieth: sent at once
    ASSERT_TRUE(QTest::qWaitFor([&] { return client.buffer().isEmpty(); }, 10'000));

    QSet<QString> seen;
    for (const auto& request : server.requests("POST", eventsPath)) {
        const auto body = QJsonDocument::fromJson(request.body).object();
        for (const auto& value : body.value(u"events"_s).toArray()) {
            const auto event = value.toObject();
            const auto name = event.value(u"name"_s).toString();
            ASSERT_TRUE(schema.contains(name)) << name.toStdString();
            const auto keys = event.value(u"props"_s).toObject().keys();
            EXPECT_EQ(QSet<QString>(keys.begin(), keys.end()), schema.value(name)) << name.toStdString();
            seen.insert(name);
        }
    }
    EXPECT_EQ(seen.size(), schema.size());
}
