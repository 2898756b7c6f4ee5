#pragma once

#include <QCoroTask>
#include <QString>

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>

// What the capture services need from the platform's sound system. The platform's threads call
// the handlers given here; the services convert there and hand the result to the main thread.

// A failure of the sound system, in its own words; shown to the user as it stands.
class AudioSourceError : public std::runtime_error {
public:
    explicit AudioSourceError(const QString& description)
        : std::runtime_error(description.toStdString())
        , m_description(description)
    {
    }
    QString description() const { return m_description; }

private:
    QString m_description;
};

// How the samples of a block are laid out. Integer and float samples are in the machine's own
// byte order; anything the conversion does not take (24-bit, 8-bit, foreign byte order) is
// `other`.
struct SampleDescription {
    enum class Format { other, float32, float64, int16, int32 };

    Format format = Format::other;
    quint32 channelCount = 0;
    quint32 bytesPerFrame = 0;
    double sampleRate = 0;
};

// One block as the platform delivers it: interleaved frames, borrowed for the call only.
struct SampleBlock {
    SampleDescription description;
    std::size_t frameCount = 0;
    const std::byte* data = nullptr;
    std::size_t byteLength = 0;
};

// What the machine plays, from its default output.
class SystemAudioSource {
public:
    // Called on a platform thread, one block after the other.
    using BlockHandler = std::function<void(const SampleBlock&)>;

    virtual ~SystemAudioSource() = default;

    // Starts delivering blocks, 16 kHz mono if the platform can. Throws AudioCaptureError
    // (noDisplay) when there is nothing to capture, or an AudioSourceError.
    virtual QCoro::Task<> start(BlockHandler onBlock) = 0;
    // Once it returns (or the source is destroyed), onBlock is not called again. May throw.
    virtual QCoro::Task<> stop() = 0;
};

// A stateful converter of one channel of float samples from one rate to another.
class SampleRateConverter {
public:
    virtual ~SampleRateConverter() = default;
    // Fills at most output.size() frames; returns how many, or nothing on failure. Input the
    // output had no room for is kept for the next call, as is the filter state.
    virtual std::optional<std::size_t> convert(std::span<const float> input,
                                               std::span<float> output) = 0;
};

// The default input device: float32 mono at the device's own rate.
class MicrophoneSource {
public:
    // Called on a platform thread with each block of `frames` frames.
    using TapBlock = std::function<void(std::span<const float> frames)>;

    virtual ~MicrophoneSource() = default;

    virtual bool isVoiceProcessingEnabled() const = 0;
    // Echo cancellation and the like, asked of the platform. May throw.
    virtual void setVoiceProcessingEnabled(bool enabled) = 0;
    // The rate the input delivers at, 0 when there is no input device. May throw an
    // AudioSourceError when the sound system cannot be reached.
    virtual QCoro::Task<double> inputSampleRate() = 0;
    // Nothing when the platform cannot convert between the two rates.
    virtual std::unique_ptr<SampleRateConverter> makeConverter(double inputRate,
                                                               double outputRate) = 0;
    virtual void installTap(std::size_t frames, TapBlock block) = 0;
    // Once it returns, the tap's block is not called again.
    virtual void removeTap() = 0;
    // Starts recording into the tap. May throw.
    virtual QCoro::Task<> start() = 0;
    virtual void stop() = 0;
};

// The stand-ins for the two rights the interview needs. Each check answers promptly, whatever
// state the sound system is in.
class AudioRights {
public:
    virtual ~AudioRights() = default;
    virtual QCoro::Task<bool> systemAudioGranted() = 0;
    virtual QCoro::Task<bool> microphoneGranted() = 0;
};
