#pragma once

#include "AudioSource.h"

#include <QByteArray>

#include <chrono>
#include <memory>

class Clock;
class PulseClient;
class PulseRecordStream;

// What the machine plays: the monitor of the server's default sink, recorded as float32 mono
// at 16 kHz in blocks of about 100 ms.
class PulseSystemAudioSource final : public SystemAudioSource {
public:
    static constexpr double sampleRate = 16000;
    static constexpr std::chrono::milliseconds fragment{100};
    // Bounds each step of start; a local server answers within milliseconds.
    static constexpr std::chrono::seconds startTimeout{5};

    // `server`: a libpulse server string, empty for the session's own. `clock` must outlive
    // the source.
    explicit PulseSystemAudioSource(Clock& clock, QByteArray server = {});
    ~PulseSystemAudioSource() override;

    QCoro::Task<> start(BlockHandler onBlock) override;
    QCoro::Task<> stop() override;

private:
    void release();

    Clock* m_clock;
    QByteArray m_server;
    std::shared_ptr<PulseClient> m_client;
    std::unique_ptr<PulseRecordStream> m_stream;
};
