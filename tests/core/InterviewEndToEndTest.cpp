// A whole interview over real sockets on loopback, in real time: what reaches each vendor socket,
// the answer request and the delivery of the lines, which the faked interviews cannot see.

#include "LoopbackRig.h"

#include "AwaitTask.h"
#include "Clock.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>
#include <QWebSocket>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

using Speaker = TranscriptEntry::Speaker;
using Reaction = FakeTranscriptChannel::Reaction;

constexpr int deadlineMs = 10'000;

bool waitFor(const std::function<bool()>& condition)
{
    return QTest::qWaitFor(condition, deadlineMs);
}

QJsonObject bodyOf(const FakeBackend::Request& request)
{
    return QJsonDocument::fromJson(request.body).object();
}

// Deepgram's v1 result message (German interviews take the v1 socket).
QString finalResult(const QString& transcript, double confidence)
{
    const QJsonObject alternative{{u"transcript"_s, transcript}, {u"confidence"_s, confidence}};
    return QString::fromUtf8(
        compactJson({{u"type"_s, u"Results"_s},
                     {u"is_final"_s, true},
                     {u"channel"_s, QJsonObject{{u"alternatives"_s, QJsonArray{alternative}}}}}));
}

} // namespace

class InterviewEndToEndTest : public ::testing::Test, public LoopbackRig<SystemClock> {
protected:
    InterviewEndToEndTest() { settings.setInputLanguage(u"de-DE"_s); }

    // What the vendor saw on the socket opened with this speech token.
    const FakeVendorServer::Connection* vendorConnection(const QByteArray& speechToken) const
    {
        for (const auto& connection : vendor.connections()) {
            if (connection.header("Authorization") == "Bearer " + speechToken)
                return &connection;
        }
        return nullptr;
    }

    // The vendor says `text` on the socket of `speechToken` and the transcript takes it in.
    void say(const QByteArray& speechToken, const QString& text, double confidence)
    {
        QSignalSpy changed(&vm.transcriptManager(), &TranscriptManager::entriesChanged);
        const auto* connection = vendorConnection(speechToken);
        ASSERT_TRUE(connection && connection->socket);
        connection->socket->sendTextMessage(finalResult(text, confidence));
        ASSERT_TRUE(changed.wait(deadlineMs)) << "no transcript line for " << text.toStdString();
    }
};

