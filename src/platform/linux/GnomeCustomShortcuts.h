#pragma once

#include <QObject>
#include <QString>
#include <QStringList>

// Adds the program's six commands to GNOME's custom keyboard shortcuts, for GNOME sessions
// without a global-shortcut portal. Only on the user's word (add()), with chords that none of
// the desktop's own bindings, as they are set now, already uses; the user's own custom
// shortcuts are kept.
class GnomeCustomShortcuts : public QObject {
    Q_OBJECT
    // A GNOME session with the settings daemon's keyboard-shortcut schema installed.
    Q_PROPERTY(bool available READ available NOTIFY changed)
    // Every command is among the custom shortcuts already.
    Q_PROPERTY(bool added READ added NOTIFY changed)

public:
    struct Command {
        QString argument; // "--trigger"
        QString name;     // as the desktop's list shows it
    };
    // The command line each shortcut runs is `program` followed by the command's argument.
    explicit GnomeCustomShortcuts(QString program, QString currentDesktop, QObject* parent = nullptr);

    bool available() const;
    bool added() const;
    Q_INVOKABLE void add();

    static const QList<Command>& commands();
    // Accelerators in their parts, lowercased and with GNOME's synonyms resolved, so that
    // "<Primary><Alt>Page_Up" and "<Alt><Control>page_up" compare equal.
    static QString normalised(const QString& accelerator);

Q_SIGNALS:
    void changed();

private:
    QString m_program;
    bool m_gnome = false;
};
