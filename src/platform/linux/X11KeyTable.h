#pragma once

#include <QtGlobal>

#include <cstdint>
#include <optional>
#include <vector>

// The one table from X keysyms to the canonical key codes the settings store: Command is
// Super, Option is Alt (and AltGr), and the left and right modifiers stay apart. A key is
// named by the keysym of its first level, so a keypad key is the same key with Num Lock on or
// off. Wayland's keysyms are the same numbers.
std::optional<quint16> canonicalKeyCode(std::uint32_t keysym);

// The keysyms that name a canonical code, first the one its key shows.
std::vector<std::uint32_t> keysymsOfKeyCode(quint16 keyCode);
