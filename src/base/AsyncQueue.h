#pragma once

#include "CancellationToken.h"

#include <algorithm>
#include <coroutine>
#include <deque>
#include <optional>
#include <utility>

// An unbounded single-context stream between a producer and a consumer coroutine.
// push() never blocks and never drops; finish() ends the stream after the items already
// pushed. A waiting reader is resumed inside push()/finish()/cancel(), so items are seen in
// exactly the order they were pushed.
//
// Share it through std::shared_ptr held by both ends: a reader waiting on a queue that is
// destroyed is never resumed.
template<typename T>
class AsyncQueue {
public:
    class NextAwaiter;

    AsyncQueue() = default;
    AsyncQueue(const AsyncQueue&) = delete;
    AsyncQueue& operator=(const AsyncQueue&) = delete;
    ~AsyncQueue()
    {
        for (auto* waiter : m_waiters)
            waiter->m_queue = nullptr;
    }

    // After finish() there is no reader left to take an item, so it is ignored.
    void push(T value)
    {
        if (m_finished)
            return;
        if (!m_waiters.empty()) {
            auto* waiter = m_waiters.front();
            m_waiters.pop_front();
            waiter->deliver(std::move(value));
            return;
        }
        m_items.push_back(std::move(value));
    }

    void finish()
    {
        if (m_finished)
            return;
        m_finished = true;
        while (!m_waiters.empty()) {
            auto* waiter = m_waiters.front();
            m_waiters.pop_front();
            waiter->deliver(std::nullopt);
        }
    }

    bool isFinished() const { return m_finished; }
    std::size_t bufferedCount() const { return m_items.size(); }

    // Drops the oldest waiting items for as long as `tooMany(waiting items)` holds; returns how
    // many went.
    template<typename Predicate>
    std::size_t dropOldestWhile(Predicate tooMany)
    {
        std::size_t dropped = 0;
        while (!m_items.empty() && tooMany(std::as_const(m_items))) {
            m_items.pop_front();
            ++dropped;
        }
        return dropped;
    }

    // The next item if one is already waiting; never suspends.
    std::optional<T> tryNext()
    {
        if (m_items.empty())
            return std::nullopt;
        std::optional<T> item(std::move(m_items.front()));
        m_items.pop_front();
        return item;
    }

    // co_await yields the next item, or nothing at the end of the stream or once `token`
    // is cancelled. Items stay queued for a later read when a read is cancelled.
    [[nodiscard]] NextAwaiter next(CancellationToken token = {}) { return NextAwaiter(*this, std::move(token)); }

private:
    std::deque<T> m_items;
    std::deque<NextAwaiter*> m_waiters;
    bool m_finished = false;
};

template<typename T>
class AsyncQueue<T>::NextAwaiter {
public:
    NextAwaiter(AsyncQueue& queue, CancellationToken token) : m_queue(&queue), m_token(std::move(token)) {}
    // Moved only before it suspends (the coroutine machinery may move the temporary).
    NextAwaiter(NextAwaiter&&) noexcept = default;
    NextAwaiter& operator=(const NextAwaiter&) = delete;
    ~NextAwaiter() { unlink(); }

    bool await_ready()
    {
        if (m_token.isCancelled() || !m_queue)
            return true;
        if (!m_queue->m_items.empty()) {
            m_result = std::move(m_queue->m_items.front());
            m_queue->m_items.pop_front();
            return true;
        }
        return m_queue->m_finished;
    }

    void await_suspend(std::coroutine_handle<> handle)
    {
        m_handle = handle;
        m_queue->m_waiters.push_back(this);
        m_cancelRegistration = m_token.onCancel([this] {
            unlink();
            deliver(std::nullopt);
        });
    }

    std::optional<T> await_resume() { return std::move(m_result); }

private:
    friend class AsyncQueue;

    void deliver(std::optional<T> value)
    {
        if (!m_handle)
            return;
        m_result = std::move(value);
        m_cancelRegistration.reset();
        std::exchange(m_handle, {}).resume();
    }

    void unlink()
    {
        m_cancelRegistration.reset();
        if (!m_queue)
            return;
        auto& waiters = m_queue->m_waiters;
        waiters.erase(std::remove(waiters.begin(), waiters.end(), this), waiters.end());
    }

    AsyncQueue* m_queue;
    CancellationToken m_token;
    std::coroutine_handle<> m_handle;
    CancellationToken::Registration m_cancelRegistration;
    std::optional<T> m_result;
};
