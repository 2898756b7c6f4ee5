#pragma once

#include "AsyncQueue.h"
#include "CancellationToken.h"

#include <QCoroTask>
#include <QMutex>
#include <QString>

#include <exception>
#include <optional>
#include <variant>

// A sequence of answer chunks that ends normally or with an error. Unbounded: a slow reader
// never holds back the producer.
class AnswerStream {
public:
    void push(QString chunk) { m_queue.push(std::move(chunk)); }
    void finish() { m_queue.finish(); }
    void fail(std::exception_ptr error)
    {
        m_queue.push(std::move(error));
        m_queue.finish();
    }

    // The next chunk, or nothing at the end or once `token` is cancelled. Rethrows the error
    // that ended the stream.
    QCoro::Task<std::optional<QString>> next(CancellationToken token = {});

private:
    AsyncQueue<std::variant<QString, std::exception_ptr>> m_queue;
};

// The answer's log id, shared between the line reader and the caller of the answer stream.
class LogIdBox {
public:
    std::optional<QString> value() const
    {
        QMutexLocker locker(&m_lock);
        return m_value;
    }
    void setValue(const QString& value)
    {
        QMutexLocker locker(&m_lock);
        m_value = value;
    }

private:
    mutable QMutex m_lock;
    std::optional<QString> m_value;
};

namespace AnswerEvents {
// One line of the answer's "data: " stream: a chunk goes to `stream`, a log id to `box`.
// True once the stream is done.
bool handleLine(QByteArray line, LogIdBox& box, AnswerStream& stream);
} // namespace AnswerEvents
