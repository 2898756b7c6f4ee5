// What one audio buffer costs on its way to each vendor (conversion to 16-bit PCM, resampling
// for OpenAI, base64 and the message text), and the share of one core that two channels of
// real-time audio take.
#include "Clock.h"
#include "DeepgramProvider.h"
#include "ElevenLabsProvider.h"
#include "OpenAISTTProvider.h"

#include <QCoreApplication>

#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>

namespace {

using Speaker = TranscriptEntry::Speaker;

enum class Vendor { deepgram, elevenlabs, openai };

std::unique_ptr<WebSocketSpeechProvider> make(Vendor vendor, Clock& clock)
{
    switch (vendor) {
    case Vendor::deepgram:
        return std::make_unique<DeepgramProvider>(Speaker::interviewer, clock);
    case Vendor::elevenlabs:
        return std::make_unique<ElevenLabsProvider>(Speaker::interviewer, clock);
    case Vendor::openai:
        break;
    }
    return std::make_unique<OpenAISTTProvider>(Speaker::interviewer, clock);
}

// Speech-like content: a few mixed tones, so that nothing is trivially compressible.
PcmBuffer speech(std::size_t frames)
{
    PcmBuffer buffer;
    buffer.samples.resize(frames);
    for (std::size_t i = 0; i < frames; ++i) {
        const double t = double(i) / 16000.0;
        buffer.samples[i] = float(0.4 * std::sin(2 * M_PI * 220 * t) + 0.2 * std::sin(2 * M_PI * 1370 * t));
    }
    return buffer;
}

void BM_FramePerBuffer(benchmark::State& state)
{
    ManualClock clock;
    const auto provider = make(Vendor(state.range(0)), clock);
    const auto buffer = speech(std::size_t(state.range(1)));
    for (auto _ : state)
        benchmark::DoNotOptimize(provider->audioMessage(buffer));
    state.SetLabel(state.range(0) == 0 ? "deepgram" : state.range(0) == 1 ? "elevenlabs" : "openai");
}
BENCHMARK(BM_FramePerBuffer)->ArgsProduct({{0, 1, 2}, {1600, 4096}});

// One second of audio on both channels: 10 buffers of 1,600 frames each (system audio
// arrives in 100 ms blocks; the microphone's 4096-frame blocks at 48 kHz become about 1,365
// frames at 16 kHz, close enough). time_per_audio_second is the share of one core.
void BM_TwoChannelsRealTime(benchmark::State& state)
{
    ManualClock clock;
    const auto interviewer = make(Vendor(state.range(0)), clock);
    const auto user = make(Vendor(state.range(0)), clock);
    const auto buffer = speech(1600);
    for (auto _ : state) {
        for (int i = 0; i < 10; ++i) {
            benchmark::DoNotOptimize(interviewer->audioMessage(buffer));
            benchmark::DoNotOptimize(user->audioMessage(buffer));
        }
    }
    state.counters["core_share"] = benchmark::Counter(1.0, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    state.SetLabel(state.range(0) == 0 ? "deepgram" : state.range(0) == 1 ? "elevenlabs" : "openai");
}
BENCHMARK(BM_TwoChannelsRealTime)->DenseRange(0, 2);

} // namespace
