// Both capture services against a real sound server that the test starts for itself, to change
// it and kill it; the CTest fixture "Pulse" lends it a private home and scratch folders. (Speech
// into each channel's sink, heard on that channel only, is the whole-product test's.)

#include "QtPrinters.h"

#include "AudioCaptureService.h"
#include "AwaitTask.h"
#include "Clock.h"
#include "MicrophoneService.h"
#include "PrivateSoundServer.h"
#include "PulseAudioRights.h"
#include "PulseMicrophoneSource.h"
#include "PulseSystemAudioSource.h"

#include <QFile>
#include <QLocalServer>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

#include <array>
#include <csignal>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

// Generous for a loaded CI machine.
constexpr int firstBufferMs = 5'000;

// Runs a tool to its end; a failed test if it fails.
void run(const QString& program, const QStringList& arguments)
{
    EXPECT_EQ(QProcess::execute(program, arguments), 0)
        << program.toStdString() << " " << arguments.join(u' ').toStdString();
}

QCoro::Task<bool> receivesAudio(std::shared_ptr<AudioStream> stream)
{
    co_return (co_await stream->next()).has_value();
}

} // namespace

class PulseCaptureIntegrationTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        state = qEnvironmentVariable("RAVLET_PULSE_STATE");
        if (const auto missing = usePrivateSoundServer(state, {u"pactl"_s}); !missing.isEmpty())
            GTEST_SKIP() << missing.toStdString();
    }

    // Starts both services; their streams, system audio then microphone, each delivering audio.
    using Streams = std::array<std::shared_ptr<AudioStream>, 2>;
    Streams startBoth(AudioCaptureService& capture, MicrophoneService& mic)
    {
        awaitTask(capture.start());
        awaitTask(mic.start());
        const Streams streams{capture.audioStream(), mic.audioStream()};
        for (const auto& stream : streams)
            EXPECT_TRUE(awaitTask(receivesAudio(stream), firstBufferMs));
        return streams;
    }
    // Stopping both ends (a hang fails the wait) and finishes both streams.
    void stopBoth(AudioCaptureService& capture, MicrophoneService& mic, const Streams& streams)
    {
        awaitTask(capture.stop());
        awaitTask(mic.stop());
        for (const auto& stream : streams)
            EXPECT_TRUE(stream->isFinished());
    }

    SystemClock clock;
    QString state;
    QTemporaryDir scratch;
};

// On a server of the test's own: both rights come at once; a monitor as the default source is no
// microphone; stopping is prompt and repeatable and a stopped capture starts again; the server
// dies mid-capture, which ends the buffers without a crash or a hang; then starts fail at once
// and the rights are refused. A server that takes the connection and then says nothing holds a
// rights check for its 500 ms, and not a moment longer.
TEST_F(PulseCaptureIntegrationTest, OnItsOwnServerCaptureStopsRestartsAndOutlivesTheServer)
{
    QTemporaryDir stateFolder;
    const auto script = [&](const QString& command) {
        run(u"bash"_s, {QStringLiteral(RAVLET_PULSE_SCRIPT), command, stateFolder.path()});
    };
    script(u"start"_s);
    const auto own = [&](const char* key) {
        return stateValue(stateFolder.filePath(u"state"_s), key);
    };
    const QByteArray address = own("PULSE_SERVER").toUtf8();
    ASSERT_FALSE(address.isEmpty());
    // On a clock that never moves, an answer that waited for the deadline would never come.
    ManualClock stillClock;
    PulseAudioRights rights(stillClock, address);
    EXPECT_TRUE(awaitTask(rights.systemAudioGranted(), 10'000));
    EXPECT_TRUE(awaitTask(rights.microphoneGranted(), 10'000));

    const auto defaultSource = [&](const QString& source) {
        run(u"pactl"_s,
            {u"--server="_s + QString::fromUtf8(address), u"set-default-source"_s, source});
    };
    auto capture = std::make_unique<AudioCaptureService>(
        [&] { return std::make_unique<PulseSystemAudioSource>(clock, address); });
    auto mic = std::make_unique<MicrophoneService>(
        [&] { return std::make_unique<PulseMicrophoneSource>(clock, address); });
    defaultSource(own("SYSTEM_SINK") + u".monitor"_s);
    try {
        awaitTask(mic->start());
        ADD_FAILURE() << "a monitor should not pass for a microphone";
    } catch (const MicrophoneError& error) {
        EXPECT_EQ(error.which(), MicrophoneError::Case::noInputDevice);
    }
    awaitTask(mic->stop());
    EXPECT_FALSE(awaitTask(rights.microphoneGranted()));
    defaultSource(own("MIC_SOURCE"));

    const auto first = startBoth(*capture, *mic);
    stopBoth(*capture, *mic, first);
    stopBoth(*capture, *mic, first);                // a second stop changes nothing
    const auto streams = startBoth(*capture, *mic); // and a stopped capture starts again
    ASSERT_EQ(::kill(own("PULSE_PID").toInt(), SIGKILL), 0);
    QTest::qWait(500); // what was already on its way may still arrive
    for (const auto& stream : streams)
        while (stream->tryNext()) {
        }
    QTest::qWait(500);
    for (const auto& stream : streams)
        EXPECT_EQ(stream->bufferedCount(), 0u);
    stopBoth(*capture, *mic, streams);

    try {
        awaitTask(capture->start());
        ADD_FAILURE() << "start should fail without a server";
    } catch (const AudioSourceError& error) {
        EXPECT_EQ(error.description(), u"Cannot reach the sound server: Connection refused"_s);
    }
    EXPECT_THROW(awaitTask(mic->start()), AudioSourceError);
    EXPECT_FALSE(awaitTask(rights.systemAudioGranted()));
    EXPECT_FALSE(awaitTask(rights.microphoneGranted(), 10'000));
    script(u"stop"_s);

    QLocalServer silent;
    ASSERT_TRUE(silent.listen(scratch.filePath(u"silent"_s)));
    ManualClock manualClock;
    PulseAudioRights silentRights(manualClock,
                                  "unix:" + QFile::encodeName(scratch.filePath(u"silent"_s)));
    for (const bool systemAudio : {true, false}) {
        std::optional<bool> granted;
        [](QCoro::Task<bool> check, std::optional<bool>* result) -> QCoro::Task<> {
            *result = co_await check;
        }(systemAudio ? silentRights.systemAudioGranted() : silentRights.microphoneGranted(),
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
