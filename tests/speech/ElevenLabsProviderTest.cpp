#include "QtPrinters.h"
#include "ProviderTestSupport.h"
#include "Clock.h"
#include "ElevenLabsProvider.h"
#include "FakeVendorServer.h"

#include <QTcpSocket>
#include <QTest>
#include <QWebSocket>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using Speaker = TranscriptEntry::Speaker;
using Items = QList<std::pair<QString, QString>>;

namespace {
QString chunk(const QString& base64, bool commit = false)
{
    return u"{\"message_type\":\"input_audio_chunk\",\"audio_base_64\":\""_s + base64 + u"\",\"commit\":"_s
           + (commit ? u"true"_s : u"false"_s) + u",\"sample_rate\":16000}"_s;
}

QString message(const QString& type, const QString& fields = {})
{
    return u"{\"message_type\":\""_s + type + u"\""_s + (fields.isEmpty() ? QString() : u","_s + fields) + u"}"_s;
}

} // namespace

class ElevenLabsProviderTest : public ProviderTest<ElevenLabsProvider> {
protected:
    ElevenLabsProviderTest() : ProviderTest(Speaker::user) {}

    void start(const QString& language = u"de-DE"_s, const QString& token = u"tok-1"_s)
    {
        awaitTask(provider.start(token, language, audio, u"ignored-model"_s));
        ASSERT_TRUE(server.waitForConnections(++expectedConnections));
        ASSERT_TRUE(QTest::qWaitFor([&] { return server.openConnectionCount() == 1; }, 10'000));
    }
};

struct ElevenLabsLanguageCase {
    const char* name;
    QString setting;
    std::optional<QString> languageCode;
};

class ElevenLabsConnectionTest : public ElevenLabsProviderTest,
                                 public ::testing::WithParamInterface<ElevenLabsLanguageCase> {};

TEST_P(ElevenLabsConnectionTest, TokenAndLanguageTravelInTheQuery)
{
    // Characters a query would otherwise read as delimiters, a blank or an escape.
    const auto token = u"a+b/c=d&e%2F"_s;
    start(GetParam().setting, token);
    const auto& connection = server.last();
    EXPECT_EQ(connection.url.path(), u"/v1/speech-to-text/realtime"_s);
    Items expected{{u"token"_s, token},
                   {u"model_id"_s, u"scribe_v2_realtime"_s},
                   {u"audio_format"_s, u"pcm_16000"_s},
                   {u"commit_strategy"_s, u"vad"_s},
                   {u"vad_silence_threshold_secs"_s, u"0.8"_s},
                   {u"vad_threshold"_s, u"0.35"_s},
                   {u"min_silence_duration_ms"_s, u"200"_s},
                   {u"include_timestamps"_s, u"false"_s},
                   {u"include_language_detection"_s, u"true"_s}};
    if (GetParam().languageCode)
        expected.append({u"language_code"_s, *GetParam().languageCode});
    EXPECT_EQ(connection.queryItems, expected);
    EXPECT_TRUE(connection.header("Authorization").isEmpty());
    EXPECT_TRUE(connection.requestedSubprotocols.isEmpty());
}

INSTANTIATE_TEST_SUITE_P(ElevenLabsProviderTest, ElevenLabsConnectionTest,
                         ::testing::Values(ElevenLabsLanguageCase{"AutoLeavesTheCodeOut", u"auto"_s, std::nullopt},
                                           ElevenLabsLanguageCase{"PtBR", u"pt-BR"_s, u"pt"_s},
                                           ElevenLabsLanguageCase{"EnglishAnyCase", u"EN-us"_s, u"en"_s},
                                           ElevenLabsLanguageCase{"Chinese", u"zh"_s, u"zh"_s},
                                           ElevenLabsLanguageCase{"DeAt", u"DE-at"_s, u"de"_s}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(ElevenLabsProviderTest, OneBase64ChunkForEachBufferWithSamples)
{
    start();
    audio->push({{1.0f, -1.0f, 1.5f}});  // ff7f 0180 ff7f
    audio->push({{}});                   // no frames: no message
    audio->push({{0.5f}, 16000, false}); // no float data: no message
    audio->push({{-1.5f}});              // 0080
    ASSERT_TRUE(server.waitForFrames(2));
    QTest::qWait(50);
    EXPECT_EQ(server.last().textFrames(), (QStringList{chunk(u"/38BgP9/"_s), chunk(u"AIA="_s)}));
    EXPECT_TRUE(server.last().binaryFrames().isEmpty());
}

TEST_F(ElevenLabsProviderTest, EmptyChunkKeepsTheSocketAliveEveryTenSeconds)
{
    start();
    clock.advance(9999ms);
    QTest::qWait(50);
    EXPECT_TRUE(server.last().frames.isEmpty());
    clock.advance(1ms);
    ASSERT_TRUE(server.waitForFrames(1));
    EXPECT_EQ(server.last().textFrames(), QStringList{chunk({})});

    // Audio in between neither delays nor replaces it.
    audio->push({{0.0f}});
    ASSERT_TRUE(server.waitForFrames(2));
    clock.advance(20s);
    ASSERT_TRUE(server.waitForFrames(4));
    QTest::qWait(50);
    EXPECT_EQ(server.last().textFrames(), (QStringList{chunk({}), chunk(u"AAA="_s), chunk({}), chunk({})}));
}

TEST_F(ElevenLabsProviderTest, TranscriptMessagesBecomeSegmentsWithoutConfidence)
{
    start();
    clock.advance(1500ms); // stamps the segments; the keep-alive is not due yet
    server.sendText(message(u"session_started"_s, u"\"session_id\":\"s1\""_s));
    server.sendText(message(u"partial_transcript"_s, u"\"text\":\"Hel\""_s));
    server.sendText(message(u"partial_transcript"_s, u"\"text\":\"\""_s));
    server.sendText(message(u"partial_transcript"_s, u"\"text\":42"_s));
    server.sendText(message(u"partial_transcript"_s));
    server.sendText(message(u"partial_transcript"_s, u"\"text\":\"Hello th\""_s));
    server.sendText(message(u"committed_transcript"_s, u"\"text\":\"\""_s));
    server.sendText(message(u"committed_transcript"_s, u"\"text\":\"Hello there.\""_s));
    server.sendText(message(u"committed_transcript_with_timestamps"_s, u"\"text\":\"Hello there.\""_s));
    server.sendText(message(u"future_kind"_s, u"\"text\":\"no\""_s));
    const auto segments = segmentsAfter(3);
    EXPECT_EQ(texts(segments), (QStringList{u"P:Hel"_s, u"P:Hello th"_s, u"F:Hello there."_s}));
    for (const auto& segment : segments) {
        EXPECT_EQ(segment.speaker, Speaker::user);
        EXPECT_EQ(segment.timestampMs, ManualClock::defaultStartMs + 1500);
        EXPECT_FALSE(segment.confidence);
    }
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u);
}

TEST_F(ElevenLabsProviderTest, EveryVendorErrorMessageAsksForARestart)
{
    start();
    const auto prefix = u"ElevenLabs disconnected: ElevenLabs error: "_s;
    server.sendText(message(u"session_ended"_s));
    QStringList expected{u"ElevenLabs disconnected: ElevenLabs session ended by server"_s};
    for (const auto* type : {"error", "auth_error", "quota_exceeded", "commit_throttled", "transcriber_error",
                             "unaccepted_terms", "rate_limited", "input_error", "invalid_request", "queue_overflow",
                             "resource_exhausted", "session_time_limit_exceeded", "chunk_size_exceeded",
                             "insufficient_audio_activity"}) {
        const auto kind = QString::fromLatin1(type);
        server.sendText(message(kind, u"\"error\":\"about "_s + kind + u"\""_s));
        expected.append(prefix + u"about "_s + kind);
    }
    // Anything but a text in `error` gives the fallback.
    server.sendText(message(u"error"_s, u"\"error\":{\"code\":3,\"message\":\"nested\"}"_s));
    server.sendText(message(u"error"_s));
    server.sendText(message(u"rate_limited"_s, u"\"error\":null"_s));
    expected += QStringList(3, prefix + u"Unknown error"_s);
    server.sendText(message(u"Error"_s, u"\"error\":\"case matters\""_s));

    EXPECT_EQ(reasonsAfter(int(expected.size())), expected);
    EXPECT_EQ(server.openConnectionCount(), 1) << "the restart closes the socket, not the message";
}

TEST_F(ElevenLabsProviderTest, ReceiveAndSendFailuresRaiseExactReasons)
{
    start();
    server.close(4001, u"token expired"_s);
    EXPECT_EQ(reasonsAfter(1), QStringList{u"ElevenLabs disconnected: token expired"_s});

    audio->push({{0.1f}});
    EXPECT_EQ(reasonsAfter(1), QStringList{u"ElevenLabs disconnected: Audio send failed: token expired"_s});
}

TEST_F(ElevenLabsProviderTest, RestartKeepsTheStreamsAndTheWaitingAudio)
{
    start();
    const auto segments = provider.transcriptSegments();
    const auto recovery = provider.recoveryEvents();
    server.sendText(message(u"session_ended"_s));
    ASSERT_EQ(reasonsAfter(1).size(), 1);
    audio->push({{0.5f}}); // the old socket is still up and takes it
    ASSERT_TRUE(server.waitForFrames(1));

    start(); // waits until the old socket is closed and the new one open
    EXPECT_EQ(provider.transcriptSegments(), segments);
    EXPECT_EQ(provider.recoveryEvents(), recovery);
    audio->push({{-0.5f}});
    ASSERT_TRUE(server.waitForFrames(1));
    EXPECT_EQ(server.last().textFrames(), QStringList{chunk(u"AcA="_s)});
    server.sendText(message(u"committed_transcript"_s, u"\"text\":\"again\""_s));
    EXPECT_EQ(texts(segmentsAfter(1)), QStringList{u"F:again"_s});
    server.sendText(message(u"error"_s, u"\"error\":\"second\""_s));
    EXPECT_EQ(reasonsAfter(1), QStringList{u"ElevenLabs disconnected: ElevenLabs error: second"_s});
}

TEST_F(ElevenLabsProviderTest, StopCommitsAndRaisesNothingAfter)
{
    start();
    server.sendText(message(u"partial_transcript"_s, u"\"text\":\"open\""_s));
    segmentsAfter(1);
    awaitTask(provider.stop());
    EXPECT_TRUE(provider.transcriptSegments()->isFinished());
    EXPECT_TRUE(provider.recoveryEvents()->isFinished());
    ASSERT_TRUE(server.waitForFrames(1));
    EXPECT_EQ(server.last().textFrames(), QStringList{chunk({}, true)});
    server.sendText(message(u"session_ended"_s));
    server.sendText(message(u"committed_transcript"_s, u"\"text\":\"late\""_s));
    EXPECT_TRUE(QTest::qWaitFor([&] { return server.openConnectionCount() == 0; }, 10'000));
    clock.advance(30s);
    QTest::qWait(50);
    EXPECT_EQ(server.last().frames.size(), 1) << "no keep-alive after stop";
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u);
    EXPECT_EQ(provider.transcriptSegments()->bufferedCount(), 0u);
}

TEST_F(ElevenLabsProviderTest, BadInputIsIgnoredAndTheLoopGoesOn)
{
    start();
    server.sendText(u"not json"_s);
    server.sendText(u"[\"error\"]"_s);
    server.sendText(u"{\"message_type\": 7, \"error\":\"x\"}"_s);
    server.sendText(u"{\"message_type\": [\"error\"]}"_s);
    server.sendText(u"{\"message_type\":\"committed_transcript\",\"text\":{\"t\":\"x\"}}"_s);
    server.sendBinary(QByteArray("{\"message_type\":\"error\",\"error\":\"binary\"}"));
    server.sendBinary(QByteArray("\xff\xfe\x00\xc3\x28", 5));
    server.sendText(message(u"partial_transcript"_s, u"\"text\":\""_s + QString(10 * 1024 * 1024, u'x')));
    server.sendText(message(u"committed_transcript"_s, u"\"text\":\"still here\""_s));
    EXPECT_EQ(texts(segmentsAfter(1)), QStringList{u"F:still here"_s});
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u);
}

TEST_F(ElevenLabsProviderTest, InvalidUtf8FailsTheSocketOnceAndEmitsNothing)
{
    start();
    // The WebSocket layer must fail such a connection (close code 1007); it ends as a receive error.
    server.sendRawText("{\"message_type\":\"committed_transcript\",\"text\":\"a\xc3\x28\"}");
    EXPECT_EQ(reasonsAfter(1), QStringList{u"ElevenLabs disconnected: Invalid UTF-8 code encountered."_s});
    EXPECT_EQ(provider.transcriptSegments()->bufferedCount(), 0u);
}

TEST_F(ElevenLabsProviderTest, TodaysServiceRefusesAnExpiredTokenWithItsOwnMessageType)
{
    server.setBehaviour(FakeVendorServer::Behaviour::elevenLabsToday);
    start(u"de-DE"_s, u"expired"_s);
    EXPECT_EQ(reasonsAfter(1), QStringList{u"ElevenLabs disconnected: ElevenLabs error: Token expired"_s});

    start(u"de-DE"_s, u"fresh"_s);
    server.sendText(u"{\"message_type\":\"committed_transcript\",\"text\":\"Guten Tag.\"}"_s);
    EXPECT_EQ(texts(segmentsAfter(1)), QStringList{u"F:Guten Tag."_s});
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u) << "session_started is no failure";
}
