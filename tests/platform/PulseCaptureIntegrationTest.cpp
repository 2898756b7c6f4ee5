// Both capture services against a real sound server: the private PulseAudio of the CTest
// fixture "Pulse" (scripts/test-pulse.sh), or one a test starts for itself when it means to
// change or kill it.

#include "QtPrinters.h"

#include "AudioCaptureService.h"
#include "AwaitTask.h"
#include "Clock.h"
#include "MicrophoneService.h"
#include "PulseAudioRights.h"
#include "PulseMicrophoneSource.h"
#include "PulseSystemAudioSource.h"

#include <QElapsedTimer>
#include <QFile>
#include <QLocalServer>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <csignal>
#include <cstring>
#include <map>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

// Generous for a loaded CI machine; real audio takes its own time on top.
constexpr int toolTimeoutMs = 30'000;
constexpr int firstBufferMs = 5'000;

// A running server, as scripts/test-pulse.sh writes it to its state file.
struct PulseServer {
    QByteArray address;
    pid_t pid = 0;
    QString scratch;
    QString systemSink;
    QString micSink;
    QString micSource;
};

// The server, or why the tests cannot run here (a tool is missing).
std::variant<PulseServer, std::string> readState(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        throw std::runtime_error("no sound server state at " + path.toStdString() +
                                 ": did pulse_start fail?");
    std::map<QByteArray, QString> values;
    while (!file.atEnd()) {
        const auto line = file.readLine().trimmed();
        values[line.left(line.indexOf('='))] = QString::fromUtf8(line.mid(line.indexOf('=') + 1));
    }
    if (values.count("MISSING"))
        return "the private sound server needs " + values["MISSING"].toStdString() +
               ", which is not installed (scripts/install-deps.sh installs it)";
    return PulseServer{values["PULSE_SERVER"].toUtf8(),
                       pid_t(values["PULSE_PID"].toInt()),
                       values["SCRATCH"],
                       values["SYSTEM_SINK"],
                       values["MIC_SINK"],
                       values["MIC_SOURCE"]};
}

// Runs a tool to its end; its standard output, or a failed test.
QByteArray run(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(toolTimeoutMs) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        process.kill();
        process.waitForFinished();
        ADD_FAILURE() << program.toStdString()
                      << " failed: " << process.readAllStandardError().toStdString();
    }
    return process.readAllStandardOutput();
}

// A spoken interview question at 48 kHz, with the 0.5 s of leading silence speech wants; and
// the same as the captures should deliver it, float samples at 16 kHz.
std::pair<QString, std::vector<float>> makeSpeech(const QString& folder)
{
    const auto raw = folder + u"/raw.wav"_s;
    const auto speech = folder + u"/speech.wav"_s;
    run(u"espeak-ng"_s, {u"-w"_s, raw, u"Tell me about a time you solved a difficult problem."_s});
    // -D: no dither, so that the silence stays silent.
    run(u"sox"_s, {u"-D"_s, raw, u"-r"_s, u"48000"_s, speech, u"pad"_s, u"0.5"_s, u"0"_s});
    const auto bytes =
        run(u"sox"_s, {u"-D"_s, speech, u"-t"_s, u"raw"_s, u"-e"_s, u"floating-point"_s, u"-b"_s,
                       u"32"_s, u"-r"_s, u"16000"_s, u"-"_s});
    std::vector<float> samples(std::size_t(bytes.size()) / sizeof(float));
    std::memcpy(samples.data(), bytes.constData(), samples.size() * sizeof(float));
    return {speech, samples};
}

// Seconds from the first to the last sample that is clearly speech, and their RMS.
struct Speech {
    double seconds = 0;
    double rms = 0;
};
std::optional<Speech> speechIn(const std::vector<float>& samples)
{
    const auto loud = [](float sample) { return std::fabs(sample) > 0.01f; };
    const auto first = std::find_if(samples.begin(), samples.end(), loud);
    if (first == samples.end())
        return std::nullopt;
    const auto last = std::find_if(samples.rbegin(), samples.rend(), loud).base();
    double sum = 0;
    for (auto it = first; it != last; ++it)
        sum += double(*it) * *it;
    return Speech{double(last - first) / 16000, std::sqrt(sum / double(last - first))};
}

