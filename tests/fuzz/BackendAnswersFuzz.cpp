// What the client reads from its backend: the answer's "data: " lines, and the decoding of
// every JSON answer. The first byte picks which.
#include "AnswerStream.h"
#include "APIClient.h"
#include "FuzzSupport.h"
#include "Helpers.h"
#include "Records.h"

#include <QJsonDocument>

#include <vector>

using namespace Qt::StringLiterals;

namespace {

// Takes what the stream holds; it never suspends, as the stream is finished first.
QCoro::Task<> drain(AnswerStream& stream, std::vector<QString>& chunks)
{
    while (auto chunk = co_await stream.next())
        chunks.push_back(std::move(*chunk));
}

// What one line must give, worked out without the reader: the content of a "data: " event
// that carries no log id.
struct Expected {
    std::vector<QString> chunks;
    std::optional<QString> logId;
    bool done = false;
};

void expectLine(QByteArray line, Expected& expected)
{
    while (!line.isEmpty() && (line.back() == '\n' || line.back() == '\r'))
        line.chop(1);
    if (!line.startsWith("data: "))
        return;
    const auto payload = line.sliced(6);
    if (payload == "[DONE]") {
        expected.done = true;
        return;
    }
    const auto object = Fuzz::object(payload);
    if (object.value(u"logId"_s).isString())
        expected.logId = withValidUnicode(object.value(u"logId"_s).toString());
    else if (object.value(u"content"_s).isString())
        expected.chunks.push_back(withValidUnicode(object.value(u"content"_s).toString()));
}

void answerLines(const QByteArray& body)
{
    LogIdBox box;
    AnswerStream stream;
    Expected expected;
    bool done = false;
    for (const auto& line : body.split('\n')) {
        expectLine(line, expected);
        done = AnswerEvents::handleLine(line + '\n', box, stream);
        Fuzz::check(done == expected.done, "the end of the stream seen in the wrong place");
        if (done)
            break;
    }
    stream.finish();
    std::vector<QString> chunks;
    auto task = drain(stream, chunks);
    Fuzz::check(task.isReady(), "reading a finished stream suspended");
    Fuzz::check(chunks == expected.chunks, "chunks lost, added or out of order");
    for (const auto& chunk : chunks)
        Fuzz::check(Fuzz::isValidUnicode(chunk), "a chunk that is not valid Unicode", chunk);
    Fuzz::check(box.value() == expected.logId, "the log id is not the last one sent");
}

template<typename T>
std::optional<T> decode(const QByteArray& body)
{
    // Exactly what the client does with a body; anything but a decoding error escapes.
    try {
        return T::fromJson(Json::parseObject(body));
    } catch (const DecodingError& error) {
        Fuzz::check(!error.message().isEmpty(), "a decoding error without a message");
        return std::nullopt;
    }
}

// A record the client keeps must read back as itself from what it writes.
template<typename T>
void decodeRoundTrip(const QByteArray& body)
{
    const auto value = decode<T>(body);
    if (!value)
        return;
    const auto again = decode<T>(QJsonDocument(value->toJson()).toJson());
    Fuzz::check(again.has_value() && *again == *value,
                "a record that does not read back as itself");
}

template<typename T>
void decodeOnly(const QByteArray& body)
{
    decode<T>(body);
}

} // namespace

// The first byte picks the reader, the rest is the body.
FUZZ_TARGET(input)
{
    using Reader = void (*)(const QByteArray&);
    static constexpr Reader readers[] = {answerLines,
                                         decodeRoundTrip<InterviewSession>,
                                         decodeRoundTrip<TranscriptEntry>,
                                         decodeOnly<APIClient::SpeechTokenResponse>,
                                         decodeOnly<APIClient::AccountStatus>,
                                         decodeOnly<APIClient::ResumesWrapper>,
                                         decodeOnly<APIClient::JobDescriptionsWrapper>,
                                         decodeOnly<APIClient::AuthResponse>,
                                         decodeOnly<APIClient::RefreshResponse>,
                                         decodeOnly<APIClient::ResumeResponse>};
    const auto which = input.takeByte() % std::size(readers);
    readers[which](input.rest());
}
