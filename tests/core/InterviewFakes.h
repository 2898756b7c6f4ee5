#pragma once

// Fakes shared by the in-process interview harness and the loopback chaos test: suspension
// points a test can hold shut, scripted failures, a capture channel fed by the test, and the
// telemetry as lines.

#include "APIClient.h"
#include "AsyncQueue.h"
#include "InterviewAdapters.h"
#include "InterviewCollaborators.h"

#include <QHash>
#include <QSet>
#include <QStringList>

#include <deque>
#include <exception>
#include <memory>
#include <vector>

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
    QStringList waiting() const { return QStringList(m_waiting.begin(), m_waiting.end()); }

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
    void succeed(int times = 1) { add(nullptr, times); }
    void failAlways(std::exception_ptr failure) { m_always = std::move(failure); }
    void clear() { *this = {}; }
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
            co_await m_gates->pass(m_name + QStringLiteral(".start"));
        ++startCount;
        startFailures.throwIfScripted();
        m_stream = std::make_shared<AudioStream>();
        isRunning = true;
    }
    QCoro::Task<> stop() override
    {
        ++stopCount;
        if (m_gates)
            co_await m_gates->pass(m_name + QStringLiteral(".stop"));
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

// Each event as a line: its name and its values.
class FakeTelemetry final : public InterviewTelemetry {
public:
    void firstInterviewStarted() override { add({QStringLiteral("first_interview_started")}); }
    void sttProviderChanged(const QString& provider) override
    {
        add({QStringLiteral("stt_provider_changed"), provider});
    }
    void audioCaptureFailed(const QString& code, const QString& category) override
    {
        add({QStringLiteral("audio_capture_failed"), code, category});
    }
    void firstAnswerReceived(qint64 latencyMs) override
    {
        add({QStringLiteral("first_answer_received"), QString::number(latencyMs)});
    }
    void sttFailed(const QString& provider, const QString& code) override
    {
        add({QStringLiteral("stt_failed"), provider, code});
    }
    void sessionCompleted(qint64 seconds, qint64 answers) override
    {
        add({QStringLiteral("session_completed"), QString::number(seconds),
             QString::number(answers)});
    }

    QStringList events;

private:
    void add(const QStringList& event) { events.append(event.join(QLatin1Char(' '))); }
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
