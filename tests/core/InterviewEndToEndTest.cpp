// A whole interview over real sockets on loopback, in real time.

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
using State = InterviewViewModel::PipelineState;
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
QString results(const QString& transcript, bool isFinal, double confidence)
{
    const QJsonObject alternative{{u"transcript"_s, transcript}, {u"confidence"_s, confidence}};
    const QJsonObject channel{{u"alternatives"_s, QJsonArray{alternative}}};
    const QJsonObject message{{u"type"_s, u"Results"_s}, {u"is_final"_s, isFinal}, {u"channel"_s, channel}};
    return QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact));
}

} // namespace

class InterviewEndToEndTest : public ::testing::Test, public LoopbackRig<SystemClock> {
protected:
    InterviewEndToEndTest()
    {
        settings.setInputLanguage(u"de-DE"_s);
        sttModel = u"nova-3"_s;
        onToken = [this] { restartCountsAtTokens.append(vm.restartCount(Speaker::interviewer)); };
    }

    void start()
    {
        awaitTask(vm.startInterview(), deadlineMs);
        ASSERT_TRUE(vm.isRecording());
        // Each recogniser opened its socket; the vendor must see both before it can answer.
        ASSERT_TRUE(waitFor([&] { return vendor.openConnectionCount() == 2; }));
    }

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
        connection->socket->sendTextMessage(results(text, true, confidence));
        ASSERT_TRUE(changed.wait(deadlineMs)) << "no transcript line for " << text.toStdString();
    }

    const QByteArray firstSession = sessionPath(1);
    QList<int> restartCountsAtTokens;
};

