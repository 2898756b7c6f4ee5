#include "AudioCaptureService.h"

#include <QCoreApplication>
#include <QPointer>

#include <algorithm>
#include <cstring>

using namespace Qt::StringLiterals;

QString AudioCaptureError::text(Case which)
{
    switch (which) {
    case Case::noDisplay:
        return u"No system audio source found for audio capture"_s;
    case Case::noPermission:
        return u"Screen recording permission not granted"_s;
    case Case::noApplication:
        return u"Target application not found"_s;
    }
    return {};
}

AudioCaptureService::AudioCaptureService(SourceFactory makeSource, QObject* parent)
    : QObject(parent)
    , m_makeSource(std::move(makeSource))
{
}

AudioCaptureService::~AudioCaptureService() = default;

std::shared_ptr<AudioStream> AudioCaptureService::audioStream()
{
    if (!m_audioStream)
        m_audioStream = std::make_shared<AudioStream>();
    return m_audioStream;
}

QCoro::Task<> AudioCaptureService::start(std::optional<QString> targetApplication)
{
    Q_UNUSED(targetApplication);
    m_audioStream = std::make_shared<AudioStream>();
    const auto session = ++m_session;

    std::shared_ptr<SystemAudioSource> source = m_makeSource();
    // The handler runs on the platform's thread. The weak reference is made here, on the main
    // thread, and only read back there, inside the queued call; the application object lives
    // on the main thread for as long as anything can post to it.
    const QPointer<AudioCaptureService> weakSelf(this);
    auto onBlock = [weakSelf, session](const SampleBlock& block) {
        auto buffer = pcmBuffer(block);
        if (!buffer)
            return;
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [weakSelf, session, buffer = std::move(*buffer)]() mutable {
                if (weakSelf)
                    weakSelf->onBuffer(session, std::move(buffer));
            },
            Qt::QueuedConnection);
    };

    const QPointer<AudioCaptureService> self(this);
    co_await source->start(std::move(onBlock));
    // A stop (or another start) while the platform was starting owns what comes next; the
    // local reference drops this capture.
    if (!self || session != m_session)
        co_return;
    m_stream = std::move(source);
}

QCoro::Task<> AudioCaptureService::stop()
{
    if (m_stream) {
        const auto stream = m_stream;
        const QPointer<AudioCaptureService> self(this);
        co_await stream->stop();
        if (!self)
            co_return;
    }
    ++m_session;
    m_stream.reset();
    if (m_audioStream)
        m_audioStream->finish();
    m_audioStream.reset();
}

void AudioCaptureService::onBuffer(quint64 session, PcmBuffer buffer)
{
    if (m_audioStream && session == m_session)
        m_audioStream->push(std::move(buffer));
}

std::optional<PcmBuffer> AudioCaptureService::pcmBuffer(const SampleBlock& block)
{
    const std::size_t n = block.frameCount;
    if (n == 0 || !block.data)
        return std::nullopt;
    const auto& description = block.description;
    const std::size_t channels = description.channelCount;
    if (channels == 0)
        return std::nullopt;

    PcmBuffer buffer;
    buffer.sampleRate = description.sampleRate;
    buffer.samples.assign(n, 0.0f);
    float* out = buffer.samples.data();

    // The integer branches read the first channel of every frame; a block too short for that
    // is dropped rather than read past its end.
    const auto covers = [&](std::size_t sampleSize) {
        return ((n - 1) * channels + 1) * sampleSize <= block.byteLength;
    };

    switch (description.format) {
    case SampleDescription::Format::float32: {
        // Copied as they are: right for the one channel asked for. Never more than the block
        // holds or the buffer takes.
        const std::size_t bytes = std::min(
            {n * std::size_t(description.bytesPerFrame), block.byteLength, n * sizeof(float)});
        std::memcpy(out, block.data, bytes);
        break;
    }
    case SampleDescription::Format::int32: {
        if (!covers(sizeof(qint32)))
            return std::nullopt;
        for (std::size_t i = 0; i < n; ++i) {
            qint32 sample;
            std::memcpy(&sample, block.data + i * channels * sizeof(qint32), sizeof(qint32));
            out[i] = float(sample) * 0x1p-31f;
        }
        break;
    }
    case SampleDescription::Format::int16: {
        if (!covers(sizeof(qint16)))
            return std::nullopt;
        for (std::size_t i = 0; i < n; ++i) {
            qint16 sample;
            std::memcpy(&sample, block.data + i * channels * sizeof(qint16), sizeof(qint16));
            out[i] = float(sample) / 32767.0f;
        }
        break;
    }
    case SampleDescription::Format::float64:
    case SampleDescription::Format::other:
        return std::nullopt;
    }
    return buffer;
}
