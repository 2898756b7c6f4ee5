#pragma once

#include "CancellationToken.h"

#include <QtGlobal>

#include <chrono>
#include <coroutine>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>

class QTimer;

// The one source of time for the program's rules. Product code reads the wall clock and
// waits through it; tests substitute ManualClock and advance virtual time.
class Clock {
public:
    using TimerId = std::uint64_t;
    class SleepAwaiter;

    Clock() = default;
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;
    virtual ~Clock() = default;

    // Wall clock, milliseconds since 1970.
    virtual qint64 nowMs() const = 0;

    // Calls `fire` once, `delayMs` of this clock's time from now, on the main thread.
    virtual TimerId startTimer(qint64 delayMs, std::function<void()> fire) = 0;
    virtual void cancelTimer(TimerId id) = 0;

    // co_await yields true after the full duration, false as soon as `token` is cancelled.
    [[nodiscard]] SleepAwaiter sleep(std::chrono::milliseconds duration,
                                     CancellationToken token = {});
};

class Clock::SleepAwaiter {
public:
    SleepAwaiter(Clock& clock, qint64 durationMs, CancellationToken token)
        : m_clock(&clock), m_durationMs(durationMs), m_token(std::move(token))
    {
    }
    // Moved only before it suspends (the coroutine machinery may move the temporary).
    SleepAwaiter(SleepAwaiter&&) noexcept = default;
    SleepAwaiter& operator=(const SleepAwaiter&) = delete;
    ~SleepAwaiter() { disarm(); }

    bool await_ready() const noexcept { return m_token.isCancelled() || m_durationMs <= 0; }
    void await_suspend(std::coroutine_handle<> handle);
    bool await_resume() const noexcept { return m_result.value_or(!m_token.isCancelled()); }

private:
    void finish(bool sleptFully);
    void disarm();

    Clock* m_clock;
    qint64 m_durationMs;
    CancellationToken m_token;
    std::coroutine_handle<> m_handle;
    TimerId m_timer = 0;
    CancellationToken::Registration m_cancelRegistration;
    std::optional<bool> m_result;
};

class SystemClock final : public Clock {
public:
    SystemClock();
    ~SystemClock() override;

    qint64 nowMs() const override;
    TimerId startTimer(qint64 delayMs, std::function<void()> fire) override;
    void cancelTimer(TimerId id) override;

private:
    TimerId m_nextId = 1;
    std::map<TimerId, std::unique_ptr<QTimer>> m_timers;
};

// Virtual time for tests. Nothing happens until advance() is called; it then fires the due
// timers one by one in deadline order (creation order for equal deadlines), including timers
// that the fired callbacks start, as long as they fall due before the end of the advance.
class ManualClock final : public Clock {
public:
    static constexpr qint64 defaultStartMs = 1'700'000'000'000; // 2023-11-14, any fixed moment

    explicit ManualClock(qint64 startMs = defaultStartMs) : m_nowMs(startMs) {}

    qint64 nowMs() const override { return m_nowMs; }
    TimerId startTimer(qint64 delayMs, std::function<void()> fire) override;
    void cancelTimer(TimerId id) override;

    void advance(std::chrono::milliseconds by);
    // Advances exactly to the next deadline and fires what is due there; false if none.
    bool advanceToNextTimer();
    std::size_t pendingTimerCount() const { return m_timers.size(); }
    std::optional<qint64> nextDeadlineMs() const;

private:
    void fireDueUntil(qint64 targetMs);

    qint64 m_nowMs;
    TimerId m_nextId = 1;
    std::map<std::pair<qint64, TimerId>, std::function<void()>> m_timers;
    std::map<TimerId, qint64> m_deadlines;
};
