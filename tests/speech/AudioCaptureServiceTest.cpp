#include "QtPrinters.h"

#include "AudioCaptureService.h"
#include "AwaitTask.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

using Format = SampleDescription::Format;

namespace {

// What the fake platform saw; it outlives each source, as a platform thread may.
struct FakePlatform {
    SystemAudioSource::BlockHandler handler;
    int stops = 0;
    // While set, start waits for a value here: the platform is slow to start.
    std::shared_ptr<AsyncQueue<bool>> startGate;
};

class FakeSystemAudioSource final : public SystemAudioSource {
public:
    explicit FakeSystemAudioSource(std::shared_ptr<FakePlatform> platform)
        : m_platform(std::move(platform))
    {
    }
    QCoro::Task<> start(BlockHandler onBlock) override
    {
        auto platform = m_platform;
        if (auto gate = platform->startGate)
            co_await gate->next();
        platform->handler = std::move(onBlock);
    }
    QCoro::Task<> stop() override
    {
        ++m_platform->stops;
        co_return;
    }

private:
    std::shared_ptr<FakePlatform> m_platform;
};

template <typename Sample> QByteArray bytesOf(std::initializer_list<Sample> samples)
{
    return QByteArray(reinterpret_cast<const char*>(std::data(samples)),
                      qsizetype(samples.size() * sizeof(Sample)));
}

// Hands one block to `handler` the way the platform does, and runs the queued hand-over.
void deliver(const SystemAudioSource::BlockHandler& handler, const QByteArray& bytes,
             SampleDescription description, std::size_t frames)
{
    handler({description, frames, reinterpret_cast<const std::byte*>(bytes.constData()),
             std::size_t(bytes.size())});
    QCoreApplication::sendPostedEvents();
}

void deliverMono(const SystemAudioSource::BlockHandler& handler, float sample)
{
    deliver(handler, bytesOf<float>({sample}), {Format::float32, 1, 4, 16000}, 1);
}

std::vector<std::vector<float>> drain(const std::shared_ptr<AudioStream>& stream)
{
    std::vector<std::vector<float>> buffers;
    while (auto buffer = stream->tryNext())
        buffers.push_back(buffer->samples);
    return buffers;
}

QCoro::Task<std::optional<PcmBuffer>> nextBuffer(std::shared_ptr<AudioStream> stream)
{
    auto buffer = co_await stream->next();
    co_return buffer;
}

} // namespace

class AudioCaptureServiceTest : public ::testing::Test {
protected:
    std::shared_ptr<FakePlatform> platform = std::make_shared<FakePlatform>();
    AudioCaptureService service{
        [platform = platform] { return std::make_unique<FakeSystemAudioSource>(platform); }};
};

struct ConversionCase {
    const char* name;
    QByteArray bytes;
    SampleDescription description;
    std::size_t frames;
    std::vector<float> expected; // empty: the block is dropped
};

class AudioCaptureConversionTest : public AudioCaptureServiceTest,
                                   public ::testing::WithParamInterface<ConversionCase> {};

TEST_P(AudioCaptureConversionTest, BlockBecomesOneBufferOrNone)
{
    awaitTask(service.start());
    const auto stream = service.audioStream();
    const auto& param = GetParam();
    deliver(platform->handler, param.bytes, param.description, param.frames);
    deliverMono(platform->handler, 0.125f); // a marker: the block before it has been handled

    auto buffers = drain(stream);
    ASSERT_FALSE(buffers.empty());
    EXPECT_EQ(buffers.back(), std::vector<float>{0.125f});
    buffers.pop_back();
    if (param.expected.empty()) {
        EXPECT_TRUE(buffers.empty()) << "the block should have been dropped";
        return;
    }
    ASSERT_EQ(buffers.size(), 1u);
    ASSERT_EQ(buffers[0].size(), param.expected.size());
    for (std::size_t i = 0; i < buffers[0].size(); ++i)
        EXPECT_FLOAT_EQ(buffers[0][i], param.expected[i]) << "sample " << i;
}

constexpr SampleDescription mono32{Format::float32, 1, 4, 16000};

