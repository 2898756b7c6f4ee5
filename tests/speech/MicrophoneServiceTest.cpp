// The microphone on a fake platform: the converter's output room at each input rate, the order
// of the start, lost conversions, and stop, also while the platform answers. (A refused start
// and the stop after it run against a real sound server in the platform tests.)
#include "MicrophoneService.h"
#include "AwaitTask.h"
#include "QtPrinters.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {
// What the fake platform saw; it outlives each engine, as a platform thread may.
struct FakePlatform {
    double inputRate = 48000;
    std::optional<std::optional<std::size_t>>
        conversionResult; // replaces every conversion's when set
    std::vector<std::size_t> capacities;
    int converters = 0;
    QStringList calls;
    MicrophoneSource::TapBlock tap;
    std::shared_ptr<AsyncQueue<bool>> rateGate; // while set, inputSampleRate waits for a value here
};

// Passes samples through up to the capacity, the first replaced by the converter's number, so
// that a test can tell which converter made a buffer.
struct FakeConverter final : SampleRateConverter {
    explicit FakeConverter(FakePlatform* platform)
        : platform(platform)
        , id(++platform->converters)
    {
    }
    std::optional<std::size_t> convert(std::span<const float> input,
                                       std::span<float> output) override
    {
        platform->capacities.push_back(output.size());
        if (platform->conversionResult)
            return *platform->conversionResult;
        const auto frames = std::min(input.size(), output.size());
        std::copy_n(input.begin(), frames, output.begin());
        output[0] = float(id);
        return frames;
    }
    FakePlatform* platform;
    int id;
};

// Voice processing is off until the service turns it on, which the call order shows.
struct FakeMicrophoneSource final : MicrophoneSource {
    explicit FakeMicrophoneSource(std::shared_ptr<FakePlatform> platform)
        : platform(std::move(platform))
    {
    }
    bool isVoiceProcessingEnabled() const override { return false; }
    void setVoiceProcessingEnabled(bool) override { platform->calls.append(u"voiceProcessing"_s); }
    QCoro::Task<double> inputSampleRate() override
    {
        auto platform = this->platform;
        platform->calls.append(u"rate"_s);
        if (auto gate = platform->rateGate)
            co_await gate->next();
        if (stopped) // as a real platform does when it is stopped in the middle
            throw AudioSourceError(u"stopped"_s);
        co_return platform->inputRate;
    }
    std::unique_ptr<SampleRateConverter> makeConverter(double inputRate, double outputRate) override
    {
        platform->calls.append(u"converter %1>%2"_s.arg(inputRate).arg(outputRate));
        return std::make_unique<FakeConverter>(platform.get());
    }
    void installTap(std::size_t frames, TapBlock block) override
    {
        platform->calls.append(u"installTap %1"_s.arg(frames));
        platform->tap = std::move(block);
    }
    void removeTap() override {}
    QCoro::Task<> start() override
    {
        platform->calls.append(u"start"_s);
        co_return;
    }
    void stop() override { stopped = true; }
    std::shared_ptr<FakePlatform> platform;
    bool stopped = false;
};
} // namespace

class MicrophoneServiceTest : public ::testing::Test {
protected:
    // Hands one block to the tap the way the platform does, and runs the queued hand-over.
    void tap(const MicrophoneSource::TapBlock& block)
    {
        block(std::vector<float>(4096, 0.5f));
        QCoreApplication::sendPostedEvents();
    }
    // The first sample of each buffer waiting: the number of the converter that made it.
    static std::vector<float> madeBy(const std::shared_ptr<AudioStream>& stream)
    {
        std::vector<float> converters;
        while (auto buffer = stream->tryNext())
            converters.push_back(buffer->samples.at(0));
        return converters;
    }

    std::shared_ptr<FakePlatform> platform = std::make_shared<FakePlatform>();
    MicrophoneService service{
        [platform = platform] { return std::make_unique<FakeMicrophoneSource>(platform); }};
};

// The room given to the converter is the block scaled by 16 kHz over the input rate, truncated;
// a block too small for one output frame is not converted, and a failed conversion, or one that
// makes nothing, loses its block only.
TEST(MicrophoneConversionTest, OutputRoomFollowsTheRateRatioTruncated)
{
    const struct {
        double inputRate;
        std::size_t frames, capacity;
        std::optional<std::optional<std::size_t>> result =
            {}; // what the converter says, if not the truth
    } cases[] = {{48000, 4096, 1365},
                 {44100, 4096, 1486},
                 {8000, 100, 200},
                 {48000, 2, 0},
                 {48000, 4096, 1365, std::optional<std::size_t>()},
                 {48000, 4096, 1365, std::optional<std::size_t>(0)}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.inputRate);
        FakePlatform platform;
        platform.conversionResult = c.result;
        FakeConverter converter(&platform);
        const auto buffer = MicrophoneService::convertBlock(converter, c.inputRate,
                                                            std::vector<float>(c.frames, 0.5f));
        EXPECT_EQ(platform.capacities,
                  c.capacity ? std::vector{c.capacity} : std::vector<std::size_t>{});
        ASSERT_EQ(buffer.has_value(), c.capacity != 0 && !c.result);
        if (buffer) {
            EXPECT_EQ(buffer->frameLength(), std::min(c.capacity, c.frames))
                << "what the converter wrote";
            EXPECT_EQ(buffer->sampleRate, 16000);
        }
    }
}

// Voice processing comes first: it may change the rate the input delivers at. The session keeps
// one converter throughout. Stop ends the stream with what came before still readable; a new
// session gets a new converter, and a block of the old one still on its way goes nowhere. A stop
// while the platform still answers overtakes that start: it ends quietly and leaves nothing
// running.
TEST_F(MicrophoneServiceTest,
       EachSessionStartsInThePlatformsOrderWithOneConverterAndAStopEndsItEvenWhileStarting)
{
    awaitTask(service.start());
    EXPECT_EQ(platform->calls,
              (QStringList{u"voiceProcessing"_s, u"rate"_s, u"converter 48000>16000"_s,
                           u"installTap 4096"_s, u"start"_s}));
    const auto stream = service.audioStream();
    const auto oldTap = platform->tap;
    tap(oldTap);
    tap(oldTap);
    awaitTask(service.stop());
    EXPECT_TRUE(stream->isFinished());
    EXPECT_EQ(madeBy(stream), (std::vector<float>{1.0f, 1.0f}));

    awaitTask(service.start());
    tap(oldTap);
    tap(platform->tap);
    EXPECT_EQ(madeBy(service.audioStream()), std::vector<float>{2.0f});
    awaitTask(service.stop());

    *platform = FakePlatform{};
    platform->rateGate = std::make_shared<AsyncQueue<bool>>();
    auto starting = service.start();
    awaitTask(service.stop());
    platform->rateGate->push(true);
    EXPECT_NO_THROW(awaitTask(std::move(starting)));
    EXPECT_FALSE(platform->calls.contains(u"installTap 4096"_s));
    EXPECT_FALSE(service.isCapturing());
}
