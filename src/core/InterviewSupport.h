#pragma once

#include <QCoroTask>

#include <exception>
#include <memory>
#include <optional>
#include <type_traits>

// Runs `task` to its end without anyone waiting for it; its failure is dropped. `keepAlive`
// holds the object the task runs on until then.
inline QCoro::Task<> runDetached(std::shared_ptr<void> keepAlive, QCoro::Task<> task)
{
    try {
        co_await std::move(task);
    } catch (...) {
    }
    keepAlive.reset();
}

// What one awaited call came to: its value, or the failure it threw.
template<typename T>
struct Attempt {
    std::optional<T> value;
    std::exception_ptr failure;
};

template<>
struct Attempt<void> {
    std::exception_ptr failure;
};

// Awaits `task` and keeps its failure instead of throwing it, so that the caller can first look
// whether a stop overtook it before reacting to either outcome.
template<typename T>
QCoro::Task<Attempt<T>> attempt(QCoro::Task<T> task)
{
    Attempt<T> outcome;
    try {
        if constexpr (std::is_void_v<T>)
            co_await std::move(task);
        else
            outcome.value.emplace(co_await std::move(task));
    } catch (...) {
        outcome.failure = std::current_exception();
    }
    co_return outcome;
}