INSTANTIATE_TEST_SUITE_P(
    Formats, AudioCaptureConversionTest,
    ::testing::Values(
        ConversionCase{"Float32Copied", bytesOf<float>({0.25f, -0.5f}), mono32, 2, {0.25f, -0.5f}},
        // Frames times bytes per frame is more than the block holds: only what is there.
        ConversionCase{"Float32ShortBlock", bytesOf<float>({0.5f}), mono32, 3, {0.5f, 0, 0}},
        // A stereo float block is cut at the buffer's size rather than overrunning it.
        ConversionCase{"Float32Stereo", bytesOf<float>({0.1f, 0.2f, 0.3f, 0.4f}),
                       {Format::float32, 2, 8, 16000}, 2, {0.1f, 0.2f}},
        ConversionCase{"Int16", bytesOf<qint16>({32767, -32768, 16384}), {Format::int16, 1, 2, 16000}, 3,
                       {1.0f, -32768.0f / 32767.0f, 16384.0f / 32767.0f}},
        ConversionCase{"Int16FirstChannel", bytesOf<qint16>({100, -7, 200, -7}), {Format::int16, 2, 4, 16000}, 2,
                       {100 / 32767.0f, 200 / 32767.0f}},
        ConversionCase{"Int32", bytesOf<qint32>({2147483647, -2147483647 - 1, 1 << 29, 5}),
                       {Format::int32, 2, 8, 16000}, 2, {1.0f, 0.25f}},
        ConversionCase{"Float64Dropped", bytesOf<double>({0.5}), {Format::float64, 1, 8, 16000}, 1, {}},
        ConversionCase{"Int24Dropped", QByteArray(9, '\x10'), {Format::other, 1, 3, 16000}, 3, {}},
        ConversionCase{"ZeroSamplesDropped", bytesOf<float>({0.5f}), mono32, 0, {}},
        // The first channel of the last frame lies past the block's end.
        ConversionCase{"Int16TooShortDropped", bytesOf<qint16>({1, 2, 3, 4}), {Format::int16, 2, 4, 16000}, 3, {}}),
    [](const auto& info) { return std::string(info.param.name); });

// The platform delivers on a thread of its own; the buffers reach the stream on the main thread
// in the order they arrived, with the block's rate.
TEST_F(AudioCaptureServiceTest, BlocksFromThePlatformThreadArriveInOrder)
{
    awaitTask(service.start(QStringLiteral("org.example.Meeting"))); // no display: ignored
    const auto stream = service.audioStream();
    constexpr int count = 200;
    std::thread platformThread([handler = platform->handler] {
        for (int i = 0; i < count; ++i) {
            const auto bytes = bytesOf<float>({float(i)});
            handler({{Format::float32, 1, 4, 44100},
                     1,
                     reinterpret_cast<const std::byte*>(bytes.constData()),
                     4});
        }
    });
    for (int i = 0; i < count; ++i) {
        const auto buffer = awaitTask(nextBuffer(stream), 10'000);
        ASSERT_TRUE(buffer);
        ASSERT_EQ(buffer->samples, std::vector<float>{float(i)});
        ASSERT_EQ(buffer->sampleRate, 44100);
    }
    platformThread.join();
}

TEST_F(AudioCaptureServiceTest, StopEndsTheStreamAndAStartAfterItBeginsAFreshOne)
{
    awaitTask(service.stop());
    EXPECT_EQ(platform->stops, 0) << "stop before start has nothing to stop";

    awaitTask(service.start());
    const auto first = service.audioStream();
    const auto firstHandler = platform->handler;
    deliverMono(firstHandler, 0.5f);
    awaitTask(service.stop());
    EXPECT_EQ(platform->stops, 1);
    EXPECT_TRUE(first->isFinished());
    EXPECT_EQ(drain(first).size(), 1u) << "what came before stop is still read";

    // A block the platform was still delivering when it was stopped goes nowhere.
    deliverMono(firstHandler, 0.25f);
    EXPECT_EQ(service.audioStream()->bufferedCount(), 0u);
    awaitTask(service.stop());
    EXPECT_EQ(platform->stops, 1) << "a second stop has no capture to stop";

    awaitTask(service.start());
    const auto second = service.audioStream();
    ASSERT_NE(first, second);
    deliverMono(firstHandler, 0.75f); // the first capture's, not this one's
    deliverMono(platform->handler, 0.5f);
    EXPECT_EQ(drain(second), (std::vector<std::vector<float>>{{0.5f}}));
}

// The pipeline may stop while the platform is still starting: the capture that comes up late
// must not run on unseen.
TEST_F(AudioCaptureServiceTest, StopWhileStartingDropsTheLateCapture)
{
    platform->startGate = std::make_shared<AsyncQueue<bool>>();
    auto starting = service.start();
    const auto stream = service.audioStream();
    awaitTask(service.stop());
    EXPECT_TRUE(stream->isFinished());

    platform->startGate->push(true);
    awaitTask(std::move(starting));
    EXPECT_FALSE(service.isCapturing());
    deliverMono(platform->handler, 0.5f);
    EXPECT_EQ(service.audioStream()->bufferedCount(), 0u);
}
