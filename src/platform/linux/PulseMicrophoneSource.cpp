#include "PulseMicrophoneSource.h"

#include "PulseClient.h"

#include <samplerate.h>

#include <QString>

#include <cstring>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

// libsamplerate with a session's worth of state. Input the output had no room for waits for
// the next call, so a block that resamples to a fraction of a frame more than its capacity
// loses nothing.
class LibsamplerateConverter final : public SampleRateConverter {
public:
    LibsamplerateConverter(SRC_STATE* state, double ratio)
        : m_state(state)
        , m_ratio(ratio)
    {
    }
    ~LibsamplerateConverter() override { src_delete(m_state); }
    LibsamplerateConverter(const LibsamplerateConverter&) = delete;
    LibsamplerateConverter& operator=(const LibsamplerateConverter&) = delete;

    std::optional<std::size_t> convert(std::span<const float> input,
                                       std::span<float> output) override
    {
        std::span<const float> frames = input;
        if (!m_carry.empty()) {
            m_carry.insert(m_carry.end(), input.begin(), input.end());
            frames = m_carry;
        }
        SRC_DATA data{};
        data.data_in = frames.data();
        data.input_frames = long(frames.size());
        data.data_out = output.data();
        data.output_frames = long(output.size());
        data.src_ratio = m_ratio;
        data.end_of_input = 0;
        if (src_process(m_state, &data) != 0)
            return std::nullopt;

        // A carry of more than one block means the output is far too small to keep up: the
        // oldest input goes rather than the memory.
        const auto unused = frames.subspan(std::size_t(data.input_frames_used));
        if (unused.empty()) {
            m_carry.clear();
        } else {
            const auto kept = unused.last(std::min(unused.size(), input.size()));
            // A copy first: `kept` may lie inside m_carry.
            std::vector<float> carry(kept.begin(), kept.end());
            m_carry = std::move(carry);
        }
        return std::size_t(data.output_frames_gen);
    }

private:
    SRC_STATE* m_state;
    double m_ratio;
    std::vector<float> m_carry;
};

} // namespace

PulseMicrophoneSource::PulseMicrophoneSource(Clock& clock, QByteArray server)
    : m_clock(&clock)
    , m_server(std::move(server))
{
}

PulseMicrophoneSource::~PulseMicrophoneSource()
{
    stop();
}

QCoro::Task<double> PulseMicrophoneSource::inputSampleRate()
{
    auto server = m_server;
    auto client = co_await PulseClient::connect(std::move(server), m_clock, startTimeout);
    m_client = client;
    const auto info = co_await client->serverInfo(startTimeout);
    if (info.defaultSourceName.isEmpty())
        co_return 0.0;
    auto name = info.defaultSourceName;
    const auto source = co_await client->sourceInfo(std::move(name), startTimeout);
    // A monitor is what the machine plays, never the user's voice: recording it would feed the
    // interviewer into the user's channel.
    if (!source || source->isMonitor)
        co_return 0.0;
    m_sourceName = source->name;
    m_rate = source->rate;
    co_return double(m_rate);
}

std::unique_ptr<SampleRateConverter> PulseMicrophoneSource::makeConverter(double inputRate,
                                                                          double outputRate)
{
    return makeResampler(inputRate, outputRate);
}

std::unique_ptr<SampleRateConverter> PulseMicrophoneSource::makeResampler(double inputRate,
                                                                          double outputRate)
{
    if (!(inputRate > 0) || !(outputRate > 0) || !src_is_valid_ratio(outputRate / inputRate))
        return nullptr;
    int error = 0;
    // The fastest of the band-limited converters: clean enough for speech recognition at a
    // fraction of the better ones' cost.
    SRC_STATE* state = src_new(SRC_SINC_FASTEST, 1, &error);
    if (!state)
        return nullptr;
    return std::make_unique<LibsamplerateConverter>(state, outputRate / inputRate);
}

void PulseMicrophoneSource::installTap(std::size_t frames, TapBlock block)
{
    m_tapFrames = frames;
    m_tap = std::move(block);
}

void PulseMicrophoneSource::removeTap()
{
    // The tap lives in the recording's handler: without the recording it is never called.
    m_stream.reset();
    m_tap = {};
}

QCoro::Task<> PulseMicrophoneSource::start()
{
    if (!m_client || m_sourceName.isEmpty() || m_rate == 0)
        throw PulseError(u"No input source to record from"_s);
    if (!m_tap || m_tapFrames == 0)
        throw PulseError(u"Nothing to record into"_s);

    PulseClient::RecordRequest request;
    request.streamName = QByteArrayLiteral("Microphone");
    request.device = m_sourceName;
    request.rate = m_rate;
    request.channels = 1;
    request.blockBytes = quint32(m_tapFrames * sizeof(float));
    if (m_voiceProcessing)
        request.properties.emplace_back(QByteArrayLiteral("filter.want"),
                                        QByteArrayLiteral("echo-cancel"));

    // The recording hands over whole blocks of the tap's size, as bytes.
    auto onData = [tap = m_tap, frames = std::vector<float>(m_tapFrames)](
                      const std::byte* data, std::size_t length, const SampleDescription&) mutable {
        frames.resize(length / sizeof(float));
        std::memcpy(frames.data(), data, frames.size() * sizeof(float));
        tap(frames);
    };
    const auto client = m_client;
    auto stream = co_await client->record(std::move(request), std::move(onData), startTimeout);
    m_stream = std::move(stream);
}

void PulseMicrophoneSource::stop()
{
    m_stream.reset();
    if (m_client)
        m_client->close();
    m_client.reset();
}
