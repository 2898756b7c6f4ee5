#include "TrayIcon.h"

#include "AppStrings.h"
#include "Icons.h"
#include "Log.h"
#include "MenuBarViewModel.h"
#include "QmlWindowFactory.h"

#include <QGuiApplication>
#include <QQuickWindow>
#include <QScreen>

using namespace Qt::StringLiterals;

TrayIcon::TrayIcon(QmlWindowFactory& windows, MenuBarViewModel& menuBar)
{
    m_icon.setIcon(Icons::shared().icon(u"waveform.and.person.filled"_s, iconSize, Qt::white));
    m_icon.setToolTip(u"RavletAI"_s);
    m_popup = windows.createWindow(u"MenuBarWindow.qml"_s, u"menuBar"_s, &menuBar);
    connect(&m_icon, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::Context)
            showPopup();
    });
    if (!QSystemTrayIcon::isSystemTrayAvailable())
        logLine(u"App", u"no system tray on this desktop; start RavletAI again or use its desktop "
                        u"entry's actions to open it; the icon appears when a tray does"_s);
    m_icon.show();
}

TrayIcon::~TrayIcon()
{
    delete m_popup.data();
}

void TrayIcon::showPopup()
{
    if (!m_popup)
        return;
    if (m_popup->isVisible()) {
        m_popup->hide();
        return;
    }
    const QRect iconArea = m_icon.geometry();
    const QScreen* screen = iconArea.isValid() ? QGuiApplication::screenAt(iconArea.center()) : nullptr;
    if (!screen)
        screen = QGuiApplication::primaryScreen();
    const QRect area = screen ? screen->availableGeometry() : QRect(0, 0, 1280, 800);
    QPoint place = iconArea.isValid() ? QPoint(iconArea.center().x() - m_popup->width() / 2, iconArea.bottom() + 4)
                                      : QPoint(area.right() - m_popup->width() - 8, area.top() + 8);
    // A tray at the bottom of the screen opens the popup upwards.
    if (place.y() + m_popup->height() > area.bottom())
        place.setY(iconArea.top() - m_popup->height() - 4);
    place.setX(std::clamp(place.x(), area.left(), std::max(area.left(), area.right() - m_popup->width())));
    place.setY(std::clamp(place.y(), area.top(), std::max(area.top(), area.bottom() - m_popup->height())));
    m_popup->setPosition(place);
    m_popup->show();
    m_popup->raise();
    m_popup->requestActivate();
}
