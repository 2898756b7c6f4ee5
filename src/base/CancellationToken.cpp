#include "CancellationToken.h"

CancellationToken::CancellationToken() : m_state(std::make_shared<State>()) {}

void CancellationToken::cancel() const
{
    if (m_state->cancelled)
        return;
    m_state->cancelled = true;
    // A callback may resume a coroutine that drops other registrations (or destroys the
    // frames that own them), so take one entry at a time from the live map instead of
    // iterating a copy that could hold callbacks of dead waiters.
    auto keepAlive = m_state;
    while (!keepAlive->callbacks.empty()) {
        auto node = keepAlive->callbacks.extract(keepAlive->callbacks.begin());
        node.mapped()();
    }
}

CancellationToken::Registration CancellationToken::onCancel(std::function<void()> callback) const
{
    if (m_state->cancelled)
        return {};
    const auto id = m_state->nextId++;
    m_state->callbacks.emplace(id, std::move(callback));
    return Registration(m_state, id);
}

CancellationToken::Registration&
CancellationToken::Registration::operator=(Registration&& other) noexcept
{
    if (this != &other) {
        reset();
        m_state = std::move(other.m_state);
        m_id = std::exchange(other.m_id, 0);
    }
    return *this;
}

void CancellationToken::Registration::reset()
{
    if (auto state = m_state.lock(); state && m_id != 0)
        state->callbacks.erase(m_id);
    m_state.reset();
    m_id = 0;
}
