#include "MenuBarViewModel.h"

#include "AccountText.h"
#include "AppStrings.h"
#include "AuthViewModel.h"
#include "InterviewViewModel.h"
#include "NotificationCenter.h"
#include "StatusStyle.h"

using namespace Qt::StringLiterals;

MenuBarViewModel::MenuBarViewModel(InterviewViewModel& interview, AuthViewModel& auth, AppStrings& strings,
                                   NotificationCenter& notifications, std::function<void()> quit, QObject* parent)
    : QObject(parent)
    , m_interview(interview)
    , m_auth(auth)
    , m_strings(strings)
    , m_notifications(notifications)
    , m_quit(std::move(quit))
{
    connect(&interview, &InterviewViewModel::pipelineStateChanged, this, &MenuBarViewModel::statusChanged);
    connect(&interview, &InterviewViewModel::statusMessageChanged, this, &MenuBarViewModel::statusChanged);
    connect(&auth, &AuthViewModel::isLoggedInChanged, this, &MenuBarViewModel::accountChanged);
    connect(&auth, &AuthViewModel::currentUserChanged, this, &MenuBarViewModel::accountChanged);
    connect(&strings, &AppStrings::languageCodeChanged, this, [this] {
        Q_EMIT statusChanged();
        Q_EMIT accountChanged();
        Q_EMIT isOverlayVisibleChanged();
    });
    notifications.addObserver(Notifications::overlayVisibilityChanged, this, [this](const Notification& n) {
        const bool visible = n.object.toBool();
        if (visible == m_isOverlayVisible)
            return;
        m_isOverlayVisible = visible;
        Q_EMIT isOverlayVisibleChanged();
    });
}

MenuBarViewModel::~MenuBarViewModel()
{
    m_notifications.removeObservers(this);
}

QString MenuBarViewModel::statusText() const
{
    return StatusStyle::wordOf(m_interview.pipelineState(), m_interview.statusMessage(), m_strings);
}

QColor MenuBarViewModel::statusColor() const
{
    return StatusStyle::colorOf(m_interview.pipelineState());
}

QString MenuBarViewModel::accountTitle() const
{
    return AccountText::title(m_auth, m_strings);
}

QString MenuBarViewModel::accountSubtitle() const
{
    return AccountText::subtitle(m_auth, m_strings);
}

QString MenuBarViewModel::overlayText() const
{
    return m_strings.text(m_isOverlayVisible ? u"menu.hide_overlay"_s : u"menu.show_overlay"_s);
}

QString MenuBarViewModel::overlayIcon() const
{
    return m_isOverlayVisible ? u"eye.slash"_s : u"eye"_s;
}

QString MenuBarViewModel::settingsText() const
{
    return m_strings.text(u"menu.settings"_s);
}

QString MenuBarViewModel::quitText() const
{
    return m_strings.text(u"menu.quit"_s);
}

void MenuBarViewModel::toggleOverlay()
{
    m_notifications.post(Notifications::toggleOverlay);
}

void MenuBarViewModel::openSettings()
{
    m_notifications.post(Notifications::showDashboard);
}

void MenuBarViewModel::quit()
{
    if (m_quit)
        m_quit();
}
