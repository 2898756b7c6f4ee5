#pragma once

#include "PracticeSessions.h"
#include "QmlWindowFactory.h"
#include "ShellInterfaces.h"

#include <QPointer>
#include <QQuickWindow>

#include <array>
#include <functional>
#include <memory>

class MockMeetingViewModel;
class TrayIcon;

// The windows as Qt Quick windows from the shell's QML module, and the tray item.
class QmlShellWindows final : public ShellWindows {
public:
    QmlShellWindows();
    ~QmlShellWindows() override;

    // Before the application object exists: a change is drawn at the next turn of the event
    // loop. Where the desktop gives no frame callbacks Qt otherwise waits 5 ms before each
    // frame, and an answer's first words took two such waits to reach the screen.
    static void prepareDrawing();

    void createMenuBarItem(MenuBarViewModel& menuBar) override;
    void createPanel(Panel panel, QObject& viewModel) override;
    bool hasPanel(Panel panel) const override;
    void show(Panel panel) override;
    void hide(Panel panel) override;
    bool isVisible(Panel panel) const override;
    QObject* window(Panel panel) const override;
    void destroyWindows() override;

    QQuickWindow* quickWindow(Panel panel) const;
    // The meeting window of a practice session, shown and focused; null when it cannot be made.
    std::unique_ptr<PracticeWindow> openPracticeWindow(MockMeetingViewModel& meeting);
    // What puts the panels on every workspace; the desktop's own code, handed over by the
    // entry point before the panels are made.
    void setAllWorkspaces(std::function<void(QWindow&)> pin) { m_pinToAllWorkspaces = std::move(pin); }
    // Where the overlay opens: near the bottom right of the screen's free area.
    static QPoint overlayPosition(const QRect& availableArea, const QSize& size);
    static constexpr int overlayRightInset = 200;
    static constexpr int overlayBottomInset = 48;
    TrayIcon* trayIcon() const { return m_tray.get(); }

private:
    QmlWindowFactory m_factory;
    std::array<QPointer<QQuickWindow>, 3> m_panels;
    std::unique_ptr<TrayIcon> m_tray;
    std::function<void(QWindow&)> m_pinToAllWorkspaces;
};
