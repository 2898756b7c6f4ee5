#include "OpenAICompatibleAnswerEngine.h"
#include "AnswerEngineFactory.h"
#include "AnswerRun.h"
#include "FakeModelServer.h"
#include "QtPrinters.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>

#include <gtest/gtest.h>

using namespace ravlet::server;

namespace {

QByteArray delta(const char* content)
{
    QJsonObject object{{QStringLiteral("choices"),
                        QJsonArray{QJsonObject{{QStringLiteral("index"), 0},
                                               {QStringLiteral("delta"),
                                                QJsonObject{{QStringLiteral("content"),
                                                             QString::fromUtf8(content)}}}}}}};
    return "data: " + QJsonDocument(object).toJson(QJsonDocument::Compact) + "\n\n";
}

AnswerRequest sampleRequest()
{
    AnswerRequest request;
    request.question = QStringLiteral("How would you scale the billing service?");
    request.recentTranscript = {QStringLiteral("Interviewer: Thanks for joining."),
                                QStringLiteral("You: Glad to be here.")};
    request.resumeText = QStringLiteral("Led the billing migration to Kubernetes.");
    request.jobDescriptionText = QStringLiteral("Platform engineer for payments.");
    request.outputLanguage = QStringLiteral("de-DE");
    return request;
}

} // namespace

class ModelServerUrlTest : public testing::TestWithParam<const char*> {};

// The request that reaches the server: path, headers and a prompt that carries everything
// the model needs to know. Pieces come 30 ms apart, and the first chunk must be passed on
// before the server has written the last.
TEST_P(ModelServerUrlTest, streamsDeltasAsTheyArrive)
{
    FakeModelServer server;
    server.setReply(
        {.pieces = {"data: {\"choices\":[{\"delta\":{\"role\":\"assistant\"}}]}\n\n",
                    delta("I would "), ": keep-alive\n\n", delta("shard it."), "data: [DONE]\n\n"},
         .gapMs = 30});
    OpenAICompatibleAnswerEngine engine(server.origin() + QString::fromUtf8(GetParam()),
                                        QStringLiteral("llama3"), QStringLiteral("sk-test"));
    int piecesAtFirstChunk = -1;
    const auto outcome = runAnswer(engine, sampleRequest(), [&](AnswerOutcome& o) {
        if (o.chunks.size() == 1)
            piecesAtFirstChunk = server.piecesSent();
    });

    EXPECT_EQ(outcome.error, QString());
    EXPECT_EQ(outcome.doneCalls, 1);
    EXPECT_EQ(outcome.chunks,
              (QStringList{QStringLiteral("I would "), QStringLiteral("shard it.")}));
    EXPECT_LT(piecesAtFirstChunk, 5);

    ASSERT_EQ(server.requests().size(), 1);
    const auto& request = server.requests().first();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.path, "/v1/chat/completions");
    EXPECT_EQ(request.headers.value("authorization"), "Bearer sk-test");
    const auto body = QJsonDocument::fromJson(request.body).object();
    EXPECT_EQ(body.value(QStringLiteral("model")).toString(), QStringLiteral("llama3"));
    EXPECT_TRUE(body.value(QStringLiteral("stream")).toBool());
    const auto messages = body.value(QStringLiteral("messages")).toArray();
    ASSERT_EQ(messages.size(), 2);
    const auto system = messages.at(0).toObject().value(QStringLiteral("content")).toString();
    for (const auto& expected :
         {QStringLiteral("Led the billing migration to Kubernetes."),
          QStringLiteral("Platform engineer for payments."),
          QStringLiteral("Interviewer: Thanks for joining.\nYou: Glad to be here."),
          QStringLiteral("German")})
        EXPECT_TRUE(system.contains(expected)) << expected.toStdString();
    EXPECT_EQ(messages.at(1).toObject().value(QStringLiteral("content")).toString(),
              sampleRequest().question);
}

INSTANTIATE_TEST_SUITE_P(BaseUrlForms, ModelServerUrlTest, testing::Values("", "/", "/v1", "/v1/"));

struct StreamCase {
    const char* name;
    FakeModelServer::Reply reply;
    QStringList chunks;
    const char* errorContains; // empty: a normal end
};

class StreamEndingTest : public testing::TestWithParam<StreamCase> {};

TEST_P(StreamEndingTest, endsAsTheServerDid)
{
    FakeModelServer server;
    server.setReply(GetParam().reply);
    OpenAICompatibleAnswerEngine engine(server.origin(), QStringLiteral("llama3"), {});
    const auto outcome = runAnswer(engine, sampleRequest());

    EXPECT_EQ(outcome.chunks, GetParam().chunks);
    EXPECT_EQ(outcome.doneCalls, 1);
    ASSERT_TRUE(outcome.error);
    const auto expected = QString::fromUtf8(GetParam().errorContains);
    if (expected.isEmpty()) {
        EXPECT_EQ(*outcome.error, QString());
    } else {
        EXPECT_TRUE(outcome.error->contains(expected)) << outcome.error->toStdString();
        // Every failure names the model server, so the operator knows where to look.
        EXPECT_TRUE(outcome.error->contains(server.origin())) << outcome.error->toStdString();
    }
    EXPECT_FALSE(server.requests().first().headers.contains("authorization"));
}

