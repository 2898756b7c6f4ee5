// The three vendors' recognisers, each against a fake vendor on loopback. What they share
// through WebSocketSpeechProvider runs once per vendor as a typed suite fed by each vendor's
// formats: the request, audio frames and keep-alives, failure reasons, restart, stop and
// hostile input. Each vendor's own message and error rules follow in its own section.
#include "ProviderTestSupport.h"
#include "QtPrinters.h"
#include "Clock.h"
#include "DeepgramProvider.h"
#include "ElevenLabsProvider.h"
#include "FakeVendorServer.h"
#include "LogCapture.h"
#include "OpenAISTTProvider.h"

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
using KeepAlive = std::optional<std::pair<std::chrono::milliseconds, QString>>;

namespace {
// Deepgram
QString results(const QString& transcript, bool isFinal, std::optional<double> confidence = {})
{
    auto alternative = u"{\"transcript\":\""_s + transcript + u"\""_s;
    if (confidence)
        alternative += u",\"confidence\":"_s + QString::number(*confidence);
    return u"{\"type\":\"Results\",\"is_final\":"_s + (isFinal ? u"true"_s : u"false"_s)
           + u",\"channel\":{\"alternatives\":["_s + alternative + u"}]}}"_s;
}

// OpenAI
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

// ElevenLabs
QString chunk(const QString& base64, bool commit = false)
{
    return u"{\"message_type\":\"input_audio_chunk\",\"audio_base_64\":\""_s + base64 + u"\",\"commit\":"_s
           + (commit ? u"true"_s : u"false"_s) + u",\"sample_rate\":16000}"_s;
}
QString message(const QString& type, const QString& fields = {})
{
    return u"{\"message_type\":\""_s + type + u"\""_s + (fields.isEmpty() ? QString() : u","_s + fields) + u"}"_s;
}

// One start and the request it must make.
struct ConnectionCase {
    QString setting;
    std::optional<QString> model;
    QString path;
    Items query;
    QStringList opening; // frames before any audio
};

// What the shared suite needs to know of each vendor; a vendor restates only what differs.
struct PlainSocket {
    static constexpr auto speaker = Speaker::interviewer;
    static constexpr int openingFrames = 0;
    static QStringList subprotocols() { return {}; }
    static QString token() { return u"tok-1"_s; }
    static QByteArray authorization() { return {}; }
    static QStringList requestedSubprotocols() { return {}; }
};

struct Deepgram : PlainSocket {
    static constexpr auto name = "Deepgram";
    using Provider = DeepgramProvider;
    static QByteArray authorization() { return "Bearer tok-1"; }
    static std::vector<ConnectionCase> connections()
    {
        const Items v1{{u"encoding"_s, u"linear16"_s}, {u"sample_rate"_s, u"16000"_s}, {u"channels"_s, u"1"_s},
                       {u"interim_results"_s, u"true"_s}, {u"utterance_end_ms"_s, u"1500"_s}, {u"vad_events"_s, u"true"_s}};
        const auto v1With = [&](const QString& language, const QString& model) {
            return v1 + Items{{u"language"_s, language}, {u"model"_s, model}};
        };
        // "auto" is no language to Deepgram: it takes the general branch as "au"; English alone goes to v2.
        return {{u"auto"_s, u"ignored-model"_s, u"/v1/listen"_s, v1With(u"au"_s, u"nova-3"_s), {}},
                {u"pt-BR"_s, {}, u"/v1/listen"_s, v1With(u"pt"_s, u"nova-3"_s), {}},
                {u"zh-CN"_s, {}, u"/v1/listen"_s, v1With(u"zh"_s, u"nova-2"_s), {}},
                {u"EN-us"_s, {}, u"/v2/listen"_s,
                 Items{{u"model"_s, u"flux-general-en"_s}, {u"encoding"_s, u"linear16"_s}, {u"sample_rate"_s, u"16000"_s},
                       {u"eot_threshold"_s, u"0.7"_s}, {u"eot_timeout_ms"_s, u"5000"_s}}, {}}};
    }
    static QString prefix() { return u"Deepgram disconnected: "_s; }
    static QString partial(const QString& text) { return results(text, false); }
    static QString committed(const QString& text) { return results(text, true); }
    static QString sessionError() { return {}; } // none of Deepgram's messages ends a session
    static QString farewell() { return u"{\"type\": \"CloseStream\"}"_s; }
    static QString audioFrame(const QByteArray& pcm) { return u"binary:"_s + QString::fromLatin1(pcm.toHex()); }
    static KeepAlive keepAlive() { return std::pair(5000ms, u"{\"type\": \"KeepAlive\"}"_s); }
    static QStringList malformed()
    {
        return {u"{\"type\": 7}"_s,
                u"{\"type\":\"Results\",\"channel\":{\"alternatives\":{}}}"_s,
                u"{\"type\":\"Results\",\"channel\":{\"alternatives\":[]}}"_s,
                u"{\"type\":\"Results\",\"channel\":{\"alternatives\":[{\"transcript\":5}]}}"_s,
                u"{\"type\":\"Error\",\"description\":\"quota\"}"_s};
    }
};

struct OpenAI : PlainSocket {
    static constexpr auto name = "OpenAI";
    using Provider = OpenAISTTProvider;
    static constexpr int openingFrames = 1; // the session literal
    static QStringList subprotocols() { return {u"realtime"_s}; }
    static QStringList requestedSubprotocols() { return {u"realtime"_s, u"openai-insecure-api-key.tok-1"_s}; }
    static std::vector<ConnectionCase> connections()
    {
        const auto row = [](const QString& setting, std::optional<QString> model, const QString& fields) {
            return ConnectionCase{setting, std::move(model), u"/v1/realtime"_s,
                                  Items{{u"intent"_s, u"transcription"_s}}, {sessionUpdate(fields)}};
        };
        const auto mini = u"\"model\":\"gpt-4o-mini-transcribe\""_s;
        return {row(u"auto"_s, {}, mini), row(u"pt-BR"_s, {}, mini + u",\"language\":\"pt\""_s),
                row(u"EN-us"_s, {}, mini + u",\"language\":\"en\""_s),
                // The token's model is taken unchecked.
                row(u"zh"_s, u"gpt-4o-transcribe-x"_s, u"\"model\":\"gpt-4o-transcribe-x\",\"language\":\"zh\""_s)};
    }
    static QString prefix() { return u"OpenAI disconnected: "_s; }
    static QString partial(const QString& text) { return event(deltaType, u"\"delta\":\""_s + text + u"\""_s); }
    static QString committed(const QString& text) { return event(completedType, u"\"transcript\":\""_s + text + u"\""_s); }
    static QString sessionError() { return event(u"error"_s, u"\"error\":{\"message\":\"late\"}"_s); }
    static QString farewell() { return u"{\"type\":\"input_audio_buffer.commit\"}"_s; }
    static QString audioFrame(const QByteArray& pcm) { return append(QString::fromLatin1(pcm.toBase64())); }
    static KeepAlive keepAlive() { return std::nullopt; }
    static QStringList malformed()
    {
        return {u"{\"type\":\"error\""_s, u"{\"type\": null, \"error\":{\"message\":\"x\"}}"_s,
                u"{\"type\": {\"name\":\"error\"}}"_s, event(deltaType, u"\"delta\":[\"x\"]"_s)};
    }
};

struct ElevenLabs : PlainSocket {
    static constexpr auto name = "ElevenLabs";
    using Provider = ElevenLabsProvider;
    static constexpr auto speaker = Speaker::user;
    // Characters a query would otherwise read as delimiters, a blank or an escape.
    static QString token() { return u"a+b/c=d&e%2F"_s; }
    static std::vector<ConnectionCase> connections()
    {
        const Items base{{u"token"_s, token()}, {u"model_id"_s, u"scribe_v2_realtime"_s},
                         {u"audio_format"_s, u"pcm_16000"_s}, {u"commit_strategy"_s, u"vad"_s},
                         {u"vad_silence_threshold_secs"_s, u"0.8"_s}, {u"vad_threshold"_s, u"0.35"_s},
                         {u"min_silence_duration_ms"_s, u"200"_s}, {u"include_timestamps"_s, u"false"_s},
                         {u"include_language_detection"_s, u"true"_s}};
        const auto path = u"/v1/speech-to-text/realtime"_s;
        const auto code = [&](const QString& language) { return base + Items{{u"language_code"_s, language}}; };
        return {{u"auto"_s, u"ignored-model"_s, path, base, {}}, // the vendor detects the language itself
                {u"pt-BR"_s, {}, path, code(u"pt"_s), {}},
                {u"EN-us"_s, {}, path, code(u"en"_s), {}},
                {u"zh"_s, {}, path, code(u"zh"_s), {}}};
    }
    static QString prefix() { return u"ElevenLabs disconnected: "_s; }
    static QString partial(const QString& text) { return message(u"partial_transcript"_s, u"\"text\":\""_s + text + u"\""_s); }
    static QString committed(const QString& text) { return message(u"committed_transcript"_s, u"\"text\":\""_s + text + u"\""_s); }
    static QString sessionError() { return message(u"session_ended"_s); }
    static QString farewell() { return chunk({}, true); }
    static QString audioFrame(const QByteArray& pcm) { return chunk(QString::fromLatin1(pcm.toBase64())); }
    static KeepAlive keepAlive() { return std::pair(10'000ms, chunk({})); }
    static QStringList malformed()
    {
        return {u"{\"message_type\": 7, \"error\":\"x\"}"_s, u"{\"message_type\": [\"error\"]}"_s,
                u"{\"message_type\":\"committed_transcript\",\"text\":{\"t\":\"x\"}}"_s};
    }
};

struct VendorName {
    template<typename V>
    static std::string GetName(int) { return V::name; }
};

// Text frames as they are, binary ones as "binary:" and their bytes in hex.
QStringList shown(const QList<FakeVendorServer::Frame>& frames)
{
    QStringList result;
    for (const auto& frame : frames)
        result.append(frame.isText ? frame.text() : u"binary:"_s + QString::fromLatin1(frame.payload.toHex()));
    return result;
}
} // namespace

template<typename V>
class VendorTest : public ProviderTest<typename V::Provider> {
protected:
    VendorTest() : ProviderTest<typename V::Provider>(V::speaker, V::subprotocols()) {}

