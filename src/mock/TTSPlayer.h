#pragma once

#include "CancellationToken.h"
#include "Clock.h"

#include <QByteArray>
#include <QCoroTask>
#include <QObject>

#include <optional>

// Plays a spoken question and publishes its loudness for the interviewer's tile. The waiting,
// the metering and the one-playback-at-a-time rule live here; a backend only decodes, plays and
// reports the loudness of what is playing.
class TTSPlayer : public QObject {
    Q_OBJECT
    Q_PROPERTY(double level READ level NOTIFY levelChanged)
    Q_PROPERTY(bool isPlaying READ isPlaying NOTIFY isPlayingChanged)

public:
    static constexpr std::chrono::milliseconds meteringInterval{33}; // about 30 a second

    explicit TTSPlayer(Clock& clock, QObject* parent = nullptr);
    ~TTSPlayer() override;

    // Ends when playback has ended, however it ended; bytes that are no audio end it at once.
    // A playback already running is stopped first.
    QCoro::Task<> play(QByteArray bytes);
    void stop();

    double level() const { return m_level; }
    bool isPlaying() const { return m_isPlaying; }

    // The tile's level for an average power in decibels: -50 dB or less is silent, 0 dB is full.
    static double levelForPower(double decibels);

Q_SIGNALS:
    void levelChanged();
    void isPlayingChanged();

protected:
    // Readies the bytes for playback; false when they cannot be played. May suspend; a stop()
    // meanwhile makes play() ignore the answer.
    virtual QCoro::Task<bool> prepare(QByteArray bytes) = 0;
    virtual void startOutput() = 0;
    // Stops and releases what prepare() and startOutput() made; called in any state.
    virtual void haltOutput() = 0;
    // Average power of what is being heard now, in decibels; nothing when nothing plays.
    virtual std::optional<double> currentPower() = 0;
    // Backends call this when the output has played to its end or failed.
    void outputEnded();

private:
    QCoro::Task<> run(QByteArray bytes);
    static void resumeLater(CancellationToken completion);
    void scheduleMeter();
    void meter();
    void setLevel(double level);
    void setPlaying(bool playing);

    Clock& m_clock;
    double m_level = 0;
    bool m_isPlaying = false;
    quint64 m_generation = 0;
    Clock::TimerId m_meterTimer = 0;
    std::optional<CancellationToken> m_completion;
};
