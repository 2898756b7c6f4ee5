#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <utility>

// Cooperative cancellation shared by a task and whoever may stop it. Copies share one state:
// cancelling any copy cancels them all. Waits on the base primitives (sleep, queue read,
// task completion) register a callback here so that cancel() wakes them at once.
class CancellationToken {
public:
    class Registration;

    CancellationToken();

    // Const: copies share the state, so any holder of a copy may cancel.
    void cancel() const;
    bool isCancelled() const { return m_state->cancelled; }

    // Runs `callback` on cancel(), or never if the registration is dropped first. When the
    // token is already cancelled the callback is not stored and the registration is empty:
    // callers check isCancelled() before registering.
    [[nodiscard]] Registration onCancel(std::function<void()> callback) const;

    friend bool operator==(const CancellationToken& a, const CancellationToken& b)
    {
        return a.m_state == b.m_state;
    }

private:
    struct State {
        bool cancelled = false;
        std::uint64_t nextId = 1;
        std::map<std::uint64_t, std::function<void()>> callbacks;
    };
    std::shared_ptr<State> m_state;
};

class CancellationToken::Registration {
public:
    Registration() = default;
    Registration(const Registration&) = delete;
    Registration& operator=(const Registration&) = delete;
    Registration(Registration&& other) noexcept { *this = std::move(other); }
    Registration& operator=(Registration&& other) noexcept;
    ~Registration() { reset(); }

    void reset();

private:
    friend class CancellationToken;
    Registration(std::weak_ptr<State> state, std::uint64_t id) : m_state(std::move(state)), m_id(id) {}

    std::weak_ptr<State> m_state;
    std::uint64_t m_id = 0;
};
