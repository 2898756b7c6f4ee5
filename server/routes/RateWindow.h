#pragma once

#include <QHash>
#include <QString>

#include <deque>

class Clock;

// How many times each key (a user, an address) did something within the last window of the
// clock's time. Keys that fell quiet are forgotten, so an attacker's many keys cost memory
// only for one window.
class RateWindow {
public:
    RateWindow(Clock& clock, qint64 windowMs)
        : m_clock(clock)
        , m_windowMs(windowMs)
    {
    }

    // Counts one more for `key` unless `limit` are already counted within the window; false
    // (nothing counted) then.
    bool take(const QString& key, int limit);
    // Seconds until `key` may take one more (at least 1), for a Retry-After.
    qint64 retryAfterSeconds(const QString& key) const;

private:
    void forgetQuietKeys(qint64 nowMs);

    Clock& m_clock;
    qint64 m_windowMs;
    QHash<QString, std::deque<qint64>> m_times;
    qint64 m_lastSweepMs = 0;
};
