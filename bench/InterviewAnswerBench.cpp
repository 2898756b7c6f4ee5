// What the client adds to an answer: from the trigger key (triggerAIAnswer) to the first chunk
// appended to the answer on screen, with the interviewer's words in the transcript and a
// loopback backend that streams the whole answer at once. The request goes through the real
// API client and its line reader; speech, audio and the transcript channel are stubbed, since
// they take no part in an answer.
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

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

constexpr int answerCount = 1'000;
constexpr int deadlineMs = 10'000;

qint64 steadyNs()
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

// Runs the event loop until `done` holds; it is checked whenever the model or the backend
// reports something.
bool waitUntil(InterviewViewModel& vm, FakeBackend& backend, const std::function<bool()>& done)
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
        QObject::connect(&backend, &FakeBackend::requestReceived, &loop, check),
    };
    QTimer::singleShot(deadlineMs, &loop, &QEventLoop::quit);
    loop.exec();
    return done();
}

void BM_TriggerToFirstAnswerChunk(benchmark::State& state)
{
    SystemClock clock;
    PreferencesStore preferences;
    NotificationCenter notifications;
    UserSettings settings{preferences, notifications};
    settings.setOutputLanguage(u"en"_s);
    AppStrings strings{QStringList{u"en"_s}};
    FakeBackend backend;
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

    InMemoryTokenStore tokens;
    APIClient client(backend.origin(), tokens, notifications);
    client.setAccessToken(u"access"_s);
    SilentCapture systemAudio;
    SilentCapture microphone;
    std::shared_ptr<ScriptedRecognizer> interviewer;
    InterviewViewModel::Services services;
    services.audioCapture = &systemAudio;
    services.microphone = &microphone;
    services.makeRecognizer = [&](SpeechProvider, TranscriptEntry::Speaker speaker) {
        auto recognizer = std::make_shared<ScriptedRecognizer>(speaker);
        if (speaker == TranscriptEntry::Speaker::interviewer)
            interviewer = recognizer;
        return recognizer;
    };
    services.makeTranscriptChannel = [] { return std::make_shared<NoChannel>(); };
    InterviewViewModel vm(clock, settings, strings, services);
    vm.setBackend(std::make_shared<APIClientInterviewBackend>(client));
    vm.setLoggedIn(true);

    awaitTask(vm.startInterview(), deadlineMs);
    if (!vm.isRecording() || !interviewer) {
        state.SkipWithError("the interview did not start");
        return;
    }
    interviewer->say(u"Tell me about the hardest bug you fixed."_s);
    if (!waitUntil(vm, backend, [&] { return !vm.transcriptManager().entries().isEmpty(); })) {
        state.SkipWithError("the interviewer's words did not reach the transcript");
        return;
    }

    // Stamped where the model appends the chunk, so the bench's own wake-up is not counted.
    qint64 firstChunkNs = 0;
    QObject::connect(&vm, &InterviewViewModel::aiAnswerHistoryChanged, &vm, [&] {
        if (firstChunkNs == 0 && !vm.aiAnswerHistory().isEmpty() && !vm.aiAnswerHistory().last().answer.isEmpty())
            firstChunkNs = steadyNs();
    });

    std::vector<qint64> latencies;
    latencies.reserve(answerCount);
    for (auto _ : state) {
        for (int k = 0; k < answerCount; ++k) {
            firstChunkNs = 0;
            const qint64 pressedNs = steadyNs();
            vm.triggerAIAnswer();
            // The answer ends and its log is saved before the next press, so nothing overlaps.
            const bool finished = waitUntil(vm, backend, [&] {
                return firstChunkNs != 0 && !vm.isGeneratingAnswer()
                    && backend.requestCount("PATCH", "/api/v1/chat/log/log-1") == k + 1;
            });
            if (!finished) {
                state.SkipWithError("an answer did not arrive");
                break;
            }
            latencies.push_back(firstChunkNs - pressedNs);
        }
    }
    awaitTask(vm.stopInterview(), deadlineMs);

    std::sort(latencies.begin(), latencies.end());
    const auto percentile = [&](double p) {
        return latencies.empty() ? 0.0 : double(latencies[std::size_t(p * double(latencies.size() - 1))]) / 1000.0;
    };
    state.counters["answers"] = double(latencies.size());
    state.counters["p50_us"] = percentile(0.50);
    state.counters["p95_us"] = percentile(0.95);
    state.counters["max_us"] = percentile(1.0);
}
BENCHMARK(BM_TriggerToFirstAnswerChunk)->Iterations(1)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
