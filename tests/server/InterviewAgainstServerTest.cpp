// The interview core's whole run, as its own end-to-end test drives it, against ravlet-server
// instead of the loopback fake backend: the real routes, the real transcript socket and the
// offline answer engine. Only the speech vendor and the two audio sources are stand-ins.

#include "QtPrinters.h"

#include "ServerHarness.h"

#include "APIClient.h"
#include "AppStrings.h"
#include "AuthTokenStore.h"
#include "AwaitTask.h"
#include "Clock.h"
#include "FakeVendorServer.h"
#include "InterviewAdapters.h"
#include "InterviewViewModel.h"
#include "NotificationCenter.h"
#include "OfflineAnswerEngine.h"
#include "PreferencesStore.h"
#include "UserSettings.h"

#include "../core/LoopbackInterview.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QWebSocket>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

using Speaker = TranscriptEntry::Speaker;

QString finalResult(const QString& transcript)
{
    const QJsonObject alternative{{u"transcript"_s, transcript}, {u"confidence"_s, 0.9}};
    const QJsonObject message{{u"type"_s, u"Results"_s},
                              {u"is_final"_s, true},
                              {u"channel"_s, QJsonObject{{u"alternatives"_s, QJsonArray{alternative}}}}};
    return QString::fromUtf8(QJsonDocument(message).toJson(QJsonDocument::Compact));
}

ServerConfig withSpeech(const QString& endpoint)
{
    ServerConfig config;
    config.speechEndpoint = endpoint;
    return config;
}

} // namespace

class InterviewAgainstServerTest : public ::testing::Test {
protected:
    InterviewAgainstServerTest()
    {
        settings.setInputLanguage(u"en"_s);
        settings.setOutputLanguage(u"en"_s);
        client.setAccessToken(account.accessToken);
        vm.setBackend(std::make_shared<APIClientInterviewBackend>(client));
        vm.setLoggedIn(true);
    }

    InterviewViewModel::Services services()
    {
        InterviewViewModel::Services s;
        s.audioCapture = &systemAudio;
        s.microphone = &microphone;
        s.makeRecognizer = vendorRecognizers(clock);
        s.makeTranscriptChannel = [this] { return std::make_shared<TranscriptUploadChannel>(clock); };
        return s;
    }

    // The vendor socket that received `audio`: the server's tokens do not say which is whose.
    QWebSocket* socketThatHeard(PcmCapture& capture, const std::vector<float>& audio)
    {
        capture.play(audio);
        const auto frame = AudioFraming::pcm16(audio);
        QWebSocket* found = nullptr;
        waitUntil([&] {
            for (const auto& connection : vendor.connections()) {
                if (connection.binaryFrames().contains(frame))
                    found = connection.socket.data();
            }
            return found != nullptr;
        });
        return found;
    }

    void say(QWebSocket* socket, const QString& text)
    {
        QSignalSpy changed(&vm.transcriptManager(), &TranscriptManager::entriesChanged);
        socket->sendTextMessage(finalResult(text));
        ASSERT_TRUE(changed.wait(10'000)) << "no transcript line for " << text.toStdString();
    }

    FakeVendorServer vendor;
    ravlet::server::OfflineAnswerEngine answers;
    ServerHarness server{withSpeech(vendor.origin()), &answers};
    ServerHarness::Account account = server.signUp();
    SystemClock clock;
    PreferencesStore preferences;
    NotificationCenter notifications;
    UserSettings settings{preferences, notifications};
    AppStrings strings{QStringList{u"en"_s}};
    InMemoryTokenStore tokens;
    APIClient client{server.base(), tokens, notifications};
    PcmCapture systemAudio;
    PcmCapture microphone;
    InterviewViewModel vm{clock, settings, strings, services()};
};

TEST_F(InterviewAgainstServerTest, TheServerKeepsEveryLineAndBothAnswers)
{
    awaitTask(vm.startInterview(), 10'000);
    ASSERT_TRUE(vm.isRecording());
    ASSERT_TRUE(vendor.waitForConnections(2));
    QWebSocket* interviewer = socketThatHeard(systemAudio, {0.5f, -0.25f});
    QWebSocket* user = socketThatHeard(microphone, {-1.0f, 0.125f});
    ASSERT_TRUE(interviewer && user && interviewer != user);

    ASSERT_NO_FATAL_FAILURE(say(interviewer, u"Tell me about a time you led a project."_s));
    ASSERT_NO_FATAL_FAILURE(say(user, u"Sure, the billing rewrite."_s));
    vm.triggerAIAnswer();
    ASSERT_TRUE(waitUntil([&] {
        return vm.aiAnswerHistory().size() == 1 && !vm.isGeneratingAnswer();
    }));
    ASSERT_NO_FATAL_FAILURE(say(interviewer, u"Why do you want this role?"_s));
    vm.triggerAIAnswer();
    ASSERT_TRUE(waitUntil([&] {
        return vm.aiAnswerHistory().size() == 2 && !vm.isGeneratingAnswer();
    }));
    // The user's line grows after it was first sent: the server must keep the newest text.
    ASSERT_NO_FATAL_FAILURE(say(user, u"I like the team."_s));

    const auto history = vm.aiAnswerHistory();
    for (const auto& answer : history) {
        EXPECT_TRUE(answer.answer.startsWith(u"Offline draft"_s)) << answer.answer.toStdString();
        EXPECT_TRUE(answer.logId && !answer.logId->isEmpty());
    }
    const auto lines = vm.transcriptManager().entries();
    awaitTask(vm.stopInterview(), 10'000);
    ASSERT_EQ(vm.pastSessions().size(), 1);
    EXPECT_EQ(vm.pastSessions()[0].status, InterviewSession::SessionStatus::completed);
    EXPECT_FALSE(vm.pendingTranscriptUpload());
    const auto sessionId = vm.pastSessions()[0].id;

    // The server's record: completed, every final line in order with its latest text.
    const auto stored = server.call(account, u"GET"_s, u"/api/v1/interview/session/"_s + sessionId);
    ASSERT_EQ(stored.status, 200) << stored.body.toStdString();
    const auto session = QJsonDocument::fromJson(stored.body).object();
    EXPECT_EQ(session.value(u"status"_s).toString(), u"completed"_s);
    QStringList storedTexts;
    for (const auto& line : session.value(u"transcript"_s).toArray())
        storedTexts.append(line.toObject().value(u"content"_s).toString());
    QStringList shownTexts;
    for (const auto& line : lines)
        shownTexts.append(line.content);
    EXPECT_EQ(storedTexts, shownTexts);

    // Both answers were logged with their whole text.
    for (const auto& answer : history) {
        const auto log = server.call(account, u"GET"_s, u"/api/v1/chat/log/"_s + answer.logId.value_or(QString()));
        ASSERT_EQ(log.status, 200);
        EXPECT_EQ(QJsonDocument::fromJson(log.body).object().value(u"answer"_s).toString(),
                  answer.answer);
    }
}
