#pragma once

#include "ShellInterfaces.h"

#include <QString>

// What the permissions row for global keys says and offers, alike on the welcome panel and the
// General page. Each text is a string key; an empty note is not shown.
struct GlobalKeysRow {
    bool granted = false;
    QString descriptionKey;
    QString noteKey;
    QString buttonKey;

    static GlobalKeysRow forRoute(GlobalKeysRoute route);
};
