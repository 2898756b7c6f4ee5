#include "PulseClient.h"

#include "Clock.h"

#include <pulse/pulseaudio.h>

#include <QMetaObject>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr auto applicationName = "RavletAI";

QString closedText()
{
    return u"The sound server connection was closed"_s;
}

QString pulseText(int error)
{
    return QString::fromUtf8(pa_strerror(error));
}

SampleDescription describe(const pa_sample_spec& layout)
{
    SampleDescription description;
    switch (layout.format) {
    case PA_SAMPLE_FLOAT32NE:
        description.format = SampleDescription::Format::float32;
        break;
    case PA_SAMPLE_S32NE:
        description.format = SampleDescription::Format::int32;
        break;
    case PA_SAMPLE_S16NE:
        description.format = SampleDescription::Format::int16;
        break;
    default:
        description.format = SampleDescription::Format::other;
        break;
    }
    description.channelCount = layout.channels;
    description.bytesPerFrame = quint32(pa_frame_size(&layout));
    description.sampleRate = layout.rate;
    return description;
}

} // namespace

// The main-loop lock, held by the main thread whenever it touches libpulse objects; the
// main-loop thread holds it while it runs callbacks.
class PulseClient::Locker {
public:
    explicit Locker(pa_threaded_mainloop* mainloop)
        : m_mainloop(mainloop)
    {
        pa_threaded_mainloop_lock(m_mainloop);
    }
    ~Locker() { pa_threaded_mainloop_unlock(m_mainloop); }
    Locker(const Locker&) = delete;
    Locker& operator=(const Locker&) = delete;

private:
    pa_threaded_mainloop* m_mainloop;
};

PulseClient::PulseClient(Clock* clock)
    : m_clock(clock)
    , m_receiver(std::make_unique<QObject>())
    , m_connectReplies(std::make_shared<AsyncQueue<ConnectOutcome>>())
{
}

PulseClient::~PulseClient()
{
    // Stopping joins the main-loop thread: after it no callback runs, so the rest needs no
    // lock, and the replies still queued for m_receiver are dropped with it.
    if (m_mainloop)
        pa_threaded_mainloop_stop(m_mainloop);
    if (m_context) {
        pa_context_set_state_callback(m_context, nullptr, nullptr);
        pa_context_disconnect(m_context);
        pa_context_unref(m_context);
    }
    if (m_mainloop)
        pa_threaded_mainloop_free(m_mainloop);
}

template <typename T>
void PulseClient::post(const std::shared_ptr<AsyncQueue<T>>& replies, T value) const
{
    QMetaObject::invokeMethod(
        m_receiver.get(),
        [replies, value = std::move(value)]() mutable { replies->push(std::move(value)); },
        Qt::QueuedConnection);
}

template <typename T>
QCoro::Task<std::optional<T>> PulseClient::wait(std::shared_ptr<AsyncQueue<T>> replies,
                                                std::chrono::milliseconds timeout)
{
    const auto keepAlive = shared_from_this();
    if (m_closed.isCancelled())
        throw PulseError(closedText());
    CancellationToken token;
    const auto closing = m_closed.onCancel([token] { token.cancel(); });
    const auto timer =
        m_clock->startTimer(std::max<qint64>(timeout.count(), 0), [token] { token.cancel(); });
    auto reply = co_await replies->next(token);
    m_clock->cancelTimer(timer);
    if (m_closed.isCancelled())
        throw PulseError(closedText());
    co_return reply;
}

QCoro::Task<std::shared_ptr<PulseClient>> PulseClient::connect(QByteArray server, Clock* clock,
                                                               std::chrono::milliseconds timeout)
{
    std::shared_ptr<PulseClient> client(new PulseClient(clock));
    client->beginConnect(server);
    auto replies = client->m_connectReplies;
    const auto outcome = co_await client->wait(std::move(replies), timeout);
    if (!outcome)
        throw PulseError(u"The sound server did not answer"_s);
    if (!outcome->ready)
        throw PulseError(u"Cannot reach the sound server: "_s + outcome->error);
    co_return client;
}

