// The question loop on the manual clock, with a scripted player and pipeline and the practice
// routes served by a real loopback server: what a whole session against the real server cannot
// show (skips at each point, the time rules, failures). The whole session is the whole-product
// test's practice scene.

#include "MockInterviewCoordinator.h"
#include "APIClient.h"
#include "AuthTokenStore.h"
#include "AwaitTask.h"
#include "Clock.h"
#include "FakeBackend.h"
#include "MockInterviewAPI.h"
#include "MockInterviewPipeline.h"
#include "NotificationCenter.h"
#include "PreferencesStore.h"
#include "QtPrinters.h"
#include "ScriptedPlayer.h"
#include "TelemetryClient.h"

#include <QNetworkAccessManager>
#include <QSignalSpy>
#include <QTest>

#include <algorithm>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr int networkMs = 10'000;

struct ScriptedPipeline final : MockInterviewPipeline {
    bool recording = true;
    QStringList injected, started;
    bool isRecording() const override { return recording; }
    QCoro::Task<> startMockInterview(QString id) override { co_return started.append(id); }
    void injectMockQuestion(const QString& text) override { injected.append(text); }
    QCoro::Task<> stopInterview() override { co_return; }
};

QString describe(const MockInterviewCoordinator& coordinator)
{
    const auto state = coordinator.state();
    const auto phase = coordinator.phase();
    if (!state.reason.isEmpty())
        return phase + u" "_s + state.reason;
    return phase.endsWith(u"Question"_s) || phase.endsWith(u"Answer"_s)
               ? phase + u" %1"_s.arg(state.index)
               : phase;
}

} // namespace

class MockInterviewCoordinatorTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        client.setAccessToken(u"tok"_s);
        server.setRoute("POST", "/api/v1/mock-interview/questions",
                        FakeBackend::Response::json(200, questionsJson(3)));
        server.setHandler("POST", "/api/v1/mock-interview/tts",
                          [](const FakeBackend::Request& request) {
                              return FakeBackend::Response::json(200, "audio of " + request.body);
                          });
    }

    void start(int count = 8)
    {
        starting = TaskHandle::run([this, count](const CancellationToken&) {
            return coordinator.startSession(u"r"_s, std::nullopt, u"en"_s, count);
        });
    }
    // Waits for what the loopback server's answer leads to.
    void waitFor(const QString& state)
    {
        EXPECT_TRUE(QTest::qWaitFor([&] { return describe(coordinator) == state; }, networkMs))
            << "still " << describe(coordinator).toStdString() << ", waited for "
            << state.toStdString();
    }
    // The user's skip action: the speech is cut short first.
    void userSkips()
    {
        player.stop();
        coordinator.skip();
    }
    // Whether an abort was reported with its reason and the question it ended on.
    bool reportedAbort(const QString& reason, qint64 index) const
    {
        const TelemetryClient::Props props{{u"reason"_s, reason}, {u"question_index"_s, index}};
        return std::ranges::any_of(telemetry.buffer(), [&](const auto& event) {
            return event.name == u"mock_interview_aborted"_s && event.props == props;
        });
    }

    FakeBackend server;
    ManualClock clock;
    InMemoryTokenStore tokens;
    NotificationCenter notifications;
    QNetworkAccessManager network;
    PreferencesStore preferences;
    TelemetryClient telemetry{server.origin(), preferences, clock};
    APIClient client{server.origin(), tokens, notifications, &network};
    MockInterviewAPI api{client, network, notifications};
    ScriptedPlayer player{clock};
    std::shared_ptr<ScriptedPipeline> pipeline = std::make_shared<ScriptedPipeline>();
    MockInterviewCoordinator coordinator{api, player, pipeline, clock, &telemetry};
    TaskHandle starting;
};

