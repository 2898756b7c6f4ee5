#include "QtPrinters.h"

#include "AwaitTask.h"
#include "MicrophoneService.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

// What the fake platform saw; it outlives each engine, as a platform thread may.
struct FakePlatform {
    double inputRate = 48000;
    bool canConvert = true;
    bool voiceProcessingFails = false;
    // Replaces every conversion's result when set.
    std::optional<std::optional<std::size_t>> conversionResult;
    std::vector<std::size_t> capacities;
    int converters = 0;
    QStringList calls;
    MicrophoneSource::TapBlock tap;
    // While set, inputSampleRate waits for a value here: the platform is slow to answer.
    std::shared_ptr<AsyncQueue<bool>> rateGate;
};

// Passes samples through up to the capacity, the first one replaced by the converter's number,
// so that a test can tell which converter made a buffer.
class FakeConverter final : public SampleRateConverter {
public:
    FakeConverter(FakePlatform* platform) : m_platform(platform), m_id(++platform->converters) {}
    std::optional<std::size_t> convert(std::span<const float> input, std::span<float> output) override
    {
        m_platform->capacities.push_back(output.size());
        if (m_platform->conversionResult)
            return *m_platform->conversionResult;
        const auto frames = std::min(input.size(), output.size());
        std::copy_n(input.begin(), frames, output.begin());
        output[0] = float(m_id);
        return frames;
    }

private:
    FakePlatform* m_platform;
    int m_id;
};

class FakeMicrophoneSource final : public MicrophoneSource {
public:
    explicit FakeMicrophoneSource(std::shared_ptr<FakePlatform> platform) : m_platform(std::move(platform)) {}

    bool isVoiceProcessingEnabled() const override { return m_voiceProcessing; }
    void setVoiceProcessingEnabled(bool enabled) override
    {
        m_platform->calls.append(u"voiceProcessing"_s);
        if (m_platform->voiceProcessingFails)
            throw AudioSourceError(u"echo cancellation unavailable"_s);
        m_voiceProcessing = enabled;
    }
    QCoro::Task<double> inputSampleRate() override
    {
        auto platform = m_platform;
        platform->calls.append(m_voiceProcessing ? u"rate after voiceProcessing"_s : u"rate"_s);
        if (auto gate = platform->rateGate)
            co_await gate->next();
        // As a real platform does when it is stopped in the middle.
        if (m_stopped)
            throw AudioSourceError(u"stopped"_s);
        co_return platform->inputRate;
    }
    std::unique_ptr<SampleRateConverter> makeConverter(double inputRate, double outputRate) override
    {
        m_platform->calls.append(u"converter %1>%2"_s.arg(inputRate).arg(outputRate));
        return m_platform->canConvert ? std::make_unique<FakeConverter>(m_platform.get()) : nullptr;
    }
    void installTap(std::size_t frames, TapBlock block) override
    {
        m_platform->calls.append(u"installTap %1"_s.arg(frames));
        m_platform->tap = std::move(block);
    }
    void removeTap() override { m_platform->calls.append(u"removeTap"_s); }
    QCoro::Task<> start() override
    {
        m_platform->calls.append(u"start"_s);
        co_return;
    }
    void stop() override
    {
        m_platform->calls.append(u"stop"_s);
        m_stopped = true;
    }

private:
    std::shared_ptr<FakePlatform> m_platform;
    bool m_voiceProcessing = false;
    bool m_stopped = false;
};

std::vector<PcmBuffer> drain(const std::shared_ptr<AudioStream>& stream)
{
    std::vector<PcmBuffer> buffers;
    while (auto buffer = stream->tryNext())
        buffers.push_back(std::move(*buffer));
    return buffers;
}

} // namespace

class MicrophoneServiceTest : public ::testing::Test {
protected:
    // Hands one block to the tap the way the platform does, and runs the queued hand-over.
    void tap(std::size_t frames, const MicrophoneSource::TapBlock& block = {})
    {
        const std::vector<float> samples(frames, 0.5f);
        (block ? block : platform->tap)(samples);
        QCoreApplication::sendPostedEvents();
    }

    std::shared_ptr<FakePlatform> platform = std::make_shared<FakePlatform>();
    MicrophoneService service{
        [platform = platform] { return std::make_unique<FakeMicrophoneSource>(platform); }};
};

struct CapacityCase {
    const char* name;
    double inputRate;
    std::size_t frames;
    std::size_t capacity; // 0: nothing is converted or delivered
};

class MicrophoneCapacityTest : public MicrophoneServiceTest,
                               public ::testing::WithParamInterface<CapacityCase> {};

