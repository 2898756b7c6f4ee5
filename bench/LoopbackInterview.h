#pragma once

// An interview for the benches: the real API client and its line reader against a loopback
// backend that streams the whole answer at once, or against a running server; stubs for speech,
// audio and the transcript channel, which take no part in an answer.
#include "APIClient.h"
#include "AppStrings.h"
#include "AuthTokenStore.h"
#include "AwaitTask.h"
#include "Clock.h"
#include "FakeBackend.h"
#include "InterviewAdapters.h"
#include "InterviewViewModel.h"
#include "NotificationCenter.h"
#include "PreferencesStore.h"
#include "UserSettings.h"

#include <QEventLoop>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QTimer>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace bench {

using namespace Qt::StringLiterals;

inline constexpr int deadlineMs = 10'000;

inline qint64 steadyNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

class SilentCapture final : public AudioCapture {
public:
    std::shared_ptr<AudioStream> audioStream() override { return m_stream; }
    QCoro::Task<> start() override { co_return; }
    QCoro::Task<> stop() override
    {
        m_stream->finish();
        co_return;
    }

private:
    std::shared_ptr<AudioStream> m_stream = std::make_shared<AudioStream>();
};

// A recogniser that says what the bench tells it to.
class ScriptedRecognizer final : public SpeechRecognitionProvider {
public:
    using SpeechRecognitionProvider::SpeechRecognitionProvider;
    QCoro::Task<> start(QString, QString, std::shared_ptr<AudioStream>, std::optional<QString>) override
    {
        co_return;
    }
    QCoro::Task<> stop() override
    {
        m_segments->finish();
        m_recovery->finish();
        co_return;
    }
    void say(const QString& text) { m_segments->push({text, true, speaker(), 0, std::nullopt}); }
};

class NoChannel final : public TranscriptChannel {
public:
    QCoro::Task<> start(QString, QString, QString) override { co_return; }
    void send(TranscriptEntry) override {}
    QCoro::Task<QList<TranscriptEntry>> stop() override { co_return QList<TranscriptEntry>(); }
};

// Keeps the body of the last answer request as it goes out, for replaying it to the server; and
// counts the saved answer logs, whose end tells that an answer is over.
class RecordingNetwork final : public QNetworkAccessManager {
public:
    RecordingNetwork()
    {
        connect(this, &QNetworkAccessManager::finished, this, [this](QNetworkReply* reply) {
            if (reply->request().attribute(QNetworkRequest::CustomVerbAttribute).toByteArray() == "PATCH")
                ++savedLogs;
        });
    }

    QByteArray lastAnswerBody;
    int savedLogs = 0;

protected:
    QNetworkReply* createRequest(Operation operation, const QNetworkRequest& request, QIODevice* body) override
    {
        if (body && request.url().path() == u"/api/v1/chat/answer"_s)
            lastAnswerBody = body->peek(body->size());
        return QNetworkAccessManager::createRequest(operation, request, body);
    }
};

// A running server to answer instead of the loopback backend.
struct AnswerServer {
    QString origin;
    QString accessToken;
    std::optional<QString> resumeId;
};

struct LoopbackInterview {
    explicit LoopbackInterview(std::optional<AnswerServer> answerServer = std::nullopt)
        : server(std::move(answerServer))
    {
        settings.setOutputLanguage(u"en"_s);
        vm.setBackend(std::make_shared<APIClientInterviewBackend>(client));
        vm.setLoggedIn(true);
        if (server) {
            client.setAccessToken(server->accessToken);
            settings.setActiveResumeId(server->resumeId);
            return;
        }
        backend.setRoute("GET", "/api/v1/subscription/status", FakeBackend::Response::json(200, "{}"));
        backend.setRoute("POST", "/api/v1/interview/session",
                         FakeBackend::Response::json(200, R"({"id":"s-1","languageInput":"en-US","languageOutput":"en",)"
                                                          R"("startedAt":"2024-05-01T10:00:00Z","status":"active"})"));
        backend.setRoute("GET", "/api/v1/speech/token",
                         FakeBackend::Response::json(200, R"({"provider":"deepgram","token":"t"})"));
        backend.setRoute("PUT", "/api/v1/interview/session/s-1", FakeBackend::Response::json(200, "{}"));
        backend.setRoute("PATCH", "/api/v1/chat/log/log-1", FakeBackend::Response::json(200, "{}"));
        backend.setRoute("POST", "/api/v1/chat/answer",
                         FakeBackend::Response::stream({"data: {\"logId\":\"log-1\"}\n",
                                                        "data: {\"content\":\"Start with the symptom, \"}\n",
                                                        "data: {\"content\":\"then the cause.\"}\n", "data: [DONE]\n"}));
        client.setAccessToken(u"access"_s);
    }

    // Starts the interview and puts a question of the interviewer's in the transcript; the
    // reason when that failed.
    const char* startWithQuestion()
    {
        awaitTask(vm.startInterview(), deadlineMs);
        if (!vm.isRecording() || !interviewer)
            return "the interview did not start";
        interviewer->say(u"Tell me about the hardest bug you fixed."_s);
        if (!waitUntil([&] { return !vm.transcriptManager().entries().isEmpty(); }))
            return "the interviewer's words did not reach the transcript";
        return nullptr;
    }

    // Whether answer `count` ended and its log was saved, so that the next press overlaps nothing.
    bool answered(int count) const { return !vm.isGeneratingAnswer() && network.savedLogs == count; }

    // Runs the event loop until `done` holds; it is checked whenever the model or the network
    // reports something.
    bool waitUntil(const std::function<bool()>& done)
    {
        if (done())
            return true;
        QEventLoop loop;
        const auto check = [&] {
            if (done())
                loop.quit();
        };
        const QList<QMetaObject::Connection> connections{
            QObject::connect(&vm, &InterviewViewModel::aiAnswerHistoryChanged, &loop, check),
            QObject::connect(&vm, &InterviewViewModel::isGeneratingAnswerChanged, &loop, check),
            QObject::connect(&vm.transcriptManager(), &TranscriptManager::entriesChanged, &loop, check),
            QObject::connect(&network, &QNetworkAccessManager::finished, &loop, check),
        };
        QTimer::singleShot(deadlineMs, &loop, &QEventLoop::quit);
        loop.exec();
        return done();
    }

    SystemClock clock;
    PreferencesStore preferences;
    NotificationCenter notifications;
    UserSettings settings{preferences, notifications};
    AppStrings strings{QStringList{u"en"_s}};
    std::optional<AnswerServer> server;
    FakeBackend backend; // idle when a server answers
    InMemoryTokenStore tokens;
    RecordingNetwork network;
    APIClient client{server ? server->origin : backend.origin(), tokens, notifications, &network};
    SilentCapture systemAudio;
    SilentCapture microphone;
    std::shared_ptr<ScriptedRecognizer> interviewer;
    InterviewViewModel vm{clock, settings, strings, services()};

private:
    InterviewViewModel::Services services()
    {
        InterviewViewModel::Services s;
        s.audioCapture = &systemAudio;
        s.microphone = &microphone;
        s.makeRecognizer = [this](SpeechProvider, TranscriptEntry::Speaker speaker) {
            auto recognizer = std::make_shared<ScriptedRecognizer>(speaker);
            if (speaker == TranscriptEntry::Speaker::interviewer)
                interviewer = recognizer;
            return recognizer;
        };
        s.makeTranscriptChannel = [] { return std::make_shared<NoChannel>(); };
        return s;
    }
};

} // namespace bench
