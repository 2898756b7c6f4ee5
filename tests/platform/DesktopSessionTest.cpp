#include "DesktopSession.h"

#include <gtest/gtest.h>

using Kind = DesktopSession::Kind;

// The sessions the program meets, from what their environment says, and the window platform
// each one gets. (Xvfb with no session named, and Plasma and sway on Wayland, are the
// whole-product and Wayland runs'; a plain X11 session is the stale socket's row without it.)
TEST(DesktopSession, DetectedFromTheEnvironment)
{
    struct Row {
        const char* session;
        DesktopSessionFacts facts;
        Kind kind;
        bool xwayland;
        QByteArray platform;
        const char* logged;
    };
    const auto s = [](const char* text) { return QString::fromUtf8(text); };
    const Row rows[] = {
        {"X11 with a stale WAYLAND_DISPLAY",
         {s("x11"), s("wayland-0"), s(":0"), s("XFCE"), {}},
         Kind::x11,
         false,
         "xcb",
         "X11 session (XFCE)"},
        {"sway without XWayland",
         {s("wayland"), s("wayland-1"), {}, s("sway"), {}},
         Kind::wayland,
         false,
         "",
         "without XWayland: the overlay cannot be kept above"},
        {"no session type, both sockets",
         {{}, s("wayland-0"), s(":0"), s("Hyprland"), {}},
         Kind::wayland,
         true,
         "xcb",
         "Wayland session (Hyprland)"},
        {"the user's own platform",
         {s("wayland"), s("wayland-0"), s(":0"), s("KDE"), s("wayland")},
         Kind::wayland,
         true,
         "",
         "QT_QPA_PLATFORM=wayland as set"},
        {"no display at all",
         {s("tty"), {}, {}, {}, {}},
         Kind::none,
         false,
         "",
         "no graphical session"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.session);
        const auto session = detectDesktopSession(row.facts);
        EXPECT_EQ(session.kind, row.kind);
        EXPECT_EQ(session.xwayland, row.xwayland);
        EXPECT_EQ(session.windowPlatform, row.platform);
        EXPECT_TRUE(session.logLine.contains(QString::fromUtf8(row.logged)))
            << qPrintable(session.logLine);
    }
}