TEST_F(InterviewEndToEndTest, AudioBecomesTranscriptAnswerAndDeliveredLines)
{
    // The server keeps the interviewer's lines and never acknowledges the user's.
    channelServer.setFrameRule([](const FakeTranscriptChannel::Frame& frame) {
        return frame.json().value(u"speaker"_s) == u"user"_s ? Reaction::ignore : Reaction::ack;
    });
    QElapsedTimer elapsed;
    elapsed.start();
    awaitTask(vm.startInterview(), deadlineMs);
    ASSERT_TRUE(vm.isRecording());
    ASSERT_TRUE(waitFor([&] {
        return vendor.openConnectionCount() == 2 && channelServer.openConnectionCount() == 1;
    }));
    EXPECT_EQ(bodyOf(backend.requests("POST", "/api/v1/interview/session").value(0)),
              (QJsonObject{{u"languageInput"_s, u"de-DE"_s}, {u"languageOutput"_s, u"en"_s}}));
    EXPECT_EQ(backend.requests("GET", "/api/v1/speech/token").value(0).header("Authorization"),
              "Bearer access-1");
    EXPECT_EQ(channelServer.connections().value(0).query, u"token=access-1&sessionId=session-1"_s);

    // Each source's audio reaches its own channel's socket, the interviewer's on the first token.
    const std::vector<float> interviewerAudio{0.5f, -0.25f, 1.0f};
    const std::vector<float> userAudio{-1.0f, 0.125f};
    systemAudio.play(interviewerAudio);
    microphone.play(userAudio);
    ASSERT_TRUE(vendorConnection("speech-1") && vendorConnection("speech-2"));
    ASSERT_TRUE(waitFor([&] {
        return vendorConnection("speech-1")->binaryFrames().size() == 1
               && vendorConnection("speech-2")->binaryFrames().size() == 1;
    }));
    EXPECT_EQ(vendorConnection("speech-1")->binaryFrames(),
              QList<QByteArray>{AudioFraming::pcm16(interviewerAudio)});
    EXPECT_EQ(vendorConnection("speech-2")->binaryFrames(),
              QList<QByteArray>{AudioFraming::pcm16(userAudio)});

    ASSERT_NO_FATAL_FAILURE(say("speech-1", u"Erzählen Sie von sich."_s, 0.9));
    ASSERT_NO_FATAL_FAILURE(say("speech-1", u"Was haben Sie gebaut?"_s, 0.8));
    ASSERT_NO_FATAL_FAILURE(say("speech-2", u"Ein Mischpult."_s, 0.7));
    const auto lines = vm.transcriptManager().entries();
    ASSERT_EQ(lines.size(), 2);
    EXPECT_EQ(lines[0].content, u"Erzählen Sie von sich. Was haben Sie gebaut?"_s);

    // The answer's request carries the whole line, the context, the session and the answer
    // language; its log is saved under the id the stream gave.
    vm.triggerAIAnswer();
    ASSERT_TRUE(
        waitFor([&] { return backend.requestCount("PATCH", "/api/v1/chat/log/log-7") == 1; }));
    EXPECT_EQ(vm.aiAnswerHistory().value(0).answer, u"I built a mixing desk."_s);
    EXPECT_EQ(
        bodyOf(backend.requests("POST", "/api/v1/chat/answer").value(0)),
        (QJsonObject{{u"question"_s, lines[0].content},
                     {u"context"_s, QJsonArray{lines[0].contextForm(), lines[1].contextForm()}},
                     {u"sessionId"_s, u"session-1"_s},
                     {u"language"_s, u"en"_s}}));
    EXPECT_EQ(bodyOf(backend.requests("PATCH", "/api/v1/chat/log/log-7").value(0)),
              (QJsonObject{{u"answer"_s, u"I built a mixing desk."_s}}));
    ASSERT_NO_FATAL_FAILURE(say("speech-1", u"Und danach?"_s, 0.6));
    const auto followUp = vm.transcriptManager().entries().value(2);
    ASSERT_TRUE(waitFor([&] { return channelServer.acknowledgedIds().contains(followUp.id); }));

    awaitTask(vm.stopInterview(), deadlineMs);
    const qint64 elapsedMs = elapsed.elapsed();
    EXPECT_EQ(vm.runningTaskCount(), 0);
    // Every line went over the channel, the grown one again with its whole text; the channel
    // and both vendor sockets were closed properly.
    QStringList channelTexts;
    for (const auto& frame : channelServer.frames())
        channelTexts.append(frame.content());
    EXPECT_EQ(channelTexts, (QStringList{u"Erzählen Sie von sich."_s, lines[0].content,
                                         u"Ein Mischpult."_s, u"Und danach?"_s}));
    ASSERT_TRUE(waitFor([&] {
        return channelServer.openConnectionCount() == 0
               && vendorConnection("speech-1")
                      ->textFrames()
                      .contains(u"{\"type\": \"CloseStream\"}"_s)
               && vendorConnection("speech-2")
                      ->textFrames()
                      .contains(u"{\"type\": \"CloseStream\"}"_s);
    }));
    EXPECT_EQ(channelServer.connections().value(0).closeCode, 1000);

    // The session is closed with the audio time, then only the unacknowledged line is posted.
    const auto completes = backend.requests("PUT", sessionPath(1));
    ASSERT_EQ(completes.size(), 1);
    EXPECT_EQ(bodyOf(completes[0]).value(u"status"_s).toString(), u"completed"_s);
    const qint64 audioMs = bodyOf(completes[0]).value(u"sttAudioDurationMs"_s).toInteger(-1);
    EXPECT_TRUE(audioMs > 0 && audioMs <= elapsedMs) << audioMs;
    const auto posts = backend.requests("POST", sessionPath(1) + "/transcript");
    ASSERT_EQ(posts.size(), 1);
    EXPECT_EQ(bodyOf(posts[0]).value(u"entries"_s).toArray(), QJsonArray{lines[1].uploadForm()});
}

TEST_F(InterviewEndToEndTest, ASpeechEndpointThatIsNoAddressFailsTheStart)
{
    endpoint = u"wss://bad host"_s;
    awaitTask(vm.startInterview(), deadlineMs);
    EXPECT_EQ(vm.pipelineState(), InterviewViewModel::PipelineState::error);
    EXPECT_EQ(vm.error(), u"Unable to start interview: Invalid speech endpoint"_s);
    EXPECT_EQ(vendor.connectionCount(), 0);
    // The failed start closes its session without waiting; that request ends before the test.
    ASSERT_TRUE(waitFor([&] { return backend.requestCount("PUT", sessionPath(1)) == 1; }));
    QTest::qWait(100);
}

// The closed socket fails on the receive side and, when audio comes during the restart's wait,
// on the send side too: one socket's end makes one restart all the same.
TEST_F(InterviewEndToEndTest, ASocketTheVendorClosesOnceMakesOneRestart)
{
    const auto telemetry = std::make_shared<FakeTelemetry>();
    vm.setTelemetry(telemetry);
    awaitTask(vm.startInterview(), deadlineMs);
    ASSERT_TRUE(waitFor([&] { return vendor.openConnectionCount() == 2; }));
    vendorConnection("speech-1")
        ->socket->close(QWebSocketProtocol::CloseCodeAbnormalDisconnection, u"restart"_s);
    ASSERT_TRUE(waitFor([&] { return vm.isRestarting(Speaker::interviewer); }));
    systemAudio.play({0.5f, -0.5f});
    ASSERT_TRUE(waitFor(
        [&] { return vendorConnection("speech-3") && !vm.isRestarting(Speaker::interviewer); }));
    QTest::qWait(1500); // time for a second restart to show, were there one
    EXPECT_EQ(vendor.connectionCount(), 3);
    EXPECT_EQ(telemetry->events.filter(u"stt_failed"_s).size(), 1)
        << telemetry->events.join(u'\n').toStdString();
    EXPECT_EQ(vm.statusMessage(), u"Recording live"_s);
    awaitTask(vm.stopInterview(), deadlineMs);
}
