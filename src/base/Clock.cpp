#include "Clock.h"

#include <QDateTime>
#include <QTimer>

Clock::SleepAwaiter Clock::sleep(std::chrono::milliseconds duration, CancellationToken token)
{
    return SleepAwaiter(*this, duration.count(), std::move(token));
}

void Clock::SleepAwaiter::await_suspend(std::coroutine_handle<> handle)
{
    m_handle = handle;
    m_timer = m_clock->startTimer(m_durationMs, [this] { finish(true); });
    m_cancelRegistration = m_token.onCancel([this] { finish(false); });
}

void Clock::SleepAwaiter::finish(bool sleptFully)
{
    if (!m_handle)
        return;
    m_result = sleptFully;
    disarm();
    std::exchange(m_handle, {}).resume();
}

void Clock::SleepAwaiter::disarm()
{
    if (m_timer != 0)
        m_clock->cancelTimer(std::exchange(m_timer, 0));
    m_cancelRegistration.reset();
}

SystemClock::SystemClock() = default;
SystemClock::~SystemClock() = default;

qint64 SystemClock::nowMs() const
{
    return QDateTime::currentMSecsSinceEpoch();
}

Clock::TimerId SystemClock::startTimer(qint64 delayMs, std::function<void()> fire)
{
    const auto id = m_nextId++;
    auto timer = std::make_unique<QTimer>();
    timer->setSingleShot(true);
    timer->setTimerType(Qt::PreciseTimer);
    QObject::connect(timer.get(), &QTimer::timeout, timer.get(),
                     [this, id, fire = std::move(fire)] {
                         auto node = m_timers.extract(id);
                         if (node.empty())
                             return;
                         // The timer is inside its own signal: let the event loop delete it.
                         node.mapped().release()->deleteLater();
                         fire();
                     });
    timer->start(std::chrono::milliseconds(std::max<qint64>(delayMs, 0)));
    m_timers.emplace(id, std::move(timer));
    return id;
}

void SystemClock::cancelTimer(TimerId id)
{
    m_timers.erase(id);
}

Clock::TimerId ManualClock::startTimer(qint64 delayMs, std::function<void()> fire)
{
    const auto id = m_nextId++;
    const auto deadline = m_nowMs + std::max<qint64>(delayMs, 0);
    m_timers.emplace(std::pair(deadline, id), std::move(fire));
    m_deadlines.emplace(id, deadline);
    return id;
}

void ManualClock::cancelTimer(TimerId id)
{
    const auto it = m_deadlines.find(id);
    if (it == m_deadlines.end())
        return;
    m_timers.erase(std::pair(it->second, id));
    m_deadlines.erase(it);
}

void ManualClock::advance(std::chrono::milliseconds by)
{
    const auto target = m_nowMs + std::max<qint64>(by.count(), 0);
    fireDueUntil(target);
    m_nowMs = target;
}

bool ManualClock::advanceToNextTimer()
{
    const auto next = nextDeadlineMs();
    if (!next)
        return false;
    fireDueUntil(std::max(*next, m_nowMs));
    return true;
}

std::optional<qint64> ManualClock::nextDeadlineMs() const
{
    if (m_timers.empty())
        return std::nullopt;
    return m_timers.begin()->first.first;
}

void ManualClock::fireDueUntil(qint64 targetMs)
{
    while (!m_timers.empty() && m_timers.begin()->first.first <= targetMs) {
        auto node = m_timers.extract(m_timers.begin());
        m_deadlines.erase(node.key().second);
        m_nowMs = std::max(m_nowMs, node.key().first);
        node.mapped()();
    }
}
