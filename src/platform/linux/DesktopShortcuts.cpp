#include "DesktopShortcuts.h"

#include "LaunchArguments.h"
#include "UserSettings.h"
#include "X11KeyTable.h"

#include <array>

using namespace Qt::StringLiterals;

namespace {

struct Entry {
    QLatin1StringView id;
    KeyAction action;
    QLatin1StringView description;
    QLatin1StringView chord;
};

// Ctrl+Alt with an arrow switches workspaces in GNOME and openbox, Shift+Alt and Super with
// arrows move windows; Ctrl+Alt with the brackets and the page keys is free in all of them.
constexpr std::array<Entry, 5> entries{{
    {QLatin1StringView("trigger"), KeyAction::trigger, QLatin1StringView("Answer the interviewer now"),
     DesktopShortcuts::fallbackTrigger},
    {QLatin1StringView("previous-answer"), KeyAction::previousAnswer, QLatin1StringView("Show the previous answer"),
     QLatin1StringView("CTRL+ALT+bracketleft")},
    {QLatin1StringView("next-answer"), KeyAction::nextAnswer, QLatin1StringView("Show the next answer"),
     QLatin1StringView("CTRL+ALT+bracketright")},
    {QLatin1StringView("select-up"), KeyAction::selectUp, QLatin1StringView("Select the line above"),
     QLatin1StringView("CTRL+ALT+Page_Up")},
    {QLatin1StringView("select-down"), KeyAction::selectDown, QLatin1StringView("Select the line below"),
     QLatin1StringView("CTRL+ALT+Page_Down")},
}};

// Keys that type nothing and that no desktop binds alone by default.
std::optional<QString> nameOfLoneKey(std::uint32_t keysym)
{
    constexpr std::uint32_t f1 = 0xffbe, f35 = 0xffe0;
    if (keysym >= f1 && keysym <= f35)
        return u"F%1"_s.arg(keysym - f1 + 1);
    switch (keysym) {
    case 0xff13:
        return u"Pause"_s;
    case 0xff14:
        return u"Scroll_Lock"_s;
    case 0xff63:
        return u"Insert"_s;
    case 0xff67:
        return u"Menu"_s;
    default:
        return std::nullopt;
    }
}

} // namespace

namespace DesktopShortcuts {

std::optional<QString> chordOfKey(const AITriggerKey& key)
{
    if (key.isModifier)
        return std::nullopt; // the portal cannot bind a bare modifier, nor tell left from right
    const auto keysyms = keysymsOfKeyCode(key.keyCode);
    if (keysyms.empty())
        return std::nullopt;
    return nameOfLoneKey(keysyms.front());
}

QList<PortalShortcut> forTriggerKey(const AITriggerKey& key)
{
    QList<PortalShortcut> shortcuts;
    for (const auto& entry : entries) {
        QString chord = entry.chord;
        if (entry.action == KeyAction::trigger)
            chord = chordOfKey(key).value_or(chord);
        shortcuts.append({entry.id, {{u"description"_s, QString(entry.description)}, {u"preferred_trigger"_s, chord}}});
    }
    return shortcuts;
}

std::optional<KeyAction> actionOf(const QString& shortcutId)
{
    for (const auto& entry : entries) {
        if (shortcutId == entry.id)
            return entry.action;
    }
    return std::nullopt;
}

} // namespace DesktopShortcuts
