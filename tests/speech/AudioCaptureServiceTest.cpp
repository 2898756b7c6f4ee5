// System audio capture on a fake platform: how each kind of block becomes a buffer, and stop and
// restart, also while the platform is still starting.
#include "AudioCaptureService.h"
#include "AwaitTask.h"
#include "QtPrinters.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

using Format = SampleDescription::Format;
using Buffers = std::vector<std::vector<float>>;

namespace {
// What the fake platform saw; it outlives each source, as a platform thread may.
struct FakePlatform {
    SystemAudioSource::BlockHandler handler;
    std::shared_ptr<AsyncQueue<bool>> startGate; // while set, start waits for a value here
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
    QCoro::Task<> stop() override { co_return; }

private:
    std::shared_ptr<FakePlatform> m_platform;
};

template<typename Sample>
QByteArray bytesOf(std::initializer_list<Sample> samples)
{
    return QByteArray(reinterpret_cast<const char*>(std::data(samples)),
                      qsizetype(samples.size() * sizeof(Sample)));
}

// Hands one sample to `handler` the way the platform does, and runs the queued hand-over.
void deliver(const SystemAudioSource::BlockHandler& handler, float sample)
{
    handler({{Format::float32, 1, 4, 16000},
             1,
             reinterpret_cast<const std::byte*>(&sample),
             sizeof sample});
    QCoreApplication::sendPostedEvents();
}

Buffers drain(const std::shared_ptr<AudioStream>& stream)
{
    Buffers buffers;
    while (auto buffer = stream->tryNext())
        buffers.push_back(buffer->samples);
    return buffers;
}
} // namespace

class AudioCaptureServiceTest : public ::testing::Test {
protected:
    std::shared_ptr<FakePlatform> platform = std::make_shared<FakePlatform>();
    AudioCaptureService service{
        [platform = platform] { return std::make_unique<FakeSystemAudioSource>(platform); }};
};

// Integer samples are read from the first channel of each frame; no block is read past its end
// nor copied past the buffer's; formats the conversion does not take are dropped (no samples).
TEST(AudioCaptureConversionTest, EachBlockBecomesOneBufferOrNone)
{
    const struct {
        QByteArray bytes;
        SampleDescription description;
        std::size_t frames;
        std::vector<float> expected;
    } cases[] = {
        {bytesOf<float>({0.25f, -0.5f}), {Format::float32, 1, 4, 16000}, 2, {0.25f, -0.5f}},
        {bytesOf<float>({0.5f}), {Format::float32, 1, 4, 16000}, 3, {0.5f, 0, 0}},
        {bytesOf<float>({0.1f, 0.2f, 0.3f, 0.4f}), {Format::float32, 2, 8, 16000}, 2, {0.1f, 0.2f}},
        {bytesOf<qint16>({32767, -32768, 16384}),
         {Format::int16, 1, 2, 16000},
         3,
         {1.0f, -32768.0f / 32767.0f, 16384.0f / 32767.0f}},
        {bytesOf<qint16>({100, -7, 200, -7}),
         {Format::int16, 2, 4, 16000},
         2,
         {100 / 32767.0f, 200 / 32767.0f}},
        {bytesOf<qint32>({2147483647, -2147483647 - 1, 1 << 29, 5}),
         {Format::int32, 2, 8, 16000},
         2,
         {1.0f, 0.25f}},
        {bytesOf<double>({0.5}), {Format::float64, 1, 8, 16000}, 1, {}},
        {QByteArray(9, '\x10'), {Format::other, 1, 3, 16000}, 3, {}},
        {bytesOf<float>({0.5f}), {Format::float32, 1, 4, 16000}, 0, {}},
        // The first channel of the last frame lies past the block's end.
        {bytesOf<qint16>({1, 2, 3, 4}), {Format::int16, 2, 4, 16000}, 3, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << &c - cases);
        const auto buffer = AudioCaptureService::pcmBuffer(
            {c.description, c.frames, reinterpret_cast<const std::byte*>(c.bytes.constData()),
             std::size_t(c.bytes.size())});
        EXPECT_EQ(buffer.has_value(), !c.expected.empty());
        EXPECT_EQ(buffer.value_or(PcmBuffer{}).samples, c.expected);
        EXPECT_EQ(buffer.value_or(PcmBuffer{}).sampleRate, 16000);
    }
}

// What came before stop is still read; a block of a stopped capture, still on its way, goes
// nowhere once the next one runs, nor does one of a capture that came up after the stop that
// overtook its start. (Stopping twice and restarting run against a real sound server too.)
TEST_F(AudioCaptureServiceTest, StopEndsTheStreamAndOnlyTheRunningCaptureFeedsTheNext)
{
    awaitTask(service.start());
    const auto first = service.audioStream();
    const auto firstHandler = platform->handler;
    deliver(firstHandler, 0.5f);
    awaitTask(service.stop());
    EXPECT_EQ(drain(first), Buffers{{0.5f}});

    awaitTask(service.start());
    deliver(firstHandler, 0.75f);
    deliver(platform->handler, 0.5f);
    EXPECT_EQ(drain(service.audioStream()), Buffers{{0.5f}});
    awaitTask(service.stop());

    platform->startGate = std::make_shared<AsyncQueue<bool>>();
    auto starting = service.start();
    const auto stream = service.audioStream();
    awaitTask(service.stop());
    EXPECT_TRUE(stream->isFinished());
    platform->startGate->push(true);
    awaitTask(std::move(starting));
    EXPECT_FALSE(service.isCapturing());
    deliver(platform->handler, 0.5f);
    EXPECT_EQ(service.audioStream()->bufferedCount(), 0u);
}
