#pragma once

#include "DesktopSession.h"
#include "ShellInterfaces.h"

#include <functional>

// The route keys of other programs take to us: an X11 session shows us every key; on Wayland
// XWayland shows only keys typed into our own windows, so the desktop's shortcut portal is the
// way where it exists, and commands bound in the desktop's keyboard settings where it does not.
GlobalKeysRoute globalKeysRoute(const DesktopSession& session, bool portalAvailable, bool x11KeysSeen);

// The keys right of this session, for the permissions rows.
class DesktopKeysRight final : public GlobalKeysRight {
public:
    // `x11Keys` is the X11 source's own right; `bindAgain` asks the portal for the shortcuts
    // again (empty without a portal).
    DesktopKeysRight(DesktopSession session, GlobalKeysRight& x11Keys, std::function<void()> bindAgain);

    bool granted() override { return route() == GlobalKeysRoute::seen; }
    GlobalKeysRoute route() override;
    void openDesktopShortcuts() override;

private:
    DesktopSession m_session;
    GlobalKeysRight& m_x11Keys;
    std::function<void()> m_bindAgain;
};
