#include "X11KeyTable.h"

#include <X11/keysym.h>

#include <array>
#include <utility>

namespace {

using Entry = std::pair<std::uint32_t, quint16>;

// clang-format off
constexpr std::array table{
    // Letters, digits and the punctuation of the main block, as they sit on a US layout.
    Entry{XK_a, 0},  Entry{XK_s, 1},  Entry{XK_d, 2},  Entry{XK_f, 3},  Entry{XK_h, 4},  Entry{XK_g, 5},
    Entry{XK_z, 6},  Entry{XK_x, 7},  Entry{XK_c, 8},  Entry{XK_v, 9},  Entry{XK_b, 11}, Entry{XK_q, 12},
    Entry{XK_w, 13}, Entry{XK_e, 14}, Entry{XK_r, 15}, Entry{XK_y, 16}, Entry{XK_t, 17}, Entry{XK_o, 31},
    Entry{XK_u, 32}, Entry{XK_i, 34}, Entry{XK_p, 35}, Entry{XK_l, 37}, Entry{XK_j, 38}, Entry{XK_k, 40},
    Entry{XK_n, 45}, Entry{XK_m, 46},
    Entry{XK_1, 18}, Entry{XK_2, 19}, Entry{XK_3, 20}, Entry{XK_4, 21}, Entry{XK_6, 22}, Entry{XK_5, 23},
    Entry{XK_9, 25}, Entry{XK_7, 26}, Entry{XK_8, 28}, Entry{XK_0, 29},
    Entry{XK_equal, 24}, Entry{XK_minus, 27}, Entry{XK_bracketright, 30}, Entry{XK_bracketleft, 33},
    Entry{XK_apostrophe, 39}, Entry{XK_semicolon, 41}, Entry{XK_backslash, 42}, Entry{XK_comma, 43},
    Entry{XK_slash, 44}, Entry{XK_period, 47}, Entry{XK_grave, 50},
    Entry{XK_Return, 36}, Entry{XK_Tab, 48}, Entry{XK_ISO_Left_Tab, 48}, Entry{XK_space, 49},
    Entry{XK_BackSpace, 51}, Entry{XK_Escape, 53},
    // Modifiers.
    Entry{XK_Super_R, 54}, Entry{XK_Super_L, 55}, Entry{XK_Shift_L, 56}, Entry{XK_Caps_Lock, 57},
    Entry{XK_Alt_L, 58}, Entry{XK_Control_L, 59}, Entry{XK_Shift_R, 60}, Entry{XK_Alt_R, 61},
    Entry{XK_ISO_Level3_Shift, 61}, Entry{XK_Control_R, 62},
    // Function keys.
    Entry{XK_F1, 122}, Entry{XK_F2, 120}, Entry{XK_F3, 99},   Entry{XK_F4, 118},  Entry{XK_F5, 96},
    Entry{XK_F6, 97},  Entry{XK_F7, 98},  Entry{XK_F8, 100},  Entry{XK_F9, 101},  Entry{XK_F10, 109},
    Entry{XK_F11, 103}, Entry{XK_F12, 111}, Entry{XK_F13, 105}, Entry{XK_F14, 107}, Entry{XK_F15, 113},
    Entry{XK_F16, 106}, Entry{XK_F17, 64}, Entry{XK_F18, 79},  Entry{XK_F19, 80},  Entry{XK_F20, 90},
    // Navigation.
    Entry{XK_Insert, 114}, Entry{XK_Home, 115}, Entry{XK_Prior, 116}, Entry{XK_Delete, 117},
    Entry{XK_End, 119}, Entry{XK_Next, 121}, Entry{XK_Clear, 71},
    Entry{XK_Left, 123}, Entry{XK_Right, 124}, Entry{XK_Down, 125}, Entry{XK_Up, 126},
    // The keypad, with Num Lock on and off.
    Entry{XK_KP_Decimal, 65}, Entry{XK_KP_Delete, 65}, Entry{XK_KP_Multiply, 67}, Entry{XK_KP_Add, 69},
    Entry{XK_KP_Divide, 75}, Entry{XK_KP_Enter, 76}, Entry{XK_KP_Subtract, 78}, Entry{XK_KP_Equal, 81},
    Entry{XK_KP_0, 82}, Entry{XK_KP_Insert, 82}, Entry{XK_KP_1, 83}, Entry{XK_KP_End, 83},
    Entry{XK_KP_2, 84}, Entry{XK_KP_Down, 84},   Entry{XK_KP_3, 85}, Entry{XK_KP_Next, 85},
    Entry{XK_KP_4, 86}, Entry{XK_KP_Left, 86},   Entry{XK_KP_5, 87}, Entry{XK_KP_Begin, 87},
    Entry{XK_KP_6, 88}, Entry{XK_KP_Right, 88},  Entry{XK_KP_7, 89}, Entry{XK_KP_Home, 89},
    Entry{XK_KP_8, 91}, Entry{XK_KP_Up, 91},     Entry{XK_KP_9, 92}, Entry{XK_KP_Prior, 92},
};
// clang-format on

} // namespace

std::optional<quint16> canonicalKeyCode(std::uint32_t keysym)
{
    // Upper-case letters name the same key as their lower case.
    if (keysym >= XK_A && keysym <= XK_Z)
        keysym += XK_a - XK_A;
    for (const auto& [sym, code] : table) {
        if (sym == keysym)
            return code;
    }
    return std::nullopt;
}

std::vector<std::uint32_t> keysymsOfKeyCode(quint16 keyCode)
{
    std::vector<std::uint32_t> result;
    for (const auto& [sym, code] : table) {
        if (code == keyCode)
            result.push_back(sym);
    }
    return result;
}
