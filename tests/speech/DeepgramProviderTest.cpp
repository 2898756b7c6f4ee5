#include "ProviderTestSupport.h"
#include "QtPrinters.h"
#include "Clock.h"
#include "DeepgramProvider.h"
#include "FakeVendorServer.h"

#include <QElapsedTimer>
#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QWebSocket>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using Speaker = TranscriptEntry::Speaker;
using Items = QList<std::pair<QString, QString>>;

class DeepgramProviderTest : public ProviderTest<DeepgramProvider> {
protected:
    DeepgramProviderTest() : ProviderTest(Speaker::interviewer) {}

    void start(const QString& language = u"de-DE"_s)
    {
        awaitTask(provider.start(u"tok-1"_s, language, audio, u"ignored-model"_s));
        ASSERT_TRUE(server.waitForConnections(++expectedConnections));
        ASSERT_TRUE(QTest::qWaitFor([&] { return server.openConnectionCount() == 1; }, 10'000));
    }
    static QString results(const QString& transcript, bool isFinal, std::optional<double> confidence = {})
    {
        auto alternative = u"{\"transcript\":\""_s + transcript + u"\""_s;
        if (confidence)
            alternative += u",\"confidence\":"_s + QString::number(*confidence);
        return u"{\"type\":\"Results\",\"is_final\":"_s + (isFinal ? u"true"_s : u"false"_s)
               + u",\"channel\":{\"alternatives\":["_s + alternative + u"}]}}"_s;
    }
};

namespace {
struct LanguageCase {
    const char* name;
    QString setting;
    QString path;
    Items items;
};
} // namespace

class DeepgramConnectionTest : public DeepgramProviderTest, public ::testing::WithParamInterface<LanguageCase> {};

TEST_P(DeepgramConnectionTest, LanguageChoosesBranchAndQuery)
{
    start(GetParam().setting);
    const auto& connection = server.last();
    EXPECT_EQ(connection.url.path(), GetParam().path);
    EXPECT_EQ(connection.queryItems, GetParam().items);
    EXPECT_EQ(connection.header("Authorization"), "Bearer tok-1");
    EXPECT_TRUE(connection.requestedSubprotocols.isEmpty());
}

const Items v1Base{{u"encoding"_s, u"linear16"_s}, {u"sample_rate"_s, u"16000"_s}, {u"channels"_s, u"1"_s},
                   {u"interim_results"_s, u"true"_s}, {u"utterance_end_ms"_s, u"1500"_s}, {u"vad_events"_s, u"true"_s}};

INSTANTIATE_TEST_SUITE_P(
    DeepgramLanguages, DeepgramConnectionTest,
    ::testing::Values(
        LanguageCase{"Auto", u"auto"_s, u"/v1/listen"_s, v1Base + Items{{u"language"_s, u"au"_s}, {u"model"_s, u"nova-3"_s}}},
        LanguageCase{"PtBR", u"pt-BR"_s, u"/v1/listen"_s, v1Base + Items{{u"language"_s, u"pt"_s}, {u"model"_s, u"nova-3"_s}}},
        LanguageCase{"Chinese", u"zh-CN"_s, u"/v1/listen"_s, v1Base + Items{{u"language"_s, u"zh"_s}, {u"model"_s, u"nova-2"_s}}},
        LanguageCase{"EnglishAnyCase", u"EN-us"_s, u"/v2/listen"_s,
                     Items{{u"model"_s, u"flux-general-en"_s}, {u"encoding"_s, u"linear16"_s}, {u"sample_rate"_s, u"16000"_s},
                           {u"eot_threshold"_s, u"0.7"_s}, {u"eot_timeout_ms"_s, u"5000"_s}}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(DeepgramProviderTest, OneBinaryFrameForEachBufferWithSamples)
{
    start();
    audio->push({{1.0f, -1.0f, 1.5f}});
    audio->push({{}});                      // no frames: no message
    audio->push({{0.5f}, 16000, false});    // no float data: no message
    audio->push({{-1.5f}});
    ASSERT_TRUE(server.waitForFrames(2));
    QTest::qWait(50);
    EXPECT_EQ(server.last().binaryFrames(),
              (QList<QByteArray>{QByteArray("\xff\x7f\x01\x80\xff\x7f", 6), QByteArray("\x00\x80", 2)}));
    EXPECT_TRUE(server.last().textFrames().isEmpty());
}

TEST_F(DeepgramProviderTest, KeepAliveEveryFiveSecondsOnV1AndNeverOnV2)
{
    start();
    clock.advance(4999ms);
    QTest::qWait(50);
    EXPECT_TRUE(server.last().frames.isEmpty());
    clock.advance(1ms);
    ASSERT_TRUE(server.waitForFrames(1));
    EXPECT_EQ(server.last().textFrames(), QStringList{u"{\"type\": \"KeepAlive\"}"_s});
    clock.advance(5s);
    ASSERT_TRUE(server.waitForFrames(2));

    start(u"en-US"_s);
    clock.advance(60s);
    QTest::qWait(50);
    EXPECT_TRUE(server.last().frames.isEmpty()) << "the v2 socket is closed by the vendor on a keep-alive";
    EXPECT_EQ(server.connections().first().frames.size(), 2) << "the first socket's loop ended with the restart";
}

TEST_F(DeepgramProviderTest, ResultsKeepOnePartialThatUtteranceEndsFlush)
{
    start();
    clock.advance(1234ms);
    server.sendText(results(u"Tell"_s, false, 0.4));
    server.sendText(results(u"Tell me"_s, false));
    server.sendText(u"{\"type\":\"UtteranceEnd\"}"_s);
    server.sendText(u"{\"type\":\"UtteranceEnd\"}"_s); // nothing open any more
    server.sendText(results(u"Why?"_s, true, 0.9));
    server.sendText(u"{\"type\":\"EndOfTurn\"}"_s);   // the final cleared the partial
    server.sendText(results(u"So"_s, false));
    server.sendText(results(u""_s, true));            // empty: ignored, the partial stays
    server.sendText(u"{\"type\":\"EndOfTurn\"}"_s);
    const auto segments = segmentsAfter(6);
    EXPECT_EQ(texts(segments), (QStringList{u"P:Tell"_s, u"P:Tell me"_s, u"F:Tell me"_s, u"F:Why?"_s, u"P:So"_s, u"F:So"_s}));
    EXPECT_EQ(segments[0].confidence, 0.4);
    EXPECT_FALSE(segments[1].confidence);
    EXPECT_FALSE(segments[2].confidence) << "a flushed partial carries no confidence";
    EXPECT_EQ(segments[3].confidence, 0.9);
    for (const auto& segment : segments) {
        EXPECT_EQ(segment.speaker, Speaker::interviewer);
        EXPECT_EQ(segment.timestampMs, ManualClock::defaultStartMs + 1234);
    }
}

TEST_F(DeepgramProviderTest, TurnInfoOnV2EmitsChangedPartialsAndFinalTurns)
{
    start(u"en-GB"_s);
    const auto turn = [](const QString& event, const QString& transcript) {
        return u"{\"type\":\"TurnInfo\",\"event\":\""_s + event + u"\",\"transcript\":\""_s + transcript + u"\"}"_s;
    };
    server.sendText(u"{\"type\":\"Connected\"}"_s);
    server.sendText(turn(u"StartOfTurn"_s, u"Hi"_s));
    server.sendText(turn(u"Update"_s, u"Hi"_s)); // a repeat says nothing new
    server.sendText(turn(u"Update"_s, u"Hi there"_s));
    server.sendText(turn(u"EagerEndOfTurn"_s, u"Hi there"_s));
    server.sendText(turn(u"EndOfTurn"_s, u"Hi there."_s));
    server.sendText(turn(u"Update"_s, u"And"_s));
    server.sendText(turn(u"EndOfTurn"_s, u""_s)); // an empty end still closes the open partial
    server.sendText(turn(u"EndOfTurn"_s, u""_s));
    EXPECT_EQ(texts(segmentsAfter(5)), (QStringList{u"P:Hi"_s, u"P:Hi there"_s, u"F:Hi there."_s, u"P:And"_s, u"F:And"_s}));
}

TEST_F(DeepgramProviderTest, BadInputIsIgnoredAndTheLoopGoesOn)
{
    start();
    server.sendText(u"not json"_s);
    server.sendText(u"[\"Results\"]"_s);
    server.sendText(u"{\"type\": 7}"_s);
    server.sendText(u"{\"type\":\"Results\",\"channel\":{\"alternatives\":{}}}"_s);
    server.sendText(u"{\"type\":\"Results\",\"channel\":{\"alternatives\":[]}}"_s);
    server.sendText(u"{\"type\":\"Results\",\"channel\":{\"alternatives\":[{\"transcript\":5}]}}"_s);
    server.sendText(u"{\"type\":\"Error\",\"description\":\"quota\"}"_s);
    server.sendBinary(QByteArray("\xff\xfe\x00{\"type\":\"Results\"}", 20));
    server.sendText(u"{\"type\":\"Results\",\"channel\":{\"alternatives\":[{\"transcript\":\""_s + QString(10 * 1024 * 1024, u'x'));
    server.sendText(results(u"still here"_s, true));
    // Half a character, written as a JSON escape: it cannot travel on as UTF-8.
    server.sendText(results(u"a \\ud800b"_s, true));
    EXPECT_EQ(texts(segmentsAfter(2)), (QStringList{u"F:still here"_s, u"F:a \ufffdb"_s}));
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u);
}

TEST_F(DeepgramProviderTest, ReceiveAndSendFailuresRaiseExactReasons)
{
    start();
    server.close(4001, u"token expired"_s);
    ASSERT_TRUE(QTest::qWaitFor([&] { return provider.recoveryEvents()->bufferedCount() == 1; }, 10'000));
    const auto received = provider.recoveryEvents()->tryNext();
    EXPECT_EQ(received->reason, u"Deepgram disconnected: token expired"_s);
    EXPECT_TRUE(received->countsTowardLimit);

    audio->push({{0.1f}});
    ASSERT_TRUE(QTest::qWaitFor([&] { return provider.recoveryEvents()->bufferedCount() == 1; }, 10'000));
    EXPECT_TRUE(provider.recoveryEvents()->tryNext()->reason.startsWith(u"Deepgram disconnected: Audio send failed: "_s));
}

TEST_F(DeepgramProviderTest, RestartKeepsTheStreamsAndTheWaitingAudio)
{
    start();
    const auto segments = provider.transcriptSegments();
    const auto recovery = provider.recoveryEvents();
    server.abort();
    ASSERT_TRUE(QTest::qWaitFor([&] { return recovery->bufferedCount() == 1; }, 10'000));
    // The send loop takes the first buffer, fails on the dead socket and ends; the next one
    // waits in the stream for the new socket.
    audio->push({{0.25f}});
    ASSERT_TRUE(QTest::qWaitFor([&] { return recovery->bufferedCount() == 2; }, 10'000));
    audio->push({{0.5f}});

    start();
    EXPECT_EQ(provider.transcriptSegments(), segments);
    EXPECT_EQ(provider.recoveryEvents(), recovery);
    ASSERT_TRUE(server.waitForFrames(1));
    EXPECT_EQ(server.last().binaryFrames(), QList<QByteArray>{AudioFraming::pcm16({0.5f})});
    server.sendText(results(u"again"_s, true));
    EXPECT_EQ(texts(segmentsAfter(1)), QStringList{u"F:again"_s});
}

TEST_F(DeepgramProviderTest, StopClosesTheStreamAndRaisesNothingAfter)
{
    start();
    server.sendText(results(u"open"_s, false));
    segmentsAfter(1);
    awaitTask(provider.stop());
    EXPECT_TRUE(provider.transcriptSegments()->isFinished());
    EXPECT_TRUE(provider.recoveryEvents()->isFinished());
    ASSERT_TRUE(server.waitForFrames(1));
    EXPECT_EQ(server.last().textFrames(), QStringList{u"{\"type\": \"CloseStream\"}"_s});
    EXPECT_TRUE(QTest::qWaitFor([&] { return server.openConnectionCount() == 0; }, 10'000));
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u) << "the close after stop is no failure";
    EXPECT_EQ(provider.transcriptSegments()->bufferedCount(), 0u) << "an open partial is not flushed by stop";
}

TEST_F(DeepgramProviderTest, AnOriginThatMakesNoAddressFailsTheStart)
{
    provider.setOrigin(u"wss://bad host"_s);
    try {
        awaitTask(provider.start(u"tok-1"_s, u"de-DE"_s, audio, std::nullopt));
        ADD_FAILURE() << "the start went ahead";
    } catch (const std::exception& error) {
        EXPECT_EQ(QString::fromUtf8(error.what()), u"Invalid speech endpoint"_s);
    }
    EXPECT_EQ(server.connectionCount(), 0);
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u);
}

TEST_F(DeepgramProviderTest, StopsFarewellWaitIsOnTheClock)
{
    // A vendor that never finishes the handshake: the closing message waits for it, for the
    // clock's two seconds.
    QTcpServer silent;
    ASSERT_TRUE(silent.listen(QHostAddress::LocalHost, 0));
    QPointer<QTcpSocket> accepted;
    QObject::connect(&silent, &QTcpServer::newConnection, [&] { accepted = silent.nextPendingConnection(); });
    provider.setOrigin(u"ws://127.0.0.1:"_s + QString::number(silent.serverPort()));
    awaitTask(provider.start(u"tok-1"_s, u"de-DE"_s, audio, std::nullopt));
    ASSERT_TRUE(QTest::qWaitFor([&] { return accepted != nullptr; }, 10'000));
    awaitTask(provider.stop());
    QTest::qWait(50);
    EXPECT_EQ(accepted->state(), QAbstractSocket::ConnectedState);

    QElapsedTimer real;
    real.start();
    clock.advance(1999ms);
    QTest::qWait(50);
    EXPECT_EQ(accepted->state(), QAbstractSocket::ConnectedState);
    clock.advance(1ms);
    EXPECT_TRUE(QTest::qWaitFor([&] { return !accepted || accepted->state() != QAbstractSocket::ConnectedState; }, 1000));
    EXPECT_LT(real.elapsed(), 1500);
}

TEST_F(DeepgramProviderTest, TodaysV2ServiceKeepsTheEnglishSocketOpen)
{
    server.setBehaviour(FakeVendorServer::Behaviour::deepgramToday);
    start(u"en-US"_s);
    audio->push({{0.1f}});
    ASSERT_TRUE(server.waitForFrames(1));
    clock.advance(60s); // no keep-alive may go out on v2
    QTest::qWait(50);
    EXPECT_EQ(server.last().frames.size(), 1);
    server.sendText(u"{\"type\":\"TurnInfo\",\"event\":\"EndOfTurn\",\"transcript\":\"Hello.\"}"_s);
    EXPECT_EQ(texts(segmentsAfter(1)), QStringList{u"F:Hello."_s});
    EXPECT_EQ(server.openConnectionCount(), 1);
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u);

    // The fake holds clients to today's rules: v1 query keys on v2 are refused.
    QWebSocket bare;
    bare.open(QUrl(server.origin() + u"/v2/listen?model=flux-general-en&channels=1"_s));
    EXPECT_TRUE(QTest::qWaitFor([&] { return bare.closeCode() == QWebSocketProtocol::CloseCodePolicyViolated; }, 10'000));
    ++expectedConnections;

    // v1 keeps its keep-alive.
    start(u"fr-FR"_s);
    audio->push({{0.1f}});
    ASSERT_TRUE(server.waitForFrames(1)); // connected
    clock.advance(5s);
    ASSERT_TRUE(server.waitForFrames(2));
    QTest::qWait(50);
    EXPECT_EQ(server.openConnectionCount(), 1);
}