TEST_P(MicrophoneCapacityTest, OutputCapacityFollowsTheRateRatioTruncated)
{
    const auto& param = GetParam();
    platform->inputRate = param.inputRate;
    awaitTask(service.start());
    const auto stream = service.audioStream();
    tap(param.frames);

    const auto buffers = drain(stream);
    if (param.capacity == 0) {
        EXPECT_TRUE(platform->capacities.empty());
        EXPECT_TRUE(buffers.empty());
        return;
    }
    EXPECT_EQ(platform->capacities, std::vector<std::size_t>{param.capacity});
    ASSERT_EQ(buffers.size(), 1u);
    EXPECT_EQ(buffers[0].frameLength(), std::min(param.capacity, param.frames))
        << "what the converter wrote";
    EXPECT_EQ(buffers[0].sampleRate, 16000);
}

INSTANTIATE_TEST_SUITE_P(Rates, MicrophoneCapacityTest,
                         ::testing::Values(CapacityCase{"At48k", 48000, 4096, 1365},
                                           CapacityCase{"At44k1", 44100, 4096, 1486},
                                           CapacityCase{"At8k", 8000, 100, 200},
                                           CapacityCase{"TinyBlockAt48k", 48000, 2, 0}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(MicrophoneServiceTest, StartFollowsThePlatformOrderAndReportsEachFailure)
{
    awaitTask(service.start());
    // Voice processing first: it may change the rate the input delivers at.
    EXPECT_EQ(platform->calls,
              (QStringList{u"voiceProcessing"_s, u"rate after voiceProcessing"_s,
                           u"converter 48000>16000"_s, u"installTap 4096"_s, u"start"_s}));
    awaitTask(service.stop());

    struct Failure {
        const char* name;
        void (*arrange)(FakePlatform&);
        QString text;
    };
    const Failure failures[] = {
        {"no input", [](FakePlatform& p) { p.inputRate = 0; },
         u"No microphone input device found"_s},
        {"no converter", [](FakePlatform& p) { p.canConvert = false; },
         u"Failed to create audio format converter"_s},
        {"voice processing", [](FakePlatform& p) { p.voiceProcessingFails = true; },
         u"echo cancellation unavailable"_s},
    };
    for (const auto& failure : failures) {
        SCOPED_TRACE(failure.name);
        *platform = FakePlatform{};
        failure.arrange(*platform);
        try {
            awaitTask(service.start());
            ADD_FAILURE() << "start should have failed";
        } catch (const AudioSourceError& error) {
            EXPECT_EQ(error.description(), failure.text);
        }
        EXPECT_FALSE(platform->calls.contains(u"start"_s));
        EXPECT_TRUE(service.isCapturing()) << "the engine stays for the caller's stop";
        awaitTask(service.stop());
        EXPECT_FALSE(service.isCapturing());
    }
}

// A failed conversion loses its block only; the session keeps one converter throughout. Stop
// ends the stream with what came before still readable, drops a block already on its way and
// is harmless twice; a new session gets a new converter.
TEST_F(MicrophoneServiceTest, ConversionFailuresDropOneBlockAndStopEndsTheSession)
{
    awaitTask(service.start());
    const auto stream = service.audioStream();
    const auto oldTap = platform->tap;
    platform->conversionResult = std::optional<std::size_t>();
    tap(4096);
    platform->conversionResult = std::optional<std::size_t>(0);
    tap(4096);
    EXPECT_EQ(stream->bufferedCount(), 0u);
    platform->conversionResult.reset();
    tap(4096);
    tap(4096);
    awaitTask(service.stop());
    EXPECT_TRUE(stream->isFinished());
    const auto buffers = drain(stream);
    ASSERT_EQ(buffers.size(), 2u);
    EXPECT_EQ(buffers[0].samples[0], 1.0f);
    EXPECT_EQ(buffers[1].samples[0], 1.0f);
    EXPECT_EQ(platform->calls.count(u"removeTap"_s), 1);
    tap(4096, oldTap);
    EXPECT_EQ(service.audioStream()->bufferedCount(), 0u);
    awaitTask(service.stop());
    EXPECT_EQ(platform->calls.count(u"stop"_s), 1) << "the second stop has no engine left";

    awaitTask(service.start());
    tap(4096);
    const auto next = drain(service.audioStream());
    ASSERT_EQ(next.size(), 1u);
    EXPECT_EQ(next[0].samples[0], 2.0f);
}

// The pipeline may stop while the platform is still answering: the start it overtook ends
// quietly and leaves nothing running.
TEST_F(MicrophoneServiceTest, StopWhileTheInputIsQueriedLeavesNothingRunning)
{
    platform->rateGate = std::make_shared<AsyncQueue<bool>>();
    auto starting = service.start();
    awaitTask(service.stop());
    platform->rateGate->push(true);
    EXPECT_NO_THROW(awaitTask(std::move(starting)));
    EXPECT_FALSE(platform->calls.contains(u"installTap 4096"_s));
    EXPECT_FALSE(service.isCapturing());
}