INSTANTIATE_TEST_SUITE_P(
    Endings, StreamEndingTest,
    testing::Values(
        StreamCase{"garbageLinesAreSkipped",
                   {.pieces = {"data: {not json\n", "data: 42\n", "data: {\"choices\":[]}\n",
                               "data: {\"choices\":[{\"delta\":{\"content\":7}}]}\n", "garbage\n",
                               "\n", "data:{\"choices\":[{\"delta\":{\"content\":\"ok\"}}]}\r\n",
                               "data: {\"choi", "ces\":[{\"delta\":{\"content\":\"!\"}}]}\n",
                               "data: [DONE]\n"}},
                   {QStringLiteral("ok"), QStringLiteral("!")},
                   ""},
        StreamCase{"serverError",
                   {.status = 500,
                    .contentType = "application/json",
                    .pieces = {"{\"error\":{\"message\":\"model 'llama3' not found\"}}"}},
                   {},
                   "HTTP 500 for model \"llama3\": model 'llama3' not found"},
        StreamCase{"closedMidStream",
                   {.pieces = {delta("Part one, "), delta("part two")},
                    .gapMs = 10,
                    .closeBeforeEnd = true},
                   {QStringLiteral("Part one, "), QStringLiteral("part two")},
                   "broke off the answer"},
        StreamCase{
            "errorEventMidStream",
            {.pieces = {delta("Start"), "data: {\"error\":{\"message\":\"out of memory\"}}\n\n",
                        delta("never")}},
            {QStringLiteral("Start")},
            "stopped the answer: out of memory"},
        StreamCase{"endWithoutDoneIsANormalEnd",
                   {.pieces = {delta("All of it.")}, .chunked = false},
                   {QStringLiteral("All of it.")},
                   ""},
        StreamCase{"pageThatIsNotAModelServer",
                   {.contentType = "text/html", .pieces = {"<html><body>Welcome</body></html>"}},
                   {},
                   "sent no completion"},
        StreamCase{"serverThatIgnoresStreaming",
                   {.contentType = "application/json",
                    .pieces = {"{\"choices\":[{\"message\":{\"role\":\"assistant\",\n\"content\":"
                               "\"Whole answer.\"}}]}"}},
                   {QStringLiteral("Whole answer.")},
                   ""}),
    [](const testing::TestParamInfo<StreamCase>& info) { return std::string(info.param.name); });

TEST(OpenAICompatibleAnswerEngineTest, refusedConnectionNamesTheServer)
{
    QString origin;
    {
        FakeModelServer closed;
        origin = closed.origin();
    }
    OpenAICompatibleAnswerEngine engine(origin, QStringLiteral("llama3"), {});
    const auto outcome = runAnswer(engine, sampleRequest());
    EXPECT_TRUE(outcome.chunks.isEmpty());
    ASSERT_TRUE(outcome.error);
    EXPECT_TRUE(
        outcome.error->startsWith(QStringLiteral("Cannot reach the model server at ") + origin))
        << outcome.error->toStdString();
}

TEST(OpenAICompatibleAnswerEngineTest, cancelClosesTheConnectionAndSilencesTheAnswer)
{
    FakeModelServer server;
    server.setReply(
        {.pieces = {delta("one"), delta("two"), delta("three"), "data: [DONE]\n\n"}, .gapMs = 50});
    OpenAICompatibleAnswerEngine engine(server.origin(), {}, {});
    QSignalSpy disconnected(&server, &FakeModelServer::clientDisconnected);
    QStringList chunks;
    int doneCalls = 0;
    AnswerEngine::Handle handle;
    handle = engine.answer(
        sampleRequest(),
        [&](const QString& chunk) {
            chunks << chunk;
            handle.cancel();
        },
        [&](const QString&) { ++doneCalls; });
    ASSERT_TRUE(disconnected.wait(5000));
    drainEvents();
    EXPECT_EQ(chunks, QStringList{QStringLiteral("one")});
    EXPECT_EQ(doneCalls, 0);
    EXPECT_TRUE(server.clientClosed()) << "the model server should stop generating";
    handle.cancel(); // after the end: harmless
    // No model named: the field is left out for single-model servers.
    EXPECT_FALSE(QJsonDocument::fromJson(server.requests().first().body)
                     .object()
                     .contains(QStringLiteral("model")));
}

TEST(AnswerEngineFactoryTest, aBaseUrlSelectsTheModelServer)
{
    FakeModelServer server;
    server.setReply({.pieces = {delta("From the model."), "data: [DONE]\n\n"}});
    const auto engine = makeAnswerEngine(
        {server.origin() + QStringLiteral("/v1"), QStringLiteral("m"), QStringLiteral("k")});
    const auto outcome = runAnswer(*engine, sampleRequest());
    EXPECT_EQ(outcome.chunks, QStringList{QStringLiteral("From the model.")});
    EXPECT_EQ(outcome.error, QString());
}
