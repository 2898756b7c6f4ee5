#pragma once

#include "AnswerEngine.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <optional>

// Everything an engine said about one answer.
struct AnswerOutcome {
    QStringList chunks;
    std::optional<QString> error; // set by onDone: empty on success
    int doneCalls = 0;
};

// Turns the event loop until nothing is left to run, deferred deletions included, so that a
// call that should never come has had every chance to.
inline void drainEvents()
{
    for (int i = 0; i < 20; ++i) {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    }
}

// Asks for one answer and runs the event loop until onDone or the deadline. `onChunk` runs
// after each chunk is recorded.
inline AnswerOutcome runAnswer(ravlet::server::AnswerEngine& engine,
                               const ravlet::server::AnswerRequest& request,
                               std::function<void(AnswerOutcome&)> onChunk = {})
{
    AnswerOutcome outcome;
    QEventLoop loop;
    engine.answer(
        request,
        [&](const QString& chunk) {
            outcome.chunks << chunk;
            if (onChunk)
                onChunk(outcome);
        },
        [&](const QString& error) {
            outcome.error = error;
            ++outcome.doneCalls;
            loop.quit();
        });
    QTimer::singleShot(10'000, &loop, &QEventLoop::quit);
    if (!outcome.error)
        loop.exec();
    drainEvents();
    return outcome;
}
