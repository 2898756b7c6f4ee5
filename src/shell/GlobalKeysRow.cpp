#include "GlobalKeysRow.h"

using namespace Qt::StringLiterals;

GlobalKeysRow GlobalKeysRow::forRoute(GlobalKeysRoute route)
{
    switch (route) {
    case GlobalKeysRoute::seen:
        return {true, u"label.accessibility_desc"_s, {}, {}};
    case GlobalKeysRoute::desktopShortcuts:
        return {false, u"keys.desktop_shortcuts_desc"_s, {}, u"btn.choose_shortcuts"_s};
    case GlobalKeysRoute::keyboardSettings:
        // Said plainly, so that nobody waits for a key that cannot reach us.
        return {false, u"keys.keyboard_settings_desc"_s, u"keys.without_binding"_s, u"btn.show_commands"_s};
    }
    return {};
}

void GlobalKeysRow::openSettings(GlobalKeysRoute route, GlobalKeysRight& right, const std::function<void()>& showCommands)
{
    switch (route) {
    case GlobalKeysRoute::seen:
        return;
    case GlobalKeysRoute::desktopShortcuts:
        right.openDesktopShortcuts();
        return;
    case GlobalKeysRoute::keyboardSettings:
        showCommands();
        return;
    }
}