// Everything a stream delivered, each buffer checked to be what the recognisers take.
struct Captured {
    std::vector<float> samples;
    std::vector<std::size_t> bufferFrames;
    double seconds() const { return double(samples.size()) / 16000; }
    float peak() const
    {
        float result = 0;
        for (const float sample : samples)
            result = std::max(result, std::fabs(sample));
        return result;
    }
};
Captured drain(const std::shared_ptr<AudioStream>& stream)
{
    Captured captured;
    while (auto buffer = stream->tryNext()) {
        EXPECT_EQ(buffer->sampleRate, 16000);
        captured.bufferFrames.push_back(buffer->frameLength());
        captured.samples.insert(captured.samples.end(), buffer->samples.begin(),
                                buffer->samples.end());
    }
    return captured;
}

QCoro::Task<std::optional<PcmBuffer>> nextBuffer(std::shared_ptr<AudioStream> stream)
{
    auto buffer = co_await stream->next();
    co_return buffer;
}

bool receivesAudio(const std::shared_ptr<AudioStream>& stream)
{
    return awaitTask(nextBuffer(stream), firstBufferMs).has_value();
}

QCoro::Task<> recordResult(QCoro::Task<bool> check, std::optional<bool>* result)
{
    *result = co_await check;
}

} // namespace

struct Channel {
    const char* name;
    bool playIntoMicrophone;
};

class PulseCaptureIntegrationTest : public ::testing::Test,
                                    public ::testing::WithParamInterface<Channel> {
protected:
    void SetUp() override
    {
        const auto statePath = qEnvironmentVariable("RAVLET_PULSE_STATE");
        if (statePath.isEmpty())
            throw std::runtime_error(
                "RAVLET_PULSE_STATE is not set: run these tests through ctest, "
                "whose Pulse fixture starts a private sound server");
        auto state = readState(statePath);
        if (const auto* reason = std::get_if<std::string>(&state))
            GTEST_SKIP() << *reason;
        for (const auto& tool : {u"paplay"_s, u"pactl"_s, u"espeak-ng"_s, u"sox"_s}) {
            if (QStandardPaths::findExecutable(tool).isEmpty())
                GTEST_SKIP() << tool.toStdString()
                             << " is not installed (scripts/install-deps.sh installs it)";
        }
        server = std::get<PulseServer>(state);
        // libpulse keeps a cookie under the home: this process and its tools use the server's
        // scratch folder, never the real home, and talk to no other server.
        qputenv("PULSE_SERVER", server.address);
        const std::pair<const char*, QString> folders[] = {{"HOME", u"/home"_s},
                                                           {"XDG_CONFIG_HOME", u"/config"_s},
                                                           {"XDG_RUNTIME_DIR", u"/runtime"_s},
                                                           {"PULSE_RUNTIME_PATH", u"/runtime"_s}};
        for (const auto& [name, folder] : folders)
            qputenv(name, QFile::encodeName(server.scratch + folder));
        ASSERT_TRUE(scratch.isValid());
    }

    // An empty address is the session's server: the fixture's, through PULSE_SERVER.
    std::unique_ptr<AudioCaptureService> systemAudio(QByteArray address = {})
    {
        return std::make_unique<AudioCaptureService>(
            [this, address] { return std::make_unique<PulseSystemAudioSource>(clock, address); });
    }
    std::unique_ptr<MicrophoneService> microphone(QByteArray address = {})
    {
        return std::make_unique<MicrophoneService>(
            [this, address] { return std::make_unique<PulseMicrophoneSource>(clock, address); });
    }
    // Starts both services; their streams, system audio then microphone, each delivering audio.
    using Streams = std::array<std::shared_ptr<AudioStream>, 2>;
    Streams startBoth(AudioCaptureService& capture, MicrophoneService& mic)
    {
        awaitTask(capture.start());
        awaitTask(mic.start());
        const Streams streams{capture.audioStream(), mic.audioStream()};
        for (const auto& stream : streams)
            EXPECT_TRUE(receivesAudio(stream));
        return streams;
    }
    // Stopping both is prompt and finishes both streams.
    void stopBoth(AudioCaptureService& capture, MicrophoneService& mic, const Streams& streams)
    {
        QElapsedTimer timer;
        timer.start();
        awaitTask(capture.stop());
        awaitTask(mic.stop());
        EXPECT_LT(timer.elapsed(), 2000);
        for (const auto& stream : streams)
            EXPECT_TRUE(stream->isFinished());
    }
    void script(const QString& command, const QString& stateFolder)
    {
        run(u"bash"_s, {QStringLiteral(RAVLET_PULSE_SCRIPT), command, stateFolder});
    }

    SystemClock clock;
    PulseServer server;
    QTemporaryDir scratch;
};

