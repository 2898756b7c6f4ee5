#include "QtPrinters.h"
#include "NotificationCenter.h"

#include <QObject>

#include <gtest/gtest.h>

#include <memory>

using namespace Qt::StringLiterals;

TEST(NotificationCenterTest, DeliversToObserversOfThatNameInOrderWithPayload)
{
    NotificationCenter center;
    QStringList calls;
    center.addObserver(Notifications::apiRequestFailed, nullptr, [&](const Notification& n) {
        calls.append(u"first "_s + n.userInfo.value(u"route"_s).toString() + u" "_s
                     + QString::number(n.userInfo.value(u"status"_s).toInt()));
    });
    center.addObserver(Notifications::overlayVisibilityChanged, nullptr, [&](const Notification& n) {
        calls.append(u"visibility "_s + (n.object.toBool() ? u"shown"_s : u"hidden"_s));
    });
    center.addObserver(Notifications::apiRequestFailed, nullptr,
                       [&](const Notification&) { calls.append(u"second"_s); });

    center.post(Notifications::apiRequestFailed, {},
                {{u"route"_s, u"/api/v1/resume"_s}, {u"status"_s, 500}});
    center.post(Notifications::overlayVisibilityChanged, true);
    center.post(u"nobodyListens"_s);

    EXPECT_EQ(calls, (QStringList{u"first /api/v1/resume 500"_s, u"second"_s, u"visibility shown"_s}));
}

TEST(NotificationCenterTest, ObserversGoAwayWithTheirContextAndMayChangeTheListWhilePosting)
{
    NotificationCenter center;
    int contextCalls = 0;
    int selfRemovingCalls = 0;
    int victimCalls = 0;
    int lateCalls = 0;

    auto context = std::make_unique<QObject>();
    center.addObserver(Notifications::toggleOverlay, context.get(), [&](const Notification&) { ++contextCalls; });

    NotificationCenter::ObserverId self = 0;
    NotificationCenter::ObserverId victim = 0;
    self = center.addObserver(Notifications::toggleOverlay, nullptr, [&](const Notification&) {
        ++selfRemovingCalls;
        center.removeObserver(self);
        center.removeObserver(victim);
        center.addObserver(Notifications::toggleOverlay, nullptr, [&](const Notification&) { ++lateCalls; });
    });
    victim = center.addObserver(Notifications::toggleOverlay, nullptr, [&](const Notification&) { ++victimCalls; });

    center.post(Notifications::toggleOverlay);
    EXPECT_EQ(contextCalls, 1);
    EXPECT_EQ(selfRemovingCalls, 1);
    EXPECT_EQ(victimCalls, 0) << "removed during the post, before its turn";
    EXPECT_EQ(lateCalls, 0) << "added during the post";

    context.reset();
    center.post(Notifications::toggleOverlay);
    EXPECT_EQ(contextCalls, 1);
    EXPECT_EQ(selfRemovingCalls, 1);
    EXPECT_EQ(lateCalls, 1);
    EXPECT_EQ(center.observerCount(Notifications::toggleOverlay), 1u);
}
