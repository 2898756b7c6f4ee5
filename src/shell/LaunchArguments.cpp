#include "LaunchArguments.h"

#include <array>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

constexpr std::array<std::pair<QStringView, KeyAction>, 6> keyActionOptions{{
    {u"--trigger", KeyAction::trigger},
    {u"--previous-answer", KeyAction::previousAnswer},
    {u"--next-answer", KeyAction::nextAnswer},
    {u"--select-up", KeyAction::selectUp},
    {u"--select-down", KeyAction::selectDown},
    {u"--toggle-overlay", KeyAction::toggleOverlay},
}};

std::optional<KeyAction> keyActionOf(const QString& argument)
{
    for (const auto& [option, action] : keyActionOptions) {
        if (argument == option)
            return action;
    }
    return std::nullopt;
}

} // namespace

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
        if (const auto action = keyActionOf(argument))
            return {Action::keyAction, {}, *action};
        const QUrl url(argument, QUrl::StrictMode);
        if (url.isValid() && !url.scheme().isEmpty())
            parsed.urls.append(url);
    }
    // A start with nothing to do stands in for a click on the menu-bar item where no tray
    // exists: it brings the dashboard forward.
    parsed.action = parsed.urls.isEmpty() ? Action::showDashboard : Action::openUrls;
    return parsed;
}

std::optional<KeyAction> LaunchArguments::findKeyAction(const QStringList& arguments)
{
    const auto parsed = parse(arguments);
    if (parsed.action != Action::keyAction)
        return std::nullopt;
    return parsed.keyAction;
}

QString LaunchArguments::optionOf(KeyAction action)
{
    for (const auto& [option, known] : keyActionOptions) {
        if (known == action)
            return option.toString();
    }
    return {};
}
