#pragma once

#include "OverlayKeys.h"
#include "ShellInterfaces.h"
#include "UserSettings.h"

#include <QMetaProperty>
#include <QObject>
#include <QPointer>

#include <functional>

class InterviewViewModel;

// The trigger key monitors and the overlay's arrow-key tap over a desktop's key source.
// Presses go straight to the interview model; the monitors never swallow a key, the tap takes
// the arrows only while the overlay is on screen.
class GlobalKeys final : public QObject, public KeyMonitors {
    Q_OBJECT

public:
    explicit GlobalKeys(KeySource& source, QObject* parent = nullptr);
    ~GlobalKeys() override;

    // The overlay window is followed through its "visible" property.
    void attach(InterviewViewModel& interview, UserSettings& settings, QObject* overlayWindow) override;
    void installKeyMonitors() override;
    void removeEventTap() override;
    void installEventTap() override;
    // The moves act only while the overlay shows and the trigger only as its key would fire;
    // toggling the overlay is not a key's and is left to the caller.
    void performKeyAction(KeyAction action) override;
    // Where the desktop binds shortcuts for us (the Wayland portal), they are registered again
    // with each new copy of the trigger key, so that a change of key acts at once there too.
    void setDesktopShortcuts(std::function<void(const AITriggerKey&)> registerShortcuts);

private:
    Q_SLOT void overlayVisibilityChanged();
    bool overlayVisible() const;
    void handleKey(quint16 keyCode, bool pressed);
    void handleArrow(quint16 keyCode);

    KeySource& m_source;
    QPointer<InterviewViewModel> m_interview;
    QPointer<UserSettings> m_settings;
    QPointer<QObject> m_overlayWindow;
    QMetaProperty m_visibleProperty;
    // The copy of the trigger key the monitors act on; a new key needs installKeyMonitors.
    AITriggerKey m_triggerKey;
    OverlayKeys::KeyEventReader m_reader;
    KeySource::Subscription m_keys;
    bool m_tapInstalled = false;
    bool m_arrowsGrabbed = false;
    std::function<void(const AITriggerKey&)> m_registerShortcuts;
};
