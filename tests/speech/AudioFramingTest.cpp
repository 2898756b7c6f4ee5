#include "AudioFraming.h"
#include "QtPrinters.h"

#include <QtEndian>

#include <gtest/gtest.h>

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

// Scaled by 32767 and truncated toward zero; what lies outside clamps, and NaN is silence.
TEST(AudioFramingTest, ConversionScalesTruncatesAndClamps)
{
    constexpr auto infinity = std::numeric_limits<float>::infinity();
    const std::vector<float> in{
        1.0f,     -1.0f,     1.5f, -1.5f, 0.5f, -0.5f, std::numeric_limits<float>::quiet_NaN(),
        infinity, -infinity, 1e30f};
    EXPECT_EQ(samplesOf(AudioFraming::pcm16(in)),
              (std::vector<qint16>{32767, -32767, 32767, -32768, 16383, -16383, 0, 32767, -32768,
                                   32767}));
    EXPECT_EQ(AudioFraming::pcm16({0.5f, -1.0f}), QByteArray("\xff\x3f\x01\x80", 4))
        << "little-endian";
}

// Three samples at 24 kHz for every two at 16 kHz, each read at its position between the two
// inputs around it; the last input sample stands in for what lies past the end.
TEST(AudioFramingTest, ResamplingTo24kHasFixedLengthsAndInterpolates)
{
    for (const auto& [in, out] :
         {std::pair{0u, 0u}, {1u, 1u}, {2u, 3u}, {3u, 4u}, {1600u, 2400u}, {4096u, 6144u}})
        EXPECT_EQ(AudioFraming::pcm16At24k(std::vector<float>(in, 0.25f)).size(),
                  qsizetype(out) * 2)
            << in;
    // 0.2 and 0.3 of full scale, truncated.
    EXPECT_EQ(samplesOf(AudioFraming::pcm16At24k({0.0f, 0.3f})),
              (std::vector<qint16>{0, 6553, 9830}));
    std::vector<float> tail(4096, 0.0f);
    tail.back() = 1.0f;
    const auto resampled = samplesOf(AudioFraming::pcm16At24k(tail));
    EXPECT_EQ(std::vector(resampled.end() - 3, resampled.end()),
              (std::vector<qint16>{0, 21844, 32767}));
}
