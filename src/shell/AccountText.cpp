#include "AccountText.h"

#include "AppStrings.h"
#include "AuthViewModel.h"

using namespace Qt::StringLiterals;

namespace AccountText {

QString title(const AuthViewModel& auth, const AppStrings& strings)
{
    if (!auth.isLoggedIn())
        return strings.text(u"menu.sign_in"_s);
    const auto& user = auth.currentUser();
    if (user && user->displayName)
        return *user->displayName;
    return user ? user->email : strings.text(u"menu.logged_in"_s);
}

QString subtitle(const AuthViewModel& auth, const AppStrings& strings)
{
    if (!auth.isLoggedIn())
        return {};
    const auto& user = auth.currentUser();
    if (user && user->displayName)
        return user->email;
    return user ? strings.text(u"menu.logged_in"_s) : QString();
}

} // namespace AccountText
