#include "GnomeCustomShortcuts.h"

#include <QProcess>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

const QString mediaKeys = u"org.gnome.settings-daemon.plugins.media-keys"_s;
const QString customPrefix = u"/org/gnome/settings-daemon/plugins/media-keys/custom-keybindings/"_s;

// The `gsettings` tool on the same private keyfile store, as the desktop would read it.
QString gsettings(const QStringList& arguments)
{
    QProcess tool;
    tool.start(u"gsettings"_s, arguments);
    if (!tool.waitForFinished(10000) || tool.exitCode() != 0)
        ADD_FAILURE() << "gsettings " << arguments.join(u' ').toStdString() << ": "
                      << tool.readAllStandardError().toStdString();
    return QString::fromUtf8(tool.readAllStandardOutput()).trimmed();
}

QStringList quoted(const QString& text)
{
    QStringList items;
    static const QRegularExpression item(u"'([^']*)'"_s);
    for (auto it = item.globalMatch(text); it.hasNext();)
        items.append(it.next().captured(1));
    return items;
}

QString customKey(const QString& path, const QString& key)
{
    const auto values =
        quoted(gsettings({u"get"_s, mediaKeys + u".custom-keybinding:"_s + path, key}));
    return values.value(0);
}

} // namespace

// On a private settings store (each test runs in its own process, and GIO reads the store's
// place once): the user's own custom shortcut and a desktop binding the user changed are kept
// and avoided, the six commands are added once, and only on GNOME. The changed binding is
// written as "<Primary>", ours as "<Control>": the two are compared as the desktop reads them.
TEST(GnomeCustomShortcuts, AddsTheCommandsBesideTheUsersOwnWithFreeChords)
{
    QTemporaryDir home;
    ASSERT_TRUE(home.isValid());
    qputenv("XDG_CONFIG_HOME", home.path().toUtf8());
    qputenv("GSETTINGS_BACKEND", "keyfile");
    if (!gsettings({u"list-schemas"_s}).split(u'\n').contains(mediaKeys))
        GTEST_SKIP()
            << "GNOME's keyboard-shortcut schema is not installed (gnome-settings-daemon-common)";

    const QString own = customPrefix + u"custom0/"_s;
    gsettings({u"set"_s, mediaKeys, u"custom-keybindings"_s, u"['"_s + own + u"']"_s});
    gsettings({u"set"_s, mediaKeys + u".custom-keybinding:"_s + own, u"command"_s, u"foot"_s});
    gsettings({u"set"_s, mediaKeys + u".custom-keybinding:"_s + own, u"binding"_s,
               u"<Control><Alt>backslash"_s});
    gsettings({u"set"_s, u"org.gnome.desktop.wm.keybindings"_s, u"switch-to-workspace-1"_s,
               u"['<Primary><Alt>bracketleft']"_s});

    EXPECT_FALSE(GnomeCustomShortcuts(u"/opt/ravletai/ravletai"_s, u"KDE"_s).available());
    GnomeCustomShortcuts shortcuts(u"/opt/ravletai/ravletai"_s, u"ubuntu:GNOME"_s);
    ASSERT_TRUE(shortcuts.available());
    EXPECT_FALSE(shortcuts.added());
    QSignalSpy changed(&shortcuts, &GnomeCustomShortcuts::changed);
    shortcuts.add();
    EXPECT_EQ(changed.size(), 1);
    EXPECT_TRUE(shortcuts.added());

    const QStringList paths = quoted(gsettings({u"get"_s, mediaKeys, u"custom-keybindings"_s}));
    ASSERT_EQ(paths.size(), 7) << paths.join(u' ').toStdString();
    EXPECT_EQ(paths.first(), own);
    EXPECT_EQ(customKey(own, u"binding"_s), u"<Control><Alt>backslash"_s);
    QHash<QString, QString> bindingOf;
    for (const auto& path : paths.mid(1))
        bindingOf.insert(customKey(path, u"command"_s), customKey(path, u"binding"_s));
    const QHash<QString, QString> expected{
        // The user's own shortcut and the changed desktop binding push these two aside.
        {u"/opt/ravletai/ravletai --trigger"_s, u"<Control><Alt><Shift>backslash"_s},
        {u"/opt/ravletai/ravletai --previous-answer"_s, u"<Control><Alt><Shift>bracketleft"_s},
        {u"/opt/ravletai/ravletai --next-answer"_s, u"<Control><Alt>bracketright"_s},
        {u"/opt/ravletai/ravletai --select-up"_s, u"<Control><Alt>Page_Up"_s},
        {u"/opt/ravletai/ravletai --select-down"_s, u"<Control><Alt>Page_Down"_s},
        {u"/opt/ravletai/ravletai --toggle-overlay"_s, u"<Control><Alt>apostrophe"_s},
    };
    EXPECT_EQ(bindingOf, expected);

    shortcuts.add();
    EXPECT_EQ(quoted(gsettings({u"get"_s, mediaKeys, u"custom-keybindings"_s})), paths)
        << "added twice";
}
