#include "WhenCancelled.h"

void WhenCancelled::await_suspend(std::coroutine_handle<> handle)
{
    m_handle = handle;
    // Whichever comes first resumes; the other registration is dropped before the resume.
    const auto wake = [this] {
        if (const auto handle = std::exchange(m_handle, {})) {
            m_onEvent.reset();
            m_onAbort.reset();
            handle.resume();
        }
    };
    m_onEvent = m_event.onCancel(wake);
    m_onAbort = m_abort.onCancel(wake);
}

bool WhenCancelled::await_resume() noexcept
{
    m_onEvent.reset();
    m_onAbort.reset();
    return m_event.isCancelled();
}
