#include "QmlShellWindows.h"

#include "AppStrings.h"
#include "AuthViewModel.h"
#include "InterviewViewModel.h"
#include "MenuBarViewModel.h"
#include "OverlayViewModel.h"
#include "SettingsViewModel.h"
#include "UserSettings.h"
#include "WelcomeViewModel.h"
#include "Log.h"
#include "TrayIcon.h"

#include <QGuiApplication>
#include <QQmlComponent>
#include <QQuickWindow>
#include <QScreen>

using namespace Qt::StringLiterals;

namespace {

QString fileOf(ShellWindows::Panel panel)
{
    switch (panel) {
    case ShellWindows::Panel::overlay:
        return u"OverlayWindow.qml"_s;
    case ShellWindows::Panel::settings:
        return u"SettingsWindow.qml"_s;
    case ShellWindows::Panel::welcome:
        break;
    }
    return u"WelcomeWindow.qml"_s;
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

QUrl QmlShellWindows::fileUrl(const QString& fileName)
{
    return QUrl(u"qrc:/Ravlet/Shell/"_s + fileName);
}

QQuickWindow* QmlShellWindows::createWindow(const QString& fileName, const ShellModels& models)
{
    QQmlComponent component(&m_engine, fileUrl(fileName));
    if (!component.isReady()) {
        // Every window is part of the program itself, so this is a fault of the build.
        logLine(u"App", u"window "_s + fileName + u" failed: "_s + component.errorString());
        return nullptr;
    }
    const QVariantMap properties{
        {u"interview"_s, QVariant::fromValue(models.interview)},
        {u"auth"_s, QVariant::fromValue(models.auth)},
        {u"settings"_s, QVariant::fromValue(models.settings)},
        {u"strings"_s, QVariant::fromValue(models.strings)},
        {u"welcome"_s, QVariant::fromValue(models.welcome)},
        {u"menuBar"_s, QVariant::fromValue(models.menuBar)},
        {u"settingsPage"_s, QVariant::fromValue(models.settingsPage)},
        {u"overlay"_s, QVariant::fromValue(models.overlay)},
    };
    // Bindings run at completion, once the models are in place.
    QObject* object = component.beginCreate(m_engine.rootContext());
    if (object) {
        // Each window declares the models it shows.
        QVariantMap declared;
        for (auto it = properties.cbegin(); it != properties.cend(); ++it) {
            if (object->metaObject()->indexOfProperty(it.key().toUtf8().constData()) >= 0)
                declared.insert(it.key(), it.value());
        }
        component.setInitialProperties(object, declared);
    }
    component.completeCreate();
    auto* window = qobject_cast<QQuickWindow*>(object);
    if (!window) {
        logLine(u"App", u"window "_s + fileName + u" failed: "_s + component.errorString());
        delete object;
        return nullptr;
    }
    return window;
}

void QmlShellWindows::createMenuBarItem(const ShellModels& models)
{
    m_tray = std::make_unique<TrayIcon>(*this, models);
}

void QmlShellWindows::createPanel(Panel panel, const ShellModels& models)
{
    auto* window = createWindow(fileOf(panel), models);
    m_panels[static_cast<std::size_t>(panel)] = window;
    if (!window || panel != Panel::overlay)
        return;
    // Placed once; where the user moves it afterwards is not kept.
    if (const auto* screen = QGuiApplication::primaryScreen())
        window->setPosition(overlayPosition(screen->availableGeometry(), window->size()));
    if (m_pinToAllWorkspaces)
        m_pinToAllWorkspaces(*window);
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
    else if (m_pinToAllWorkspaces)
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
