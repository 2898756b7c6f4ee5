#include "QtPrinters.h"
#include "ProviderTestSupport.h"
#include "Clock.h"
#include "FakeVendorServer.h"
#include "LogCapture.h"
#include "OpenAISTTProvider.h"

#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QWebSocket>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using Speaker = TranscriptEntry::Speaker;
using Items = QList<std::pair<QString, QString>>;

namespace {
QString sessionUpdate(const QString& transcriptionFields)
{
    return u"{\"type\":\"session.update\",\"session\":{\"type\":\"transcription\",\"audio\":{\"input\":{"
           "\"format\":{\"type\":\"audio/pcm\",\"rate\":24000},\"noise_reduction\":{\"type\":\"near_field\"},"
           "\"transcription\":{"_s
           + transcriptionFields
           + u"},\"turn_detection\":{\"type\":\"server_vad\",\"threshold\":0.5,\"prefix_padding_ms\":300,"
             "\"silence_duration_ms\":500}}}}}"_s;
}

QString append(const QString& base64)
{
    return u"{\"type\":\"input_audio_buffer.append\",\"audio\":\""_s + base64 + u"\"}"_s;
}

QString event(const QString& type, const QString& fields = {})
{
    return u"{\"type\":\""_s + type + u"\""_s + (fields.isEmpty() ? QString() : u","_s + fields) + u"}"_s;
}

const auto deltaType = u"conversation.item.input_audio_transcription.delta"_s;
const auto completedType = u"conversation.item.input_audio_transcription.completed"_s;
const auto failedType = u"conversation.item.input_audio_transcription.failed"_s;

} // namespace

class OpenAISTTProviderTest : public ProviderTest<OpenAISTTProvider> {
protected:
    OpenAISTTProviderTest() : ProviderTest(Speaker::interviewer, {u"realtime"_s}) {}

    void start(const QString& language = u"de-DE"_s, std::optional<QString> model = std::nullopt)
    {
        awaitTask(provider.start(u"tok-1"_s, language, audio, std::move(model)));
        ASSERT_TRUE(server.waitForConnections(++expectedConnections));
        // The session literal has gone out once start returns.
        ASSERT_TRUE(server.waitForFrames(1));
    }
};

struct OpenAISessionCase {
    const char* name;
    QString setting;
    std::optional<QString> model;
    QString fields;
};

class OpenAISessionTest : public OpenAISTTProviderTest,
                          public ::testing::WithParamInterface<OpenAISessionCase> {};

TEST_P(OpenAISessionTest, TokenInASubprotocolAndTheSessionLiteralFirst)
{
    // Audio already waiting must still follow the literal.
    audio->push({{0.0f}});
    start(GetParam().setting, GetParam().model);
    ASSERT_TRUE(server.waitForFrames(2));
    const auto& connection = server.last();
    EXPECT_EQ(connection.url.path(), u"/v1/realtime"_s);
    EXPECT_EQ(connection.queryItems, (Items{{u"intent"_s, u"transcription"_s}}));
    EXPECT_EQ(connection.requestedSubprotocols,
              (QStringList{u"realtime"_s, u"openai-insecure-api-key.tok-1"_s}));
    EXPECT_TRUE(connection.header("Authorization").isEmpty());
    EXPECT_EQ(connection.textFrames(), (QStringList{sessionUpdate(GetParam().fields), append(u"AAA="_s)}));
}

