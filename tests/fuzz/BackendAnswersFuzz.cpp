// What the client reads from its backend: the answer's "data: " lines, and the decoding of
// every JSON answer. The first byte picks which.
#include "AnswerStream.h"
#include "APIClient.h"
#include "FuzzSupport.h"
#include "Helpers.h"
#include "Records.h"

#include <vector>

using namespace Qt::StringLiterals;

namespace {

// Takes what the stream holds; it never suspends, as the stream is finished first.
QCoro::Task<> drain(AnswerStream& stream, std::vector<QString>& chunks)
{
    while (auto chunk = co_await stream.next())
        chunks.push_back(std::move(*chunk));
}

// The stream must give, worked out here without the reader, the content of every "data: " event
// that carries no log id, in order, and keep the last log id; it ends exactly at "[DONE]".
void answerLines(const QByteArray& body)
{
    LogIdBox box;
    AnswerStream stream;
    std::vector<QString> expected;
    std::optional<QString> logId;
    for (auto line : body.split('\n')) {
        const bool done = AnswerEvents::handleLine(line + '\n', box, stream);
        while (line.endsWith('\r'))
            line.chop(1);
        const auto payload = line.startsWith("data: ") ? line.sliced(6) : QByteArray();
        Fuzz::check(done == (payload == "[DONE]"), "the end of the stream seen in the wrong place");
        if (done)
            break;
        const auto object = Fuzz::object(payload);
        if (object.value(u"logId"_s).isString())
            logId = withValidUnicode(object.value(u"logId"_s).toString());
        else if (object.value(u"content"_s).isString())
            expected.push_back(withValidUnicode(object.value(u"content"_s).toString()));
    }
    stream.finish();
    std::vector<QString> chunks;
    auto task = drain(stream, chunks);
    Fuzz::check(task.isReady(), "reading a finished stream suspended");
    Fuzz::check(chunks == expected, "chunks lost, added or out of order");
    for (const auto& chunk : chunks)
        Fuzz::checkText(chunk, "a chunk that is not valid Unicode");
    Fuzz::check(box.value() == logId, "the log id is not the last one sent");
}

// Exactly what the client does with a body; anything but a decoding error escapes.
template<typename T>
std::optional<T> decoded(const QByteArray& body)
{
    try {
        return T::fromJson(Json::parseObject(body));
    } catch (const DecodingError& error) {
        Fuzz::check(!error.message().isEmpty(), "a decoding error without a message");
        return std::nullopt;
    }
}

// A record the client keeps must also read back as itself from what it writes.
template<typename T, bool kept = false>
void decode(const QByteArray& body)
{
    const auto value = decoded<T>(body);
    if constexpr (kept)
        Fuzz::check(!value || decoded<T>(QJsonDocument(value->toJson()).toJson()) == value,
                    "a record that does not read back as itself");
}

} // namespace

// The first byte picks the reader, the rest is the body.
FUZZ_TARGET(input)
{
    using Reader = void (*)(const QByteArray&);
    static constexpr Reader readers[] = {answerLines,
                                         decode<InterviewSession, true>,
                                         decode<TranscriptEntry, true>,
                                         decode<APIClient::SpeechTokenResponse>,
                                         decode<APIClient::AccountStatus>,
                                         decode<APIClient::ResumesWrapper>,
                                         decode<APIClient::JobDescriptionsWrapper>,
                                         decode<APIClient::AuthResponse>,
                                         decode<APIClient::RefreshResponse>,
                                         decode<APIClient::ResumeResponse>};
    const auto which = Fuzz::takeByte(input) % std::size(readers);
    readers[which](input);
}