void PulseClient::beginConnect(const QByteArray& server)
{
    m_mainloop = pa_threaded_mainloop_new();
    if (!m_mainloop)
        throw PulseError(u"Cannot start the sound server connection"_s);
    pa_proplist* properties = pa_proplist_new();
    pa_proplist_sets(properties, PA_PROP_APPLICATION_NAME, applicationName);
    pa_proplist_sets(properties, PA_PROP_APPLICATION_ID, "ai.ravlet.RavletAI");
    m_context = pa_context_new_with_proplist(pa_threaded_mainloop_get_api(m_mainloop),
                                             applicationName, properties);
    pa_proplist_free(properties);
    if (!m_context)
        throw PulseError(u"Cannot start the sound server connection"_s);
    pa_context_set_state_callback(m_context, &PulseClient::contextStateChanged, this);
    // Starting a server of our own would only hide that the session has none.
    if (pa_context_connect(m_context, server.isEmpty() ? nullptr : server.constData(),
                           PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
        throw PulseError(u"Cannot reach the sound server: "_s + lastError());
    if (pa_threaded_mainloop_start(m_mainloop) < 0)
        throw PulseError(u"Cannot start the sound server connection"_s);
}

void PulseClient::contextStateChanged(pa_context* context, void* userdata)
{
    auto* self = static_cast<PulseClient*>(userdata);
    switch (pa_context_get_state(context)) {
    case PA_CONTEXT_READY:
        self->post(self->m_connectReplies, ConnectOutcome{true, {}});
        break;
    case PA_CONTEXT_FAILED:
    case PA_CONTEXT_TERMINATED:
        self->post(self->m_connectReplies,
                   ConnectOutcome{false, pulseText(pa_context_errno(context))});
        break;
    default:
        break;
    }
}

QString PulseClient::lastError() const
{
    // The lock is recursive: this may run inside a locked section too.
    Locker lock(m_mainloop);
    return pulseText(pa_context_errno(m_context));
}

void PulseClient::close()
{
    m_closed.cancel();
}

void PulseClient::keep(pa_operation* operation, std::shared_ptr<void> request)
{
    if (!operation)
        throw PulseError(u"The sound server did not answer: "_s + lastError());
    pa_operation_unref(operation);
    // The request outlives its operation's callback, which may come after a time-out.
    m_requests.push_back(std::move(request));
}

QCoro::Task<PulseClient::ServerInfo> PulseClient::serverInfo(std::chrono::milliseconds timeout)
{
    struct Request {
        const PulseClient* client;
        std::shared_ptr<AsyncQueue<std::optional<ServerInfo>>> replies;
    };
    auto request = std::make_shared<Request>(
        Request{this, std::make_shared<AsyncQueue<std::optional<ServerInfo>>>()});
    {
        Locker lock(m_mainloop);
        const auto callback = [](pa_context*, const pa_server_info* info, void* userdata) {
            const auto* request = static_cast<Request*>(userdata);
            std::optional<ServerInfo> reply;
            if (info) {
                reply.emplace();
                reply->defaultSinkName = info->default_sink_name;
                reply->defaultSourceName = info->default_source_name;
            }
            request->client->post(request->replies, std::move(reply));
        };
        keep(pa_context_get_server_info(m_context, callback, request.get()), request);
    }
    auto replies = request->replies;
    const auto reply = co_await wait(std::move(replies), timeout);
    if (!reply)
        throw PulseError(u"The sound server did not answer"_s);
    if (!*reply)
        throw PulseError(u"The sound server did not answer: "_s + lastError());
    ServerInfo info = **reply;
    co_return info;
}

QCoro::Task<std::optional<PulseClient::SourceInfo>>
PulseClient::sourceInfo(QByteArray name, std::chrono::milliseconds timeout)
{
    struct Request {
        const PulseClient* client;
        std::shared_ptr<AsyncQueue<std::optional<SourceInfo>>> replies;
        // Filled on the main-loop thread from the list's one entry.
        std::optional<SourceInfo> found;
    };
    auto request = std::make_shared<Request>(
        Request{this, std::make_shared<AsyncQueue<std::optional<SourceInfo>>>(), std::nullopt});
    {
        Locker lock(m_mainloop);
        const auto callback = [](pa_context*, const pa_source_info* info, int eol, void* userdata) {
            auto* request = static_cast<Request*>(userdata);
            if (info && eol == 0) {
                request->found.emplace();
                request->found->name = info->name;
                request->found->rate = info->sample_spec.rate;
                request->found->isMonitor = info->monitor_of_sink != PA_INVALID_INDEX;
                return;
            }
            // The end of the list, or an error (a name the server does not know).
            request->client->post(request->replies, eol > 0 ? request->found : std::nullopt);
        };
        keep(pa_context_get_source_info_by_name(m_context, name.constData(), callback, request.get()),
             request);
    }
    auto replies = request->replies;
    const auto reply = co_await wait(std::move(replies), timeout);
    if (!reply)
        throw PulseError(u"The sound server did not answer"_s);
    std::optional<SourceInfo> info = *reply;
    co_return info;
}

QCoro::Task<std::unique_ptr<PulseRecordStream>>
PulseClient::record(RecordRequest request, DataHandler onData, std::chrono::milliseconds timeout)
{
    if (request.blockBytes == 0)
        throw PulseError(u"Cannot record without a block size"_s);
    std::unique_ptr<PulseRecordStream> stream(
        new PulseRecordStream(shared_from_this(), std::move(onData)));
    stream->m_blockBytes = request.blockBytes;
    stream->m_block.reserve(request.blockBytes);
    {
        Locker lock(m_mainloop);
        const pa_sample_spec layout{PA_SAMPLE_FLOAT32NE, request.rate, request.channels};
        pa_proplist* properties = pa_proplist_new();
        for (const auto& [key, value] : request.properties)
            pa_proplist_sets(properties, key.constData(), value.constData());
        stream->m_stream = pa_stream_new_with_proplist(m_context, request.streamName.constData(),
                                                       &layout, nullptr, properties);
        pa_proplist_free(properties);
        if (!stream->m_stream)
            throw PulseError(u"Cannot record from the sound server: "_s + lastError());
        pa_stream_set_state_callback(stream->m_stream, &PulseRecordStream::stateChanged,
                                     stream.get());
        pa_stream_set_read_callback(stream->m_stream, &PulseRecordStream::readable, stream.get());

        pa_buffer_attr attributes;
        attributes.maxlength = quint32(-1);
        attributes.tlength = quint32(-1);
        attributes.prebuf = quint32(-1);
        attributes.minreq = quint32(-1);
        attributes.fragsize = request.blockBytes;
        // Adjusted latency: the server sizes its own buffering to the fragment, so blocks come
        // at that pace rather than in bursts.
        if (pa_stream_connect_record(
                stream->m_stream, request.device.isEmpty() ? nullptr : request.device.constData(),
                &attributes, PA_STREAM_ADJUST_LATENCY) < 0)
            throw PulseError(u"Cannot record from the sound server: "_s + lastError());
    }
    auto states = stream->m_states;
    const auto state = co_await wait(std::move(states), timeout);
    if (!state)
        throw PulseError(u"The sound server did not start the recording"_s);
    if (!state->isEmpty())
        throw PulseError(u"Cannot record from the sound server: "_s + *state);
    co_return stream;
}

PulseRecordStream::PulseRecordStream(std::shared_ptr<PulseClient> client,
                                     PulseClient::DataHandler onData)
    : m_client(std::move(client))
    , m_onData(std::move(onData))
{
}

PulseRecordStream::~PulseRecordStream()
{
    if (!m_stream)
        return;
    PulseClient::Locker lock(m_client->m_mainloop);
    pa_stream_set_read_callback(m_stream, nullptr, nullptr);
    pa_stream_set_state_callback(m_stream, nullptr, nullptr);
    // Fails on a stream the server already dropped; there is nothing left to undo then.
    pa_stream_disconnect(m_stream);
    pa_stream_unref(m_stream);
}

void PulseRecordStream::stateChanged(pa_stream* stream, void* userdata)
{
    auto* self = static_cast<PulseRecordStream*>(userdata);
    if (self->m_settled)
        return;
    switch (pa_stream_get_state(stream)) {
    case PA_STREAM_READY:
        self->m_description = describe(*pa_stream_get_sample_spec(stream));
        self->m_settled = true;
        self->m_client->post(self->m_states, QString());
        break;
    case PA_STREAM_FAILED:
    case PA_STREAM_TERMINATED: {
        self->m_settled = true;
        QString error = pulseText(pa_context_errno(pa_stream_get_context(stream)));
        self->m_client->post(self->m_states, std::move(error));
        break;
    }
    default:
        break;
    }
}

void PulseRecordStream::readable(pa_stream* stream, std::size_t, void* userdata)
{
    auto* self = static_cast<PulseRecordStream*>(userdata);
    const void* data = nullptr;
    std::size_t length = 0;
    while (pa_stream_peek(stream, &data, &length) == 0 && length > 0) {
        // No data with a length is a hole in the recording: skipped, as the server asks.
        if (data)
            self->gather(static_cast<const std::byte*>(data), length);
        pa_stream_drop(stream);
    }
}

void PulseRecordStream::gather(const std::byte* data, std::size_t length)
{
    while (length > 0) {
        const auto take = std::min(length, m_blockBytes - m_block.size());
        m_block.insert(m_block.end(), data, data + take);
        data += take;
        length -= take;
        if (m_block.size() == m_blockBytes) {
            m_onData(m_block.data(), m_block.size(), m_description);
            m_block.clear();
        }
    }
}
