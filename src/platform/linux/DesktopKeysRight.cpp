#include "DesktopKeysRight.h"

GlobalKeysRoute globalKeysRoute(const DesktopSession& session, bool portalAvailable, bool x11KeysSeen)
{
    if (session.kind == DesktopSession::Kind::x11 && x11KeysSeen)
        return GlobalKeysRoute::seen;
    // A portal on an X11 session is left unused: the X11 source there sees the bare keys and
    // the arrows only while the overlay shows, which no portal can.
    if (session.kind == DesktopSession::Kind::wayland && portalAvailable)
        return GlobalKeysRoute::desktopShortcuts;
    return GlobalKeysRoute::keyboardSettings;
}

DesktopKeysRight::DesktopKeysRight(DesktopSession session, GlobalKeysRight& x11Keys, std::function<void()> bindAgain)
    : m_session(std::move(session))
    , m_x11Keys(x11Keys)
    , m_bindAgain(std::move(bindAgain))
{
}

GlobalKeysRoute DesktopKeysRight::route()
{
    return globalKeysRoute(m_session, bool(m_bindAgain), m_x11Keys.granted());
}

void DesktopKeysRight::openDesktopShortcuts()
{
    if (m_bindAgain)
        m_bindAgain();
}
