#include "MicrophoneService.h"

#include <QCoreApplication>
#include <QPointer>

#include <algorithm>

using namespace Qt::StringLiterals;

QString MicrophoneError::text(Case which)
{
    switch (which) {
    case Case::noInputDevice:
        return u"No microphone input device found"_s;
    case Case::formatError:
        return u"Failed to create target audio format"_s;
    case Case::converterError:
        return u"Failed to create audio format converter"_s;
    case Case::permissionDenied:
        return u"Microphone access not granted"_s;
    }
    return {};
}

MicrophoneService::MicrophoneService(SourceFactory makeSource, QObject* parent)
    : QObject(parent)
    , m_makeSource(std::move(makeSource))
{
}

MicrophoneService::~MicrophoneService()
{
    if (m_engine) {
        m_engine->removeTap();
        m_engine->stop();
    }
}

std::shared_ptr<AudioStream> MicrophoneService::audioStream()
{
    if (!m_audioStream)
        m_audioStream = std::make_shared<AudioStream>();
    return m_audioStream;
}

QCoro::Task<> MicrophoneService::start()
{
    m_audioStream = std::make_shared<AudioStream>();
    const auto session = ++m_session;
    std::shared_ptr<MicrophoneSource> engine = m_makeSource();
    m_engine = engine;

    if (!engine->isVoiceProcessingEnabled())
        engine->setVoiceProcessingEnabled(true);

    // A stop (or another start) while the platform answers owns what comes next: this start
    // then ends quietly, whatever the platform made of being stopped.
    const QPointer<MicrophoneService> self(this);
    const auto overtaken = [&] { return !self || session != m_session; };

    // Read after voice processing is on, which may change what the input delivers.
    double inputRate = 0;
    try {
        inputRate = co_await engine->inputSampleRate();
    } catch (const AudioSourceError&) {
        if (!overtaken())
            throw;
    }
    if (overtaken())
        co_return;
    if (!(inputRate > 0))
        throw MicrophoneError(MicrophoneError::Case::noInputDevice);

    // One converter for the whole session: its filter state carries across blocks.
    std::shared_ptr<SampleRateConverter> converter =
        engine->makeConverter(inputRate, targetSampleRate);
    if (!converter)
        throw MicrophoneError(MicrophoneError::Case::converterError);

    // The tap runs on the platform's thread. The weak reference is made here, on the main
    // thread, and only read back there, inside the queued call.
    const QPointer<MicrophoneService> weakSelf(this);
    engine->installTap(tapFrames,
                       [weakSelf, session, inputRate, converter](std::span<const float> frames) {
                           auto buffer = convertBlock(*converter, inputRate, frames);
                           if (!buffer)
                               return;
                           QMetaObject::invokeMethod(
                               QCoreApplication::instance(),
                               [weakSelf, session, buffer = std::move(*buffer)]() mutable {
                                   if (weakSelf)
                                       weakSelf->onBuffer(session, std::move(buffer));
                               },
                               Qt::QueuedConnection);
                       });

    try {
        co_await engine->start();
    } catch (const AudioSourceError&) {
        if (!overtaken())
            throw;
    }
}

QCoro::Task<> MicrophoneService::stop()
{
    ++m_session;
    if (m_engine) {
        m_engine->removeTap();
        m_engine->stop();
        m_engine.reset();
    }
    if (m_audioStream)
        m_audioStream->finish();
    m_audioStream.reset();
    co_return;
}

void MicrophoneService::onBuffer(quint64 session, PcmBuffer buffer)
{
    if (m_audioStream && session == m_session)
        m_audioStream->push(std::move(buffer));
}

std::optional<PcmBuffer> MicrophoneService::convertBlock(SampleRateConverter& converter,
                                                         double inputRate,
                                                         std::span<const float> input)
{
    const auto capacity =
        static_cast<std::size_t>(targetSampleRate / inputRate * double(input.size()));
    if (capacity == 0)
        return std::nullopt;
    PcmBuffer buffer;
    buffer.sampleRate = targetSampleRate;
    buffer.samples.resize(capacity);
    const auto frames = converter.convert(input, buffer.samples);
    if (!frames || *frames == 0)
        return std::nullopt;
    buffer.samples.resize(std::min(*frames, capacity));
    return buffer;
}
