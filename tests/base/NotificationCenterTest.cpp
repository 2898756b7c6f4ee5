#include "NotificationCenter.h"
#include "QtPrinters.h"

#include <QObject>

#include <gtest/gtest.h>

#include <memory>

using namespace Qt::StringLiterals;

// Observers of a name get its object and user info in the order they were added; they go away
// with their context, and may add and remove observers while a post runs.
TEST(NotificationCenterTest, DeliversInOrderAndObserversMayChangeTheListWhilePosting)
{
    NotificationCenter center;
    QStringList calls;
    center.addObserver(Notifications::apiRequestFailed, nullptr, [&](const Notification& n) {
        calls.append(n.userInfo.value(u"route"_s).toString() + u" "_s
                     + QString::number(n.object.toInt()));
    });
    auto context = std::make_unique<QObject>();
    center.addObserver(Notifications::apiRequestFailed, context.get(),
                       [&](const Notification&) { calls.append(u"context"_s); });
    NotificationCenter::ObserverId self = 0, victim = 0;
    self = center.addObserver(Notifications::apiRequestFailed, nullptr, [&](const Notification&) {
        calls.append(u"self-removing"_s);
        center.removeObserver(self);
        center.removeObserver(victim);
        center.addObserver(Notifications::apiRequestFailed, nullptr,
                           [&](const Notification&) { calls.append(u"late"_s); });
    });
    victim = center.addObserver(Notifications::apiRequestFailed, nullptr,
                                [&](const Notification&) { calls.append(u"victim"_s); });
    center.addObserver(Notifications::toggleOverlay, nullptr,
                       [&](const Notification&) { calls.append(u"other name"_s); });

    center.post(Notifications::apiRequestFailed, 500, {{u"route"_s, u"/api/v1/resume"_s}});
    // The victim was removed during the post before its turn; the late one was added during it.
    EXPECT_EQ(calls, (QStringList{u"/api/v1/resume 500"_s, u"context"_s, u"self-removing"_s}));
    calls.clear();
    context.reset();
    center.post(Notifications::apiRequestFailed);
    EXPECT_EQ(calls, (QStringList{u" 0"_s, u"late"_s}));
}
