#pragma once

// The platform's capture sources with the platform taken out: each hands the service's handler
// to the bench, which then plays the sound server's thread and feeds blocks itself. The
// microphone converts with the real resampler.
#include "AudioCaptureService.h"
#include "MicrophoneService.h"
#include "PulseMicrophoneSource.h"

namespace bench {

class SyntheticSystemSource final : public SystemAudioSource {
public:
    explicit SyntheticSystemSource(BlockHandler* out)
        : m_out(out)
    {
    }
    QCoro::Task<> start(BlockHandler onBlock) override
    {
        *m_out = std::move(onBlock);
        co_return;
    }
    QCoro::Task<> stop() override
    {
        *m_out = {};
        co_return;
    }

private:
    BlockHandler* m_out;
};

class SyntheticMicrophone final : public MicrophoneSource {
public:
    SyntheticMicrophone(TapBlock* out, double rate)
        : m_out(out)
        , m_rate(rate)
    {
    }
    bool isVoiceProcessingEnabled() const override { return true; }
    void setVoiceProcessingEnabled(bool) override {}
    QCoro::Task<double> inputSampleRate() override { co_return m_rate; }
    std::unique_ptr<SampleRateConverter> makeConverter(double inputRate, double outputRate) override
    {
        return PulseMicrophoneSource::makeResampler(inputRate, outputRate);
    }
    void installTap(std::size_t, TapBlock block) override { *m_out = std::move(block); }
    void removeTap() override { *m_out = {}; }
    QCoro::Task<> start() override { co_return; }
    void stop() override {}

private:
    TapBlock* m_out;
    double m_rate;
};

} // namespace bench
