#include "RateWindow.h"

#include "Clock.h"

#include <algorithm>

bool RateWindow::take(const QString& key, int limit)
{
    const auto now = m_clock.nowMs();
    forgetQuietKeys(now);
    auto& times = m_times[key];
    while (!times.empty() && times.front() <= now - m_windowMs)
        times.pop_front();
    if (static_cast<qsizetype>(times.size()) >= limit) {
        if (times.empty())
            m_times.remove(key);
        return false;
    }
    times.push_back(now);
    return true;
}

qint64 RateWindow::retryAfterSeconds(const QString& key) const
{
    const auto found = m_times.constFind(key);
    if (found == m_times.cend() || found->empty())
        return 1;
    const auto waitMs = found->front() + m_windowMs - m_clock.nowMs();
    return std::max<qint64>(1, (waitMs + 999) / 1000);
}

void RateWindow::forgetQuietKeys(qint64 nowMs)
{
    if (nowMs - m_lastSweepMs < m_windowMs)
        return;
    m_lastSweepMs = nowMs;
    for (auto it = m_times.begin(); it != m_times.end();) {
        if (it->empty() || it->back() <= nowMs - m_windowMs)
            it = m_times.erase(it);
        else
            ++it;
    }
}
