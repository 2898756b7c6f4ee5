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

#include <functional>
#include <tuple>

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
    void config(const QByteArray& body, int status = 200)
    {
        server.setRoute("GET", configPath, FakeBackend::Response::json(status, body));
        awaitTask(client.fetchConfig());
    }

    FakeBackend server;
    PreferencesStore preferences;
    ManualClock clock;
    TelemetryClient client{server.origin(), preferences, clock, environment};
};

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
    config(R"({"enabled": true})", 500);
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
    for (const auto& [count, bucket] : std::initializer_list<std::pair<qint64, QString>>{
             {0, u"zero"_s}, {4, u"1_4"_s}, {5, u"5_19"_s}, {20, u"20_plus"_s}})
        EXPECT_EQ(TelemetryClient::countBucket(count), bucket) << count;
    for (const auto& [seconds, bucket] : std::initializer_list<std::pair<double, QString>>{
             {59.9, u"under_1m"_s}, {60, u"1_5m"_s}, {899, u"5_15m"_s}, {1800, u"30_60m"_s}, {3600, u"over_60m"_s}})
        EXPECT_EQ(TelemetryClient::durationBucket(seconds), bucket) << seconds;

    client.firstInterviewStarted();
    client.firstInterviewStarted();
    client.firstAnswerReceived(900);
    TelemetryClient(server.origin(), preferences, clock, environment).firstAnswerReceived(10);
    EXPECT_EQ(namesOf(client.buffer()), (QStringList{u"first_interview_started"_s, u"first_answer_received"_s}));
    EXPECT_EQ(preferences.boolean(u"telemetryFirstAnswerLogged"_s), true);
}

