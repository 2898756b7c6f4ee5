// The built-in recogniser's listen socket, over loopback with Qt's own WebSocket client: who it
// lets in, how many and for how long, and a client gone mid-phrase. (The whole-product test
// speaks to it through the program, on two sockets at once, each hearing its own speaker.)
#include "ServerHarness.h"

#include "ClockWait.h"
#include "ListenChannel.h"
#include "SpeechTokens.h"
#include "SpokenAudio.h"

#include <QNetworkRequest>
#include <QWebSocket>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

const auto proudQuestion = u"Tell me about a project you are proud of"_s;
// What the program asks for with "Auto Detect" (version 1) and with English (version 2).
const auto autoDetectPath =
    u"/v1/listen?encoding=linear16&sample_rate=16000&channels=1&interim_results=true"
    u"&utterance_end_ms=1500&vad_events=true&language=au&model=nova-3"_s;
const auto englishPath = u"/v2/listen?model=flux-general-en&encoding=linear16&sample_rate=16000"
                         u"&eot_threshold=0.7&eot_timeout_ms=5000"_s;
constexpr int decodeTimeoutMs = 90'000;
const auto closeStream = u"{\"type\": \"CloseStream\"}"_s;

// One client socket and everything the server said on it.
struct ListenClient {
    ListenClient(const QString& url, const QByteArray& authorization)
    {
        QObject::connect(&socket, &QWebSocket::connected, [this] { wasConnected = true; });
        QObject::connect(&socket, &QWebSocket::disconnected, [this] { isClosed = true; });
        QObject::connect(&socket, QOverload<QAbstractSocket::SocketError>::of(&QWebSocket::error),
                         [this] { isClosed = true; });
        QObject::connect(&socket, &QWebSocket::textMessageReceived, [this](const QString& text) {
            const auto message = QJsonDocument::fromJson(text.toUtf8()).object();
            types << message[u"type"_s].toString()
                         + (message[u"is_final"_s].toBool() ? u"!"_s : u""_s);
            if (types.last() == u"Results!"_s)
                finals << message[u"channel"_s][u"alternatives"_s][0][u"transcript"_s].toString();
        });
        QNetworkRequest request{QUrl(url)};
        if (!authorization.isEmpty())
            request.setRawHeader("Authorization", authorization);
        socket.open(request);
    }
    bool waitConnected()
    {
        return waitUntil([this] { return wasConnected || isClosed; }) && wasConnected;
    }
    // In frames of `frameBytes`, as fast as the socket takes them.
    void sendAudio(const QByteArray& pcm, qsizetype frameBytes)
    {
        for (qsizetype offset = 0; offset < pcm.size(); offset += frameBytes)
            socket.sendBinaryMessage(pcm.mid(offset, frameBytes));
    }

    QWebSocket socket;
    bool wasConnected = false, isClosed = false;
    // Each message's type, "!" added to a final result; the finals' texts.
    QStringList types, finals;
};

} // namespace

class ListenChannelTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!SpeechTokens::isBuiltInRecognizerInstalled())
            GTEST_SKIP() << "PocketSphinx's English model is not installed";
        if (const auto tool = SpokenAudio::missingTool(); !tool.isEmpty())
            GTEST_SKIP() << tool.toStdString() << " is not installed: no speech to recognise";
        bearer = "Bearer " + server.accounts->issueSpeechToken(account.id).toLatin1();
    }
    // Every socket's thread has ended by the end of a test.
    void TearDown() override
    {
        EXPECT_TRUE(waitUntil([] { return ListenChannel::openCount() == 0; }));
    }
    auto open(const QString& path, const QByteArray& authorization)
    {
        return std::make_unique<ListenClient>(server.base().replace(u"http"_s, u"ws"_s) + path,
                                              authorization);
    }

    ServerHarness server;
    const ServerHarness::Account account = server.signUp();
    QByteArray bearer;
};

