// GIO's headers name struct fields "signals", which Qt defines as a keyword.
#include <gio/gio.h>

#include "GnomeCustomShortcuts.h"

#include "Log.h"

#include <QSet>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

constexpr const char* mediaKeysSchema = "org.gnome.settings-daemon.plugins.media-keys";
constexpr const char* customSchema = "org.gnome.settings-daemon.plugins.media-keys.custom-keybinding";
constexpr const char* customListKey = "custom-keybindings";
constexpr QLatin1StringView customPathPrefix{"/org/gnome/settings-daemon/plugins/media-keys/custom-keybindings/"};
// Where the desktop keeps its own bindings: the window manager, the shell, mutter and the
// settings daemon. Ours must not shadow any of them.
constexpr const char* desktopSchemas[] = {
    "org.gnome.desktop.wm.keybindings", "org.gnome.shell.keybindings", "org.gnome.mutter.keybindings",
    "org.gnome.mutter.wayland.keybindings", mediaKeysSchema,
};
// Tried in order for each command; the first one free is taken. Ctrl+Alt with the arrows and
// Super with the page keys are the desktop's, which is why none is here.
constexpr const char* modifierSets[] = {"<Control><Alt>", "<Control><Alt><Shift>", "<Super><Alt>"};

struct UnrefSettings {
    void operator()(GSettings* settings) const { g_object_unref(settings); }
};
using SettingsPtr = std::unique_ptr<GSettings, UnrefSettings>;

GSettingsSchema* lookUp(const char* id)
{
    GSettingsSchemaSource* source = g_settings_schema_source_get_default();
    return source ? g_settings_schema_source_lookup(source, id, TRUE) : nullptr;
}

bool installed(const char* id)
{
    GSettingsSchema* schema = lookUp(id);
    if (schema)
        g_settings_schema_unref(schema);
    return schema != nullptr;
}

QStringList strings(GVariant* value)
{
    QStringList list;
    if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
        list.append(QString::fromUtf8(g_variant_get_string(value, nullptr)));
    } else if (g_variant_is_of_type(value, G_VARIANT_TYPE_STRING_ARRAY)) {
        gsize count = 0;
        const gchar** items = g_variant_get_strv(value, &count);
        for (gsize i = 0; i < count; ++i)
            list.append(QString::fromUtf8(items[i]));
        g_free(items);
    }
    return list;
}

QStringList customPaths(GSettings* mediaKeys)
{
    GVariant* value = g_settings_get_value(mediaKeys, customListKey);
    QStringList paths = strings(value);
    g_variant_unref(value);
    return paths;
}

SettingsPtr customAt(const QString& path)
{
    return SettingsPtr(g_settings_new_with_path(customSchema, path.toUtf8().constData()));
}

QString stringOf(GSettings* settings, const char* key)
{
    gchar* text = g_settings_get_string(settings, key);
    QString result = QString::fromUtf8(text);
    g_free(text);
    return result;
}

// Every chord the desktop's own schemas hold now, as the user may have changed them.
QSet<QString> desktopChords()
{
    QSet<QString> chords;
    for (const char* id : desktopSchemas) {
        GSettingsSchema* schema = lookUp(id);
        if (!schema)
            continue;
        SettingsPtr settings(g_settings_new(id));
        gchar** keys = g_settings_schema_list_keys(schema);
        for (gchar** key = keys; *key; ++key) {
            GVariant* value = g_settings_get_value(settings.get(), *key);
            for (const auto& chord : strings(value))
                chords.insert(GnomeCustomShortcuts::normalised(chord));
            g_variant_unref(value);
        }
        g_strfreev(keys);
        g_settings_schema_unref(schema);
    }
    return chords;
}

} // namespace

GnomeCustomShortcuts::GnomeCustomShortcuts(QString program, QString currentDesktop, QObject* parent)
    : QObject(parent)
    , m_program(std::move(program))
{
    // XDG_CURRENT_DESKTOP is a colon-separated list, "ubuntu:GNOME" on Ubuntu.
    for (const auto& name : currentDesktop.split(u':'))
        m_gnome = m_gnome || name.compare(u"GNOME"_s, Qt::CaseInsensitive) == 0;
}

