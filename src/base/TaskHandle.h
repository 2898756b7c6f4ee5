#pragma once

#include "CancellationToken.h"
#include "Clock.h"

#include <QCoroTask>

#include <chrono>
#include <coroutine>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

// A started coroutine together with the token that stops it. Copies refer to the same task.
// The coroutine runs on its own once started; dropping the handle neither cancels nor
// destroys it, so owners cancel explicitly (a replaced handle is cancelled first).
class TaskHandle {
public:
    class FinishedAwaiter;
    class FirstFinishedAwaiter;

    TaskHandle() = default;
    // `task` must be the coroutine that observes `token`.
    TaskHandle(CancellationToken token, QCoro::Task<> task);

    // Makes a fresh token, starts `start(token)` (which returns QCoro::Task<>) and watches it.
    template<typename Start>
    static TaskHandle run(Start&& start)
    {
        CancellationToken token;
        auto task = std::invoke(std::forward<Start>(start), token);
        return TaskHandle(std::move(token), std::move(task));
    }

    bool isValid() const { return m_state != nullptr; }
    // An empty handle counts as finished: there is nothing to wait for.
    bool isFinished() const { return !m_state || m_state->finished; }
    bool isCancelled() const { return m_state && m_state->token.isCancelled(); }
    void cancel() const;
    std::optional<CancellationToken> token() const;

    // co_await yields true once the task has finished, or false when `cap` of `clock` time
    // passed first. A cancelled task is not waited for more than the cap either.
    [[nodiscard]] FinishedAwaiter finished(Clock& clock, std::chrono::milliseconds cap) const;
    // Waits for as long as the task runs: only for tasks bounded by a time-out of their own.
    [[nodiscard]] FinishedAwaiter finished() const;
    // co_await ends as soon as the first of `tasks` has finished (at once if one already has),
    // or when `cap` of `clock` time has passed; empty handles are not waited for.
    [[nodiscard]] static FirstFinishedAwaiter firstFinished(Clock& clock, const std::vector<TaskHandle>& tasks,
                                                            std::chrono::milliseconds cap);

private:
    struct State {
        explicit State(CancellationToken t) : token(std::move(t)) {}
        CancellationToken token;
        bool finished = false;
        std::uint64_t nextId = 1;
        std::map<std::uint64_t, std::function<void()>> onFinished;
    };
    friend class FinishedAwaiter;

    static QCoro::Task<> watch(std::shared_ptr<State> state, QCoro::Task<> task);

    std::shared_ptr<State> m_state;
};

class TaskHandle::FinishedAwaiter {
public:
    FinishedAwaiter(std::shared_ptr<State> state, Clock* clock, qint64 capMs)
        : m_state(std::move(state)), m_clock(clock), m_capMs(capMs)
    {
    }
    // Moved only before it suspends (the coroutine machinery may move the temporary).
    FinishedAwaiter(FinishedAwaiter&&) noexcept = default;
    FinishedAwaiter& operator=(const FinishedAwaiter&) = delete;
    ~FinishedAwaiter() { disarm(); }

    bool await_ready() const noexcept { return !m_state || m_state->finished || (m_clock && m_capMs <= 0); }
    void await_suspend(std::coroutine_handle<> handle);
    bool await_resume() const noexcept { return !m_state || m_state->finished; }

private:
    void wake();
    void disarm();

    std::shared_ptr<State> m_state;
    Clock* m_clock; // null: no cap
    qint64 m_capMs;
    std::coroutine_handle<> m_handle;
    Clock::TimerId m_timer = 0;
    std::uint64_t m_finishedId = 0;
};

class TaskHandle::FirstFinishedAwaiter {
public:
    FirstFinishedAwaiter(std::vector<std::shared_ptr<State>> states, Clock& clock, qint64 capMs)
        : m_states(std::move(states)), m_clock(&clock), m_capMs(capMs)
    {
    }
    // Moved only before it suspends (the coroutine machinery may move the temporary).
    FirstFinishedAwaiter(FirstFinishedAwaiter&&) noexcept = default;
    FirstFinishedAwaiter& operator=(const FirstFinishedAwaiter&) = delete;
    ~FirstFinishedAwaiter() { disarm(); }

    bool await_ready() const noexcept;
    void await_suspend(std::coroutine_handle<> handle);
    void await_resume() const noexcept {}

private:
    void wake();
    void disarm();

    std::vector<std::shared_ptr<State>> m_states;
    std::vector<std::uint64_t> m_finishedIds;
    Clock* m_clock;
    qint64 m_capMs;
    std::coroutine_handle<> m_handle;
    Clock::TimerId m_timer = 0;
};
