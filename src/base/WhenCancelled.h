#pragma once

#include "CancellationToken.h"

#include <coroutine>

// Waits for a one-shot event, given as a token that is cancelled when it happens: co_await
// resumes once `event` or `abort` is cancelled and yields whether `event` was.
class WhenCancelled {
public:
    WhenCancelled(CancellationToken event, CancellationToken abort)
        : m_event(std::move(event)), m_abort(std::move(abort))
    {
    }
    // Moved only before it suspends (the coroutine machinery may move the temporary).
    WhenCancelled(WhenCancelled&&) noexcept = default;
    WhenCancelled& operator=(const WhenCancelled&) = delete;

    bool await_ready() const noexcept { return m_event.isCancelled() || m_abort.isCancelled(); }
    void await_suspend(std::coroutine_handle<> handle);
    bool await_resume() noexcept;

private:
    CancellationToken m_event;
    CancellationToken m_abort;
    std::coroutine_handle<> m_handle;
    CancellationToken::Registration m_onEvent;
    CancellationToken::Registration m_onAbort;
};
