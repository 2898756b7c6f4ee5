#pragma once

#include "AudioSource.h"

#include <QByteArray>

#include <chrono>

class Clock;

// The rights to the two channels, as far as the sound server can tell: system audio when a
// server answers and its default sink has a monitor, the microphone when its default source is
// a real input. These are the same sources the captures record from, so a granted right means
// the capture has something to record.
class PulseAudioRights final : public AudioRights {
public:
    // Screens poll these; a server that hangs must not hold them.
    static constexpr std::chrono::milliseconds answerWithin{500};

    // `server`: a libpulse server string, empty for the session's own. `clock` must outlive
    // the checks.
    explicit PulseAudioRights(Clock& clock, QByteArray server = {});

    QCoro::Task<bool> systemAudioGranted() override;
    QCoro::Task<bool> microphoneGranted() override;

private:
    enum class Right { systemAudio, microphone };
    static QCoro::Task<bool> check(Right right, QByteArray server, Clock* clock);

    Clock* m_clock;
    QByteArray m_server;
};
