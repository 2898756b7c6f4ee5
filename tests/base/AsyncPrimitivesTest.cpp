#include "AsyncQueue.h"
#include "CancellationToken.h"
#include "Clock.h"
#include "LogCapture.h"
#include "QtPrinters.h"
#include "TaskHandle.h"

#include <QCoroTask>

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <vector>

using namespace std::chrono_literals;

namespace {

// Shared with the coroutines, which may outlive a test's locals when they never resume.
struct Drained {
    std::vector<int> items;
    bool ended = false;
};
using Log = std::vector<std::pair<int, qint64>>; // (label, or -label when cut short; wake time)

QCoro::Task<> drain(std::shared_ptr<AsyncQueue<int>> queue, CancellationToken token,
                    std::shared_ptr<Drained> out)
{
    while (auto item = co_await queue->next(token))
        out->items.push_back(*item);
    out->ended = true;
}

QCoro::Task<> sleepAndRecord(Clock& clock, qint64 ms, CancellationToken token,
                             std::shared_ptr<Log> log, int label)
{
    const bool full = co_await clock.sleep(std::chrono::milliseconds(ms), token);
    log->emplace_back(full ? label : -label, clock.nowMs());
}

QCoro::Task<> waitCapped(TaskHandle handle, Clock& clock, std::shared_ptr<std::optional<bool>> out)
{
    *out = co_await handle.finished(clock, 1s);
}

} // namespace

// A million items pushed before any read all arrive in order. A waiting reader gets items in
// push order; a cancel wakes it and leaves later items queued for a fresh reader; finish ends
// the stream for good.
TEST(AsyncQueueTest, NothingDroppedCancelAndFinish)
{
    auto queue = std::make_shared<AsyncQueue<int>>();
    std::vector<int> pushed(1'000'000);
    for (int i = 0; i < int(pushed.size()); ++i)
        queue->push(pushed[std::size_t(i)] = i);
    auto out = std::make_shared<Drained>();
    auto reader =
        TaskHandle::run([&](const CancellationToken& token) { return drain(queue, token, out); });
    pushed.push_back(-1);
    queue->push(-1); // to the waiting reader
    EXPECT_TRUE(out->items == pushed);
    reader.cancel();
    EXPECT_TRUE(reader.isFinished() && out->ended);

    queue->push(7);
    // A read with an already cancelled token takes nothing; a fresh reader gets the item.
    auto again = std::make_shared<Drained>();
    drain(queue, *reader.token(), again);
    EXPECT_TRUE(again->ended);
    EXPECT_EQ(queue->bufferedCount(), 1u);
    auto later = std::make_shared<Drained>();
    drain(queue, {}, later);
    EXPECT_EQ(later->items, std::vector<int>{7});
    EXPECT_FALSE(later->ended);
    queue->finish();
    EXPECT_TRUE(later->ended);
    queue->push(3); // nobody can read it any more
    EXPECT_EQ(later->items.size(), 1u);
}

TEST(CancellationTokenTest, CallbacksRunOnceAndDroppedRegistrationsNever)
{
    CancellationToken token;
    int fired = 0, dropped = 0;
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
    EXPECT_EQ(std::pair(fired, dropped), std::pair(1, 0));
}

// A cancelled sleep wakes with false at once and drops its timer; waiting for a task is capped
// at 1 s of clock time, and a task that ends first is reported finished at that moment.
TEST(TaskHandleTest, CancelledSleepAndTheOneSecondCapOnTheManualClock)
{
    ManualClock clock;
    const auto now = clock.nowMs();
    auto log = std::make_shared<Log>();
    auto sleeper = TaskHandle::run([&](const CancellationToken& token) {
        return sleepAndRecord(clock, 30'000, token, log, 1);
    });
    sleeper.cancel();
    EXPECT_TRUE(sleeper.isFinished());
    // Already cancelled: false without suspending. Zero length: true at once.
    sleepAndRecord(clock, 30'000, *sleeper.token(), log, 2);
    sleepAndRecord(clock, 0, {}, log, 3);
    EXPECT_EQ(*log, (Log{{-1, now}, {-2, now}, {3, now}}));
    EXPECT_EQ(clock.pendingTimerCount(), 0u);

    // A task that ignores cancellation and needs 5 s.
    auto slow = TaskHandle::run(
        [&](const CancellationToken&) { return sleepAndRecord(clock, 5000, {}, log, 4); });
    auto waited = std::make_shared<std::optional<bool>>();
    slow.cancel();
    waitCapped(slow, clock, waited);
    clock.advance(999ms);
    EXPECT_FALSE(waited->has_value());
    clock.advance(1ms);
    EXPECT_EQ(*waited, std::optional(false));
    EXPECT_FALSE(slow.isFinished());
    clock.advance(4s);
    EXPECT_TRUE(slow.isFinished());

    auto quick = TaskHandle::run(
        [&](const CancellationToken& token) { return sleepAndRecord(clock, 300, token, log, 5); });
    waitCapped(quick, clock, waited);
    clock.advance(300ms);
    EXPECT_EQ(*waited, std::optional(true));
    EXPECT_EQ(clock.pendingTimerCount(), 0u) << "the cap's timer must be dropped";
}

TEST(TaskHandleTest, ExceptionEndsTheTaskAndIsLogged)
{
    LogCapture logs;
    auto handle = TaskHandle::run([](CancellationToken) -> QCoro::Task<> {
        throw std::runtime_error("boom");
        co_return;
    });
    EXPECT_TRUE(handle.isFinished());
    EXPECT_EQ(logs.lines().join(u'|').left(7), QStringLiteral("[Task] "))
        << logs.lines().join(u'|').toStdString();
    EXPECT_EQ(logs.lines().size(), 1);
}
