#pragma once

#include <QCoroTask>
#include <QEventLoop>
#include <QTimer>

#include <exception>
#include <optional>
#include <stdexcept>

// Runs a task to its end in a nested event loop and returns its result or rethrows its error.
// (QCoro's own waitFor loses exceptions and then never returns.) A task that takes longer
// than the deadline fails the test instead of hanging it.
namespace TestAwait {

template<typename T>
struct Outcome {
    std::optional<T> value;
    std::exception_ptr error;
    bool done = false;
};

template<>
struct Outcome<void> {
    std::exception_ptr error;
    bool done = false;
};

template<typename T>
QCoro::Task<> capture(QCoro::Task<T> task, Outcome<T>& outcome, QEventLoop& loop)
{
    try {
        if constexpr (std::is_void_v<T>)
            co_await task;
        else
            outcome.value.emplace(co_await task);
    } catch (...) {
        outcome.error = std::current_exception();
    }
    outcome.done = true;
    loop.quit();
}

} // namespace TestAwait

template<typename T>
T awaitTask(QCoro::Task<T> task, int deadlineMs = 60'000)
{
    QEventLoop loop;
    TestAwait::Outcome<T> outcome;
    TestAwait::capture(std::move(task), outcome, loop);
    if (!outcome.done) {
        QTimer::singleShot(deadlineMs, &loop, &QEventLoop::quit);
        loop.exec();
    }
    if (!outcome.done)
        throw std::runtime_error("task did not finish before the deadline");
    if (outcome.error)
        std::rethrow_exception(outcome.error);
    if constexpr (!std::is_void_v<T>)
        return std::move(*outcome.value);
}
