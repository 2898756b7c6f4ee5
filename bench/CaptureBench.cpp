// CPU time that capture plus conversion costs per second of audio, on both channels. The
// "cpu_per_audio_s" counter is the figure.
//
// - *Conversion: the services fed synthetic platform blocks on this thread, through the same
//   conversion (the microphone's with the real resampler) and the queued hand-over to the
//   stream.
// - BM_PulseCapture: real captures from a private headless PulseAudio (scripts/test-pulse.sh),
//   measured as this process's CPU time, so libpulse's own thread counts too.
#include "AudioCaptureService.h"
#include "AwaitTask.h"
#include "Clock.h"
#include "MicrophoneService.h"
#include "PulseMicrophoneSource.h"
#include "PulseSystemAudioSource.h"
#include "SyntheticAudioSources.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <map>
#include <numbers>
#include <vector>

namespace {

// Per second of audio: seconds of the measured time per second of audio delivered.
benchmark::Counter perAudioSecond(double audioSeconds)
{
    return benchmark::Counter(audioSeconds,
                              benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// A 440 Hz tone at half scale: content for the converters, not silence.
std::vector<float> tone(std::size_t frames, double rate)
{
    std::vector<float> samples(frames);
    for (std::size_t i = 0; i < frames; ++i)
        samples[i] = float(0.5 * std::sin(2 * std::numbers::pi * 440.0 * double(i) / rate));
    return samples;
}

double drainSeconds(const std::shared_ptr<AudioStream>& stream)
{
    double seconds = 0;
    while (auto buffer = stream->tryNext()) {
        benchmark::DoNotOptimize(buffer->samples.data());
        seconds += double(buffer->frameLength()) / buffer->sampleRate;
    }
    return seconds;
}

// Float32 blocks, as the sound server delivers them, or signed 16-bit ones.
void BM_SystemAudioConversion(benchmark::State& state, SampleDescription::Format format)
{
    SystemAudioSource::BlockHandler handler;
    AudioCaptureService service(
        [&handler] { return std::make_unique<bench::SyntheticSystemSource>(&handler); });
    awaitTask(service.start());
    const auto stream = service.audioStream();

    // 100 ms blocks at 16 kHz, as the capture records them.
    constexpr std::size_t frames = 1600;
    const auto samples = tone(frames, 16000);
    QByteArray bytes;
    SampleBlock block;
    if (format == SampleDescription::Format::float32) {
        bytes = QByteArray(reinterpret_cast<const char*>(samples.data()),
                           qsizetype(frames * sizeof(float)));
        block.description = {SampleDescription::Format::float32, 1, 4, 16000};
    } else {
        std::vector<qint16> pcm(frames);
        for (std::size_t i = 0; i < frames; ++i)
            pcm[i] = qint16(samples[i] * 32767);
        bytes = QByteArray(reinterpret_cast<const char*>(pcm.data()),
                           qsizetype(frames * sizeof(qint16)));
        block.description = {SampleDescription::Format::int16, 1, 2, 16000};
    }
    block.frameCount = frames;
    block.data = reinterpret_cast<const std::byte*>(bytes.constData());
    block.byteLength = std::size_t(bytes.size());

    double audioSeconds = 0;
    for (auto _ : state) {
        for (int i = 0; i < 10; ++i)
            handler(block);
        QCoreApplication::sendPostedEvents();
        audioSeconds += drainSeconds(stream);
    }
    state.counters["cpu_per_audio_s"] = perAudioSecond(audioSeconds);
    awaitTask(service.stop());
}
BENCHMARK_CAPTURE(BM_SystemAudioConversion, float32, SampleDescription::Format::float32);
BENCHMARK_CAPTURE(BM_SystemAudioConversion, int16, SampleDescription::Format::int16);

// 4096-frame blocks at 48 kHz through the session's libsamplerate converter to 16 kHz.
void BM_MicrophoneConversion(benchmark::State& state)
{
    MicrophoneSource::TapBlock tap;
    MicrophoneService service([&tap] { return std::make_unique<bench::SyntheticMicrophone>(&tap, 48000.0); });
    awaitTask(service.start());
    const auto stream = service.audioStream();
    const auto samples = tone(MicrophoneService::tapFrames, 48000);

    double audioSeconds = 0;
    for (auto _ : state) {
        // About one second of input.
        for (int i = 0; i < 12; ++i)
            tap(samples);
        QCoreApplication::sendPostedEvents();
        audioSeconds += drainSeconds(stream);
    }
    state.counters["cpu_per_audio_s"] = perAudioSecond(audioSeconds);
    awaitTask(service.stop());
}
BENCHMARK(BM_MicrophoneConversion);

// A private server for the real captures, stopped with the bench.
class PrivateServer {
public:
    PrivateServer()
    {
        if (!m_folder.isValid() || !runScript("start"))
            return;
        QFile state(m_folder.path() + QStringLiteral("/state"));
        if (!state.open(QIODevice::ReadOnly))
            return;
        std::map<QByteArray, QByteArray> values;
        while (!state.atEnd()) {
            const auto line = state.readLine().trimmed();
            values[line.left(line.indexOf('='))] = line.mid(line.indexOf('=') + 1);
        }
        if (values.count("MISSING")) {
            m_problem = "needs " + values["MISSING"].toStdString();
            return;
        }
        // libpulse keeps its cookie under the home: the server's scratch folder, not ours.
        const auto scratch = values["SCRATCH"];
        qputenv("HOME", scratch + "/home");
        qputenv("XDG_CONFIG_HOME", scratch + "/config");
        qputenv("XDG_RUNTIME_DIR", scratch + "/runtime");
        m_address = values["PULSE_SERVER"];
        m_problem.clear();
    }
    ~PrivateServer() { runScript("stop"); }
    PrivateServer(const PrivateServer&) = delete;
    PrivateServer& operator=(const PrivateServer&) = delete;

    QByteArray address() const { return m_address; }
    const std::string& problem() const { return m_problem; }

private:
    bool runScript(const char* command)
    {
        QProcess script;
        script.start(QStringLiteral("bash"), {QStringLiteral(RAVLET_PULSE_SCRIPT),
                                              QString::fromLatin1(command), m_folder.path()});
        return script.waitForFinished(30'000) && script.exitCode() == 0;
    }

    QTemporaryDir m_folder;
    QByteArray m_address;
    std::string m_problem = "scripts/test-pulse.sh could not start a server";
};

QCoro::Task<std::optional<PcmBuffer>> nextBuffer(std::shared_ptr<AudioStream> stream)
{
    auto buffer = co_await stream->next();
    co_return buffer;
}

void runEventLoopFor(int milliseconds)
{
    QEventLoop loop;
    QTimer::singleShot(milliseconds, &loop, &QEventLoop::quit);
    loop.exec();
}

enum class Channel { systemAudio, microphone };

// Two seconds of real capture an iteration.
void BM_PulseCapture(benchmark::State& state, Channel channel)
{
    PrivateServer server;
    if (!server.problem().empty()) {
        state.SkipWithError(server.problem().c_str());
        return;
    }
    SystemClock clock;
    const auto address = server.address();
    AudioCaptureService system(
        [&] { return std::make_unique<PulseSystemAudioSource>(clock, address); });
    MicrophoneService microphone(
        [&] { return std::make_unique<PulseMicrophoneSource>(clock, address); });

    const auto start = [&] {
        if (channel == Channel::systemAudio)
            awaitTask(system.start());
        else
            awaitTask(microphone.start());
        return channel == Channel::systemAudio ? system.audioStream() : microphone.audioStream();
    };
    const auto stop = [&] {
        if (channel == Channel::systemAudio)
            awaitTask(system.stop());
        else
            awaitTask(microphone.stop());
    };

    // A fresh null sink renders in long idle cycles until a stream asks for less, so the first
    // capture may wait for one. Not part of the figure.
    try {
        awaitTask(nextBuffer(start()), 10'000);
    } catch (const std::exception& error) {
        state.SkipWithError(error.what());
        return;
    }
    stop();

    double audioSeconds = 0;
    for (auto _ : state) {
        const auto stream = start();
        runEventLoopFor(2000);
        stop();
        audioSeconds += drainSeconds(stream);
    }
    if (audioSeconds < 1.0)
        state.SkipWithError("the capture delivered (almost) nothing");
    state.counters["audio_s"] = audioSeconds;
    state.counters["cpu_per_audio_s"] = perAudioSecond(audioSeconds);
}
BENCHMARK_CAPTURE(BM_PulseCapture, system_audio, Channel::systemAudio)
    ->Iterations(3)
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PulseCapture, microphone, Channel::microphone)
    ->Iterations(3)
    ->MeasureProcessCPUTime()
    ->Unit(benchmark::kMillisecond);

} // namespace