// Speech played into one channel's sink reaches that channel's stream at 16 kHz for as long as
// it plays, and the other channel, capturing meanwhile, hears none of it.
TEST_P(PulseCaptureIntegrationTest, SpeechReachesItsChannelOnly)
{
    const auto [file, reference] = makeSpeech(scratch.path());
    const auto expected = speechIn(reference);
    ASSERT_TRUE(expected);

    auto capture = systemAudio();
    auto mic = microphone();
    awaitTask(capture->start());
    awaitTask(mic->start());
    const auto systemStream = capture->audioStream();
    const auto micStream = mic->audioStream();

    QProcess player;
    // A short latency, so the player ends when its last sample has been played.
    player.start(u"paplay"_s, {u"--latency-msec=50"_s,
                               u"--device="_s + (GetParam().playIntoMicrophone ? server.micSink
                                                                               : server.systemSink),
                               file});
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return player.state() == QProcess::NotRunning; }, toolTimeoutMs));
    ASSERT_EQ(player.exitCode(), 0) << player.readAllStandardError().toStdString();
    awaitTask(capture->stop());
    awaitTask(mic->stop());

    auto heard = drain(GetParam().playIntoMicrophone ? micStream : systemStream);
    const auto other = drain(GetParam().playIntoMicrophone ? systemStream : micStream);
    const auto speech = speechIn(heard.samples);
    ASSERT_TRUE(speech) << "no speech in " << heard.seconds() << " s";
    EXPECT_GT(speech->rms, 0.03);
    EXPECT_NEAR(speech->seconds, expected->seconds, 0.1 * expected->seconds) << "speech";
    const double fileSeconds = double(reference.size()) / 16000;
    EXPECT_NEAR(heard.seconds(), fileSeconds, 0.1 * fileSeconds) << "whole capture";
    std::sort(heard.bufferFrames.begin(), heard.bufferFrames.end());
    // 100 ms blocks, or 4096 frames at 48 kHz through the capacity rule.
    EXPECT_EQ(heard.bufferFrames.back(), GetParam().playIntoMicrophone ? 1365u : 1600u);

    EXPECT_GT(other.seconds(), 1.0) << "the other channel was capturing meanwhile";
    EXPECT_LT(other.peak(), 1e-3f) << "the channels are not isolated";
}

INSTANTIATE_TEST_SUITE_P(Channels, PulseCaptureIntegrationTest,
                         ::testing::Values(Channel{"SystemAudio", false},
                                           Channel{"Microphone", true}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(PulseCaptureIntegrationTest, StopIsPromptRepeatableAndRestartable)
{
    PulseAudioRights rights(clock);
    QElapsedTimer timer;
    timer.start();
    EXPECT_TRUE(awaitTask(rights.systemAudioGranted()));
    EXPECT_TRUE(awaitTask(rights.microphoneGranted()));
    EXPECT_LT(timer.elapsed(), 2 * PulseAudioRights::answerWithin.count());

    auto capture = systemAudio();
    auto mic = microphone();
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round == 0 ? "first start" : "start after stop");
        const auto streams = startBoth(*capture, *mic);
        stopBoth(*capture, *mic, streams);
        stopBoth(*capture, *mic, streams); // a second stop changes nothing
    }
}

TEST_F(PulseCaptureIntegrationTest, WithoutAServerStartFailsAtOnceAndRightsAreRefused)
{
    const QByteArray nowhere = "unix:" + QFile::encodeName(scratch.path()) + "/no-server";
    auto capture = systemAudio(nowhere);
    auto mic = microphone(nowhere);
    PulseAudioRights rights(clock, nowhere);
    QElapsedTimer timer;
    timer.start();
    try {
        awaitTask(capture->start());
        ADD_FAILURE() << "start should fail without a server";
    } catch (const AudioSourceError& error) {
        EXPECT_EQ(error.description(), u"Cannot reach the sound server: Connection refused"_s);
    }
    EXPECT_THROW(awaitTask(mic->start()), AudioSourceError);
    EXPECT_FALSE(awaitTask(rights.systemAudioGranted()));
    EXPECT_FALSE(awaitTask(rights.microphoneGranted()));
    EXPECT_LT(timer.elapsed(), 1000);
}

