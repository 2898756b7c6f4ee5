#pragma once

#include "Clock.h"

#include <QTest>

#include <chrono>
#include <functional>

// Whether `happened` comes true once `delay` has passed on the manual clock, and not a moment
// before. Sockets and queued calls get real time to act on either side of the last millisecond.
inline bool happensExactlyAfter(ManualClock& clock, std::chrono::milliseconds delay,
                                const std::function<bool()>& happened)
{
    clock.advance(delay - std::chrono::milliseconds(1));
    QTest::qWait(50);
    if (happened())
        return false;
    clock.advance(std::chrono::milliseconds(1));
    return QTest::qWaitFor(happened, 10'000);
}
