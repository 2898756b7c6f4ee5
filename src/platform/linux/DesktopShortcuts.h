#pragma once

#include "GlobalShortcutsPortal.h"

#include <optional>

struct AITriggerKey;
enum class KeyAction;

// The shortcuts the program asks a desktop for. The portal binds chords at all times, also
// while the overlay is hidden, so the moves are chords that no default binding of GNOME, KDE,
// Xfce or openbox uses, never bare arrows; and the trigger key is asked for as such only when
// it types nothing, since a bound key is taken from every program.
namespace DesktopShortcuts {

inline constexpr QLatin1StringView fallbackTrigger{"CTRL+ALT+backslash"};

// The trigger key in the portal's notation ("F5"), or nothing when it is not one to bind alone
// (a modifier, a letter).
std::optional<QString> chordOfKey(const AITriggerKey& key);
// The trigger and the four moves, each with its preferred chord.
QList<PortalShortcut> forTriggerKey(const AITriggerKey& key);
std::optional<KeyAction> actionOf(const QString& shortcutId);

} // namespace DesktopShortcuts
