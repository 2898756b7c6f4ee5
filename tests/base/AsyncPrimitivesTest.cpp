#include "AwaitTask.h"
#include "QtPrinters.h"
#include "AsyncQueue.h"
#include "CancellationToken.h"
#include "Clock.h"
#include "LogCapture.h"
#include "TaskHandle.h"

#include <QCoroTask>
#include <QCoroTimer>
#include <QTimer>

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using namespace std::chrono_literals;

namespace {

QCoro::Task<> drain(std::shared_ptr<AsyncQueue<int>> queue, CancellationToken token,
                    std::shared_ptr<std::vector<int>> out, std::shared_ptr<bool> ended)
{
    while (auto item = co_await queue->next(token))
        out->push_back(*item);
    *ended = true;
}

QCoro::Task<> sleepAndRecord(Clock& clock, qint64 ms, CancellationToken token,
                             std::shared_ptr<std::vector<std::pair<int, qint64>>> log, int label)
{
    const bool full = co_await clock.sleep(std::chrono::milliseconds(ms), token);
    log->emplace_back(full ? label : -label, clock.nowMs());
}

} // namespace

TEST(AsyncQueueTest, MillionItemsPushedBeforeFinishArriveInOrderWithNoneDropped)
{
    auto queue = std::make_shared<AsyncQueue<int>>();
    constexpr int count = 1'000'000;
    for (int i = 0; i < count; ++i)
        queue->push(i);
    queue->finish();

    auto out = std::make_shared<std::vector<int>>();
    auto ended = std::make_shared<bool>(false);
    drain(queue, {}, out, ended);

    ASSERT_TRUE(*ended);
    ASSERT_EQ(out->size(), std::size_t(count));
    for (int i = 0; i < count; ++i)
        ASSERT_EQ((*out)[std::size_t(i)], i) << "at " << i;
}

TEST(AsyncQueueTest, WaitingReaderGetsItemsInPushOrderAndEndsAtFinish)
{
    auto queue = std::make_shared<AsyncQueue<int>>();
    auto out = std::make_shared<std::vector<int>>();
    auto ended = std::make_shared<bool>(false);
    drain(queue, {}, out, ended);
    EXPECT_TRUE(out->empty());

    queue->push(1);
    queue->push(2);
    EXPECT_EQ(*out, (std::vector<int>{1, 2}));
    EXPECT_FALSE(*ended);

    queue->finish();
    EXPECT_TRUE(*ended);
    queue->push(3); // nobody can read it any more
    EXPECT_EQ(out->size(), 2u);
}

TEST(AsyncQueueTest, CancelWakesPendingReadAndLeavesLaterItemsQueued)
{
    auto queue = std::make_shared<AsyncQueue<int>>();
    CancellationToken token;
    auto out = std::make_shared<std::vector<int>>();
    auto ended = std::make_shared<bool>(false);
    drain(queue, token, out, ended);
    ASSERT_FALSE(*ended);

    token.cancel();
    EXPECT_TRUE(*ended);
    EXPECT_TRUE(out->empty());

    queue->push(7);
    EXPECT_EQ(queue->bufferedCount(), 1u);

    // A read with an already cancelled token takes nothing; a fresh reader gets the item.
    auto again = std::make_shared<bool>(false);
    drain(queue, token, out, again);
    EXPECT_TRUE(*again);
    EXPECT_EQ(queue->bufferedCount(), 1u);

    CancellationToken fresh;
    auto later = std::make_shared<bool>(false);
    drain(queue, fresh, out, later);
    EXPECT_EQ(*out, std::vector<int>{7});
    fresh.cancel();
    EXPECT_TRUE(*later);
}

TEST(CancellationTokenTest, CallbacksRunOnceAndDroppedRegistrationsNever)
{
    CancellationToken token;
    int fired = 0;
    int dropped = 0;
    auto kept = token.onCancel([&] { ++fired; });
    {
        auto gone = token.onCancel([&] { ++dropped; });
    }
    // A callback that drops another registration before it runs must not see it run.
    CancellationToken::Registration victim;
    auto killer = token.onCancel([&] { victim.reset(); });
    victim = token.onCancel([&] { ++dropped; });

    const CancellationToken copy = token;
    copy.cancel();
    token.cancel();
    EXPECT_TRUE(token.isCancelled());
    EXPECT_EQ(fired, 1);
    EXPECT_EQ(dropped, 0);

    bool late = false;
    auto registration = token.onCancel([&] { late = true; });
    EXPECT_FALSE(late); // callers check isCancelled() before they register
}

TEST(ManualClockTest, FiresSleepersInTimeOrderIncludingThoseAddedWhileAdvancing)
{
    ManualClock clock;
    const auto start = clock.nowMs();
    auto log = std::make_shared<std::vector<std::pair<int, qint64>>>();

    struct Chain {
        static QCoro::Task<> run(Clock& clock, std::shared_ptr<std::vector<std::pair<int, qint64>>> log)
        {
            co_await clock.sleep(100ms);
            log->emplace_back(1, clock.nowMs());
            co_await clock.sleep(50ms); // added during the advance, due at 150
            log->emplace_back(3, clock.nowMs());
            co_await clock.sleep(500ms); // due after the advance ends
            log->emplace_back(5, clock.nowMs());
        }
    };
    Chain::run(clock, log);
    sleepAndRecord(clock, 120, {}, log, 2);
    sleepAndRecord(clock, 150, {}, log, 4); // same deadline as the chain's second sleep, created first

    clock.advance(200ms);
    ASSERT_EQ(log->size(), 4u);
    EXPECT_EQ((*log)[0], std::pair(1, start + 100));
    EXPECT_EQ((*log)[1], std::pair(2, start + 120));
    EXPECT_EQ((*log)[2], std::pair(4, start + 150));
    EXPECT_EQ((*log)[3], std::pair(3, start + 150));
    EXPECT_EQ(clock.nowMs(), start + 200);

    clock.advance(449ms);
    EXPECT_EQ(log->size(), 4u);
    clock.advance(1ms);
    ASSERT_EQ(log->size(), 5u);
    EXPECT_EQ((*log)[4], std::pair(5, start + 650));
    EXPECT_EQ(clock.pendingTimerCount(), 0u);
}

