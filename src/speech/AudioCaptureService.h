#pragma once

#include "AudioFraming.h"
#include "AudioSource.h"

#include <QCoroTask>
#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <optional>

// The interviewer's channel: what the machine plays, as a stream of PCM buffers.
class AudioCaptureError : public AudioSourceError {
public:
    enum class Case { noDisplay, noPermission, noApplication };

    explicit AudioCaptureError(Case which)
        : AudioSourceError(text(which))
        , m_case(which)
    {
    }
    Case which() const { return m_case; }
    static QString text(Case which);

private:
    Case m_case;
};

class AudioCaptureService : public QObject {
    Q_OBJECT

public:
    // Makes the platform capture for one start.
    using SourceFactory = std::function<std::unique_ptr<SystemAudioSource>()>;

    explicit AudioCaptureService(SourceFactory makeSource, QObject* parent = nullptr);
    ~AudioCaptureService() override;

    // The current stream, made here if there is none; start() always makes a new one.
    std::shared_ptr<AudioStream> audioStream();

    // There is no display to pick an application from here: the target is accepted and the
    // whole system output is captured, as for a target that is not found.
    QCoro::Task<> start(std::optional<QString> targetApplication = std::nullopt);
    QCoro::Task<> stop();

    bool isCapturing() const { return m_stream != nullptr; }

    // One platform block as one PCM buffer: float32 copied as it is, signed 32 and 16-bit
    // scaled, first channel only. Nothing for a block that cannot be converted.
    static std::optional<PcmBuffer> pcmBuffer(const SampleBlock& block);

private:
    void onBuffer(quint64 session, PcmBuffer buffer);

    SourceFactory m_makeSource;
    std::shared_ptr<SystemAudioSource> m_stream;
    // The writer end and the stream are one object here: the queue both ends share.
    std::shared_ptr<AudioStream> m_audioStream;
    // Counts starts and stops, so that a start overtaken by a stop, or a block converted for
    // an earlier capture, never reaches the current stream.
    quint64 m_session = 0;
};
