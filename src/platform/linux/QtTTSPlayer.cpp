#include "QtTTSPlayer.h"

#include "WhenCancelled.h"

#include <QAudioDecoder>
#include <QAudioSink>
#include <QBuffer>
#include <QMediaDevices>
#include <QPointer>

#include <cmath>
#include <limits>

namespace {
// What a silent window reads as: far below the -50 dB floor of the level.
constexpr double silenceDb = -160.0;
} // namespace

QtTTSPlayer::QtTTSPlayer(Clock& clock, QObject* parent)
    : TTSPlayer(clock, parent)
    , m_clock(clock)
{
}

QtTTSPlayer::~QtTTSPlayer()
{
    stop();
}

QCoro::Task<bool> QtTTSPlayer::prepare(QByteArray bytes)
{
    QPointer self(this);
    releaseDecoder();
    m_pcm.clear();
    m_format = {};
    m_decodeFailed = false;
    if (bytes.isEmpty())
        co_return false;

    m_encoded.reset(new QBuffer);
    m_encoded->setData(bytes);
    m_encoded->open(QIODevice::ReadOnly);
    m_decoder.reset(new QAudioDecoder);
    CancellationToken done;
    CancellationToken abort;
    m_decodeAbort = abort;
    connect(m_decoder.get(), &QAudioDecoder::bufferReady, this, &QtTTSPlayer::appendDecoded);
    connect(m_decoder.get(), &QAudioDecoder::finished, this, [done] { done.cancel(); });
    connect(m_decoder.get(), QOverload<QAudioDecoder::Error>::of(&QAudioDecoder::error), this,
            [this, done](QAudioDecoder::Error) {
                m_decodeFailed = true;
                done.cancel();
            });
    m_decodeTimer = m_clock.startTimer(decodeTimeout.count(), [this, abort] {
        m_decodeTimer = 0;
        m_decodeFailed = true;
        abort.cancel();
    });
    m_decoder->setSourceDevice(m_encoded.get());
    m_decoder->start();

    const bool finished = co_await WhenCancelled(done, abort);
    if (!self)
        co_return false;
    // Buffers still queued behind the end are part of the clip.
    if (finished && m_decoder)
        appendDecoded();
    releaseDecoder();
    co_return finished && !m_decodeFailed && !m_pcm.isEmpty() && m_format.isValid();
}

void QtTTSPlayer::appendDecoded()
{
    if (!m_decoder)
        return;
    while (m_decoder->bufferAvailable()) {
        const QAudioBuffer buffer = m_decoder->read();
        const QAudioFormat format = buffer.format();
        if (!buffer.isValid() || !format.isValid())
            continue;
        if (!m_format.isValid()) {
            m_format.setSampleRate(format.sampleRate());
            m_format.setChannelCount(format.channelCount());
            m_format.setSampleFormat(QAudioFormat::Int16);
        } else if (format.sampleRate() != m_format.sampleRate()
                   || format.channelCount() != m_format.channelCount()) {
            continue; // a clip does not change its format half way
        }
        const int bytesPerSample = format.bytesPerSample();
        const qsizetype samples = buffer.byteCount() / bytesPerSample;
        const auto* data = buffer.constData<char>();
        const qsizetype start = m_pcm.size();
        m_pcm.resize(start + samples * qsizetype(sizeof(qint16)));
        auto* out = reinterpret_cast<qint16*>(m_pcm.data() + start);
        for (qsizetype i = 0; i < samples; ++i) {
            const float value =
                std::clamp(format.normalizedSampleValue(data + i * bytesPerSample), -1.0f, 1.0f);
            out[i] = qint16(std::lround(value * 32767.0f));
        }
    }
}

void QtTTSPlayer::releaseDecoder()
{
    if (m_decodeTimer)
        m_clock.cancelTimer(std::exchange(m_decodeTimer, 0));
    if (m_decoder) {
        m_decoder->disconnect(this);
        m_decoder->stop();
        m_decoder.reset();
    }
    m_encoded.reset();
    // Wakes a prepare() that still waits; it then finds the decoder gone.
    if (auto abort = std::exchange(m_decodeAbort, std::nullopt))
        abort->cancel();
}

void QtTTSPlayer::startOutput()
{
    const auto device = QMediaDevices::defaultAudioOutput();
    if (device.isNull()) {
        outputEnded();
        return;
    }
    m_output.reset(new QBuffer);
    m_output->setData(m_pcm);
    m_output->open(QIODevice::ReadOnly);
    m_sink.reset(new QAudioSink(device, m_format));
    connect(m_sink.get(), &QAudioSink::stateChanged, this, [this](QAudio::State state) {
        // Idle: the whole clip has been handed over. Stopped with an error: the server went.
        if (state == QAudio::IdleState
            || (state == QAudio::StoppedState && m_sink && m_sink->error() != QAudio::NoError))
            outputEnded();
    });
    m_sink->start(m_output.get());
    if (m_sink && m_sink->error() != QAudio::NoError)
        outputEnded();
}

void QtTTSPlayer::haltOutput()
{
    releaseDecoder();
    if (m_sink) {
        m_sink->disconnect(this);
        m_sink->stop();
        m_sink.reset();
    }
    m_output.reset();
}

std::optional<double> QtTTSPlayer::currentPower()
{
    if (!m_sink || !m_format.isValid())
        return std::nullopt;
    // The last thirtieth of a second handed to the sound server.
    const qint64 frameBytes = qint64(m_format.channelCount()) * qint64(sizeof(qint16));
    const qint64 endFrame = m_sink->processedUSecs() * m_format.sampleRate() / 1'000'000;
    const qint64 windowFrames = std::max<qint64>(1, m_format.sampleRate() / 30);
    const qint64 end = std::min<qint64>(endFrame * frameBytes, m_pcm.size());
    const qint64 begin = std::max<qint64>(0, end - windowFrames * frameBytes);
    if (end <= begin)
        return silenceDb;
    const auto* samples = reinterpret_cast<const qint16*>(m_pcm.constData() + begin);
    const qint64 count = (end - begin) / qint64(sizeof(qint16));
    double sum = 0;
    for (qint64 i = 0; i < count; ++i) {
        const double value = samples[i] / 32768.0;
        sum += value * value;
    }
    const double rms = std::sqrt(sum / double(count));
    return rms > 0 ? 20.0 * std::log10(rms) : silenceDb;
}
