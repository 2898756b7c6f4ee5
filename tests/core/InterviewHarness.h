#pragma once

// Fakes of every collaborator of InterviewViewModel, on the manual clock, and a harness that
// wires them. Each fake records what it was asked; any suspension point can be held shut with
// Gates, so a test can act while the model waits there. The loopback chaos test and the memory
// bench use the capture fake and ChannelAt from here with the real backend, vendor and channel.

#include "QtPrinters.h"

#include "APIClient.h"
#include "APIError.h"
#include "AppStrings.h"
#include "AsyncQueue.h"
#include "AudioSource.h"
#include "AwaitTask.h"
#include "Clock.h"
#include "InterviewAdapters.h"
#include "InterviewCollaborators.h"
#include "InterviewViewModel.h"
#include "NotificationCenter.h"
#include "PreferencesStore.h"
#include "UserSettings.h"

#include <QHash>
#include <QMetaEnum>
#include <QSet>
#include <QStringList>

#include <deque>
#include <exception>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

// Named suspension points. A held name makes the next caller of pass() wait for release().
class Gates {
public:
    void hold(const QString& name) { m_held.insert(name, std::make_shared<AsyncQueue<bool>>()); }
    void release(const QString& name)
    {
        if (const auto queue = m_held.take(name))
            queue->push(true);
    }
    bool isWaiting(const QString& name) const { return m_waiting.contains(name); }

    QCoro::Task<> pass(QString name)
    {
        const auto queue = m_held.value(name);
        if (!queue)
            co_return;
        m_waiting.insert(name);
        co_await queue->next();
        m_waiting.remove(name);
    }

private:
    QHash<QString, std::shared_ptr<AsyncQueue<bool>>> m_held;
    QSet<QString> m_waiting;
};

// Failures to throw, one per call, in order; an empty slot lets the call succeed.
class FailureScript {
public:
    void add(std::exception_ptr failure, int times = 1)
    {
        m_failures.insert(m_failures.end(), times, failure);
    }
    void failAlways(std::exception_ptr failure) { m_always = std::move(failure); }
    void throwIfScripted()
    {
        std::exception_ptr failure = m_always;
        if (!m_failures.empty()) {
            failure = m_failures.front();
            m_failures.pop_front();
        }
        if (failure)
            std::rethrow_exception(failure);
    }

private:
    std::deque<std::exception_ptr> m_failures;
    std::exception_ptr m_always;
};

template<typename E>
std::exception_ptr failureOf(E error)
{
    return std::make_exception_ptr(std::move(error));
}

// A capture channel fed by the test: each start makes a fresh stream, as the real ones do.
// Given gates, its start and stop wait at "<name>.start" and "<name>.stop" while held.
class FakeCapture final : public AudioCapture {
public:
    FakeCapture() = default;
    FakeCapture(QString name, Gates& gates)
        : m_name(std::move(name))
        , m_gates(&gates)
    {
    }

    std::shared_ptr<AudioStream> audioStream() override
    {
        if (!m_stream)
            m_stream = std::make_shared<AudioStream>();
        return m_stream;
    }
    QCoro::Task<> start() override
    {
        if (m_gates)
            co_await m_gates->pass(m_name + u".start"_s);
        ++startCount;
        startFailures.throwIfScripted();
        m_stream = std::make_shared<AudioStream>();
        isRunning = true;
    }
    QCoro::Task<> stop() override
    {
        ++stopCount;
        if (m_gates)
            co_await m_gates->pass(m_name + u".stop"_s);
        isRunning = false;
        if (m_stream)
            m_stream->finish();
    }
    void play(std::vector<float> samples) { audioStream()->push(PcmBuffer{std::move(samples)}); }

    FailureScript startFailures;
    bool isRunning = false;
    int startCount = 0;
    int stopCount = 0;

private:
    QString m_name;
    Gates* m_gates = nullptr;
    std::shared_ptr<AudioStream> m_stream;
};

