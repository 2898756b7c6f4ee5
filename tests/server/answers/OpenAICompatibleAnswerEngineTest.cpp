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
using namespace Qt::StringLiterals;

namespace {

// One streamed piece of the answer; test texts hold no characters JSON would escape.
QByteArray delta(const char* content)
{
    return QByteArray(R"(data: {"choices":[{"index":0,"delta":{"content":")") + content
           + "\"}}]}\n\n";
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
    EXPECT_EQ(outcome.chunks, (QStringList{u"I would "_s, u"shard it."_s}));
    EXPECT_LT(piecesAtFirstChunk, 5);

    ASSERT_EQ(server.requests().size(), 1);
    const auto& request = server.requests().first();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.path, "/v1/chat/completions");
    EXPECT_EQ(request.headers.value("authorization"), "Bearer sk-test");
    const auto body = QJsonDocument::fromJson(request.body).object();
    EXPECT_EQ(body[u"model"].toString(), QStringLiteral("llama3"));
    EXPECT_TRUE(body[u"stream"].toBool());
    ASSERT_EQ(body[u"messages"].toArray().size(), 2);
    const auto system = body[u"messages"][0][u"content"].toString();
    for (const auto& expected :
         {QStringLiteral("Led the billing migration to Kubernetes."),
          QStringLiteral("Platform engineer for payments."),
          QStringLiteral("Interviewer: Thanks for joining.\nYou: Glad to be here."),
          QStringLiteral("German")})
        EXPECT_TRUE(system.contains(expected)) << expected.toStdString();
    EXPECT_EQ(body[u"messages"][1][u"content"].toString(), sampleRequest().question);
}

INSTANTIATE_TEST_SUITE_P(BaseUrlForms, ModelServerUrlTest, testing::Values("", "/", "/v1", "/v1/"));

struct StreamCase {
    const char* name;
    FakeModelServer::Reply reply;
    QStringList chunks;
    const char* errorContains; // empty: a normal end
    bool serverGone = false;   // nothing listens at the address any more
};

class StreamEndingTest : public testing::TestWithParam<StreamCase> {};

TEST_P(StreamEndingTest, endsAsTheServerDid)
{
    std::optional<FakeModelServer> server(std::in_place);
    server->setReply(GetParam().reply);
    const auto origin = server->origin();
    if (GetParam().serverGone)
        server.reset();
    OpenAICompatibleAnswerEngine engine(origin, QStringLiteral("llama3"), {});
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
        EXPECT_TRUE(outcome.error->contains(origin)) << outcome.error->toStdString();
    }
    if (server) {
        EXPECT_FALSE(server->requests().first().headers.contains("authorization"));
    }
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
                   ""},
        StreamCase{"refusedConnection", {}, {}, "Cannot reach the model server at", true}),
    [](const testing::TestParamInfo<StreamCase>& info) { return std::string(info.param.name); });

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
    EXPECT_FALSE(QJsonDocument::fromJson(server.requests().first().body)[u"model"].isString());
}

// A blank base URL means the offline draft; any other, the model server there.
TEST(AnswerEngineFactoryTest, theBaseUrlChoosesTheEngine)
{
    FakeModelServer server;
    server.setReply({.pieces = {delta("From the model."), "data: [DONE]\n\n"}});
    const auto offline = makeAnswerEngine({QStringLiteral("  "), QStringLiteral("llama3"), {}});
    const auto drafted = runAnswer(*offline, sampleRequest());
    EXPECT_EQ(drafted.error, QString());
    ASSERT_FALSE(drafted.chunks.isEmpty());
    EXPECT_TRUE(drafted.chunks.first().startsWith(u"Offline draft"));

    const auto online = makeAnswerEngine(
        {server.origin() + QStringLiteral("/v1"), QStringLiteral("m"), QStringLiteral("k")});
    const auto answered = runAnswer(*online, sampleRequest());
    EXPECT_EQ(answered.chunks, QStringList{QStringLiteral("From the model.")});
    EXPECT_EQ(answered.error, QString());
}