TEST_F(InterviewEndToEndTest, AudioBecomesTranscriptAnswerAndDeliveredLines)
{
    // The server keeps the interviewer's lines and never acknowledges the user's.
    channelServer.setFrameRule([](const FakeTranscriptChannel::Frame& frame) {
        return frame.json().value(u"speaker"_s) == u"user"_s ? Reaction::ignore : Reaction::ack;
    });
    QElapsedTimer elapsed;
    elapsed.start();
    ASSERT_NO_FATAL_FAILURE(start());

    const auto sessionBody = bodyOf(backend.requests("POST", "/api/v1/interview/session").value(0));
    EXPECT_EQ(sessionBody, (QJsonObject{{u"languageInput"_s, u"de-DE"_s}, {u"languageOutput"_s, u"en"_s}}));
    EXPECT_EQ(backend.requestCount("GET", "/api/v1/speech/token"), 2);
    EXPECT_EQ(backend.requests("GET", "/api/v1/speech/token").value(0).header("Authorization"), "Bearer access-1");
    // The interviewer's token came first, the user's second; each socket went to the token's endpoint.
    const auto* interviewerLine = vendorConnection("speech-1");
    const auto* userLine = vendorConnection("speech-2");
    ASSERT_TRUE(interviewerLine && userLine);
    EXPECT_EQ(interviewerLine->url.path(), u"/v1/listen"_s);
    EXPECT_TRUE(interviewerLine->queryItems.contains(std::pair(u"language"_s, u"de"_s)));
    ASSERT_TRUE(waitFor([&] { return channelServer.openConnectionCount() == 1; }));
    EXPECT_EQ(channelServer.connections().value(0).path, u"/api/v1/interview/ws"_s);
    EXPECT_EQ(channelServer.connections().value(0).query, u"token=access-1&sessionId=session-1"_s);

    // Audio from both sources reaches the vendor, one binary frame per buffer.
    const std::vector<float> interviewerAudio{0.5f, -0.25f, 1.0f};
    const std::vector<float> userAudio{-1.0f, 0.125f};
    systemAudio.play(interviewerAudio);
    microphone.play(userAudio);
    ASSERT_TRUE(waitFor([&] {
        return vendorConnection("speech-1")->binaryFrames().size() == 1
            && vendorConnection("speech-2")->binaryFrames().size() == 1;
    }));
    EXPECT_EQ(vendorConnection("speech-1")->binaryFrames(), QList<QByteArray>{AudioFraming::pcm16(interviewerAudio)});
    EXPECT_EQ(vendorConnection("speech-2")->binaryFrames(), QList<QByteArray>{AudioFraming::pcm16(userAudio)});

    // A partial shows apart; two final pieces of the interviewer make one line; the user has his own.
    vendorConnection("speech-1")->socket->sendTextMessage(results(u"Erzählen"_s, false, 0.5));
    ASSERT_TRUE(waitFor([&] { return vm.transcriptManager().currentPartialText(Speaker::interviewer) == u"Erzählen"_s; }));
    ASSERT_NO_FATAL_FAILURE(say("speech-1", u"Erzählen Sie von sich."_s, 0.9));
    ASSERT_NO_FATAL_FAILURE(say("speech-1", u"Was haben Sie gebaut?"_s, 0.8));
    ASSERT_NO_FATAL_FAILURE(say("speech-2", u"Ein Mischpult."_s, 0.7));
    const auto lines = vm.transcriptManager().entries();
    ASSERT_EQ(lines.size(), 2);
    EXPECT_EQ(lines[0].speaker, Speaker::interviewer);
    EXPECT_EQ(lines[0].content, u"Erzählen Sie von sich. Was haben Sie gebaut?"_s);
    EXPECT_EQ(lines[0].confidence, 0.8);
    EXPECT_EQ(lines[1].speaker, Speaker::user);
    EXPECT_EQ(lines[1].content, u"Ein Mischpult."_s);
    EXPECT_FALSE(vm.transcriptManager().currentPartialText(Speaker::interviewer));

    // The trigger asks about the interviewer's whole line; the answer streams into the history
    // and its log is saved under the id the stream gave.
    vm.triggerAIAnswer();
    ASSERT_TRUE(waitFor([&] { return backend.requestCount("PATCH", "/api/v1/chat/log/log-7") == 1; }));
    ASSERT_EQ(vm.aiAnswerHistory().size(), 1);
    EXPECT_EQ(vm.aiAnswerHistory()[0].question, lines[0].content);
    EXPECT_EQ(vm.aiAnswerHistory()[0].answer, u"I built a mixing desk."_s);
    const auto answerRequest = bodyOf(backend.requests("POST", "/api/v1/chat/answer").value(0));
    EXPECT_EQ(answerRequest.value(u"question"_s).toString(), lines[0].content);
    EXPECT_EQ(answerRequest.value(u"context"_s).toArray(),
              (QJsonArray{lines[0].contextForm(), lines[1].contextForm()}));
    EXPECT_EQ(answerRequest.value(u"sessionId"_s).toString(), u"session-1"_s);
    EXPECT_EQ(answerRequest.value(u"language"_s).toString(), u"en"_s);
    EXPECT_EQ(bodyOf(backend.requests("PATCH", "/api/v1/chat/log/log-7").value(0)),
              (QJsonObject{{u"answer"_s, u"I built a mixing desk."_s}}));

    // The question closed the interviewer's line: his next piece opens a new one at once.
    ASSERT_NO_FATAL_FAILURE(say("speech-1", u"Und danach?"_s, 0.6));
    ASSERT_EQ(vm.transcriptManager().entries().size(), 3);
    const auto followUp = vm.transcriptManager().entries()[2];
    EXPECT_EQ(followUp.content, u"Und danach?"_s);
    ASSERT_TRUE(waitFor([&] { return channelServer.acknowledgedIds().contains(followUp.id); }));

    awaitTask(vm.stopInterview(), deadlineMs);
    const qint64 elapsedMs = elapsed.elapsed();
    EXPECT_EQ(vm.pipelineState(), State::idle);
    EXPECT_EQ(vm.runningTaskCount(), 0);
    EXPECT_FALSE(systemAudio.isRunning || microphone.isRunning);
    EXPECT_FALSE(vm.pendingTranscriptUpload());
    ASSERT_EQ(vm.pastSessions().size(), 1);
    EXPECT_EQ(vm.pastSessions()[0].status, InterviewSession::SessionStatus::completed);

    // Every line went over the channel; the grown line went again with its whole text.
    QStringList channelTexts;
    for (const auto& frame : channelServer.frames())
        channelTexts.append(frame.content());
    EXPECT_EQ(channelTexts, (QStringList{u"Erzählen Sie von sich."_s, lines[0].content, u"Ein Mischpult."_s,
                                         u"Und danach?"_s}));
    ASSERT_TRUE(waitFor([&] { return channelServer.openConnectionCount() == 0; }));
    EXPECT_EQ(channelServer.connections().value(0).closeCode, 1000);

    // The session is closed with the audio time, then only the unacknowledged line is posted.
    const auto completes = backend.requests("PUT", firstSession);
    ASSERT_EQ(completes.size(), 1);
    const auto completion = bodyOf(completes[0]);
    EXPECT_EQ(completion.value(u"status"_s).toString(), u"completed"_s);
    const qint64 audioMs = completion.value(u"sttAudioDurationMs"_s).toInteger(-1);
    EXPECT_GT(audioMs, 0);
    EXPECT_LE(audioMs, elapsedMs);
    const auto posts = backend.requests("POST", firstSession + "/transcript");
    ASSERT_EQ(posts.size(), 1);
    EXPECT_EQ(bodyOf(posts[0]).value(u"entries"_s).toArray(), QJsonArray{lines[1].uploadForm()});

    // Each recogniser said goodbye to the vendor.
    ASSERT_TRUE(waitFor([&] {
        return vendorConnection("speech-1")->textFrames().contains(u"{\"type\": \"CloseStream\"}"_s)
            && vendorConnection("speech-2")->textFrames().contains(u"{\"type\": \"CloseStream\"}"_s);
    }));
}


