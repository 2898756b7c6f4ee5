#include "ProfilePageViewModel.h"

#include "AuthViewModel.h"
#include "NotificationCenter.h"

ProfilePageViewModel::ProfilePageViewModel(AuthViewModel& auth, NotificationCenter& notifications,
                                           QObject* parent)
    : QObject(parent)
    , m_auth(auth)
    , m_notifications(notifications)
{
    connect(&auth, &AuthViewModel::currentUserChanged, this, &ProfilePageViewModel::profileChanged);
}

void ProfilePageViewModel::signOut()
{
    m_auth.logout();
    m_notifications.post(Notifications::userDidLogout);
}

QString ProfilePageViewModel::profileEmail() const
{
    const auto& user = m_auth.currentUser();
    return user ? user->email : QString();
}
