#pragma once

#include <QString>

class AppStrings;
class AuthViewModel;

// The account row's two lines, the same in the menu and the dashboard: the name (or the e-mail)
// above, the e-mail (or "logged in") below.
namespace AccountText {

QString title(const AuthViewModel& auth, const AppStrings& strings);
QString subtitle(const AuthViewModel& auth, const AppStrings& strings);

} // namespace AccountText
