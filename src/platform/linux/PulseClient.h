#pragma once

#include "AsyncQueue.h"
#include "AudioSource.h"
#include "CancellationToken.h"

#include <QByteArray>
#include <QCoroTask>
#include <QObject>
#include <QString>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

struct pa_context;
struct pa_operation;
struct pa_stream;
struct pa_threaded_mainloop;
class Clock;

// What the sound server or libpulse said went wrong.
class PulseError : public AudioSourceError {
public:
    using AudioSourceError::AudioSourceError;
};

class PulseRecordStream;

// One connection to the sound server (PulseAudio, or PipeWire through pipewire-pulse) with a
// main-loop thread of its own. Every request is answered on the main thread, through a queued
// call, and every wait has a time-out on the given clock: a server that hangs, or none at all,
// never holds the caller.
class PulseClient : public std::enable_shared_from_this<PulseClient> {
public:
    struct ServerInfo {
        QByteArray defaultSinkName;
        QByteArray defaultSourceName;
    };
    struct SourceInfo {
        QByteArray name;
        quint32 rate = 0;
        bool isMonitor = false;
    };
    // A float32 recording in the machine's byte order.
    struct RecordRequest {
        QByteArray streamName;
        QByteArray device;
        quint32 rate = 16000;
        quint8 channels = 1;
        // The handler gets blocks of exactly this size; the server is asked to hand data over
        // at the same pace.
        quint32 blockBytes = 0;
        std::vector<std::pair<QByteArray, QByteArray>> properties;
    };
    // Called on the main-loop thread with each block.
    using DataHandler =
        std::function<void(const std::byte* data, std::size_t length, const SampleDescription&)>;

    // `server` is a libpulse server string; empty picks the session's own server. Never starts
    // a server. Throws PulseError.
    static QCoro::Task<std::shared_ptr<PulseClient>> connect(QByteArray server, Clock* clock,
                                                             std::chrono::milliseconds timeout);
    ~PulseClient();
    PulseClient(const PulseClient&) = delete;
    PulseClient& operator=(const PulseClient&) = delete;

    QCoro::Task<ServerInfo> serverInfo(std::chrono::milliseconds timeout);
    // Nothing when the server has no source of that name.
    QCoro::Task<std::optional<SourceInfo>> sourceInfo(QByteArray name,
                                                      std::chrono::milliseconds timeout);
    // Opens a recording and waits until data flows to `onData`. Throws PulseError.
    QCoro::Task<std::unique_ptr<PulseRecordStream>>
    record(RecordRequest request, DataHandler onData, std::chrono::milliseconds timeout);

    // Ends every wait at once, each with a PulseError; the connection itself goes with the
    // last reference.
    void close();

private:
    friend class PulseRecordStream;
    struct ConnectOutcome {
        bool ready = false;
        QString error;
    };
    class Locker;

    explicit PulseClient(Clock* clock);
    void beginConnect(const QByteArray& server);
    QString lastError() const;
    // Starts tracking an operation; throws when the server refused to start it. Call with the
    // main loop locked.
    void keep(pa_operation* operation, std::shared_ptr<void> request);
    template <typename T>
    QCoro::Task<std::optional<T>> wait(std::shared_ptr<AsyncQueue<T>> replies,
                                       std::chrono::milliseconds timeout);
    template <typename T> void post(const std::shared_ptr<AsyncQueue<T>>& replies, T value) const;

    static void contextStateChanged(pa_context* context, void* userdata);

    Clock* m_clock;
    // Receives the queued replies on the main thread; what is still queued when the client
    // goes is dropped with it.
    std::unique_ptr<QObject> m_receiver;
    pa_threaded_mainloop* m_mainloop = nullptr;
    pa_context* m_context = nullptr;
    std::shared_ptr<AsyncQueue<ConnectOutcome>> m_connectReplies;
    // Bookkeeping of requests the main-loop thread may still answer; freed with the client,
    // once that thread has stopped.
    std::vector<std::shared_ptr<void>> m_requests;
    CancellationToken m_closed;
};

// A recording on a PulseClient. Destroying it stops the deliveries: once the destructor has
// returned, its handler is not called again.
class PulseRecordStream {
public:
    ~PulseRecordStream();
    PulseRecordStream(const PulseRecordStream&) = delete;
    PulseRecordStream& operator=(const PulseRecordStream&) = delete;

private:
    friend class PulseClient;
    PulseRecordStream(std::shared_ptr<PulseClient> client, PulseClient::DataHandler onData);

    static void stateChanged(pa_stream* stream, void* userdata);
    static void readable(pa_stream* stream, std::size_t length, void* userdata);
    void gather(const std::byte* data, std::size_t length);

    std::shared_ptr<PulseClient> m_client;
    pa_stream* m_stream = nullptr;
    PulseClient::DataHandler m_onData;
    // The server hands over its data in pieces of its own size (a few ms from a null sink's
    // monitor); they are gathered here into whole blocks. Main-loop thread only.
    std::vector<std::byte> m_block;
    std::size_t m_blockBytes = 0;
    // Set on the main-loop thread when the stream is ready, before any data.
    SampleDescription m_description;
    // Empty text: ready; otherwise why the stream failed.
    std::shared_ptr<AsyncQueue<QString>> m_states = std::make_shared<AsyncQueue<QString>>();
    bool m_settled = false;
};
