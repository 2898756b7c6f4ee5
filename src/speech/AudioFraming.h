#pragma once

#include "AsyncQueue.h"

#include <QByteArray>

#include <vector>

// One block of captured audio: single-precision samples of one channel, nominally 16 kHz.
struct PcmBuffer {
    std::vector<float> samples;
    double sampleRate = 16000;
    // False for a block that came without float channel data; it is skipped on the wire.
    bool hasFloatData = true;

    std::size_t frameLength() const { return samples.size(); }
};

using AudioStream = AsyncQueue<PcmBuffer>;

namespace AudioFraming {

// Scaled by 32767 and clamped to 16 bits before the conversion to an integer (an
// out-of-range float-to-int conversion is undefined in C++); a sample that is not a number
// becomes 0.
qint16 toPcm16(float sample);

// 16-bit little-endian PCM, two bytes a frame.
QByteArray pcm16(const std::vector<float>& samples);

// 16 kHz to 24 kHz by linear interpolation, each buffer on its own: floor(n * 1.5) samples,
// straight to 16-bit little-endian PCM.
QByteArray pcm16At24k(const std::vector<float>& samples);

} // namespace AudioFraming
