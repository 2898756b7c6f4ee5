#pragma once

#include "AppStrings.h"
#include "ShellInterfaces.h"
#include "UserSettings.h"

#include <QObject>
#include <QPointer>
#include <QString>

// What the user presses in another program to ask for an answer, as the overlay and the
// Keybinds page name it. Only where the display server shows us every key is that the key of
// the settings; where the desktop binds shortcuts for us it is the chord it really bound, and
// elsewhere it is whatever key the user gave our trigger command in the desktop's settings.
class TriggerName : public QObject {
    Q_OBJECT

public:
    struct Services {
        UserSettings& settings;
        AppStrings& strings;
        GlobalKeysRight* keysRight = nullptr; // none: the keys are seen
        // The desktop's shortcut portal, with a "boundTriggers" map; none off the portal.
        QObject* shortcutPortal = nullptr;
        QString programPath; // the installed program, whose trigger command a desktop binds
    };

    explicit TriggerName(Services services, QObject* parent = nullptr);

    // The name, fit to follow "Press".
    QString text() const;
    // The chord the desktop bound to the trigger; empty where it binds none (yet).
    QString boundChord() const;
    // The command that asks the running program for an answer ("ravletai --trigger").
    QString command() const;

Q_SIGNALS:
    void changed();

private:
    Services m_services;
    QPointer<QObject> m_portal;
};
