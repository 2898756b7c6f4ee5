#pragma once

#include <QObject>
#include <QPointer>
#include <QQuickWindow>
#include <QSystemTrayIcon>

class MenuBarViewModel;
class QmlWindowFactory;

// The menu-bar item: a tray icon whose activation opens the menu popup beside it. Without a
// tray on the desktop the icon waits for one; the program stays reachable through a second
// start and the desktop entry's actions.
class TrayIcon : public QObject {
    Q_OBJECT

public:
    static constexpr int iconSize = 64;

    TrayIcon(QmlWindowFactory& windows, MenuBarViewModel& menuBar);
    ~TrayIcon() override;

    // Shows the popup next to the icon (or at the top right of the screen when the tray does
    // not say where the icon is).
    void showPopup();
    QQuickWindow* popup() const { return m_popup; }

private:
    QSystemTrayIcon m_icon;
    QPointer<QQuickWindow> m_popup;
};