    void start(const QString& language = u"de-DE"_s, const QString& token = u"tok-1"_s,
               std::optional<QString> model = std::nullopt)
    {
        awaitTask(this->provider.start(token, language, this->audio, std::move(model)));
        ASSERT_TRUE(this->server.waitForConnections(++this->expectedConnections));
        ASSERT_TRUE(QTest::qWaitFor([&] { return this->server.openConnectionCount() == 1; }, 10'000));
        ASSERT_TRUE(this->server.waitForFrames(V::openingFrames));
    }
    // What the latest socket carried after any opening frame.
    QStringList sent() const { return shown(this->server.last().frames).mid(V::openingFrames); }
    // Points the provider at a plain TCP listener that never speaks WebSocket.
    void useTcpVendor(QTcpServer& tcp)
    {
        ASSERT_TRUE(tcp.listen(QHostAddress::LocalHost, 0));
        this->provider.setOrigin(u"ws://127.0.0.1:"_s + QString::number(tcp.serverPort()));
    }
    // The fake holds clients to today's rules: a socket breaking them is refused.
    bool refused(const QString& pathAndQuery)
    {
        QWebSocket bare;
        bare.open(QUrl(this->server.origin() + pathAndQuery));
        return QTest::qWaitFor([&] { return bare.closeCode() == QWebSocketProtocol::CloseCodePolicyViolated; }, 10'000);
    }
};

using Vendors = ::testing::Types<Deepgram, OpenAI, ElevenLabs>;
TYPED_TEST_SUITE(VendorTest, Vendors, VendorName);

TYPED_TEST(VendorTest, LanguageAndTokenShapeTheRequest)
{
    for (const auto& row : TypeParam::connections()) {
        SCOPED_TRACE(row.setting.toStdString());
        this->start(row.setting, TypeParam::token(), row.model);
        const auto& connection = this->server.last();
        EXPECT_EQ(connection.url.path(), row.path);
        EXPECT_EQ(connection.queryItems, row.query);
        EXPECT_EQ(connection.header("Authorization"), TypeParam::authorization());
        EXPECT_EQ(connection.requestedSubprotocols, TypeParam::requestedSubprotocols());
        EXPECT_EQ(shown(connection.frames), row.opening);
    }
}

// Buffers without samples make no message; audio neither delays nor replaces a keep-alive; a
// restart ends the old socket's keep-alives.
TYPED_TEST(VendorTest, OneFrameForEachBufferWithSamplesAndKeepAlivesOnTheClock)
{
    this->start();
    const auto keepAlive = TypeParam::keepAlive();
    const auto interval = keepAlive ? keepAlive->first : std::chrono::milliseconds(60s);
    this->clock.advance(interval - 1ms);
    this->audio->push({{0.5f}});
    this->audio->push({{}});
    this->audio->push({{0.5f}, 16000, false});
    this->audio->push({{-1.5f}});
    ASSERT_TRUE(this->server.waitForFrames(TypeParam::openingFrames + 2));
    QStringList expected{TypeParam::audioFrame(QByteArray("\xff\x3f", 2)), TypeParam::audioFrame(QByteArray("\x00\x80", 2))};
    this->clock.advance(1ms);
    if (keepAlive) {
        ASSERT_TRUE(this->server.waitForFrames(TypeParam::openingFrames + 3));
        this->clock.advance(interval);
        ASSERT_TRUE(this->server.waitForFrames(TypeParam::openingFrames + 4));
        expected += {keepAlive->second, keepAlive->second};
    }
    QTest::qWait(50);
    EXPECT_EQ(this->sent(), expected);
    if (!keepAlive)
        return;

    this->start();
    this->clock.advance(interval);
    ASSERT_TRUE(this->server.waitForFrames(1));
    QTest::qWait(50);
    EXPECT_EQ(shown(this->server.connections().first().frames), expected) << "the first socket's loop ended";
}

// The streams outlive the socket: a buffer that waited through the restart goes out on the new
// socket after its opening, and the new socket's failures are reported too.
TYPED_TEST(VendorTest, FailuresRaiseExactReasonsAndARestartKeepsTheStreamsAndTheWaitingAudio)
{
    this->start();
    const auto segments = this->provider.transcriptSegments();
    const auto recovery = this->provider.recoveryEvents();
    const auto prefix = TypeParam::prefix();
    this->server.close(4001, u"token expired"_s);
    EXPECT_EQ(this->reasonsAfter(1), QStringList{prefix + u"token expired"_s});
    // The old send loop takes the first buffer, fails and ends; the next waits for the new socket.
    this->audio->push({{-0.5f}});
    EXPECT_EQ(this->reasonsAfter(1), QStringList{prefix + u"Audio send failed: token expired"_s});
    this->audio->push({{0.5f}});

    this->start();
    EXPECT_EQ(this->provider.transcriptSegments(), segments);
    EXPECT_EQ(this->provider.recoveryEvents(), recovery);
    ASSERT_TRUE(this->server.waitForFrames(TypeParam::openingFrames + 1));
    EXPECT_EQ(shown(this->server.last().frames),
              shown(this->server.connections().first().frames) + QStringList{TypeParam::audioFrame("\xff\x3f")});
    this->server.sendText(TypeParam::committed(u"again"_s));
    EXPECT_EQ(this->texts(this->segmentsAfter(1)), QStringList{u"F:again"_s});
    this->server.abort();
    EXPECT_EQ(this->reasonsAfter(1), QStringList{prefix + u"The remote host closed the connection"_s});
}

TYPED_TEST(VendorTest, StopSendsTheFarewellAndRaisesNothingAfter)
{
    this->start();
    this->server.sendText(TypeParam::partial(u"open"_s));
    this->segmentsAfter(1);
    awaitTask(this->provider.stop());
    EXPECT_TRUE(this->provider.transcriptSegments()->isFinished());
    EXPECT_TRUE(this->provider.recoveryEvents()->isFinished());
    ASSERT_TRUE(this->server.waitForFrames(TypeParam::openingFrames + 1));
    EXPECT_EQ(this->sent(), QStringList{TypeParam::farewell()});
    if (const auto error = TypeParam::sessionError(); !error.isEmpty())
        this->server.sendText(error);
    this->server.sendText(TypeParam::committed(u"late"_s));
    EXPECT_TRUE(QTest::qWaitFor([&] { return this->server.openConnectionCount() == 0; }, 10'000));
    this->clock.advance(60s);
    QTest::qWait(50);
    EXPECT_EQ(this->sent().size(), 1) << "no keep-alive after stop";
    EXPECT_EQ(this->provider.recoveryEvents()->bufferedCount(), 0u) << "the close after stop is no failure";
    EXPECT_EQ(this->provider.transcriptSegments()->bufferedCount(), 0u) << "an open partial is not flushed";
}

TYPED_TEST(VendorTest, BadInputIsIgnoredUntilInvalidUtf8FailsTheSocket)
{
    this->start();
    this->clock.advance(1500ms); // stamps the segments; no keep-alive is due yet
    for (const auto& text : TypeParam::malformed() + QStringList{u"not json"_s, u"[\"error\"]"_s})
        this->server.sendText(text);
    // Binary frames carry nothing, however well formed.
    this->server.sendBinary(TypeParam::committed(u"binary"_s).toUtf8());
    this->server.sendBinary(QByteArray("\xff\xfe\x00\xc3\x28", 5));
    this->server.sendText(TypeParam::committed(QString(10 * 1024 * 1024, u'x')).chopped(2));
    this->server.sendText(TypeParam::committed(u"still here"_s));
    // Half a character, written as a JSON escape: it cannot travel on as UTF-8.
    this->server.sendText(TypeParam::committed(u"a \\ud800b"_s));
    const auto segments = this->segmentsAfter(2);
    EXPECT_EQ(this->texts(segments), (QStringList{u"F:still here"_s, u"F:a \ufffdb"_s}));
    for (const auto& segment : segments) {
        EXPECT_EQ(segment.speaker, TypeParam::speaker);
        EXPECT_EQ(segment.timestampMs, ManualClock::defaultStartMs + 1500);
        EXPECT_FALSE(segment.confidence);
    }
    EXPECT_EQ(this->provider.recoveryEvents()->bufferedCount(), 0u);

    // The WebSocket layer must fail such a connection (close code 1007); it ends as a receive error.
    this->server.sendRawText(TypeParam::committed(u"@"_s).toUtf8().replace("@", "a\xc3\x28"));
    EXPECT_EQ(this->reasonsAfter(1), QStringList{TypeParam::prefix() + u"Invalid UTF-8 code encountered."_s});
    EXPECT_EQ(this->provider.transcriptSegments()->bufferedCount(), 0u);
}

TYPED_TEST(VendorTest, AnOriginThatMakesNoAddressFailsTheStart)
{
    this->provider.setOrigin(u"wss://bad host"_s);
    try {
        awaitTask(this->provider.start(u"tok-1"_s, u"de-DE"_s, this->audio, std::nullopt));
        ADD_FAILURE() << "the start went ahead";
    } catch (const std::exception& error) {
        EXPECT_EQ(QString::fromUtf8(error.what()), u"Invalid speech endpoint"_s);
    }
    EXPECT_EQ(this->server.connectionCount(), 0);
    EXPECT_EQ(this->provider.recoveryEvents()->bufferedCount(), 0u);
}

// ---- Deepgram

using DeepgramTest = VendorTest<Deepgram>;

TEST_F(DeepgramTest, ResultsKeepOnePartialThatUtteranceEndsFlush)
{
    start();
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
}

TEST_F(DeepgramTest, TurnInfoOnV2EmitsChangedPartialsAndFinalTurns)
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

TEST_F(DeepgramTest, StopsFarewellWaitIsOnTheClock)
{
    // A vendor that never finishes the handshake: the closing message waits for it, for the
    // clock's two seconds.
    QTcpServer silent;
    ASSERT_NO_FATAL_FAILURE(useTcpVendor(silent));
    QPointer<QTcpSocket> accepted;
    QObject::connect(&silent, &QTcpServer::newConnection, [&] { accepted = silent.nextPendingConnection(); });
    awaitTask(provider.start(u"tok-1"_s, u"de-DE"_s, audio, std::nullopt));
    ASSERT_TRUE(QTest::qWaitFor([&] { return accepted != nullptr; }, 10'000));
    awaitTask(provider.stop());
    QElapsedTimer real;
    real.start();
    clock.advance(1999ms);
    QTest::qWait(50);
    EXPECT_EQ(accepted->state(), QAbstractSocket::ConnectedState);
    clock.advance(1ms);
    EXPECT_TRUE(QTest::qWaitFor([&] { return !accepted || accepted->state() != QAbstractSocket::ConnectedState; }, 1000));
    EXPECT_LT(real.elapsed(), 1500);
}

TEST_F(DeepgramTest, TodaysServiceKeepsTheV2SocketOpenWithoutKeepAlives)
{
    server.setBehaviour(FakeVendorServer::Behaviour::deepgramToday);
    start(u"en-US"_s);
    audio->push({{0.1f}});
    ASSERT_TRUE(server.waitForFrames(1));
    clock.advance(60s); // the v2 socket is closed by the vendor on a keep-alive
    QTest::qWait(50);
    EXPECT_EQ(server.last().frames.size(), 1);
    server.sendText(u"{\"type\":\"TurnInfo\",\"event\":\"EndOfTurn\",\"transcript\":\"Hello.\"}"_s);
    EXPECT_EQ(texts(segmentsAfter(1)), QStringList{u"F:Hello."_s});
    EXPECT_EQ(server.openConnectionCount(), 1);
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u);
    EXPECT_TRUE(refused(u"/v2/listen?model=flux-general-en&channels=1"_s)) << "v1 query keys on v2";
}

// ---- OpenAI

using OpenAITest = VendorTest<OpenAI>;

TEST_F(OpenAITest, DeltasPassOnAsPiecesAndFailuresAreOnlyLogged)
{
    LogCapture log;
    start();
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
    EXPECT_EQ(texts(segmentsAfter(3)), (QStringList{u"P:Hel"_s, u"P:lo"_s, u"F:Hello"_s}));
    EXPECT_EQ(log.lines(), (QStringList{u"[OpenAISTT] Transcription failed: audio unreadable"_s,
                                        u"[OpenAISTT] Transcription failed: Transcription failed"_s}));
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u) << "a failed item is no failure of the session";
}

TEST_F(OpenAITest, ErrorsRaiseExactReasons)
{
    start();
    server.sendText(event(u"error"_s, u"\"error\":{\"type\":\"invalid_request_error\",\"message\":\"Bad model\"}"_s));
    server.sendText(event(u"error"_s, u"\"error\":{\"message\":7}"_s));
    server.sendText(event(u"error"_s, u"\"error\":\"flat text\""_s));
    server.sendText(event(u"error"_s));
    const auto unknown = u"OpenAI disconnected: OpenAI error: Unknown error"_s;
    EXPECT_EQ(reasonsAfter(4), (QStringList{u"OpenAI disconnected: OpenAI error: Bad model"_s, unknown, unknown, unknown}));
}

// The session literal must go out before any audio: a vendor refused or silent ends the start
// with the audio still waiting, and the receive loop's failure comes first.
TEST_F(OpenAITest, AnUnsentSessionLiteralEndsTheStartWithoutAudio)
{
    audio->push({{0.25f}});
    QTcpServer closed;
    ASSERT_NO_FATAL_FAILURE(useTcpVendor(closed));
    closed.close();
    awaitTask(provider.start(u"tok-1"_s, u"en"_s, audio, std::nullopt));
    EXPECT_EQ(reasonsAfter(2), (QStringList{u"OpenAI disconnected: Connection refused"_s,
                                            u"OpenAI disconnected: Failed to send session config: Connection refused"_s}));
    EXPECT_EQ(audio->bufferedCount(), 1u) << "no send loop took the buffer";

    // Takes the connection and never answers the upgrade: the handshake times out after a minute.
    QTcpServer silent;
    ASSERT_NO_FATAL_FAILURE(useTcpVendor(silent));
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
    EXPECT_TRUE(reasons[1].startsWith(u"OpenAI disconnected: Failed to send session config: "_s)) << reasons[1].toStdString();
    EXPECT_EQ(audio->bufferedCount(), 1u);
}

TEST_F(OpenAITest, TodaysServiceAcceptsTheTranscriptionSession)
{
    server.setBehaviour(FakeVendorServer::Behaviour::openAIToday);
    // Audio already waiting follows the literal; three frames make four samples at 24 kHz.
    audio->push({{0.5f, 0.5f, 0.5f}});
    start();
    ASSERT_TRUE(server.waitForFrames(2));
    EXPECT_EQ(server.last().textFrames().last(), append(u"/z//P/8//z8="_s));
    server.sendText(OpenAI::committed(u"Hallo."_s));
    EXPECT_EQ(texts(segmentsAfter(1)), QStringList{u"F:Hallo."_s});
    EXPECT_EQ(server.openConnectionCount(), 1);
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u) << "no error and no refusal";
    EXPECT_TRUE(refused(u"/v1/realtime"_s)) << "a socket without the intent";
}

// ---- ElevenLabs

using ElevenLabsTest = VendorTest<ElevenLabs>;

TEST_F(ElevenLabsTest, OnlyNonEmptyTranscriptTextsBecomeSegments)
{
    start();
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
    EXPECT_EQ(texts(segmentsAfter(3)), (QStringList{u"P:Hel"_s, u"P:Hello th"_s, u"F:Hello there."_s}));
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u);
}

TEST_F(ElevenLabsTest, EveryVendorErrorMessageAsksForARestart)
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

TEST_F(ElevenLabsTest, TodaysServiceRefusesAnExpiredTokenWithItsOwnMessageType)
{
    server.setBehaviour(FakeVendorServer::Behaviour::elevenLabsToday);
    start(u"de-DE"_s, u"expired"_s);
    EXPECT_EQ(reasonsAfter(1), QStringList{u"ElevenLabs disconnected: ElevenLabs error: Token expired"_s});

    start(u"de-DE"_s, u"fresh"_s); // and the restart closes the refused socket
    server.sendText(ElevenLabs::committed(u"Guten Tag."_s));
    EXPECT_EQ(texts(segmentsAfter(1)), QStringList{u"F:Guten Tag."_s});
    EXPECT_EQ(provider.recoveryEvents()->bufferedCount(), 0u) << "session_started is no failure";
}
