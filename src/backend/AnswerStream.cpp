#include "AnswerStream.h"

QCoro::Task<std::optional<QString>> AnswerStream::next(CancellationToken token)
{
    auto item = co_await m_queue.next(std::move(token));
    if (!item)
        co_return std::nullopt;
    if (auto* error = std::get_if<std::exception_ptr>(&*item))
        std::rethrow_exception(*error);
    co_return std::get<QString>(std::move(*item));
}