// A server that takes the connection and then says nothing holds a rights check for its
// 500 ms, and not a moment longer.
TEST_F(PulseCaptureIntegrationTest, RightsCheckOfASilentServerEndsAtItsDeadline)
{
    QLocalServer silent;
    const auto socketPath = scratch.path() + u"/silent"_s;
    ASSERT_TRUE(silent.listen(socketPath));
    ManualClock manualClock;
    PulseAudioRights rights(manualClock, "unix:" + QFile::encodeName(socketPath));

    for (const bool systemAudio : {true, false}) {
        std::optional<bool> granted;
        recordResult(systemAudio ? rights.systemAudioGranted() : rights.microphoneGranted(),
                     &granted);
        ASSERT_TRUE(QTest::qWaitFor([&] { return silent.hasPendingConnections(); }, firstBufferMs));
        silent.nextPendingConnection(); // kept open, never answered
        QTest::qWait(50);               // room for an answer that must not come
        manualClock.advance(PulseAudioRights::answerWithin - 1ms);
        EXPECT_FALSE(granted) << "answered before the deadline";
        manualClock.advance(1ms);
        EXPECT_EQ(granted, false);
    }
}

// On a server of the test's own: a monitor as the default source is no microphone; then the
// server dies mid-capture, which ends the buffers without a crash or a hang.
TEST_F(PulseCaptureIntegrationTest, MonitorIsNoMicrophoneAndAKilledServerEndsTheBuffers)
{
    QTemporaryDir stateFolder;
    ASSERT_TRUE(stateFolder.isValid());
    script(u"start"_s, stateFolder.path());
    const auto state = readState(stateFolder.path() + u"/state"_s);
    ASSERT_TRUE(std::holds_alternative<PulseServer>(state));
    const auto own = std::get<PulseServer>(state);
    const auto pactl = [&](const QString& source) {
        run(u"pactl"_s,
            {u"--server="_s + QString::fromUtf8(own.address), u"set-default-source"_s, source});
    };

    auto mic = microphone(own.address);
    PulseAudioRights rights(clock, own.address);
    pactl(own.systemSink + u".monitor"_s);
    try {
        awaitTask(mic->start());
        ADD_FAILURE() << "a monitor should not pass for a microphone";
    } catch (const MicrophoneError& error) {
        EXPECT_EQ(error.which(), MicrophoneError::Case::noInputDevice);
    }
    awaitTask(mic->stop());
    EXPECT_FALSE(awaitTask(rights.microphoneGranted()));
    pactl(own.micSource);

    auto capture = systemAudio(own.address);
    const auto streams = startBoth(*capture, *mic);

    ASSERT_EQ(::kill(own.pid, SIGKILL), 0);
    QTest::qWait(500); // what was already on its way may still arrive
    for (const auto& stream : streams)
        drain(stream);
    QTest::qWait(500);
    for (const auto& stream : streams)
        EXPECT_EQ(stream->bufferedCount(), 0u);
    stopBoth(*capture, *mic, streams);
    EXPECT_FALSE(awaitTask(rights.systemAudioGranted()));
    script(u"stop"_s, stateFolder.path());
}

// Input that a short output had no room for comes out with a later block instead of being
// lost. Two blocks in a row with next to no room fill libsamplerate's own buffer, so that the
// second is not taken at all.
TEST(PulseMicrophoneSourceTest, ResamplerKeepsInputAShortOutputCouldNotTake)
{
    const std::vector<float> block(4096, 0.25f);
    const auto totalOutput = [&](std::size_t startCapacity) {
        auto converter = PulseMicrophoneSource::makeResampler(48000, 16000);
        std::size_t total = 0;
        for (int b = 0; b < 8; ++b) {
            std::vector<float> output(b < 2 ? startCapacity : 4096);
            total += converter->convert(block, output).value_or(0);
        }
        return total;
    };
    const auto roomy = totalOutput(4096);
    EXPECT_GT(roomy, 8 * 4096 / 3 - 64) << "short only by the filter's delay";
    EXPECT_EQ(totalOutput(10), roomy);
}
