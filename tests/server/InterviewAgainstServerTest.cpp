// The interview core against ravlet-server instead of the loopback fake backend: the real routes
// and the real transcript socket; only the speech vendor and the audio sources are stand-ins.
// The whole road with answers is the whole-product test's; this is the line that grows after it
// was sent, which that test cannot time.

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
    ServerHarness server{withSpeech(vendor.origin())};
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

TEST_F(InterviewAgainstServerTest, ALineThatGrowsAfterItWasStoredIsStoredWithItsNewestText)
{
    awaitTask(vm.startInterview(), 10'000);
    ASSERT_TRUE(vm.isRecording());
    ASSERT_TRUE(vendor.waitForConnections(2));
    QWebSocket* interviewer = socketThatHeard(systemAudio, {0.5f, -0.25f});
    QWebSocket* user = socketThatHeard(microphone, {-1.0f, 0.125f});
    ASSERT_TRUE(interviewer && user && interviewer != user);

    ASSERT_NO_FATAL_FAILURE(say(interviewer, u"Tell me about a time you led a project."_s));
    ASSERT_NO_FATAL_FAILURE(say(user, u"Sure, the billing rewrite."_s));
    const auto storedCount = [&](const QString& content) {
        auto query = server.db->run(u"SELECT COUNT(*) FROM transcript_lines WHERE content = ?"_s, {content});
        return query.next() ? query.value(0).toInt() : -1;
    };
    ASSERT_TRUE(waitUntil([&] { return storedCount(u"Sure, the billing rewrite."_s) == 1; }));
    // The user's line grows (the same speaker within the gap) after the server has stored it.
    ASSERT_NO_FATAL_FAILURE(say(user, u"I like the team."_s));
    const auto lines = vm.transcriptManager().entries();
    ASSERT_EQ(lines.size(), 2);
    EXPECT_EQ(lines[1].content, u"Sure, the billing rewrite. I like the team."_s);
    awaitTask(vm.stopInterview(), 10'000);
    ASSERT_EQ(vm.pastSessions().size(), 1);
    EXPECT_FALSE(vm.pendingTranscriptUpload());

    // The server's record: completed, every final line in order with its latest text.
    const auto session = server.call(account, "GET", u"/api/v1/interview/session/"_s + vm.pastSessions()[0].id).json();
    EXPECT_EQ(session[u"status"_s].toString(), u"completed"_s);
    QStringList storedTexts;
    for (const auto& line : session[u"transcript"_s].toArray())
        storedTexts.append(line[u"content"_s].toString());
    EXPECT_EQ(storedTexts, (QStringList{lines[0].content, lines[1].content}));
}
