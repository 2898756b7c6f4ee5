#include "SettingsViewModel.h"

#include "AuthViewModel.h"
#include "NotificationCenter.h"

SettingsViewModel::SettingsViewModel(AuthViewModel& auth, NotificationCenter& notifications,
                                     std::function<void()> quit, QObject* parent)
    : QObject(parent)
    , m_auth(auth)
    , m_notifications(notifications)
    , m_quit(std::move(quit))
{
    connect(&auth, &AuthViewModel::currentUserChanged, this, &SettingsViewModel::profileChanged);
}

void SettingsViewModel::signOut()
{
    m_auth.logout();
    m_notifications.post(Notifications::userDidLogout);
}

void SettingsViewModel::quit()
{
    if (m_quit)
        m_quit();
}

QString SettingsViewModel::profileEmail() const
{
    const auto& user = m_auth.currentUser();
    return user ? user->email : QString();
}
