#include "TTSPlayer.h"

#include "WhenCancelled.h"

#include <QCoreApplication>
#include <QPointer>

#include <algorithm>

TTSPlayer::TTSPlayer(Clock& clock, QObject* parent)
    : QObject(parent)
    , m_clock(clock)
{
}

TTSPlayer::~TTSPlayer()
{
    // A waiting play() must not outlive its player; backends have already gone, so only the
    // timer and the waiter are released here.
    if (m_meterTimer)
        m_clock.cancelTimer(std::exchange(m_meterTimer, 0));
    if (auto completion = std::exchange(m_completion, std::nullopt))
        resumeLater(*completion);
}

double TTSPlayer::levelForPower(double decibels)
{
    return std::clamp((decibels + 50.0) / 50.0, 0.0, 1.0);
}

QCoro::Task<> TTSPlayer::play(QByteArray bytes)
{
    return run(std::move(bytes));
}

QCoro::Task<> TTSPlayer::run(QByteArray bytes)
{
    QPointer self(this);
    stop();
    const auto generation = m_generation;
    const bool ready = co_await prepare(std::move(bytes));
    // A stop() or another play() while decoding ends this one.
    if (!self || generation != m_generation)
        co_return;
    if (!ready) {
        haltOutput();
        co_return;
    }

    setPlaying(true);
    setLevel(0);
    scheduleMeter();
    CancellationToken completion;
    m_completion = completion;
    startOutput();
    co_await WhenCancelled(completion, CancellationToken{});
}

void TTSPlayer::stop()
{
    ++m_generation;
    if (m_meterTimer)
        m_clock.cancelTimer(std::exchange(m_meterTimer, 0));
    haltOutput();
    setPlaying(false);
    setLevel(0);
    if (auto completion = std::exchange(m_completion, std::nullopt))
        resumeLater(*completion);
}

void TTSPlayer::resumeLater(CancellationToken completion)
{
    // From the event loop, as a finished playback reports: whoever stopped the player finishes
    // its own step before the waiting play() goes on.
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [completion] { completion.cancel(); }, Qt::QueuedConnection);
}

void TTSPlayer::outputEnded()
{
    if (m_isPlaying)
        stop();
}

void TTSPlayer::scheduleMeter()
{
    m_meterTimer = m_clock.startTimer(meteringInterval.count(), [this] {
        m_meterTimer = 0;
        meter();
        if (m_isPlaying)
            scheduleMeter();
    });
}

void TTSPlayer::meter()
{
    const auto power = m_isPlaying ? currentPower() : std::nullopt;
    setLevel(power ? levelForPower(*power) : 0.0);
}

void TTSPlayer::setLevel(double level)
{
    if (level == m_level)
        return;
    m_level = level;
    Q_EMIT levelChanged();
}

void TTSPlayer::setPlaying(bool playing)
{
    if (playing == m_isPlaying)
        return;
    m_isPlaying = playing;
    Q_EMIT isPlayingChanged();
}
