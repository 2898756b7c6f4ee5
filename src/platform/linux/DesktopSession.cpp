#include "DesktopSession.h"

using namespace Qt::StringLiterals;

DesktopSession detectDesktopSession(const DesktopSessionFacts& facts)
{
    DesktopSession session;
    session.desktop = facts.currentDesktop.isEmpty() ? u"unknown"_s : facts.currentDesktop;
    // XDG_SESSION_TYPE is missing or "tty" under startx and in many remote sessions: the
    // sockets that are there decide then.
    const bool wayland = facts.sessionType == u"wayland"
                         || (facts.sessionType != u"x11" && !facts.waylandDisplay.isEmpty());
    const bool x11 = !facts.display.isEmpty();
    session.kind = wayland ? DesktopSession::Kind::wayland
                 : x11     ? DesktopSession::Kind::x11
                           : DesktopSession::Kind::none;
    session.xwayland = wayland && x11;
    const auto where = (wayland ? u"Wayland session"_s : x11 ? u"X11 session"_s : u"no graphical session"_s)
                       + u" ("_s + session.desktop + u")"_s;

    if (!facts.qpaPlatform.isEmpty()) {
        session.logLine = where + u"; windows through QT_QPA_PLATFORM="_s + facts.qpaPlatform + u" as set"_s;
        return session;
    }
    if (session.xwayland) {
        session.windowPlatform = "xcb";
        session.logLine = where + u"; windows through XWayland, where the overlay stays above others without "
                                  u"taking the focus; keys of other programs are seen only while one of our "
                                  u"windows has the focus"_s;
    } else if (wayland) {
        session.logLine = where + u" without XWayland: the overlay cannot be kept above other windows and "
                                  u"no key of another program reaches us"_s;
    } else if (x11) {
        session.windowPlatform = "xcb";
        session.logLine = where + u"; windows and keys through X11"_s;
    } else {
        session.logLine = where;
    }
    return session;
}

DesktopSession applyDesktopSession()
{
    const auto session = detectDesktopSession({
        qEnvironmentVariable("XDG_SESSION_TYPE"),
        qEnvironmentVariable("WAYLAND_DISPLAY"),
        qEnvironmentVariable("DISPLAY"),
        qEnvironmentVariable("XDG_CURRENT_DESKTOP"),
        qEnvironmentVariable("QT_QPA_PLATFORM"),
    });
    if (!session.windowPlatform.isEmpty())
        qputenv("QT_QPA_PLATFORM", session.windowPlatform);
    return session;
}
