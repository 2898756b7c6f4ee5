#pragma once

#include "ShellInterfaces.h"

#include <QString>

#include <functional>

// What the permissions row for global keys says and offers, alike on the welcome panel and the
// General page. Each text is a string key; an empty note is not shown.
struct GlobalKeysRow {
    bool granted = false;
    QString descriptionKey;
    QString noteKey;
    QString buttonKey;

    static GlobalKeysRow forRoute(GlobalKeysRoute route);
    // The row's button for `route`: the desktop's own shortcut dialog, or `showCommands` where
    // the user binds our commands; nothing where the keys are seen already.
    static void openSettings(GlobalKeysRoute route, GlobalKeysRight& right, const std::function<void()>& showCommands);
};
