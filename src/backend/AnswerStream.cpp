#include "AnswerStream.h"
#include "Helpers.h"

#include <QJsonDocument>
#include <QJsonObject>

using namespace Qt::StringLiterals;

QCoro::Task<std::optional<QString>> AnswerStream::next(CancellationToken token)
{
    auto item = co_await m_queue.next(std::move(token));
    if (!item)
        co_return std::nullopt;
    if (auto* error = std::get_if<std::exception_ptr>(&*item))
        std::rethrow_exception(*error);
    co_return std::get<QString>(std::move(*item));
}

bool AnswerEvents::handleLine(QByteArray line, LogIdBox& box, AnswerStream& stream)
{
    static const QByteArray eventPrefix = "data: ";
    while (line.endsWith('\n') || line.endsWith('\r'))
        line.chop(1);
    if (!line.startsWith(eventPrefix))
        return false; // blank lines, comments and other fields
    const auto payload = line.mid(eventPrefix.size());
    if (payload == "[DONE]")
        return true;
    const auto object = QJsonDocument::fromJson(payload).object();
    if (const auto logId = object.value(u"logId"_s); logId.isString()) {
        // The event is finished with: a chunk in the same event is not used.
        box.setValue(withValidUnicode(logId.toString()));
        return false;
    }
    if (const auto content = object.value(u"content"_s); content.isString())
        stream.push(withValidUnicode(content.toString()));
    return false;
}
