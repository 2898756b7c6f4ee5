#include "TaskHandle.h"

#include "Log.h"

#include <exception>

using namespace Qt::StringLiterals;

TaskHandle::TaskHandle(CancellationToken token, QCoro::Task<> task)
    : m_state(std::make_shared<State>(std::move(token)))
{
    // Detached on purpose: the watcher lives exactly as long as the task it watches.
    watch(m_state, std::move(task));
}

QCoro::Task<> TaskHandle::watch(std::shared_ptr<State> state, QCoro::Task<> task)
{
    try {
        co_await task;
    } catch (const std::exception& e) {
        logLine(u"Task", u"task ended with an exception: "_s + QString::fromUtf8(e.what()));
    } catch (...) {
        logLine(u"Task", u"task ended with an unknown exception"_s);
    }
    state->finished = true;
    while (!state->onFinished.empty()) {
        auto node = state->onFinished.extract(state->onFinished.begin());
        node.mapped()();
    }
}

void TaskHandle::cancel() const
{
    if (m_state)
        m_state->token.cancel();
}

std::optional<CancellationToken> TaskHandle::token() const
{
    if (!m_state)
        return std::nullopt;
    return m_state->token;
}

TaskHandle::FinishedAwaiter TaskHandle::finished(Clock& clock, std::chrono::milliseconds cap) const
{
    return FinishedAwaiter(m_state, &clock, cap.count());
}

TaskHandle::FinishedAwaiter TaskHandle::finished() const
{
    return FinishedAwaiter(m_state, nullptr, 0);
}

void TaskHandle::FinishedAwaiter::await_suspend(std::coroutine_handle<> handle)
{
    m_handle = handle;
    m_finishedId = m_state->nextId++;
    m_state->onFinished.emplace(m_finishedId, [this] { wake(); });
    if (m_clock)
        m_timer = m_clock->startTimer(m_capMs, [this] { wake(); });
}

void TaskHandle::FinishedAwaiter::wake()
{
    if (!m_handle)
        return;
    disarm();
    std::exchange(m_handle, {}).resume();
}

void TaskHandle::FinishedAwaiter::disarm()
{
    if (m_timer != 0)
        m_clock->cancelTimer(std::exchange(m_timer, 0));
    if (m_finishedId != 0 && m_state)
        m_state->onFinished.erase(std::exchange(m_finishedId, 0));
}

TaskHandle::FirstFinishedAwaiter TaskHandle::firstFinished(Clock& clock, const std::vector<TaskHandle>& tasks,
                                                           std::chrono::milliseconds cap)
{
    std::vector<std::shared_ptr<State>> states;
    for (const auto& task : tasks) {
        if (task.m_state)
            states.push_back(task.m_state);
    }
    return FirstFinishedAwaiter(std::move(states), clock, cap.count());
}

bool TaskHandle::FirstFinishedAwaiter::await_ready() const noexcept
{
    if (m_states.empty() || m_capMs <= 0)
        return true;
    for (const auto& state : m_states) {
        if (state->finished)
            return true;
    }
    return false;
}

void TaskHandle::FirstFinishedAwaiter::await_suspend(std::coroutine_handle<> handle)
{
    m_handle = handle;
    for (const auto& state : m_states) {
        const auto id = state->nextId++;
        state->onFinished.emplace(id, [this] { wake(); });
        m_finishedIds.push_back(id);
    }
    m_timer = m_clock->startTimer(m_capMs, [this] { wake(); });
}

void TaskHandle::FirstFinishedAwaiter::wake()
{
    if (!m_handle)
        return;
    // The rest of the wait ends here: no other task or timer may wake this frame again.
    disarm();
    std::exchange(m_handle, {}).resume();
}

void TaskHandle::FirstFinishedAwaiter::disarm()
{
    if (m_timer != 0)
        m_clock->cancelTimer(std::exchange(m_timer, 0));
    for (std::size_t k = 0; k < m_finishedIds.size(); ++k)
        m_states[k]->onFinished.erase(m_finishedIds[k]);
    m_finishedIds.clear();
}