// The twentieth event sends the batch at once, inside the whole envelope. Events carry codes,
// buckets and counts only: each helper's properties are exactly its own, so a caller cannot slip
// interview content into a payload.
TEST_F(TelemetryClientTest, TwentiethEventSendsTheBatchAndEachCarriesOnlyItsOwnProperties)
{
    const QList<std::tuple<QString, QSet<QString>, std::function<void()>>> helpers{
        {u"app_launched"_s, {u"cold_start"_s}, [&] { client.appLaunched(); }},
        {u"auth_success"_s, {u"method"_s}, [&] { client.authSuccess(); }},
        {u"first_interview_started"_s, {}, [&] { client.firstInterviewStarted(); }},
        {u"first_answer_received"_s, {u"latency_ms"_s}, [&] { client.firstAnswerReceived(1200); }},
        {u"session_completed"_s, {u"duration_bucket"_s, u"answer_count_bucket"_s}, [&] { client.sessionCompleted(1500, 7); }},
        {u"audio_capture_failed"_s, {u"error_code"_s, u"category"_s}, 
         [&] { client.audioCaptureFailed(u"noDisplay"_s, u"system_audio"_s); }},
        {u"stt_failed"_s, {u"provider"_s, u"error_code"_s}, [&] { client.sttFailed(u"deepgram"_s, u"auth"_s); }},
        {u"stt_provider_changed"_s, {u"provider"_s}, [&] { client.sttProviderChanged(u"openai"_s); }},
        {u"api_failed"_s, {u"route"_s, u"status"_s}, [&] { client.apiFailed(u"/api/v1/resume"_s, 500); }},
        {u"resume_upload"_s, {u"success"_s, u"error_code"_s}, [&] { client.resumeUpload(false, u"serverError"_s); }},
        {u"jd_upload"_s, {u"success"_s}, [&] { client.jdUpload(true, u"ignored on success"_s); }},
        {u"mock_interview_started"_s, {u"question_count"_s, u"has_resume"_s, u"has_jd"_s}, [&] { client.mockInterviewStarted(5, true, false); }},
        {u"mock_interview_completed"_s, {u"question_count"_s, u"answered_count_bucket"_s, u"ai_triggered_count_bucket"_s,
                                         u"duration_bucket"_s}, [&] { client.mockInterviewCompleted(5, 4, 2, 700); }},
        {u"mock_interview_aborted"_s, {u"reason"_s, u"question_index"_s}, [&] { client.mockInterviewAborted(u"user"_s, 3); }},
        {u"mock_question_played"_s, {u"question_index"_s, u"category"_s}, [&] { client.mockQuestionPlayed(2, u"behavioral"_s); }},
        {u"mock_avatar_generated"_s, {u"first_time"_s}, [&] { client.mockAvatarGenerated(true); }},
        {u"self_update"_s, {u"phase"_s, u"success"_s}, [&] { client.selfUpdate(u"download"_s, false); }},
        {u"hotkey_used"_s, {u"hotkey_name"_s}, [&] { client.hotkeyUsed(u"overlay_ai_button"_s); }},
        {u"settings_opened"_s, {u"page"_s}, [&] { client.settingsOpened(); }},
        {u"overlay_toggled"_s, {u"visible"_s}, [&] { client.overlayToggled(true); }}, // the twentieth: sent at once
    };
    // A caller's own event first, with a value of each type.
    const QJsonObject typed{{u"s"_s, u"5_15m"_s}, {u"n"_s, 3}, {u"ok"_s, true}, {u"r"_s, 0.5}};
    client.track(u"typed"_s, u"feature"_s,
                 TelemetryClient::Props{{u"s"_s, u"5_15m"_s}, {u"n"_s, qint64(3)}, {u"ok"_s, true}, {u"r"_s, 0.5}});
    for (qsizetype i = 0; i < helpers.size() - 2; ++i)
        std::get<2>(helpers[i])();
    QTest::qWait(50);
    EXPECT_EQ(server.requestCount("POST", eventsPath), 0);
    std::get<2>(helpers[helpers.size() - 2])(); // the twentieth
    ASSERT_TRUE(QTest::qWaitFor([&] { return client.buffer().isEmpty(); }, 10'000));
    ASSERT_EQ(server.requestCount("POST", eventsPath), 1);
    std::get<2>(helpers.last())();
    awaitTask(client.flush());

    const auto request = server.requests("POST", eventsPath).first();
    EXPECT_EQ(request.header("User-Agent"), "RavletAI/1.2.3 (Linux; telemetry)");
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_FALSE(request.headers.contains("authorization"));
    auto body = QJsonDocument::fromJson(request.body).object();
    auto events = body.take(u"events"_s).toArray();
    EXPECT_EQ(body, (QJsonObject{{u"deviceId"_s, client.deviceId()}, {u"platform"_s, u"linux"_s},
                                 {u"appVersion"_s, u"1.2.3"_s}, {u"osVersion"_s, u"6.1.0"_s}, {u"arch"_s, u"x64"_s},
                                 {u"locale"_s, u"de_DE"_s}, {u"region"_s, u"global"_s}}));
    ASSERT_EQ(events.size(), 20);
    for (const auto& rest : lastBatch().value(u"events"_s).toArray())
        events.append(rest);
    ASSERT_EQ(events.size(), helpers.size() + 1);
    EXPECT_EQ(events.first().toObject(), (QJsonObject{{u"name"_s, u"typed"_s}, {u"category"_s, u"feature"_s},
                                                      {u"clientTs"_s, u"2023-11-14T22:13:20.000Z"_s}, {u"props"_s, typed}}));
    for (qsizetype i = 0; i < helpers.size(); ++i) {
        const auto& [name, keys, call] = helpers[i];
        const auto event = events[i + 1].toObject();
        EXPECT_EQ(event.value(u"name"_s).toString(), name);
        EXPECT_EQ(event.contains(u"props"_s), !keys.isEmpty()) << name.toStdString() << ": no props, no key";
        const auto sent = event.value(u"props"_s).toObject().keys();
        EXPECT_EQ(QSet<QString>(sent.begin(), sent.end()), keys) << name.toStdString();
    }
}
