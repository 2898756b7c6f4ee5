#include "BackendTestSupport.h"

#include <QJsonArray>
#include <QJsonDocument>

using namespace Qt::StringLiterals;

namespace {
const QByteArray answerPath = "/api/v1/chat/answer";

struct Drained {
    QStringList chunks;
    std::exception_ptr error;
};

QCoro::Task<Drained> drain(std::shared_ptr<AnswerStream> stream)
{
    Drained result;
    try {
        while (auto chunk = co_await stream->next())
            result.chunks.append(*chunk);
    } catch (...) {
        result.error = std::current_exception();
    }
    co_return result;
}

APIClient::AnswerRequest question()
{
    return {u"Why us?"_s, {}, {}, {}, {}, {}};
}
} // namespace

class StreamAnswerTest : public BackendTest {
protected:
    std::pair<std::optional<QString>, Drained> run(QList<QByteArray> pieces, int delayMs = 0)
    {
        server.setRoute("POST", answerPath, FakeBackend::Response::stream(std::move(pieces), delayMs));
        auto result = awaitTask(client.streamAnswer(question()));
        return {result.logId, awaitTask(drain(result.stream))};
    }
};

TEST_F(StreamAnswerTest, LogIdComesWithTheStreamWhenItArrivesWithinThreeChunks)
{
    auto [logId, drained] = run({"data: {\"logId\":\"L1\"}\n", "data: {\"content\":\"Hello\"}\n", "data: [DONE]\n"});
    EXPECT_EQ(logId, u"L1"_s);
    EXPECT_EQ(drained.chunks, QStringList{u"Hello"_s});
    EXPECT_FALSE(drained.error);

    std::tie(logId, drained) = run({"data: {\"content\":\"a\"}\n", "data: {\"content\":\"b\"}\n", "data: {\"content\":\"c\"}\n",
                                    "data: {\"logId\":\"L1\"}\n", "data: {\"content\":\"d\"}\n"});
    EXPECT_FALSE(logId) << "it came after the third chunk";
    EXPECT_EQ(drained.chunks, (QStringList{u"a"_s, u"b"_s, u"c"_s, u"d"_s}));
}

TEST_F(StreamAnswerTest, SkipsWhatIsNotAnEvent)
{
    auto [logId, drained] = run({
        "data:{\"content\":\"no blank\"}\n",
        ": a comment\n",
        "\n",
        "event: ping\n",
        "data: {\"logId\":\"L2\",\"content\":\"lost\"}\n",
        "data: not json\n",
        "data: {\"content\": 5}\n",
        "data: {\"other\":\"x\"}\n",
        "data: [\"content\"]\n",
        "data: {\"content\":\"kept\"}\r\n",
        "data: {\"content\":\"half \\udc00\"}\n", // cannot be saved to the log as UTF-8
        "data: [DONE]\n",
        "data: {\"content\":\"after done\"}\n",
    });
    EXPECT_EQ(logId, u"L2"_s);
    EXPECT_EQ(drained.chunks, (QStringList{u"kept"_s, u"half \ufffd"_s}));
}

TEST_F(StreamAnswerTest, LinesSplitAcrossReadsCrlfAndAHugeLine)
{
    const QByteArray huge(1024 * 1024, 'x');
    auto [logId, drained] = run({"data: {\"con", "tent\":\"one\"}\r", "\ndata: {\"content\":\"two\"}\r\nda", "ta: {\"content\":\"",
                                 huge, "\"}\n", "data: {\"content\":\"last\"}"},
                                5);
    ASSERT_EQ(drained.chunks.size(), 4);
    EXPECT_EQ(drained.chunks[0], u"one"_s);
    EXPECT_EQ(drained.chunks[1], u"two"_s);
    EXPECT_EQ(drained.chunks[2].size(), huge.size());
    EXPECT_EQ(drained.chunks[3], u"last"_s) << "a last line without a line end still counts";
    EXPECT_FALSE(drained.error);
}

