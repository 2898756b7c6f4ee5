#pragma once

#include <QList>
#include <QStringList>
#include <QUrl>

// What a later start of the program asks of the running one, read from its arguments. The first
// option wins; addresses count only when no option is given.
struct LaunchArguments {
    enum class Action {
        quit,
        showDashboard,
        showOverlay,
        openUrls,
    };

    Action action = Action::showDashboard;
    // For openUrls: every argument that is an absolute address, in order.
    QList<QUrl> urls;

    static LaunchArguments parse(const QStringList& arguments);
};
