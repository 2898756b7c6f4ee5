#pragma once

#include <QByteArray>
#include <QString>

// What kind of desktop session the program runs in, read once at launch, and the window
// platform chosen for it. On a Wayland session the windows go through XWayland, where the
// compositor honours stay-on-top and no-focus for the overlay; X11 key grabs there see only
// keys pressed while an XWayland window has the focus, which the log and the permissions say.
struct DesktopSessionFacts {
    QString sessionType;    // XDG_SESSION_TYPE
    QString waylandDisplay; // WAYLAND_DISPLAY
    QString display;        // DISPLAY
    QString currentDesktop; // XDG_CURRENT_DESKTOP, e.g. "KDE" or "ubuntu:GNOME"
    QString qpaPlatform;    // QT_QPA_PLATFORM as the user set it
};

struct DesktopSession {
    enum class Kind { x11, wayland, none };
    Kind kind = Kind::none;
    bool xwayland = false;     // a Wayland session whose X server our windows use
    QString desktop;           // XDG_CURRENT_DESKTOP ("ubuntu:GNOME", "KDE"), or "unknown"
    QByteArray windowPlatform; // set as QT_QPA_PLATFORM; empty leaves Qt's choice
    QString logLine;
};

DesktopSession detectDesktopSession(const DesktopSessionFacts& facts);

// Reads the environment, sets QT_QPA_PLATFORM when the session calls for one, and returns the
// session for the log and for what the program says about its global keys.
DesktopSession applyDesktopSession();
