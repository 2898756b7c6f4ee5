#pragma once

#include <QCoroTask>
#include <QObject>
#include <QString>

#include <functional>
#include <optional>

class AppStrings;
class AuthViewModel;
class InterviewViewModel;
class MenuBarViewModel;
class OverlayViewModel;
class SettingsViewModel;
class TelemetryClient;
class UserSettings;
class WelcomeViewModel;

// What the windows show; all of it lives as long as the shell.
struct ShellModels {
    InterviewViewModel* interview = nullptr;
    AuthViewModel* auth = nullptr;
    UserSettings* settings = nullptr;
    AppStrings* strings = nullptr;
    WelcomeViewModel* welcome = nullptr;
    MenuBarViewModel* menuBar = nullptr;
    SettingsViewModel* settingsPage = nullptr;
    OverlayViewModel* overlay = nullptr;
};

// The program's windows and its tray item. They are created once, at launch, and then only
// shown and hidden.
class ShellWindows {
public:
    enum class Panel { overlay, settings, welcome };

    virtual ~ShellWindows() = default;
    virtual void createMenuBarItem(const ShellModels& models) = 0;
    virtual void createPanel(Panel panel, const ShellModels& models) = 0;
    virtual bool hasPanel(Panel panel) const = 0;
    // Brings the panel to the front; the settings and welcome panels also take the focus, the
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
// delegate attaches them to the models and the overlay window once both exist.
class KeyMonitors {
public:
    virtual ~KeyMonitors() = default;
    virtual void attach(const ShellModels& models, QObject* overlayWindow) = 0;
    virtual void installKeyMonitors() = 0;
    virtual void removeEventTap() = 0;
    virtual void installEventTap() = 0;
};

// Where keys come from on this desktop. Codes are the canonical codes of the settings tables.
class KeySource {
public:
    using KeyHandler = std::function<void(quint16 keyCode, bool pressed)>;
    using ArrowHandler = std::function<void(quint16 keyCode)>;

    virtual ~KeySource() = default;
    // Whether keys pressed in other programs can be seen. When not, observeKeys sees only the
    // keys typed into this program's own windows, and grabArrows does nothing.
    virtual bool seesOtherPrograms() const = 0;
    // Every press and release, observed and never swallowed; an empty handler stops.
    virtual void observeKeys(KeyHandler handler) = 0;
    // Takes the four arrow keys from every program, each press (repeats included) going to the
    // handler, until releaseArrows.
    virtual void grabArrows(ArrowHandler handler) = 0;
    virtual void releaseArrows() = 0;
};

// The periodic update check and what it is told about the user.
class UpdateChecks {
public:
    virtual ~UpdateChecks() = default;
    virtual void setTelemetry(TelemetryClient* telemetry) = 0;
    virtual void setUserId(std::optional<QString> userId) = 0;
    virtual void startPeriodicCheck() = 0;
};

// Whether keys pressed in other programs can be seen (the stand-in for the Accessibility
// right).
class GlobalKeysRight {
public:
    virtual ~GlobalKeysRight() = default;
    virtual bool granted() = 0;
};

// Parts of the shell that come with later pieces of the program; until then each call says
// in one log line that nothing happened.
class LoggedUpdateChecks final : public UpdateChecks {
public:
    void setTelemetry(TelemetryClient*) override {}
    void setUserId(std::optional<QString>) override {}
    void startPeriodicCheck() override;
};