INSTANTIATE_TEST_SUITE_P(
    OpenAISTTProviderTest, OpenAISessionTest,
    ::testing::Values(
        OpenAISessionCase{"AutoLeavesTheLanguageOut", u"auto"_s, std::nullopt,
                          u"\"model\":\"gpt-4o-mini-transcribe\""_s},
        OpenAISessionCase{"PtBR", u"pt-BR"_s, std::nullopt,
                          u"\"model\":\"gpt-4o-mini-transcribe\",\"language\":\"pt\""_s},
        OpenAISessionCase{"EnglishAnyCase", u"EN-us"_s, std::nullopt,
                          u"\"model\":\"gpt-4o-mini-transcribe\",\"language\":\"en\""_s},
        OpenAISessionCase{"ChineseWithTheTokensModelUnchecked", u"zh"_s, u"gpt-4o-transcribe-x"_s,
                          u"\"model\":\"gpt-4o-transcribe-x\",\"language\":\"zh\""_s}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(OpenAISTTProviderTest, OneAppendAt24kForEachBufferWithSamples)
{
    start();
    audio->push({{0.5f, 0.5f, 0.5f}});    // 3 frames give 4 samples of 3fff
    audio->push({{}});                   // no frames: no message
    audio->push({{0.5f}, 16000, false}); // no float data: no message
    audio->push({{-1.5f}});              // 1 frame gives 1 sample of 8000
    audio->push({std::vector<float>(4096, 0.0f)});
    ASSERT_TRUE(server.waitForFrames(4));
    QTest::qWait(50);
    const auto frames = server.last().textFrames();
    ASSERT_EQ(frames.size(), 4);
    EXPECT_EQ(frames[1], append(u"/z//P/8//z8="_s));
    EXPECT_EQ(frames[2], append(u"AIA="_s));
    EXPECT_EQ(frames[3], append(QString(6144 * 2 / 3 * 4, u'A'))) << "4096 frames give 6144 samples";
    EXPECT_TRUE(server.last().binaryFrames().isEmpty());
    clock.advance(60s);
    QTest::qWait(50);
    EXPECT_EQ(server.last().frames.size(), 4) << "no keep-alive";
}

TEST_F(OpenAISTTProviderTest, DeltasPassOnAsPiecesAndFailuresAreOnlyLogged)
{
    LogCapture log;
    start();
    clock.advance(250ms);
    for (const auto* type : {"session.created", "session.updated", "input_audio_buffer.speech_started",
                             "input_audio_buffer.speech_stopped", "input_audio_buffer.committed",
                             "conversation.item.created", "response.created"})
        server.sendText(event(QString::fromLatin1(type), u"\"delta\":\"no\",\"transcript\":\"no\""_s));
    server.sendText(event(deltaType, u"\"item_id\":\"i1\",\"delta\":\"Hel\""_s));
    server.sendText(event(deltaType, u"\"item_id\":\"i1\",\"delta\":\"lo\""_s));
    server.sendText(event(deltaType, u"\"delta\":\"\""_s));
    server.sendText(event(deltaType, u"\"delta\":3"_s));
    server.sendText(event(completedType, u"\"transcript\":\"\""_s));
    server.sendText(event(completedType, u"\"transcript\":null"_s));
    server.sendText(event(failedType, u"\"error\":{\"message\":\"audio unreadable\"}"_s));
    server.sendText(event(failedType));
    server.sendText(event(completedType, u"\"item_id\":\"i1\",\"transcript\":\"Hello\""_s));
    const auto segments = segmentsAfter(3);
    EXPECT_EQ(texts(segments), (QStringList{u"P:Hel"_s, u"P:lo"_s, u"F:Hello"_s}));
    for (const auto& segment : segments) {
        EXPECT_EQ(segment.speaker, Speaker::interviewer);
        EXPECT_EQ(segment.timestampMs, ManualClock::defaultStartMs + 250);
        EXPECT_FALSE(segment.confidence);
    }
    EXPECT_EQ(log.lines(), (QStringList{u"[OpenAISTT] Transcription failed: audio unreadable"_s,
                                        u"[OpenAISTT] Transcription failed: Transcription failed"_s}));
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u) << "a failed item is no failure of the session";
}

TEST_F(OpenAISTTProviderTest, ErrorsRaiseExactReasons)
{
    start();
    server.sendText(
        event(u"error"_s, u"\"error\":{\"type\":\"invalid_request_error\",\"message\":\"Bad model\"}"_s));
    server.sendText(event(u"error"_s, u"\"error\":{\"message\":7}"_s));
    server.sendText(event(u"error"_s, u"\"error\":\"flat text\""_s));
    server.sendText(event(u"error"_s));
    EXPECT_EQ(reasonsAfter(4), (QStringList{u"OpenAI disconnected: OpenAI error: Bad model"_s,
                                            u"OpenAI disconnected: OpenAI error: Unknown error"_s,
                                            u"OpenAI disconnected: OpenAI error: Unknown error"_s,
                                            u"OpenAI disconnected: OpenAI error: Unknown error"_s}));

    server.close(4001, u"token expired"_s);
    EXPECT_EQ(reasonsAfter(1), QStringList{u"OpenAI disconnected: token expired"_s});
    audio->push({{0.1f}});
    EXPECT_EQ(reasonsAfter(1), QStringList{u"OpenAI disconnected: Audio send failed: token expired"_s});
}

TEST_F(OpenAISTTProviderTest, UnsentSessionLiteralEndsTheStartWithoutAudio)
{
    QTcpServer closed;
    ASSERT_TRUE(closed.listen(QHostAddress::LocalHost, 0));
    const auto port = closed.serverPort();
    closed.close();
    provider.setOrigin(u"ws://127.0.0.1:"_s + QString::number(port));
    audio->push({{0.25f}});

    awaitTask(provider.start(u"tok-1"_s, u"en"_s, audio, std::nullopt));
    // The receive loop sees the same failure; the consumer takes one event and drops the rest.
    EXPECT_EQ(reasonsAfter(2),
              (QStringList{u"OpenAI disconnected: Connection refused"_s,
                           u"OpenAI disconnected: Failed to send session config: Connection refused"_s}));
    EXPECT_EQ(audio->bufferedCount(), 1u) << "no send loop took the buffer";
}

TEST_F(OpenAISTTProviderTest, AHandshakeThatNeverEndsTimesOutAfterAMinute)
{
    // Takes the connection and never answers the upgrade.
    QTcpServer silent;
    ASSERT_TRUE(silent.listen(QHostAddress::LocalHost, 0));
    provider.setOrigin(u"ws://127.0.0.1:"_s + QString::number(silent.serverPort()));
    audio->push({{0.25f}});
    auto starting = provider.start(u"tok-1"_s, u"en"_s, audio, std::nullopt);
    ASSERT_TRUE(QTest::qWaitFor([&] { return silent.hasPendingConnections(); }, 10'000));
    clock.advance(59s);
    QTest::qWait(50);
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u);

    clock.advance(1s);
    ASSERT_TRUE(QTest::qWaitFor([&] { return provider.recoveryEvents()->bufferedCount() >= 2; }, 10'000));
    awaitTask(std::move(starting), 10'000);
    const auto reasons = reasonsAfter(2);
    ASSERT_EQ(reasons.size(), 2);
    EXPECT_EQ(reasons[0], u"OpenAI disconnected: The request timed out"_s);
    EXPECT_TRUE(reasons[1].startsWith(u"OpenAI disconnected: Failed to send session config: "_s))
        << reasons[1].toStdString();
    EXPECT_EQ(audio->bufferedCount(), 1u) << "no send loop took the buffer";
}

TEST_F(OpenAISTTProviderTest, RestartKeepsTheStreamsAndOpensWithTheLiteralAgain)
{
    start(u"fr"_s);
    const auto segments = provider.transcriptSegments();
    const auto recovery = provider.recoveryEvents();
    server.abort();
    EXPECT_EQ(reasonsAfter(1), QStringList{u"OpenAI disconnected: The remote host closed the connection"_s});
    // The old send loop takes the first buffer, fails and ends; the next one waits for the new socket.
    audio->push({{-0.5f}});
    EXPECT_EQ(reasonsAfter(1),
              QStringList{u"OpenAI disconnected: Audio send failed: The remote host closed the connection"_s});
    audio->push({{0.5f}});

    start(u"fr"_s, u"whisper-1"_s);
    EXPECT_EQ(provider.transcriptSegments(), segments);
    EXPECT_EQ(provider.recoveryEvents(), recovery);
    ASSERT_TRUE(server.waitForFrames(2));
    EXPECT_EQ(server.last().textFrames(),
              (QStringList{sessionUpdate(u"\"model\":\"whisper-1\",\"language\":\"fr\""_s), append(u"/z8="_s)}));
    server.sendText(event(deltaType, u"\"delta\":\"again\""_s));
    EXPECT_EQ(texts(segmentsAfter(1)), QStringList{u"P:again"_s});
    server.sendText(event(u"error"_s, u"\"error\":{\"message\":\"second\"}"_s));
    EXPECT_EQ(reasonsAfter(1), QStringList{u"OpenAI disconnected: OpenAI error: second"_s});
}

TEST_F(OpenAISTTProviderTest, StopCommitsAndRaisesNothingAfter)
{
    start();
    awaitTask(provider.stop());
    EXPECT_TRUE(provider.transcriptSegments()->isFinished());
    EXPECT_TRUE(provider.recoveryEvents()->isFinished());
    ASSERT_TRUE(server.waitForFrames(2));
    EXPECT_EQ(server.last().textFrames().last(), u"{\"type\":\"input_audio_buffer.commit\"}"_s);
    server.sendText(event(u"error"_s, u"\"error\":{\"message\":\"late\"}"_s));
    server.sendText(event(completedType, u"\"transcript\":\"late\""_s));
    EXPECT_TRUE(QTest::qWaitFor([&] { return server.openConnectionCount() == 0; }, 10'000));
    QTest::qWait(50);
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u);
    EXPECT_EQ(provider.transcriptSegments()->bufferedCount(), 0u);
}

TEST_F(OpenAISTTProviderTest, BadInputIsIgnoredAndTheLoopGoesOn)
{
    start();
    server.sendText(u"{\"type\":\"error\""_s);
    server.sendText(u"[\"error\"]"_s);
    server.sendText(u"{\"type\": null, \"error\":{\"message\":\"x\"}}"_s);
    server.sendText(u"{\"type\": {\"name\":\"error\"}}"_s);
    server.sendText(event(deltaType, u"\"delta\":[\"x\"]"_s));
    server.sendBinary(QByteArray("{\"type\":\"error\",\"error\":{\"message\":\"binary\"}}"));
    server.sendBinary(QByteArray("\xff\xfe\x00\xc3\x28", 5));
    server.sendText(event(completedType, u"\"transcript\":\""_s + QString(10 * 1024 * 1024, u'x')));
    server.sendText(event(completedType, u"\"transcript\":\"still here\""_s));
    EXPECT_EQ(texts(segmentsAfter(1)), QStringList{u"F:still here"_s});
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u);
}

TEST_F(OpenAISTTProviderTest, InvalidUtf8FailsTheSocketOnceAndEmitsNothing)
{
    start();
    // The WebSocket layer must fail such a connection (close code 1007); it ends as a receive error.
    server.sendRawText(
        "{\"type\":\"conversation.item.input_audio_transcription.delta\",\"delta\":\"\xff\"}");
    EXPECT_EQ(reasonsAfter(1), QStringList{u"OpenAI disconnected: Invalid UTF-8 code encountered."_s});
    EXPECT_EQ(provider.transcriptSegments()->bufferedCount(), 0u);
}

TEST_F(OpenAISTTProviderTest, TodaysServiceAcceptsTheTranscriptionSession)
{
    server.setBehaviour(FakeVendorServer::Behaviour::openAIToday);
    start();
    audio->push({{0.1f, 0.2f}});
    ASSERT_TRUE(server.waitForFrames(2));
    server.sendText(u"{\"type\":\"conversation.item.input_audio_transcription.completed\",\"transcript\":\"Hallo.\"}"_s);
    EXPECT_EQ(texts(segmentsAfter(1)), QStringList{u"F:Hallo."_s});
    EXPECT_EQ(server.openConnectionCount(), 1);
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u) << "no error and no refusal";

    // The fake does hold clients to it: a socket without the intent is refused.
    QWebSocket bare;
    bare.open(QUrl(server.origin() + u"/v1/realtime"_s));
    EXPECT_TRUE(QTest::qWaitFor([&] { return bare.closeCode() == QWebSocketProtocol::CloseCodePolicyViolated; }, 10'000));
}
