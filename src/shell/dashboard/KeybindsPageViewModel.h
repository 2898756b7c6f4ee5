#pragma once

#include "AppStrings.h"
#include "Clock.h"
#include "KeySource.h"
#include "OverlayKeys.h"
#include "TriggerName.h"
#include "UserSettings.h"

#include <QObject>
#include <QPointer>
#include <QVariantList>
#include <QVariantMap>
#include <QtQmlIntegration>

#include <optional>
#include <set>

// The keybinds page: the trigger key with its recording and its test, the fixed moves, and the
// commands a desktop can bind where it cannot hand us its keys.
//
// Recording reads the keys typed into this program's own windows (it must swallow them, which
// only our own windows allow); the test also takes the key from the global source, so that a
// user can try it while the call has the focus.
class KeybindsPageViewModel : public QObject {
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("made by the dashboard")
    Q_PROPERTY(QString triggerKeyName READ triggerKeyName NOTIFY triggerKeyChanged)
    Q_PROPERTY(bool isRecording READ isRecording NOTIFY stateChanged)
    Q_PROPERTY(bool isBlocked READ isBlocked NOTIFY stateChanged)
    Q_PROPERTY(bool isTesting READ isTesting NOTIFY stateChanged)
    Q_PROPERTY(bool testSucceeded READ testSucceeded NOTIFY stateChanged)
    // The string key of the line under the trigger row; empty when there is nothing to say.
    Q_PROPERTY(QString statusKey READ statusKey NOTIFY stateChanged)
    // One map per command: "labelKey", "command".
    Q_PROPERTY(QVariantList commands READ commands CONSTANT)
    // Shortcut id ("trigger", "next-answer", ...) to the chord the desktop bound; empty where
    // no desktop binds shortcuts for us.
    Q_PROPERTY(QVariantMap boundChords READ boundChords NOTIFY boundChordsChanged)
    // "Bound by your desktop: ..." for the trigger; empty off the portal.
    Q_PROPERTY(QString boundTriggerText READ boundTriggerText NOTIFY boundChordsChanged)
    Q_PROPERTY(QObject* gnomeShortcuts READ gnomeShortcuts CONSTANT)

public:
    struct Services {
        UserSettings& settings;
        AppStrings& strings;
        Clock& clock;
        KeySource* keys = nullptr; // none: no key can be read here
        QString programPath;       // the installed program, named in the commands
        // The desktop's shortcut portal, with a "boundTriggers" map; none off the portal.
        QObject* shortcutPortal = nullptr;
        // Adds the commands to GNOME's own shortcuts ("available", "added", add()).
        QObject* gnomeShortcuts = nullptr;
        // Names the trigger as it works in other programs; none: the page names no chord.
        TriggerName* triggerName = nullptr;
    };

    static constexpr qint64 testSuccessShownMs = 2000;
    // How long the recorded key stays silent at most while its own press may still be on its
    // way from the global source.
    static constexpr qint64 settleMaxMs = 1000;

    explicit KeybindsPageViewModel(Services services, QObject* parent = nullptr);
    ~KeybindsPageViewModel() override;

    QString triggerKeyName() const { return m_services.settings.aiTriggerKey().displayName; }
    bool isRecording() const { return m_recording; }
    bool isBlocked() const { return m_blocked; }
    bool isTesting() const { return m_testing; }
    bool testSucceeded() const { return m_testSucceeded; }
    QString statusKey() const;
    QVariantList commands() const;
    QVariantMap boundChords() const;
    QString boundTriggerText() const;
    QObject* gnomeShortcuts() const { return m_services.gnomeShortcuts; }

    Q_INVOKABLE void startKeyRecording();
    // Ends recording or the test with nothing changed.
    Q_INVOKABLE void cancel();
    Q_INVOKABLE void resetToDefault();
    Q_INVOKABLE void startTest();
    Q_INVOKABLE void copyCommand(int index) const;

    // A key typed into one of our windows; true when it is swallowed.
    bool handleLocalKey(quint32 nativeVirtualKey, bool pressed, const QString& characters);

Q_SIGNALS:
    void triggerKeyChanged();
    void stateChanged();
    void boundChordsChanged();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    bool recordKey(const OverlayKeys::KeyEvent& event, const QString& characters);
    void testKey(const OverlayKeys::KeyEvent& event);
    void handleGlobalKey(quint16 keyCode, bool pressed);
    Q_SLOT void portalActivated(const QString& shortcutId);
    void listen();
    void stopListening();
    void stopRecording();
    void stopTest();
    void endSettle();
    void updateSuppression();

    Services m_services;
    QPointer<QObject> m_portal;
    bool m_recording = false;
    bool m_blocked = false;
    bool m_testing = false;
    bool m_testSucceeded = false;
    bool m_filtering = false;
    // The key just recorded, silent until its release has been seen.
    std::optional<quint16> m_settling;
    // Keys the global source has seen let go since recording began: their press is no longer
    // on its way.
    std::set<quint16> m_globalReleased;
    Clock::TimerId m_settleTimer = 0;
    Clock::TimerId m_testTimer = 0;
    OverlayKeys::KeyEventReader m_localReader;
    OverlayKeys::KeyEventReader m_globalReader;
    KeySource::Subscription m_globalKeys;
};
