#include "QtPrinters.h"
#include "AudioFraming.h"

#include <QtEndian>

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace {
std::vector<qint16> samplesOf(const QByteArray& bytes)
{
    std::vector<qint16> samples;
    for (qsizetype i = 0; i + 1 < bytes.size(); i += 2)
        samples.push_back(qFromLittleEndian<qint16>(bytes.constData() + i));
    return samples;
}
} // namespace

TEST(AudioFramingTest, ConversionScalesTruncatesAndClamps)
{
    EXPECT_EQ(AudioFraming::toPcm16(1.0f), 32767);
    EXPECT_EQ(AudioFraming::toPcm16(-1.0f), -32767);
    EXPECT_EQ(AudioFraming::toPcm16(1.5f), 32767);
    EXPECT_EQ(AudioFraming::toPcm16(-1.5f), -32768);
    EXPECT_EQ(AudioFraming::toPcm16(0.5f), 16383) << "truncated toward zero";
    EXPECT_EQ(AudioFraming::toPcm16(-0.5f), -16383);
    EXPECT_EQ(AudioFraming::toPcm16(std::numeric_limits<float>::quiet_NaN()), 0);
    EXPECT_EQ(AudioFraming::toPcm16(std::numeric_limits<float>::infinity()), 32767);
    EXPECT_EQ(AudioFraming::toPcm16(-std::numeric_limits<float>::infinity()), -32768);
    EXPECT_EQ(AudioFraming::toPcm16(1e30f), 32767);

    const auto bytes = AudioFraming::pcm16({0.5f, -1.0f});
    EXPECT_EQ(bytes, QByteArray("\xff\x3f\x01\x80", 4)) << "little-endian, two bytes a frame";
}

TEST(AudioFramingTest, ResamplingTo24kHasFixedLengthsAndInterpolates)
{
    for (const auto& [in, out] : {std::pair{1u, 1u}, {2u, 3u}, {3u, 4u}, {1600u, 2400u}, {4096u, 6144u}}) {
        const std::vector<float> samples(in, 0.25f);
        EXPECT_EQ(AudioFraming::pcm16At24k(samples).size(), qsizetype(out) * 2) << in;
    }
    EXPECT_TRUE(AudioFraming::pcm16At24k({}).isEmpty());

    // Positions 0, 2/3 and 4/3: the last reads the last input sample through the clamp.
    const auto ramp = samplesOf(AudioFraming::pcm16At24k({0.0f, 0.3f}));
    ASSERT_EQ(ramp.size(), 3u);
    EXPECT_EQ(ramp[0], 0);
    EXPECT_NEAR(ramp[1], 0.2 * 32767, 1.0);
    EXPECT_EQ(ramp[2], AudioFraming::toPcm16(0.3f));

    std::vector<float> tail(4096, 0.0f);
    tail.back() = 1.0f;
    const auto resampled = samplesOf(AudioFraming::pcm16At24k(tail));
    EXPECT_EQ(resampled.back(), 32767);
    EXPECT_NEAR(resampled[resampled.size() - 2], 2.0 / 3.0 * 32767, 1.0) << "two thirds between the last two inputs";
}