const QList<GnomeCustomShortcuts::Command>& GnomeCustomShortcuts::commands()
{
    static const QList<Command> list{
        {u"--trigger"_s, u"RavletAI: answer now"_s},
        {u"--previous-answer"_s, u"RavletAI: previous answer"_s},
        {u"--next-answer"_s, u"RavletAI: next answer"_s},
        {u"--select-up"_s, u"RavletAI: select the line above"_s},
        {u"--select-down"_s, u"RavletAI: select the line below"_s},
        {u"--toggle-overlay"_s, u"RavletAI: show or hide the overlay"_s},
    };
    return list;
}

QString GnomeCustomShortcuts::normalised(const QString& accelerator)
{
    QStringList modifiers;
    QString rest = accelerator.trimmed();
    while (rest.startsWith(u'<')) {
        const auto end = rest.indexOf(u'>');
        if (end < 0)
            break;
        QString modifier = rest.mid(1, end - 1).toLower();
        if (modifier == u"primary" || modifier == u"ctrl" || modifier == u"ctl")
            modifier = u"control"_s;
        else if (modifier == u"mod1")
            modifier = u"alt"_s;
        else if (modifier == u"mod4")
            modifier = u"super"_s;
        if (!modifiers.contains(modifier))
            modifiers.append(modifier);
        rest = rest.mid(end + 1);
    }
    modifiers.sort();
    return modifiers.join(u'+') + u'+' + rest.toLower();
}

bool GnomeCustomShortcuts::available() const
{
    return m_gnome && installed(mediaKeysSchema) && installed(customSchema);
}

bool GnomeCustomShortcuts::added() const
{
    if (!available())
        return false;
    SettingsPtr mediaKeys(g_settings_new(mediaKeysSchema));
    QSet<QString> present;
    for (const auto& path : customPaths(mediaKeys.get()))
        present.insert(stringOf(customAt(path).get(), "command"));
    for (const auto& command : commands()) {
        if (!present.contains(m_program + u' ' + command.argument))
            return false;
    }
    return true;
}

void GnomeCustomShortcuts::add()
{
    if (!available())
        return;
    SettingsPtr mediaKeys(g_settings_new(mediaKeysSchema));
    QStringList paths = customPaths(mediaKeys.get());
    QSet<QString> taken = desktopChords();
    QSet<QString> present;
    for (const auto& path : std::as_const(paths)) {
        const auto custom = customAt(path);
        taken.insert(normalised(stringOf(custom.get(), "binding")));
        present.insert(stringOf(custom.get(), "command"));
    }

    // The keys each command is offered on, in the order they are tried.
    const QStringList keys{u"backslash"_s, u"bracketleft"_s, u"bracketright"_s,
                           u"Page_Up"_s,   u"Page_Down"_s,   u"apostrophe"_s};
    for (qsizetype i = 0; i < commands().size(); ++i) {
        const auto& command = commands().at(i);
        const QString line = m_program + u' ' + command.argument;
        if (present.contains(line))
            continue;
        QString chosen;
        for (const char* modifiers : modifierSets) {
            const QString chord = QString::fromLatin1(modifiers) + keys.at(i);
            if (!taken.contains(normalised(chord))) {
                chosen = chord;
                break;
            }
        }
        // With every chord taken the command is still listed, without a key, for the user to set.
        taken.insert(normalised(chosen));
        QString path = customPathPrefix + u"ravletai-"_s + command.argument.mid(2) + u'/';
        for (int n = 2; paths.contains(path); ++n)
            path = customPathPrefix + u"ravletai-"_s + command.argument.mid(2) + QString::number(n) + u'/';
        const auto custom = customAt(path);
        g_settings_set_string(custom.get(), "name", command.name.toUtf8().constData());
        g_settings_set_string(custom.get(), "command", line.toUtf8().constData());
        g_settings_set_string(custom.get(), "binding", chosen.toUtf8().constData());
        paths.append(path);
        logLine(u"Keys", u"GNOME custom shortcut "_s + (chosen.isEmpty() ? u"without a key"_s : chosen) + u" runs "_s
                             + command.argument);
    }
    QList<QByteArray> utf8;
    std::vector<const gchar*> list;
    for (const auto& path : std::as_const(paths))
        utf8.append(path.toUtf8());
    for (const auto& path : std::as_const(utf8))
        list.push_back(path.constData());
    list.push_back(nullptr);
    g_settings_set_strv(mediaKeys.get(), customListKey, list.data());
    g_settings_sync();
    Q_EMIT changed();
}
