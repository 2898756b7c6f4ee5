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
    const auto object = QJsonDocument::fromJson(payload).object();
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

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    Fuzz::ensureApplication();
    Fuzz::Input input(data, size);
    const auto which = input.takeByte() % 10;
    const auto body = input.rest();
    switch (which) {
    case 0:
        answerLines(body);
        break;
    case 1:
        decodeRoundTrip<InterviewSession>(body);
        break;
    case 2:
        decodeRoundTrip<TranscriptEntry>(body);
        break;
    case 3:
        decode<APIClient::SpeechTokenResponse>(body);
        break;
    case 4:
        decode<APIClient::AccountStatus>(body);
        break;
    case 5:
        decode<APIClient::ResumesWrapper>(body);
        break;
    case 6:
        decode<APIClient::JobDescriptionsWrapper>(body);
        break;
    case 7:
        decode<APIClient::AuthResponse>(body);
        break;
    case 8:
        decode<APIClient::RefreshResponse>(body);
        break;
    default:
        decode<APIClient::ResumeResponse>(body);
        break;
    }
    return 0;
}