TEST_F(StreamAnswerTest, BodyEndingWithoutDoneEndsNormallyAndACutBodyEndsWithAnError)
{
    auto [logId, drained] = run({"data: {\"content\":\"a\"}\n", "data: {\"content\":\"b\"}\n"});
    EXPECT_EQ(drained.chunks, (QStringList{u"a"_s, u"b"_s}));
    EXPECT_FALSE(drained.error);

    // Cut off during the pre-read: streamAnswer itself fails.
    auto cut = FakeBackend::Response::json(200, "data: {\"content\":\"a\"}\ndata: {\"content\":\"b\"}\n");
    cut.closeMidBody = true;
    server.setRoute("POST", answerPath, cut);
    EXPECT_THROW(awaitTask(client.streamAnswer(question())), TransportError);

    // Cut off after the pre-read: the stream ends with the error, after the chunks it had.
    QByteArray body;
    for (int i = 0; i < 8; ++i)
        body += "data: {\"content\":\"" + QByteArray::number(i) + "\"}\n";
    cut.body = body + body;
    server.setRoute("POST", answerPath, cut);
    auto result = awaitTask(client.streamAnswer(question()));
    drained = awaitTask(drain(result.stream));
    EXPECT_EQ(drained.chunks.size(), 8);
    EXPECT_TRUE(drained.error);
}

TEST_F(StreamAnswerTest, ChunksArriveWhileTheBodyIsStillComing)
{
    QList<QByteArray> pieces;
    for (int i = 0; i < 8; ++i)
        pieces.append("data: {\"content\":\"" + QByteArray::number(i) + "\"}\n");
    server.setRoute("POST", answerPath, FakeBackend::Response::stream(pieces, 100));
    auto result = awaitTask(client.streamAnswer(question()));
    // The three held-back chunks needed three pieces; the fourth chunk is read as its piece
    // arrives, long before the server has sent the rest.
    struct First {
        static QCoro::Task<std::optional<QString>> next(std::shared_ptr<AnswerStream> stream)
        {
            co_await stream->next();
            co_await stream->next();
            co_await stream->next();
            co_return co_await stream->next();
        }
    };
    EXPECT_EQ(awaitTask(First::next(result.stream)), u"3"_s);
    EXPECT_LT(server.piecesSent(), 8);
    EXPECT_EQ(awaitTask(drain(result.stream)).chunks.size(), 4);
}

TEST_F(StreamAnswerTest, RequestBodyAndStatusHandling)
{
    storeTokens(u"A1"_s, u"R1"_s);
    server.setRoute("POST", answerPath, FakeBackend::Response::stream({"data: [DONE]\n"}));
    TranscriptEntry context{u"E"_s, TranscriptEntry::Speaker::interviewer, u"Hi"_s, 1, 0.5, true};
    awaitTask(client.streamAnswer({u"Q?"_s, {context.contextForm()}, u"S1"_s, {}, u"R9"_s, {}}));
    const auto request = server.requests("POST", answerPath).first();
    EXPECT_EQ(request.header("Authorization"), "Bearer A1");
    EXPECT_EQ(request.header("Content-Type"), "application/json");
    EXPECT_EQ(QJsonDocument::fromJson(request.body).object(),
              (QJsonObject{{u"question"_s, u"Q?"_s},
                           {u"context"_s, QJsonArray{QJsonObject{{u"speaker"_s, u"interviewer"_s}, {u"content"_s, u"Hi"_s}}}},
                           {u"sessionId"_s, u"S1"_s},
                           {u"resumeId"_s, u"R9"_s}}))
        << "absent values are left out, never null";

    server.setRoute("POST", answerPath, FakeBackend::Response::json(201, "data: [DONE]\n"));
    EXPECT_API_ERROR(client.streamAnswer(question()), APIError::serverError(201));
    server.setRoute("POST", answerPath, FakeBackend::Response::json(401, "{}"));
    EXPECT_API_ERROR(client.streamAnswer(question()), APIError::serverError(401));
    EXPECT_EQ(server.requestCount("POST", "/api/v1/auth/refresh"), 0);
    FakeBackend::Response garbage;
    garbage.raw = QByteArray("garbage\r\n\r\n");
    server.setRoute("POST", answerPath, garbage);
    EXPECT_API_ERROR(client.streamAnswer(question()), APIError::serverError(500));
    EXPECT_TRUE(failures.isEmpty());
}
