#include "QmlShellWindows.h"

#include "MockMeetingViewModel.h"
#include "TrayIcon.h"

#include <QGuiApplication>
#include <QQuickWindow>
#include <QScreen>

using namespace Qt::StringLiterals;

namespace {

struct WindowFile {
    QString file;
    QString viewModel; // the name of its root view model
};

WindowFile fileOf(ShellWindows::Panel panel)
{
    switch (panel) {
    case ShellWindows::Panel::overlay:
        return {u"OverlayWindow.qml"_s, u"overlay"_s};
    case ShellWindows::Panel::dashboard:
        return {u"DashboardWindow.qml"_s, u"dashboard"_s};
    case ShellWindows::Panel::welcome:
        break;
    }
    return {u"WelcomeWindow.qml"_s, u"welcome"_s};
}

} // namespace

QmlShellWindows::QmlShellWindows() = default;

QmlShellWindows::~QmlShellWindows()
{
    destroyWindows();
}

void QmlShellWindows::destroyWindows()
{
    m_tray.reset();
    for (auto& window : m_panels)
        delete window.data();
}

void QmlShellWindows::createMenuBarItem(MenuBarViewModel& menuBar)
{
    m_tray = std::make_unique<TrayIcon>(m_factory, menuBar);
}

void QmlShellWindows::createPanel(Panel panel, QObject& viewModel)
{
    const auto [file, name] = fileOf(panel);
    auto* window = m_factory.createWindow(file, name, &viewModel);
    m_panels[static_cast<std::size_t>(panel)] = window;
    if (!window)
        return;
    // Every panel follows the user to the workspace they are on: a dashboard or welcome
    // window opened from the overlay or the tray must not appear on another one.
    if (m_pinToAllWorkspaces)
        m_pinToAllWorkspaces(*window);
    if (panel != Panel::overlay)
        return;
    // Placed once; where the user moves it afterwards is not kept.
    if (const auto* screen = QGuiApplication::primaryScreen())
        window->setPosition(overlayPosition(screen->availableGeometry(), window->size()));
}

QPoint QmlShellWindows::overlayPosition(const QRect& availableArea, const QSize& size)
{
    return {availableArea.x() + availableArea.width() - size.width() - overlayRightInset,
            availableArea.y() + availableArea.height() - size.height() - overlayBottomInset};
}

QQuickWindow* QmlShellWindows::quickWindow(Panel panel) const
{
    return m_panels[static_cast<std::size_t>(panel)];
}

void QmlShellWindows::prepareDrawing()
{
    if (!qEnvironmentVariableIsSet("QT_QPA_UPDATE_IDLE_TIME"))
        qputenv("QT_QPA_UPDATE_IDLE_TIME", "0");
}

bool QmlShellWindows::hasPanel(Panel panel) const
{
    return quickWindow(panel) != nullptr;
}

void QmlShellWindows::show(Panel panel)
{
    auto* window = quickWindow(panel);
    if (!window)
        return;
    if (!window->isVisible() && panel != Panel::overlay) {
        // Centred on the screen it opens on.
        if (const auto* screen = window->screen()) {
            const auto area = screen->availableGeometry();
            window->setPosition(area.center() - QPoint(window->width() / 2, window->height() / 2));
        }
    }
    window->show();
    window->raise();
    if (panel != Panel::overlay)
        window->requestActivate();
    if (m_pinToAllWorkspaces)
        m_pinToAllWorkspaces(*window); // a window manager may have reset it while hidden
}

void QmlShellWindows::hide(Panel panel)
{
    if (auto* window = quickWindow(panel))
        window->hide();
}

bool QmlShellWindows::isVisible(Panel panel) const
{
    const auto* window = quickWindow(panel);
    return window && window->isVisible();
}

QObject* QmlShellWindows::window(Panel panel) const
{
    return quickWindow(panel);
}

namespace {

class QmlPracticeWindow final : public PracticeWindow {
public:
    explicit QmlPracticeWindow(QQuickWindow* window) : m_window(window) {}
    ~QmlPracticeWindow() override { delete m_window.data(); }

    void raise() override
    {
        if (!m_window)
            return;
        m_window->show();
        m_window->raise();
        m_window->requestActivate();
    }

private:
    QPointer<QQuickWindow> m_window;
};

} // namespace

std::unique_ptr<PracticeWindow> QmlShellWindows::openPracticeWindow(MockMeetingViewModel& meeting)
{
    auto* window = m_factory.createWindow(u"MockMeetingWindow.qml"_s, u"meeting"_s, &meeting);
    if (!window)
        return nullptr;
    auto practice = std::make_unique<QmlPracticeWindow>(window);
    practice->raise();
    return practice;
}
