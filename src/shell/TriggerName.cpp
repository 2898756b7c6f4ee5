#include "TriggerName.h"

#include "LaunchArguments.h"

#include <QFileInfo>
#include <QVariantMap>

using namespace Qt::StringLiterals;

TriggerName::TriggerName(Services services, QObject* parent)
    : QObject(parent)
    , m_services(std::move(services))
    , m_portal(m_services.shortcutPortal)
{
    connect(&m_services.settings, &UserSettings::aiTriggerKeyChanged, this, &TriggerName::changed);
    connect(&m_services.strings, &AppStrings::languageCodeChanged, this, &TriggerName::changed);
    // The portal lives where this folder may not look: it is read by its property names.
    if (m_portal)
        connect(m_portal, SIGNAL(stateChanged()), this, SIGNAL(changed()));
}

QString TriggerName::boundChord() const
{
    if (!m_portal)
        return {};
    return m_portal->property("boundTriggers").toMap().value(u"trigger"_s).toString();
}

QString TriggerName::command() const
{
    return QFileInfo(m_services.programPath).fileName() + u' ' + LaunchArguments::optionOf(KeyAction::trigger);
}

QString TriggerName::text() const
{
    const auto route = m_services.keysRight ? m_services.keysRight->route() : GlobalKeysRoute::seen;
    if (route == GlobalKeysRoute::seen)
        return m_services.settings.aiTriggerKey().displayName;
    // Until the desktop has bound a chord (or when it refused), the user's key works only in
    // our own windows; the command works wherever the user bound it.
    if (route == GlobalKeysRoute::desktopShortcuts) {
        if (const auto chord = boundChord(); !chord.isEmpty())
            return chord;
    }
    return m_services.strings.format(u"keys.key_for_command"_s, {command()});
}
