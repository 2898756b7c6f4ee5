#pragma once

#include <QObject>
#include <QString>

// The desktop entry that makes "ravlet://" addresses reach the program, and its registration
// as the scheme's handler for a program started from its build folder. (An installed program's
// entry is put in place by the install.)
class DesktopIntegration : public QObject {
    Q_OBJECT

public:
    static inline const QString fileName = QStringLiteral("ravletai.desktop");
    static inline const QString schemeMimeType = QStringLiteral("x-scheme-handler/ravlet");

    // The entry's text for a program at `programPath`.
    static QString entryText(const QString& programPath);
    // $XDG_DATA_HOME/applications/ravletai.desktop
    static QString userEntryPath();
    // $XDG_DATA_HOME/RavletAI/ravletai-launcher: what the entry starts when the program's own
    // path would need quoting.
    static QString launcherPath();

    // Writes the user's entry when it is missing or points at another program, then makes it
    // the scheme's default handler with xdg-mime, in the background; `finished` follows.
    void registerSchemeHandler(const QString& programPath);

    // Whether the entry file holds exactly this program's entry.
    static bool isCurrent(const QString& entryPath, const QString& programPath);

Q_SIGNALS:
    void finished(bool registered);

private:
    void setDefaultHandler();
    static bool writeLauncher(const QString& programPath);
};
