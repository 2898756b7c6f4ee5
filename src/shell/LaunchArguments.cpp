#include "LaunchArguments.h"

using namespace Qt::StringLiterals;

LaunchArguments LaunchArguments::parse(const QStringList& arguments)
{
    LaunchArguments parsed;
    for (const auto& argument : arguments) {
        if (argument == u"--quit"_s)
            return {Action::quit, {}};
        if (argument == u"--settings"_s)
            return {Action::showDashboard, {}};
        if (argument == u"--show-overlay"_s)
            return {Action::showOverlay, {}};
        const QUrl url(argument, QUrl::StrictMode);
        if (url.isValid() && !url.scheme().isEmpty())
            parsed.urls.append(url);
    }
    // A start with nothing to do stands in for a click on the menu-bar item where no tray
    // exists: it brings the dashboard forward.
    parsed.action = parsed.urls.isEmpty() ? Action::showDashboard : Action::openUrls;
    return parsed;
}