TEST_F(MockInterviewCoordinatorTest, SkipWhilePlayingAndWhileWaiting)
{
    coordinator.skip(); // idle: nothing to skip
    EXPECT_EQ(describe(coordinator), u"idle"_s);
    start();
    waitFor(u"playingQuestion 0"_s);
    // A second start while one runs changes nothing.
    awaitTask(coordinator.startSession(std::nullopt, std::nullopt, u"en"_s, 8));
    ASSERT_TRUE(QTest::qWaitFor([&] { return player.isPlaying(); }, networkMs));
    // The first press cuts the speech short and stays on the question...
    userSkips();
    waitFor(u"waitingForAnswer 0"_s);
    EXPECT_EQ(coordinator.currentIndex(), 0);
    // Silence, speech or time do not move the loop: only the user does, and the second press
    // moves on.
    clock.advance(10min);
    EXPECT_EQ(describe(coordinator), u"waitingForAnswer 0"_s);
    userSkips();
    waitFor(u"playingQuestion 1"_s);
    ASSERT_TRUE(QTest::qWaitFor([&] { return player.isPlaying(); }, networkMs));
    player.endClip();
    waitFor(u"waitingForAnswer 1"_s);
    // An abort while waiting ends the loop where it is.
    awaitTask(coordinator.abort(u"user_cancel"_s));
    EXPECT_EQ(describe(coordinator), u"aborted user_cancel"_s);
    EXPECT_EQ(coordinator.currentIndex(), 1);
    EXPECT_TRUE(reportedAbort(u"user_cancel"_s, 1));
}

// A question list that cannot start a session ends it before anything is spoken; only a failed
// fetch leaves the recording unstarted.
TEST_F(MockInterviewCoordinatorTest, NoQuestionsEndTheSessionAtOnce)
{
    const std::tuple<FakeBackend::Response, QString, QString, qsizetype> rows[] = {
        {FakeBackend::Response::json(500, ""), u"aborted api_error"_s, u"mock_interview_aborted"_s,
         0},
        {FakeBackend::Response::json(200, questionsJson(0)), u"finished"_s,
         u"mock_interview_completed"_s, 1},
    };
    for (const auto& [answer, state, event, recordingsStarted] : rows) {
        SCOPED_TRACE(state.toStdString());
        server.setRoute("POST", "/api/v1/mock-interview/questions", answer);
        MockInterviewCoordinator fresh{api, player, pipeline, clock, &telemetry};
        awaitTask(fresh.startSession(u"r"_s, std::nullopt, u"en"_s, 8), networkMs);
        EXPECT_TRUE(QTest::qWaitFor([&] { return describe(fresh) == state; }, networkMs))
            << describe(fresh).toStdString();
        EXPECT_EQ(telemetry.buffer().last().name, event);
        EXPECT_EQ(pipeline->started.size(), recordingsStarted);
        EXPECT_TRUE(player.started.isEmpty());
    }
}

TEST_F(MockInterviewCoordinatorTest, SpeechFailureAndSlowPipeline)
{
    // The pipeline has not started recording: the first question waits 5 s, then goes ahead.
    pipeline->recording = false;
    server.setHandler("POST", "/api/v1/mock-interview/tts", [](const FakeBackend::Request&) {
        return FakeBackend::Response::json(503, "");
    });
    start();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !pipeline->started.isEmpty(); }, networkMs));
    clock.advance(4900ms);
    EXPECT_EQ(describe(coordinator), u"fetchingQuestions"_s);
    clock.advance(100ms);
    // A speech failure costs the spoken question only.
    waitFor(u"waitingForAnswer 0"_s);
    EXPECT_TRUE(player.started.isEmpty());
    EXPECT_EQ(pipeline->injected, QStringList{u"Question 0?"_s});
    EXPECT_TRUE(reportedAbort(u"tts_error"_s, 0));
}

TEST(TTSPlayerTest, StoppingTwiceEndsThePlayOnce)
{
    ManualClock clock;
    ScriptedPlayer player(clock);
    auto first = TaskHandle::run([&](const CancellationToken&) { return player.play("one"); });
    EXPECT_TRUE(player.isPlaying());

    // Stopping twice ends the wait once and leaves no meter running.
    player.stop();
    player.stop();
    EXPECT_TRUE(QTest::qWaitFor([&] { return first.isFinished(); }, 1000));
    EXPECT_EQ(player.level(), 0);
    EXPECT_EQ(clock.pendingTimerCount(), 0u);
}