// The real transcript channel, on a server of its own: the backend and the channel's fakes
// cannot share a port, and the channel's address is otherwise made from the backend's.
class ChannelAt final : public TranscriptChannel {
public:
    ChannelAt(Clock& clock, QString baseURL)
        : m_channel(clock)
        , m_baseURL(std::move(baseURL))
    {
    }
    QCoro::Task<> start(QString, QString token, QString sessionId) override
    {
        return m_channel.start(m_baseURL, std::move(token), std::move(sessionId));
    }
    void send(TranscriptEntry entry) override { m_channel.send(std::move(entry)); }
    QCoro::Task<QList<TranscriptEntry>> stop() override { return m_channel.stop(); }

private:
    TranscriptUploadChannel m_channel;
    QString m_baseURL;
};

class FakeRecognizer final : public SpeechRecognitionProvider {
public:
    struct Start {
        QString token;
        QString language;
        std::shared_ptr<AudioStream> audio;
        std::optional<QString> model;
    };

    FakeRecognizer(SpeechProvider vendor, Speaker speaker, Gates& gates)
        : SpeechRecognitionProvider(speaker)
        , vendor(vendor)
        , m_gates(gates)
    {
    }

    QCoro::Task<> start(QString token, QString language, std::shared_ptr<AudioStream> audio,
                        std::optional<QString> model) override
    {
        co_await m_gates.pass(toText(speaker()) + u"Recognizer.start"_s);
        starts.append({token, language, audio, model});
        startFailures.throwIfScripted();
        isRunning = true;
    }
    QCoro::Task<> stop() override
    {
        isRunning = false;
        isStopped = true;
        m_segments->finish();
        m_recovery->finish();
        co_return;
    }
    void setOrigin(QString origin) override { this->origin = std::move(origin); }

    void say(const QString& text, bool isFinal, qint64 timestampMs)
    {
        m_segments->push({text, isFinal, speaker(), timestampMs, std::nullopt});
    }
    void fail(const QString& reason, bool countsTowardLimit)
    {
        m_recovery->push({reason, countsTowardLimit});
    }

    SpeechProvider vendor;
    QList<Start> starts;
    FailureScript startFailures;
    bool isRunning = false;
    bool isStopped = false;
    std::optional<QString> origin;

private:
    Gates& m_gates;
};

// The transcript channel in process: what was sent, none of it acknowledged.
class ScriptedChannel final : public TranscriptChannel {
public:
    explicit ScriptedChannel(Gates& gates)
        : m_gates(gates)
    {
    }

    QCoro::Task<> start(QString, QString, QString) override
    {
        co_await m_gates.pass(u"channel.start"_s);
        isOpen = true;
    }
    void send(TranscriptEntry entry) override { sent.append(entry); }
    QCoro::Task<QList<TranscriptEntry>> stop() override
    {
        isOpen = false;
        co_return sent;
    }

    QList<TranscriptEntry> sent;
    bool isOpen = false;

private:
    Gates& m_gates;
};

class FakeRights final : public AudioRights {
public:
    explicit FakeRights(Gates& gates)
        : m_gates(gates)
    {
    }
    QCoro::Task<bool> systemAudioGranted() override { co_return systemAudio; }
    QCoro::Task<bool> microphoneGranted() override
    {
        co_await m_gates.pass(u"rights.microphone"_s);
        co_return microphone;
    }

    bool systemAudio = true;
    bool microphone = true;

private:
    Gates& m_gates;
};

// The events the suites read, each as a line of its name and values; the others are dropped.
class FakeTelemetry final : public InterviewTelemetry {
public:
    void firstInterviewStarted() override {}
    void sttProviderChanged(const QString&) override {}
    void audioCaptureFailed(const QString&, const QString&) override {}
    void firstAnswerReceived(qint64) override {}
    void sttFailed(const QString& provider, const QString& code) override
    {
        events.append(u"stt_failed "_s + provider + u' ' + code);
    }
    void sessionCompleted(qint64 seconds, qint64 answers) override
    {
        events.append(u"session_completed %1 %2"_s.arg(seconds).arg(answers));
    }

    QStringList events;
};

// The backend's interview operations, scripted per operation. Every call is logged as
// "operation arguments" with the time it was made; the operation's name is also its gate.
class ScriptedBackend final : public InterviewBackend {
public:
    ScriptedBackend(Clock& clock, Gates& gates)
        : m_clock(clock)
        , m_gates(gates)
    {
    }

