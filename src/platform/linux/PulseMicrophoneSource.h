#pragma once

#include "AudioSource.h"

#include <QByteArray>

#include <chrono>
#include <memory>

class Clock;
class PulseClient;
class PulseRecordStream;

// The server's default source, when it is a real input, recorded at its own rate as float32
// mono and handed to the tap in blocks of exactly the tap's size. Voice processing asks the
// server for echo cancellation on the stream.
class PulseMicrophoneSource final : public MicrophoneSource {
public:
    // Bounds each step of the start; a local server answers within milliseconds.
    static constexpr std::chrono::seconds startTimeout{5};

    // `server`: a libpulse server string, empty for the session's own. `clock` must outlive
    // the source.
    explicit PulseMicrophoneSource(Clock& clock, QByteArray server = {});
    ~PulseMicrophoneSource() override;

    bool isVoiceProcessingEnabled() const override { return m_voiceProcessing; }
    void setVoiceProcessingEnabled(bool enabled) override { m_voiceProcessing = enabled; }
    QCoro::Task<double> inputSampleRate() override;
    std::unique_ptr<SampleRateConverter> makeConverter(double inputRate,
                                                       double outputRate) override;
    void installTap(std::size_t frames, TapBlock block) override;
    void removeTap() override;
    QCoro::Task<> start() override;
    void stop() override;

    // A converter with its own state (libsamplerate), for anyone who needs one.
    static std::unique_ptr<SampleRateConverter> makeResampler(double inputRate, double outputRate);

private:
    Clock* m_clock;
    QByteArray m_server;
    bool m_voiceProcessing = false;
    std::shared_ptr<PulseClient> m_client;
    QByteArray m_sourceName;
    quint32 m_rate = 0;
    std::size_t m_tapFrames = 0;
    TapBlock m_tap;
    std::unique_ptr<PulseRecordStream> m_stream;
};