TEST_F(InterviewEndToEndTest, ASocketTheVendorClosesOnceMakesOneRestart)
{
    const auto telemetry = std::make_shared<FakeTelemetry>();
    vm.setTelemetry(telemetry);
    ASSERT_NO_FATAL_FAILURE(start());
    const auto* connection = vendorConnection("speech-1");
    ASSERT_TRUE(connection && connection->socket);
    connection->socket->close(QWebSocketProtocol::CloseCodeAbnormalDisconnection, u"vendor restarting"_s);
    // Audio that arrives while the restart waits makes the send side fail on the closed socket
    // too, so the one socket reports twice.
    ASSERT_TRUE(waitFor([&] { return vm.isRestarting(Speaker::interviewer); }));
    systemAudio.play({0.5f, -0.5f});
    ASSERT_TRUE(waitFor([&] { return vendorConnection("speech-3") != nullptr; }));
    ASSERT_TRUE(waitFor([&] { return !vm.isRestarting(Speaker::interviewer); }));
    // Time for a second restart to show, were there one.
    QTest::qWait(1500);
    EXPECT_EQ(vendor.connectionCount(), 3);
    EXPECT_EQ(telemetry->events.filter(u"stt_failed"_s).size(), 1) << telemetry->events.join(u'\n').toStdString();
    EXPECT_EQ(restartCountsAtTokens, (QList<int>{0, 0, 1}));
    EXPECT_EQ(vm.pipelineState(), State::recording);
    EXPECT_EQ(vm.statusMessage(), u"Recording live"_s);
    awaitTask(vm.stopInterview(), deadlineMs);
}

TEST_F(InterviewEndToEndTest, ASpeechEndpointThatIsNoAddressFailsTheStart)
{
    endpoint = u"wss://bad host"_s;
    awaitTask(vm.startInterview(), deadlineMs);
    EXPECT_FALSE(vm.isRecording());
    EXPECT_EQ(vm.pipelineState(), State::error);
    EXPECT_EQ(vm.error(), u"Unable to start interview: Invalid speech endpoint"_s);
    EXPECT_EQ(vendor.connectionCount(), 0);
    EXPECT_EQ(vm.runningTaskCount(), 0);
    // The failed start closes its session without waiting; that request ends before the test.
    ASSERT_TRUE(waitFor([&] { return backend.requestCount("PUT", firstSession) == 1; }));
    QTest::qWait(100);
}