    QString baseURL() const override { return u"http://backend.test"_s; }
    std::optional<QString> accessToken() const override { return token; }

    QCoro::Task<APIClient::SpeechTokenResponse> fetchSpeechToken() override
    {
        co_await enter(u"fetchSpeechToken"_s, speechTokenFailures);
        co_return {speechProvider, u"speech-token-"_s + QString::number(++speechTokensIssued),
                   u"nova-3"_s, endpoint};
    }
    QCoro::Task<APIClient::AccountStatus> fetchAccountStatus() override
    {
        co_await enter(u"fetchAccountStatus"_s, accountStatusFailures);
        co_return {};
    }
    QCoro::Task<InterviewSession> createSession(QString languageInput,
                                                QString languageOutput) override
    {
        co_await enter(u"createSession "_s + languageInput + u' ' + languageOutput,
                       createSessionFailures);
        InterviewSession session;
        session.id = u"session-"_s + QString::number(++sessionsCreated);
        session.startedAt = QDateTime::fromMSecsSinceEpoch(m_clock.nowMs(), Qt::UTC);
        co_return session;
    }
    QCoro::Task<> completeSession(QString sessionId, qint64 sttAudioDurationMs) override
    {
        co_await enter(u"completeSession "_s + sessionId + u' '
                           + QString::number(sttAudioDurationMs),
                       completeSessionFailures);
    }
    QCoro::Task<> postTranscript(QString sessionId, QList<QJsonObject> entries) override
    {
        co_await enter(u"postTranscript "_s + sessionId + u' ' + QString::number(entries.size()),
                       postTranscriptFailures);
        delivered.append(entries);
    }
    QCoro::Task<APIClient::StreamAnswerResult>
    streamAnswer(APIClient::AnswerRequest request) override
    {
        answerRequests.append(request);
        co_await enter(u"streamAnswer "_s + request.question, streamAnswerFailures);
        auto stream = std::make_shared<AnswerStream>();
        for (const auto& chunk : std::as_const(answerChunks))
            stream->push(chunk);
        if (finishAnswers)
            stream->finish();
        answerStreams.append(stream);
        co_return {u"log-1"_s, stream};
    }
    QCoro::Task<> saveAnswerLog(QString logId, QString answer) override
    {
        record(u"saveAnswerLog "_s + logId + u' ' + answer);
        co_return;
    }

    // When each call starting with `prefix` was made, from the `from`th call on, relative to
    // `originMs`.
    QList<qint64> timesOf(const QString& prefix, qint64 originMs, qsizetype from = 0) const
    {
        QList<qint64> offsets;
        for (qsizetype k = from; k < calls.size(); ++k) {
            if (calls.at(k).startsWith(prefix))
                offsets.append(callTimesMs.at(k) - originMs);
        }
        return offsets;
    }

    std::optional<QString> token = u"access-token"_s;
    QString speechProvider = u"deepgram"_s;
    std::optional<QString> endpoint;
    QStringList answerChunks{u"An "_s, u"answer."_s};
    bool finishAnswers = true;

    FailureScript speechTokenFailures, accountStatusFailures, createSessionFailures,
        completeSessionFailures, postTranscriptFailures, streamAnswerFailures;

    QStringList calls;
    QList<qint64> callTimesMs;
    QList<QJsonObject> delivered; // the posts that succeeded
    QList<APIClient::AnswerRequest> answerRequests;
    QList<std::shared_ptr<AnswerStream>> answerStreams;
    int speechTokensIssued = 0;
    int sessionsCreated = 0;

private:
    QCoro::Task<> enter(QString call, FailureScript& failures)
    {
        co_await m_gates.pass(call.section(u' ', 0, 0));
        record(call);
        failures.throwIfScripted();
    }
    void record(const QString& call)
    {
        calls.append(call);
        callTimesMs.append(m_clock.nowMs());
    }

    Clock& m_clock;
    Gates& m_gates;
};

using Speaker = TranscriptEntry::Speaker;
using State = InterviewViewModel::PipelineState;

