#pragma once

#include <QCoroTask>

#include <memory>

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
