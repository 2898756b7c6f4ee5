// The real windows under Xvfb: the welcome panel in three languages, its notice, a right granted
// while the panel is open, and the keys row where other programs' keys do not reach us.
// Screenshots go to build/screenshots.

#include "DisplayFixture.h"
#include "ShellFakes.h"

#include "DashboardViewModel.h"
#include "QmlShellWindows.h"
#include "WelcomeViewModel.h"

#include <QGuiApplication>
#include <QQuickItem>
#include <QQuickWindow>

namespace {

using DisplayFixture::findByAccessibleName;

// The whole shell over real windows, with the interview's fakes behind it.
class WindowsTest : public ::testing::Test, protected DelegateRig {
protected:
    void SetUp() override
    {
        if (const auto reason = DisplayFixture::skipReason())
            GTEST_SKIP() << *reason;
    }
    void TearDown() override { finish(); } // the windows go after the delegate

    void launch(const QString& language, bool noticeSeen = true)
    {
        h.strings.setLanguageCode(language);
        QGuiApplication::setLayoutDirection(h.strings.isRightToLeft() ? Qt::RightToLeft
                                                                      : Qt::LeftToRight);
        h.preferences.setBool(UserSettings::Keys::telemetryNoticeShown, noticeSeen);
        DelegateRig::launch(windows);
        welcome = windows.quickWindow(ShellWindows::Panel::welcome);
        ASSERT_TRUE(welcome && QTest::qWaitForWindowExposed(welcome));
    }

    // A right's row, as a screen reader names it: its label, then its state or its button.
    QQuickItem* row(const char* label, const char* state) const
    {
        return findByAccessibleName(welcome, h.strings.text(QString::fromLatin1(label)) + u": "_s
                                                 + h.strings.text(QString::fromLatin1(state)));
    }

    QmlShellWindows windows;
    QQuickWindow* welcome = nullptr;
};

class WelcomeLanguageTest : public WindowsTest,
                            public ::testing::WithParamInterface<const char*> {};

// Right to left in Arabic: a row's trailing control sits on the left.
TEST_P(WelcomeLanguageTest, ShowsEachRightsStateInTheLanguageAndItsDirection)
{
    h.rights.systemAudio = true;
    h.rights.microphone = false;
    shell.keysGranted = true;
    launch(QString::fromLatin1(GetParam()));
    ASSERT_TRUE(QTest::qWaitFor([&] { return delegate->welcome()->screenPermission(); }, 5000));
    EXPECT_TRUE(row("label.screen_recording", "label.granted"));
    auto* microphone = row("label.microphone", "btn.allow");
    ASSERT_TRUE(microphone);
    const qreal buttonX = microphone->mapToScene({microphone->width() / 2, 0}).x();
    EXPECT_EQ(buttonX < welcome->width() / 2, h.strings.isRightToLeft()) << buttonX;
    DisplayFixture::saveScreenshot(welcome, u"welcome-"_s + QString::fromLatin1(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Languages, WelcomeLanguageTest, ::testing::Values("en", "zh", "ar"));

// Closed without an answer, the notice on usage data returns at the next appearance; turned
// off, the sending stays off and the notice goes for good.
TEST_F(WindowsTest, TelemetryNoticeComesUntilAnsweredAndTurnOffSticks)
{
    launch(u"en"_s, false);
    const QString turnOff = h.strings.text(u"welcome.telemetry_turn_off"_s);
    windows.hide(ShellWindows::Panel::welcome);
    windows.show(ShellWindows::Panel::welcome);
    auto* button = findByAccessibleName(welcome, turnOff);
    ASSERT_TRUE(button);
    QMetaObject::invokeMethod(button, "clicked");
    EXPECT_FALSE(delegate->userSettings().sendAnonymousTelemetry());
    EXPECT_EQ(h.preferences.boolean(UserSettings::Keys::telemetryNoticeShown), true);
    EXPECT_FALSE(findByAccessibleName(welcome, turnOff));
}

// A right granted while the panel is open turns its row at the next poll, and the polling ends
// with the panel. (PulseAudioRights asks a real sound server in the platform tests.)
TEST_F(WindowsTest, RightThatAppearsTurnsItsRowToGrantedAtTheNextPoll)
{
    h.rights.systemAudio = false;
    launch(u"en"_s);
    ASSERT_TRUE(QTest::qWaitFor([&] { return h.clock.pendingTimerCount() > 0; }, 5000))
        << "the first check never ended";
    EXPECT_TRUE(row("label.screen_recording", "btn.open_settings"));
    h.rights.systemAudio = true;
    InterviewHarness::settle();
    EXPECT_FALSE(row("label.screen_recording", "label.granted")) << "changed before the next poll";
    h.clock.advance(WelcomeViewModel::pollInterval);
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return row("label.screen_recording", "label.granted") != nullptr; }, 5000));
    windows.hide(ShellWindows::Panel::welcome);
    EXPECT_TRUE(QTest::qWaitFor([&] { return !delegate->welcome()->isPolling(); }, 2000))
        << "the timer outlived the panel";
}

class KeysRowTest : public WindowsTest, public ::testing::WithParamInterface<GlobalKeysRoute> {};

// Where no key of another program reaches us, the keys row says so, and its button leads to what
// does work: the desktop's shortcut dialog, or the commands on the Keybinds page. (The General
// page shows the same row.)
TEST_P(KeysRowTest, SaysWhatWorksAndItsButtonLeadsThere)
{
    const bool portal = GetParam() == GlobalKeysRoute::desktopShortcuts;
    shell.keysGranted = true; // XWayland shows keys typed into our own windows
    shell.keysRoute = GetParam();
    launch(u"en"_s);
    const char* button = portal ? "btn.choose_shortcuts" : "btn.show_commands";
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return row("label.accessibility", button) != nullptr; }, 5000));
    EXPECT_FALSE(row("label.accessibility", "label.granted"));
    EXPECT_EQ(findByAccessibleName(welcome, h.strings.text(u"keys.without_binding"_s)) != nullptr,
              !portal);
    DisplayFixture::saveScreenshot(welcome,
                                   u"welcome-keys-"_s + (portal ? u"portal"_s : u"commands"_s));

    QMetaObject::invokeMethod(row("label.accessibility", button), "clicked");
    auto* dashboard = delegate->dashboard();
    EXPECT_TRUE(QTest::qWaitFor(
        [&] {
            return portal ? shell.log.contains(u"open desktop shortcuts"_s)
                          : dashboard->currentPage() == SidebarItem::keybinds;
        },
        3000));
    EXPECT_EQ(dashboard->currentPage() == SidebarItem::general, portal);
}

INSTANTIATE_TEST_SUITE_P(Routes, KeysRowTest,
                         ::testing::Values(GlobalKeysRoute::desktopShortcuts,
                                           GlobalKeysRoute::keyboardSettings),
                         [](const auto& info) {
                             return info.param == GlobalKeysRoute::desktopShortcuts
                                        ? "Portal"
                                        : "BoundCommands";
                         });

} // namespace
