#pragma once

#include "AudioFraming.h"
#include "AudioSource.h"

#include <QCoroTask>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <optional>
#include <span>

class MicrophoneError : public AudioSourceError {
public:
    enum class Case { noInputDevice, formatError, converterError, permissionDenied };

    explicit MicrophoneError(Case which)
        : AudioSourceError(text(which))
        , m_case(which)
    {
    }
    Case which() const { return m_case; }
    static QString text(Case which);

private:
    Case m_case;
};

// The user's channel: the default input, resampled to 16 kHz, as a stream of PCM buffers.
class MicrophoneService : public QObject {
    Q_OBJECT

public:
    // Makes the platform input for one start.
    using SourceFactory = std::function<std::unique_ptr<MicrophoneSource>()>;

    static constexpr double targetSampleRate = 16000.0;
    // About 85 ms at 48 kHz.
    static constexpr std::size_t tapFrames = 4096;

    explicit MicrophoneService(SourceFactory makeSource, QObject* parent = nullptr);
    ~MicrophoneService() override;

    // The current stream, made here if there is none; start() always makes a new one.
    std::shared_ptr<AudioStream> audioStream();

    // Throws MicrophoneError, or the platform's AudioSourceError.
    QCoro::Task<> start();
    QCoro::Task<> stop();

    bool isCapturing() const { return m_engine != nullptr; }

    // One input block through the session's converter: a 16 kHz buffer of at most
    // 16000 / inputRate * frames frames, or nothing when that capacity is 0 or the converter
    // produced nothing.
    static std::optional<PcmBuffer> convertBlock(SampleRateConverter& converter, double inputRate,
                                                 std::span<const float> input);

private:
    void onBuffer(quint64 session, PcmBuffer buffer);

    SourceFactory m_makeSource;
    std::shared_ptr<MicrophoneSource> m_engine;
    // The writer end and the stream are one object here: the queue both ends share.
    std::shared_ptr<AudioStream> m_audioStream;
    // Counts starts and stops, so that a start overtaken by a stop, or a block converted for
    // an earlier session, never reaches the current stream.
    quint64 m_session = 0;
};
