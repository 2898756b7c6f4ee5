#pragma once

#include "KeySource.h"

#include <QCoroTask>
#include <QObject>
#include <QString>

class InterviewViewModel;
enum class KeyAction;
class MenuBarViewModel;
class UserSettings;

// The program's windows and its tray item. They are created once, at launch, each from its
// one root view model, and then only shown and hidden.
class ShellWindows {
public:
    enum class Panel { overlay, dashboard, welcome };

    virtual ~ShellWindows() = default;
    virtual void createMenuBarItem(MenuBarViewModel& menuBar) = 0;
    // `viewModel` is the window's root view model; it outlives the window.
    virtual void createPanel(Panel panel, QObject& viewModel) = 0;
    virtual bool hasPanel(Panel panel) const = 0;
    // Brings the panel to the front; the dashboard and welcome panels also take the focus, the
    // overlay never does.
    virtual void show(Panel panel) = 0;
    virtual void hide(Panel panel) = 0;
    virtual bool isVisible(Panel panel) const = 0;
    // The window object of the panel, for the browser sign-in to belong to.
    virtual QObject* window(Panel panel) const = 0;
    // Closes every window for good, before the models they show go away.
    virtual void destroyWindows() = 0;
};

// The global key paths: the trigger key monitors and the arrow-key tap of the overlay. The
// delegate attaches them to the interview and the overlay window once both exist.
class KeyMonitors {
public:
    virtual ~KeyMonitors() = default;
    virtual void attach(InterviewViewModel& interview, UserSettings& settings, QObject* overlayWindow) = 0;
    virtual void installKeyMonitors() = 0;
    virtual void removeEventTap() = 0;
    virtual void installEventTap() = 0;
    // A key's action handed over by the desktop (a bound command, a desktop shortcut): it goes
    // through the same decisions as the key itself.
    virtual void performKeyAction(KeyAction action) = 0;
};

// How keys pressed in other programs reach the program in this session.
enum class GlobalKeysRoute {
    seen,             // the display server shows us every key (X11)
    desktopShortcuts, // the desktop binds chords for us and reports their presses (the portal)
    keyboardSettings, // only commands the user binds in the desktop's own keyboard settings
};

// Whether keys pressed in other programs can be seen (the stand-in for the Accessibility
// right), and by which route.
class GlobalKeysRight {
public:
    virtual ~GlobalKeysRight() = default;
    virtual bool granted() = 0;
    // A key source that knows of no desktop shortcuts either sees the keys or leaves the user
    // to bind commands.
    virtual GlobalKeysRoute route() { return granted() ? GlobalKeysRoute::seen : GlobalKeysRoute::keyboardSettings; }
    // Asks the desktop again for the shortcuts it binds for us, which shows its dialog;
    // nothing where no desktop binds them.
    virtual void openDesktopShortcuts() {}
};
