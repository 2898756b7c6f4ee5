#include "PulseSystemAudioSource.h"

#include "AudioCaptureService.h"
#include "PulseClient.h"

PulseSystemAudioSource::PulseSystemAudioSource(Clock& clock, QByteArray server)
    : m_clock(&clock)
    , m_server(std::move(server))
{
}

PulseSystemAudioSource::~PulseSystemAudioSource()
{
    release();
}

QCoro::Task<> PulseSystemAudioSource::start(BlockHandler onBlock)
{
    release();
    auto server = m_server;
    auto client = co_await PulseClient::connect(std::move(server), m_clock, startTimeout);
    m_client = client;

    // The sink's name plus ".monitor" rather than @DEFAULT_MONITOR@, which some PipeWire
    // setups do not resolve.
    const auto info = co_await client->serverInfo(startTimeout);
    if (info.defaultSinkName.isEmpty())
        throw AudioCaptureError(AudioCaptureError::Case::noDisplay);
    QByteArray monitorName = info.defaultSinkName + QByteArrayLiteral(".monitor");
    auto lookup = monitorName;
    const auto monitor = co_await client->sourceInfo(std::move(lookup), startTimeout);
    if (!monitor || !monitor->isMonitor)
        throw AudioCaptureError(AudioCaptureError::Case::noDisplay);

    PulseClient::RecordRequest request;
    request.streamName = QByteArrayLiteral("System audio");
    request.device = std::move(monitorName);
    request.rate = quint32(sampleRate);
    request.channels = 1;
    request.blockBytes = quint32(sampleRate * fragment.count() / 1000) * sizeof(float);
    auto onData = [onBlock = std::move(onBlock)](const std::byte* data, std::size_t length,
                                                 const SampleDescription& description) {
        SampleBlock block;
        block.description = description;
        block.frameCount = description.bytesPerFrame ? length / description.bytesPerFrame : 0;
        block.data = data;
        block.byteLength = length;
        onBlock(block);
    };
    auto stream = co_await client->record(std::move(request), std::move(onData), startTimeout);
    m_stream = std::move(stream);
}

QCoro::Task<> PulseSystemAudioSource::stop()
{
    release();
    co_return;
}

void PulseSystemAudioSource::release()
{
    // The stream first: its teardown takes the client's lock.
    m_stream.reset();
    if (m_client)
        m_client->close();
    m_client.reset();
}
