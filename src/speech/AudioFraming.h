#pragma once

#include "AsyncQueue.h"

#include <QByteArray>

#include <optional>
#include <vector>

// One block of captured audio: single-precision samples of one channel, nominally 16 kHz.
struct PcmBuffer {
    std::vector<float> samples;
    double sampleRate = 16000;
    // False for a block that came without float channel data; it is skipped on the wire.
    bool hasFloatData = true;

    std::size_t frameLength() const { return samples.size(); }
};

// The buffers of one channel on their way to its recogniser. Buffering is unbounded while a
// recogniser reads; while none runs on the channel a backlog limit keeps only the newest audio,
// so that an hour without one neither fills the memory nor reaches the vendor as one burst.
class AudioStream : public AsyncQueue<PcmBuffer> {
public:
    void push(PcmBuffer buffer)
    {
        AsyncQueue::push(std::move(buffer));
        if (m_limitFrames)
            trim(*m_limitFrames);
    }
    // Nothing lifts the limit. The frames dropped so far are counted from the moment it is set.
    void setBacklogLimit(std::optional<std::size_t> frames)
    {
        m_limitFrames = frames;
        m_droppedFrames = 0;
        if (frames)
            trim(*frames);
    }
    bool hasBacklogLimit() const { return m_limitFrames.has_value(); }
    std::size_t droppedFrames() const { return m_droppedFrames; }

private:
    void trim(std::size_t limit)
    {
        dropOldestWhile([&](const auto& items) {
            std::size_t frames = 0;
            for (const auto& item : items)
                frames += item.frameLength();
            if (frames <= limit)
                return false;
            m_droppedFrames += items.front().frameLength();
            return true;
        });
    }

    std::optional<std::size_t> m_limitFrames;
    std::size_t m_droppedFrames = 0;
};

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
