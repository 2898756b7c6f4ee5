// The three vendors' recognisers, each against a fake vendor on loopback. What they share
// through WebSocketSpeechProvider runs once per vendor as a typed suite fed by each vendor's
// formats; each vendor's own message rules are rows of a table that one case of the suite runs.
#include "AwaitTask.h"
#include "ClockWait.h"
#include "DeepgramProvider.h"
#include "ElevenLabsProvider.h"
#include "FakeVendorServer.h"
#include "LogCapture.h"
#include "OpenAISTTProvider.h"
#include "QtPrinters.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using Speaker = TranscriptEntry::Speaker;

namespace {
// Every vendor tags its messages with a type under a key of its own.
QString tagged(const QString& key, const QString& type, const QString& fields = {})
{
    return u"{\"%1\":\"%2\"%3}"_s.arg(key, type, fields.isEmpty() ? QString() : u","_s + fields);
}
QString event(const QString& type, const QString& fields = {})
{
    return tagged(u"type"_s, type, fields);
}
QString message(const QString& type, const QString& fields = {})
{
    return tagged(u"message_type"_s, type, fields);
}
QString field(const QString& name, const QString& value)
{
    return u"\"%1\":\"%2\""_s.arg(name, value);
}
QString results(const QString& transcript, bool isFinal, std::optional<double> confidence = {})
{
    return uR"({"type":"Results","is_final":%1,"channel":{"alternatives":[{"transcript":"%2"%3}]}})"_s
        .arg(isFinal ? u"true"_s : u"false"_s, transcript,
             confidence ? u",\"confidence\":"_s + QString::number(*confidence) : QString());
}
QString turn(const QString& name, const QString& text)
{
    return event(u"TurnInfo"_s, field(u"event"_s, name) + u","_s + field(u"transcript"_s, text));
}
QString sessionUpdate(const QString& transcription)
{
    return uR"({"type":"session.update","session":{"type":"transcription","audio":{"input":{"format":{"type":"audio/pcm",)"
           uR"("rate":24000},"noise_reduction":{"type":"near_field"},"transcription":{%1},"turn_detection":{"type":"server_vad",)"
           uR"("threshold":0.5,"prefix_padding_ms":300,"silence_duration_ms":500}}}}})"_s.arg(
               transcription);
}
QString chunk(const QString& base64, bool commit = false)
{
    return uR"({"message_type":"input_audio_chunk","audio_base_64":"%1","commit":%2,"sample_rate":16000})"_s
        .arg(base64, commit ? u"true"_s : u"false"_s);
}
const auto delta = u"conversation.item.input_audio_transcription.delta"_s;
const auto completed = u"conversation.item.input_audio_transcription.completed"_s;
const auto failed = u"conversation.item.input_audio_transcription.failed"_s;

// One start and the vendor's answer: the language setting and the token's model; the path and
// query the start must ask for and the frames it must send before any audio; then frames from
// the vendor and the segments (as `shown`), recovery reasons and log lines they must raise.
struct Session {
    QString setting;
    std::optional<QString> model;
    QString request;
    QStringList opening = {};
    QStringList frames = {};
    QStringList segments = {};
    QStringList reasons = {};
    QStringList log = {};
};

// What the suite needs to know of each vendor; a vendor restates only what differs.
using KeepAlive = std::optional<std::pair<std::chrono::milliseconds, QString>>;
struct PlainSocket {
    static constexpr auto speaker = Speaker::interviewer;
    static constexpr int openingFrames = 0;
    static constexpr bool at24k = false;
    static QStringList subprotocols() { return {}; }
    static QString token() { return u"tok-1"_s; }
    static QByteArray authorization() { return {}; }
    static QStringList requestedSubprotocols() { return {}; }
    static KeepAlive keepAlive() { return {}; }
};

struct Deepgram : PlainSocket {
    static constexpr auto name = "Deepgram";
    using Provider = DeepgramProvider;
    static QByteArray authorization() { return "Bearer tok-1"; }
    static QString partial(const QString& text) { return results(text, false); }
    static QString committed(const QString& text) { return results(text, true); }
    static QString farewell() { return u"{\"type\": \"CloseStream\"}"_s; }
    static QString audioFrame(const QByteArray& pcm)
    {
        return u"binary:"_s + QString::fromLatin1(pcm.toHex());
    }
    static KeepAlive keepAlive() { return std::pair(5000ms, u"{\"type\": \"KeepAlive\"}"_s); }
    static std::vector<Session> sessions()
    {
        const auto v1 =
            u"/v1/listen?encoding=linear16&sample_rate=16000&channels=1&interim_results=true"
            "&utterance_end_ms=1500&vad_events=true&language="_s;
        const auto end = event(u"UtteranceEnd"_s), endOfTurn = event(u"EndOfTurn"_s);
        // "auto" is no language to Deepgram: it takes the general branch as "au"; English alone
        // goes to v2. One partial is kept open; an utterance end flushes it once, without a
        // confidence, and a final or an empty end of turn closes it. On v2 only a changed text is
        // a new partial. None of Deepgram's messages ends a session.
        return {
            {u"auto"_s, u"ignored-model"_s, v1 + u"au&model=nova-3"_s},
            {u"zh-CN"_s, {}, v1 + u"zh&model=nova-2"_s},
            {u"pt-BR"_s,
             {},
             v1 + u"pt&model=nova-3"_s,
             {},
             {results(u"Tell"_s, false, 0.4), results(u"Tell me"_s, false), end, end,
              results(u"Why?"_s, true, 0.9), endOfTurn, results(u"So"_s, false),
              results(u""_s, true), endOfTurn, event(u"Error"_s)},
             {u"P:Tell@0.4"_s, u"P:Tell me"_s, u"F:Tell me"_s, u"F:Why?@0.9"_s, u"P:So"_s,
              u"F:So"_s}},
            {u"EN-us"_s,
             {},
             u"/v2/listen?model=flux-general-en&encoding=linear16&sample_rate=16000&eot_threshold=0.7&eot_timeout_ms=5000"_s,
             {},
             {event(u"Connected"_s), turn(u"StartOfTurn"_s, u"Hi"_s), turn(u"Update"_s, u"Hi"_s),
              turn(u"Update"_s, u"Hi there"_s), turn(u"EagerEndOfTurn"_s, u"Hi there"_s),
              turn(u"EndOfTurn"_s, u"Hi there."_s), turn(u"Update"_s, u"And"_s),
              turn(u"EndOfTurn"_s, u""_s), turn(u"EndOfTurn"_s, u""_s)},
             {u"P:Hi"_s, u"P:Hi there"_s, u"F:Hi there."_s, u"P:And"_s, u"F:And"_s}}};
    }
};

struct OpenAI : PlainSocket {
    static constexpr auto name = "OpenAI";
    using Provider = OpenAISTTProvider;
    static constexpr int openingFrames = 1; // the session literal
    static constexpr bool at24k = true;
    static QStringList subprotocols() { return {u"realtime"_s}; }
    static QStringList requestedSubprotocols()
    {
        return {u"realtime"_s, u"openai-insecure-api-key.tok-1"_s};
    }
    static QString partial(const QString& text) { return event(delta, field(u"delta"_s, text)); }
    static QString committed(const QString& text)
    {
        return event(completed, field(u"transcript"_s, text));
    }
    static QString farewell() { return u"{\"type\":\"input_audio_buffer.commit\"}"_s; }
    static QString audioFrame(const QByteArray& pcm)
    {
        return event(u"input_audio_buffer.append"_s,
                     field(u"audio"_s, QString::fromLatin1(pcm.toBase64())));
    }
    static std::vector<Session> sessions()
    {
        // Deltas pass on as the pieces they are; a failed item is only logged; the token's model
        // is taken unchecked.
        const auto path = u"/v1/realtime?intent=transcription"_s,
                   mini = u"\"model\":\"gpt-4o-mini-transcribe\""_s;
        return {
            {u"auto"_s,
             {},
             path,
             {sessionUpdate(mini)},
             {event(u"response.created"_s, u"\"delta\":\"no\",\"transcript\":\"no\""_s),
              partial(u"Hel"_s), partial(u"lo"_s), partial(u""_s), committed(u""_s),
              event(failed, u"\"error\":{\"message\":\"audio unreadable\"}"_s), event(failed),
              committed(u"Hello"_s)},
             {u"P:Hel"_s, u"P:lo"_s, u"F:Hello"_s},
             {},
             {u"[OpenAISTT] Transcription failed: audio unreadable"_s,
              u"[OpenAISTT] Transcription failed: Transcription failed"_s}},
            {u"PT-br"_s,
             u"gpt-4o-x"_s,
             path,
             {sessionUpdate(u"\"model\":\"gpt-4o-x\",\"language\":\"pt\""_s)},
             {event(u"error"_s,
                    u"\"error\":{\"type\":\"invalid_request_error\",\"message\":\"Bad model\"}"_s),
              event(u"error"_s, u"\"error\":\"flat text\""_s)},
             {},
             {u"OpenAI disconnected: OpenAI error: Bad model"_s,
              u"OpenAI disconnected: OpenAI error: Unknown error"_s}}};
    }
};

struct ElevenLabs : PlainSocket {
    static constexpr auto name = "ElevenLabs";
    using Provider = ElevenLabsProvider;
    static constexpr auto speaker = Speaker::user;
    // Characters a query would otherwise read as delimiters, a blank or an escape.
    static QString token() { return u"a+b/c=d&e%2F"_s; }
    static QString partial(const QString& text)
    {
        return message(u"partial_transcript"_s, field(u"text"_s, text));
    }
    static QString committed(const QString& text)
    {
        return message(u"committed_transcript"_s, field(u"text"_s, text));
    }
    static QString farewell() { return chunk({}, true); }
    static QString audioFrame(const QByteArray& pcm)
    {
        return chunk(QString::fromLatin1(pcm.toBase64()));
    }
    static KeepAlive keepAlive() { return std::pair(10'000ms, chunk({})); }
    static std::vector<Session> sessions()
    {
        const auto base =
            u"/v1/speech-to-text/realtime?token=a%2Bb%2Fc%3Dd%26e%252F&model_id=scribe_v2_realtime"
            "&audio_format=pcm_16000&commit_strategy=vad&vad_silence_threshold_secs=0.8&vad_"
            "threshold=0.35"
            "&min_silence_duration_ms=200&include_timestamps=false&include_language_detection=true"_s;
        // Without a language code the vendor detects the language itself. Every error type asks
        // for a restart and leaves the socket to it; without a text in `error` the fallback is
        // given, and the type's case matters.
        const auto prefix = u"ElevenLabs disconnected: ElevenLabs error: "_s;
        QStringList errors{message(u"session_ended"_s)};
        QStringList reasons{u"ElevenLabs disconnected: ElevenLabs session ended by server"_s};
        for (const auto& type : u"error auth_error quota_exceeded commit_throttled "
                                u"transcriber_error unaccepted_terms rate_limited "
                                "input_error invalid_request queue_overflow resource_exhausted "
                                "session_time_limit_exceeded "
                                "chunk_size_exceeded insufficient_audio_activity"_s.split(u' ')) {
            errors.append(message(type, field(u"error"_s, type)));
            reasons.append(prefix + type);
        }
        errors += {message(u"rate_limited"_s), message(u"Error"_s, field(u"error"_s, u"case"_s))};
        reasons.append(prefix + u"Unknown error"_s);
        return {{u"auto"_s,
                 u"ignored-model"_s,
                 base,
                 {},
                 {message(u"session_started"_s, field(u"session_id"_s, u"s1"_s)), partial(u"Hel"_s),
                  partial(u""_s), partial(u"Hello th"_s), committed(u""_s),
                  committed(u"Hello there."_s),
                  message(u"committed_transcript_with_timestamps"_s,
                          field(u"text"_s, u"Hello there."_s))},
                 {u"P:Hel"_s, u"P:Hello th"_s, u"F:Hello there."_s}},
                {u"PT-br"_s, {}, base + u"&language_code=pt"_s, {}, errors, {}, reasons}};
    }
};

struct VendorName {
    template<typename V>
    static std::string GetName(int)
    {
        return V::name;
    }
};

// Text frames as they are, binary ones as "binary:" and their bytes in hex.
QStringList shown(const QList<FakeVendorServer::Frame>& frames)
{
    QStringList result;
    for (const auto& frame : frames)
        result.append(frame.isText ? frame.text()
                                   : u"binary:"_s + QString::fromLatin1(frame.payload.toHex()));
    return result;
}

// "F:" for a final segment, "P:" for a partial, the text, then "@" and any confidence.
QStringList shown(const QList<TranscriptSegment>& segments)
{
    QStringList result;
    for (const auto& segment : segments)
        result.append(
            (segment.isFinal ? u"F:"_s : u"P:"_s) + segment.text
            + (segment.confidence ? u"@"_s + QString::number(*segment.confidence) : QString()));
    return result;
}
} // namespace

template<typename V>
class VendorTest : public ::testing::Test {
protected:
    void start(const QString& language = u"de-DE"_s, const QString& token = u"tok-1"_s,
               std::optional<QString> model = {})
    {
        awaitTask(provider.start(token, language, audio, std::move(model)));
        ASSERT_TRUE(server.waitForConnections(++connections));
        ASSERT_TRUE(QTest::qWaitFor([&] { return server.openConnectionCount() == 1; }, 10'000));
        ASSERT_TRUE(server.waitForFrames(V::openingFrames));
    }
    // What the latest socket carried after any opening frame.
    QStringList sent() const { return shown(server.last().frames).mid(V::openingFrames); }
    // Waits for `count` items, then takes all that have arrived.
    template<typename T>
    static QList<T> take(const std::shared_ptr<AsyncQueue<T>>& stream, int count)
    {
        EXPECT_TRUE(
            QTest::qWaitFor([&] { return stream->bufferedCount() >= std::size_t(count); }, 10'000));
        QTest::qWait(20); // and nothing more
        QList<T> taken;
        while (auto item = stream->tryNext())
            taken.append(*item);
        return taken;
    }
    QStringList segments(int count) { return shown(take(provider.transcriptSegments(), count)); }
    QStringList reasons(int count)
    {
        QStringList taken;
        for (const auto& event : take(provider.recoveryEvents(), count)) {
            EXPECT_TRUE(event.countsTowardLimit);
            taken.append(event.reason);
        }
        return taken;
    }
    // A plain TCP listener that never speaks WebSocket, as the vendor.
    QTcpServer tcp;
    void useTcpVendor()
    {
        provider.setOrigin(u"ws://127.0.0.1:"_s + QString::number(tcp.serverPort()));
    }

    FakeVendorServer server{V::subprotocols()};
    ManualClock clock;
    typename V::Provider provider{V::speaker, clock, server.origin()};
    std::shared_ptr<AudioStream> audio = std::make_shared<AudioStream>();
    int connections = 0;
};

using Vendors = ::testing::Types<Deepgram, OpenAI, ElevenLabs>;
TYPED_TEST_SUITE(VendorTest, Vendors, VendorName);

// Binary frames carry nothing, however well formed; the vendor's own final marks the end of
// what it said, so that everything before it has been read.
TYPED_TEST(VendorTest, EachStartAsksForItsSessionAndTurnsTheVendorsMessagesIntoSegmentsAndReasons)
{
    for (const auto& row : TypeParam::sessions()) {
        SCOPED_TRACE(row.setting.toStdString());
        LogCapture log;
        this->start(row.setting, TypeParam::token(), row.model);
        const auto& connection = this->server.last();
        EXPECT_EQ(connection.url.toString(QUrl::RemoveScheme | QUrl::RemoveAuthority
                                          | QUrl::FullyEncoded),
                  row.request);
        EXPECT_EQ(connection.header("Authorization"), TypeParam::authorization());
        EXPECT_EQ(connection.requestedSubprotocols, TypeParam::requestedSubprotocols());
        EXPECT_EQ(shown(connection.frames), row.opening);
        this->server.sendBinary(TypeParam::committed(u"binary"_s).toUtf8());
        for (const auto& frame : row.frames)
            this->server.sendText(frame);
        this->server.sendText(TypeParam::committed(u"end"_s));
        EXPECT_EQ(this->segments(int(row.segments.size()) + 1),
                  row.segments + QStringList{u"F:end"_s});
        EXPECT_EQ(this->reasons(0), row.reasons);
        EXPECT_EQ(log.lines(), row.log);
        EXPECT_EQ(this->server.openConnectionCount(), 1)
            << "a restart closes the socket, not the message";
    }
}

// Buffers without samples make no message; audio neither delays nor replaces a keep-alive. Stop
// sends the farewell and raises nothing after, nor flushes the open partial.
TYPED_TEST(VendorTest, AudioKeepAlivesAndTheFarewellGoOutInTurn)
{
    this->start();
    const auto keepAlive = TypeParam::keepAlive();
    const auto interval = keepAlive ? keepAlive->first : std::chrono::milliseconds(60s);
    this->clock.advance(interval - 1ms);
    this->audio->push({{0.5f, 0.5f, 0.5f}});
    this->audio->push({{}});
    this->audio->push({{0.5f}, 16000, false});
    this->audio->push({{-1.5f}});
    ASSERT_TRUE(this->server.waitForFrames(TypeParam::openingFrames + 2));
    // Three samples at 16 kHz make four at 24 kHz.
    QStringList expected{
        TypeParam::audioFrame(QByteArray("\xff\x3f").repeated(TypeParam::at24k ? 4 : 3)),
        TypeParam::audioFrame(QByteArray("\x00\x80", 2))};
    this->clock.advance(1ms);
    if (keepAlive) {
        ASSERT_TRUE(this->server.waitForFrames(TypeParam::openingFrames + 3));
        this->clock.advance(interval);
        ASSERT_TRUE(this->server.waitForFrames(TypeParam::openingFrames + 4));
        expected += {keepAlive->second, keepAlive->second};
    }
    this->server.sendText(TypeParam::partial(u"open"_s));
    this->segments(1);
    awaitTask(this->provider.stop());
    EXPECT_TRUE(this->provider.transcriptSegments()->isFinished());
    EXPECT_TRUE(this->provider.recoveryEvents()->isFinished());
    ASSERT_TRUE(this->server.waitForFrames(TypeParam::openingFrames + int(expected.size()) + 1));
    EXPECT_EQ(this->sent(), expected + QStringList{TypeParam::farewell()});
    this->server.sendText(TypeParam::committed(u"late"_s));
    EXPECT_TRUE(QTest::qWaitFor([&] { return this->server.openConnectionCount() == 0; }, 10'000));
    QTest::qWait(50);
    EXPECT_EQ(this->provider.recoveryEvents()->bufferedCount(), 0u)
        << "the close after stop is no failure";
    EXPECT_EQ(this->provider.transcriptSegments()->bufferedCount(), 0u);
}

// A buffer that waited through the restart goes out on the new socket after its opening, and the
// new socket's failures are reported too.
TYPED_TEST(VendorTest, FailuresRaiseExactReasonsAndARestartKeepsTheWaitingAudio)
{
    this->start();
    const auto prefix = QString::fromLatin1(TypeParam::name) + u" disconnected: "_s;
    this->server.close(4001, u"token expired"_s);
    EXPECT_EQ(this->reasons(1), QStringList{prefix + u"token expired"_s});
    // The old send loop takes the first buffer, fails and ends; the next waits for the new socket.
    this->audio->push({{-0.5f}});
    EXPECT_EQ(this->reasons(1), QStringList{prefix + u"Audio send failed: token expired"_s});
    this->audio->push({{0.5f}});

    this->start();
    ASSERT_TRUE(this->server.waitForFrames(TypeParam::openingFrames + 1));
    EXPECT_EQ(shown(this->server.last().frames),
              shown(this->server.connections().first().frames)
                  + QStringList{TypeParam::audioFrame("\xff\x3f")});
    this->clock.advance(1500ms);
    this->server.sendText(TypeParam::committed(u"again"_s));
    const auto again = this->take(this->provider.transcriptSegments(), 1);
    ASSERT_EQ(shown(again), QStringList{u"F:again"_s});
    EXPECT_EQ(again[0].timestampMs, ManualClock::defaultStartMs + 1500) << "stamped by the clock";
    this->server.abort();
    EXPECT_EQ(this->reasons(1), QStringList{prefix + u"The remote host closed the connection"_s});
}

using DeepgramTest = VendorTest<Deepgram>;

// The vendor closes a v2 socket on a keep-alive. A vendor that never finishes the handshake
// fails as a receive error after the clock's minute; stop's closing message waits for such a
// vendor for the clock's two seconds.
TEST_F(DeepgramTest, NoKeepAliveInEnglishAndTheHandshakeAndFarewellWaitsAreOnTheClock)
{
    start(u"en-US"_s);
    clock.advance(30s); // within the handshake's minute, which may still be running here
    QTest::qWait(50);
    EXPECT_TRUE(server.last().frames.isEmpty());

    ASSERT_TRUE(tcp.listen(QHostAddress::LocalHost, 0));
    useTcpVendor();
    const auto accept = [&] {
        awaitTask(provider.start(u"tok-1"_s, u"de-DE"_s, audio, std::nullopt));
        EXPECT_TRUE(QTest::qWaitFor([&] { return tcp.hasPendingConnections(); }, 10'000));
        return QPointer<QTcpSocket>(tcp.nextPendingConnection());
    };
    const auto closedAfter = [&](const QPointer<QTcpSocket>& socket,
                                 std::chrono::milliseconds wait) {
        return happensExactlyAfter(clock, wait, [&] {
            return !socket || socket->state() != QAbstractSocket::ConnectedState;
        });
    };
    EXPECT_TRUE(closedAfter(accept(), 60s));
    EXPECT_EQ(reasons(1), QStringList{u"Deepgram disconnected: The request timed out"_s});
    const auto stopped = accept();
    awaitTask(provider.stop());
    EXPECT_TRUE(closedAfter(stopped, 2s));
    // An origin that is no address fails the start before any socket is tried.
    provider.setOrigin(u"wss://bad host"_s);
    EXPECT_THROW(awaitTask(provider.start(u"tok-1"_s, u"de-DE"_s, audio, std::nullopt)),
                 InvalidSpeechEndpointError);
}

using OpenAITest = VendorTest<OpenAI>;

// The session literal must go out before any audio: a vendor that refuses the connection ends
// the start with the audio still waiting, and the receive loop's failure comes first.
TEST_F(OpenAITest, AnUnsentSessionLiteralEndsTheStartWithoutAudio)
{
    audio->push({{0.25f}});
    ASSERT_TRUE(tcp.listen(QHostAddress::LocalHost, 0));
    useTcpVendor();
    tcp.close();
    awaitTask(provider.start(u"tok-1"_s, u"en"_s, audio, std::nullopt));
    EXPECT_EQ(
        reasons(2),
        (QStringList{u"OpenAI disconnected: Connection refused"_s,
                     u"OpenAI disconnected: Failed to send session config: Connection refused"_s}));
    EXPECT_EQ(audio->bufferedCount(), 1u) << "no send loop took the buffer";
}