// Everything an InterviewViewModel needs, faked, on the manual clock; signed in by default.
struct InterviewHarness {
    InterviewHarness()
    {
        settings.setInputLanguage(u"en-US"_s);
        settings.setOutputLanguage(u"en"_s);
        vm.setBackend(backend);
        vm.setTelemetry(telemetry);
        vm.setLoggedIn(true);
    }

    InterviewViewModel::Services services()
    {
        InterviewViewModel::Services s;
        s.audioCapture = &systemAudio;
        s.microphone = &microphone;
        s.rights = &rights;
        s.makeRecognizer = [this](SpeechProvider vendor, Speaker speaker) {
            auto recognizer = std::make_shared<FakeRecognizer>(vendor, speaker, gates);
            if (prepareRecognizer)
                prepareRecognizer(*recognizer);
            recognizers.append(recognizer);
            return recognizer;
        };
        s.makeTranscriptChannel = [this]() -> std::shared_ptr<TranscriptChannel> {
            auto channel = std::make_shared<ScriptedChannel>(gates);
            channels.append(channel);
            return channel;
        };
        return s;
    }

    void start(int deadlineMs = 5000) { awaitTask(vm.startInterview(), deadlineMs); }
    void stop(int deadlineMs = 5000) { awaitTask(vm.stopInterview(), deadlineMs); }

    // The recogniser made last for the channel.
    std::shared_ptr<FakeRecognizer> recognizerOf(Speaker speaker) const
    {
        for (auto k = recognizers.size() - 1; k >= 0; --k) {
            if (recognizers.at(k)->speaker() == speaker)
                return recognizers.at(k);
        }
        return nullptr;
    }
    qsizetype callCount(const QString& prefix) const { return backend->timesOf(prefix, 0).size(); }

    // Lets the model's tasks run what the fakes have queued.
    static void settle()
    {
        for (int k = 0; k < 3; ++k)
            QCoreApplication::processEvents();
    }

    // A segment of the speaker's recogniser, stamped now, and what the model makes of it.
    void say(Speaker speaker, const QString& text, bool isFinal = true)
    {
        recognizerOf(speaker)->say(text, isFinal, clock.nowMs());
        settle();
    }
    // A recovery event of the speaker's recogniser, handled.
    void fail(Speaker speaker, const QString& reason, bool countsTowardLimit = true)
    {
        recognizerOf(speaker)->fail(reason, countsTowardLimit);
        settle();
    }

    // An interview whose one line the server refused at the stop, so that it waits as the
    // pending upload of the next start; the backend's log is cleared after it.
    void leaveUndelivered(const QString& line)
    {
        start();
        say(Speaker::interviewer, line);
        backend->postTranscriptFailures.add(failureOf(APIError::serverError(400)));
        stop();
        backend->calls.clear();
    }

    void passTime(std::chrono::milliseconds by)
    {
        clock.advance(by);
        settle();
    }

    // What the user sees of the pipeline as one text: its state, the status line, the notice
    // and the recoverable error ("-" when there is none).
    QString shown() const
    {
        return QStringList{
            QString::fromLatin1(QMetaEnum::fromType<State>().valueToKey(int(vm.pipelineState()))),
            vm.statusMessage(), vm.lastNotice().value_or(u"-"_s),
            vm.lastRecoverableError().value_or(u"-"_s)}
            .join(u" | "_s);
    }

    ManualClock clock;
    PreferencesStore preferences;
    NotificationCenter notifications;
    UserSettings settings{preferences, notifications};
    AppStrings strings{QStringList{u"en"_s}};
    Gates gates;
    FakeCapture systemAudio{u"systemAudio"_s, gates};
    FakeCapture microphone{u"microphone"_s, gates};
    FakeRights rights{gates};
    QList<std::shared_ptr<FakeRecognizer>> recognizers;
    QList<std::shared_ptr<ScriptedChannel>> channels;
    // Called with each recogniser as it is made, to script it.
    std::function<void(FakeRecognizer&)> prepareRecognizer;
    std::shared_ptr<ScriptedBackend> backend = std::make_shared<ScriptedBackend>(clock, gates);
    std::shared_ptr<FakeTelemetry> telemetry = std::make_shared<FakeTelemetry>();
    InterviewViewModel vm{clock, settings, strings, services()};
};
using H = InterviewHarness;