TEST(ManualClockTest, CancelWakesPendingSleepWithFalseAndRemovesItsTimer)
{
    ManualClock clock;
    auto log = std::make_shared<std::vector<std::pair<int, qint64>>>();
    CancellationToken token;
    sleepAndRecord(clock, 30'000, token, log, 1);
    EXPECT_EQ(clock.pendingTimerCount(), 1u);

    token.cancel();
    ASSERT_EQ(log->size(), 1u);
    EXPECT_EQ((*log)[0].first, -1);
    EXPECT_EQ((*log)[0].second, clock.nowMs());
    EXPECT_EQ(clock.pendingTimerCount(), 0u);

    // Already cancelled: returns false without suspending. Zero length: true at once.
    sleepAndRecord(clock, 30'000, token, log, 2);
    sleepAndRecord(clock, 0, {}, log, 3);
    ASSERT_EQ(log->size(), 3u);
    EXPECT_EQ((*log)[1].first, -2);
    EXPECT_EQ((*log)[2].first, 3);
}

TEST(TaskHandleTest, WaitWithOneSecondCapOnManualClock)
{
    ManualClock clock;
    // A task that ignores cancellation and needs 5 s.
    struct Slow {
        static QCoro::Task<> run(Clock& clock) { co_await clock.sleep(5s); }
    };
    auto handle = TaskHandle::run([&](const CancellationToken&) { return Slow::run(clock); });
    EXPECT_FALSE(handle.isFinished());

    auto waited = std::make_shared<std::optional<bool>>();
    struct Waiter {
        static QCoro::Task<> run(Clock& clock, TaskHandle handle, std::shared_ptr<std::optional<bool>> out)
        {
            *out = co_await handle.finished(clock, 1s);
        }
    };
    handle.cancel();
    Waiter::run(clock, handle, waited);
    clock.advance(999ms);
    EXPECT_FALSE(waited->has_value());
    clock.advance(1ms);
    ASSERT_TRUE(waited->has_value());
    EXPECT_FALSE(**waited);
    EXPECT_FALSE(handle.isFinished());

    clock.advance(4s);
    EXPECT_TRUE(handle.isFinished());
    EXPECT_EQ(clock.pendingTimerCount(), 0u);

    // A task that ends before the cap is reported finished at that moment.
    auto quick = TaskHandle::run([&](const CancellationToken& token) {
        return sleepAndRecord(clock, 300, token, std::make_shared<std::vector<std::pair<int, qint64>>>(), 1);
    });
    auto quickWaited = std::make_shared<std::optional<bool>>();
    Waiter::run(clock, quick, quickWaited);
    clock.advance(300ms);
    ASSERT_TRUE(quickWaited->has_value());
    EXPECT_TRUE(**quickWaited);
    EXPECT_EQ(clock.pendingTimerCount(), 0u) << "the cap's timer must be dropped";
}

TEST(TaskHandleTest, CancelEndsTaskWaitingOnQueueAndSleep)
{
    ManualClock clock;
    auto queue = std::make_shared<AsyncQueue<int>>();
    auto out = std::make_shared<std::vector<int>>();
    auto ended = std::make_shared<bool>(false);
    auto reader = TaskHandle::run([&](const CancellationToken& token) { return drain(queue, token, out, ended); });
    auto log = std::make_shared<std::vector<std::pair<int, qint64>>>();
    auto sleeper = TaskHandle::run([&](const CancellationToken& token) {
        return sleepAndRecord(clock, 60'000, token, log, 1);
    });

    queue->push(1);
    reader.cancel();
    sleeper.cancel();
    EXPECT_TRUE(reader.isFinished());
    EXPECT_TRUE(sleeper.isFinished());
    EXPECT_TRUE(*ended);
    EXPECT_EQ(*out, std::vector<int>{1});
    ASSERT_EQ(log->size(), 1u);
    EXPECT_EQ((*log)[0].first, -1);
    EXPECT_TRUE(TaskHandle().isFinished());
}

TEST(TaskHandleTest, ExceptionEndsTheTaskAndIsLogged)
{
    LogCapture logs;
    struct Throwing {
        static QCoro::Task<> run() { throw std::runtime_error("boom"); co_return; }
    };
    auto handle = TaskHandle::run([](const CancellationToken&) { return Throwing::run(); });
    EXPECT_TRUE(handle.isFinished());
    ASSERT_EQ(logs.lines().size(), 1);
    EXPECT_TRUE(logs.lines().first().startsWith(QStringLiteral("[Task] "))) << logs.lines().first().toStdString();
}

TEST(SystemClockTest, SleepsOnTheEventLoopAndCancelWakesEarly)
{
    SystemClock clock;
    struct Probe {
        static QCoro::Task<bool> sleep(Clock& clock, std::chrono::milliseconds ms, CancellationToken token)
        {
            co_return co_await clock.sleep(ms, token);
        }
    };
    EXPECT_TRUE(awaitTask(Probe::sleep(clock, 20ms, {})));

    CancellationToken token;
    QTimer::singleShot(10, [&] { token.cancel(); });
    // Without the cancel this would wait ten minutes and hit the test's time-out.
    EXPECT_FALSE(awaitTask(Probe::sleep(clock, 600s, token)));
}