// Bad tokens and requests are refused before any decoder loads; a client that is gone without
// closing its connection sends nothing more, so a socket quiet for the idle limit is closed.
TEST_F(ListenChannelTest, LetsInOnlySpeechTokensUpToItsLimitAndClosesASocketLeftQuiet)
{
    // No token, an access token, the vendor's scheme (a speech token's own lifetime and signature
    // are the token route's suite; addresses it cannot serve, the listen frames fuzz target's).
    for (const QByteArray& authorization :
         {QByteArray(), "Bearer " + account.accessToken.toLatin1(), "Token " + bearer.mid(7)}) {
        EXPECT_FALSE(open(autoDetectPath, authorization)->waitConnected())
            << authorization.constData();
        EXPECT_EQ(ListenChannel::openCount(), 0);
    }
    // As many sockets at once as one user may hold; past that one is refused, and another user
    // still gets one.
    std::vector<std::unique_ptr<ListenClient>> held;
    for (int i = 0; i < ServerConfig{}.quotas.listenSockets; ++i) {
        held.push_back(open(autoDetectPath, bearer));
        EXPECT_TRUE(held.back()->waitConnected());
    }
    EXPECT_FALSE(open(autoDetectPath, bearer)->waitConnected());
    const auto otherUser = server.accounts->issueSpeechToken(server.signUp().id).toLatin1();
    EXPECT_TRUE(open(autoDetectPath, "Bearer " + otherUser)->waitConnected());
    held.clear();
    ASSERT_TRUE(waitUntil([] { return ListenChannel::openCount() == 0; }));

    auto quiet = open(englishPath, bearer);
    ASSERT_TRUE(quiet->waitConnected());
    ASSERT_TRUE(waitUntil([] { return ListenChannel::openCount() == 1; }));
    const std::chrono::milliseconds idleLimit(ListenChannel::idleLimitMs);
    EXPECT_TRUE(happensExactlyAfter(server.clock, idleLimit, [&] {
        return quiet->isClosed && ListenChannel::openCount() == 0;
    }));

    // Audio sent ahead of real time is not queued without end: a head start, then at most
    // twenty times real time; past that the socket is closed.
    const auto second = ListenChannel::audioBytesPerSecond;
    auto hasty = open(englishPath, bearer);
    ASSERT_TRUE(hasty->waitConnected());
    hasty->sendAudio(QByteArray((ListenChannel::headStartSeconds - 1) * second, '\0'), second);
    server.clock.advance(std::chrono::seconds(1));
    hasty->sendAudio(QByteArray(ListenChannel::maxSpeedUp * second, '\0'), second);
    EXPECT_FALSE(waitUntil([&] { return hasty->isClosed; }, 300));
    hasty->sendAudio(QByteArray(2 * second, '\0'), second);
    EXPECT_TRUE(waitUntil([&] { return hasty->isClosed && ListenChannel::openCount() == 0; }));
}

// One client ends its stream and hears the phrase, then a final summary, and the server closes;
// another is gone after its first partial, with seconds of audio still to decode.
TEST_F(ListenChannelTest, CloseStreamEndsWithASummaryAndAClientGoneMidPhraseEndsItsDecoder)
{
    const auto speech = SpokenAudio::speak(proudQuestion);
    ASSERT_TRUE(speech);
    auto finishing = open(autoDetectPath, bearer);
    ASSERT_TRUE(finishing->waitConnected());
    finishing->sendAudio(*speech, 3'200);
    finishing->socket.sendTextMessage(closeStream);
    ASSERT_TRUE(waitUntil([&] { return finishing->isClosed; }, decodeTimeoutMs));
    EXPECT_TRUE(finishing->types.contains(u"Results!"_s)
                && finishing->types.last() == u"Metadata"_s)
        << finishing->types.join(u' ').toStdString();
    EXPECT_GE(2 * SpokenAudio::wordsHeard(proudQuestion, finishing->finals.join(u' ')),
              proudQuestion.count(u' ') + 1)
        << finishing->finals.join(u' ').toStdString();

    auto vanishing = open(autoDetectPath, bearer);
    ASSERT_TRUE(vanishing->waitConnected());
    vanishing->sendAudio(*speech + *speech + *speech, 3'200);
    ASSERT_TRUE(waitUntil([&] { return !vanishing->types.filter(u"Results"_s).isEmpty(); },
                          decodeTimeoutMs));
    vanishing->socket.abort();
    EXPECT_TRUE(waitUntil([] { return ListenChannel::openCount() == 0; }))
        << "the decoder's thread ends with its socket";
    EXPECT_EQ(curl({server.base() + u"/health"_s}).status, 200);
    EXPECT_TRUE(open(englishPath, bearer)->waitConnected());
}
