// The real windows under Xvfb: the welcome panel in three languages, its notice, the tray's
// popup, and a right that appears while the panel is open. Screenshots go to build/screenshots.

#include "DisplayFixture.h"
#include "ShellFakes.h"

#include "PulseAudioRights.h"
#include "QmlShellWindows.h"
#include "TrayIcon.h"
#include "WelcomeViewModel.h"

#include <QGuiApplication>
#include <QProcess>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTemporaryDir>

namespace {

using DisplayFixture::findByAccessibleName;
using DisplayFixture::saveScreenshot;

// The whole shell over real windows, with the interview's fakes behind it.
class WindowsTest : public ::testing::Test, protected DelegateRig {
protected:
    void SetUp() override
    {
        if (const auto reason = DisplayFixture::skipReason())
            GTEST_SKIP() << *reason;
    }
    void TearDown() override { finish(); } // the windows go after the delegate

    void launch(const QString& language, AudioRights& audioRights, bool noticeSeen = true)
    {
        h.strings.setLanguageCode(language);
        QGuiApplication::setLayoutDirection(h.strings.isRightToLeft() ? Qt::RightToLeft : Qt::LeftToRight);
        if (noticeSeen)
            h.preferences.setBool(UserSettings::Keys::telemetryNoticeShown, true);
        DelegateRig::launch(windows, audioRights);
        welcome = windows.quickWindow(ShellWindows::Panel::welcome);
        ASSERT_TRUE(welcome);
        ASSERT_TRUE(QTest::qWaitForWindowExposed(welcome));
    }

    // A right's row, as a screen reader names it: its label, then its state or its button.
    QString rowName(const QString& label, const QString& state) const
    {
        return h.strings.text(label) + u": "_s + h.strings.text(state);
    }

    QmlShellWindows windows;
    QQuickWindow* welcome = nullptr;
};

class WelcomeLanguageTest : public WindowsTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(WelcomeLanguageTest, ShowsTheWelcomePanelInTheLanguageAndItsDirection)
{
    const QString language = QString::fromLatin1(GetParam());
    h.rights.systemAudio = true;
    h.rights.microphone = false;
    shell.keysGranted = true;
    launch(language, h.rights);
    ASSERT_TRUE(QTest::qWaitFor([&] { return delegate->models().welcome->screenPermission(); }, 5000));

    EXPECT_EQ(welcome->title(), h.strings.text(u"welcome.title"_s));
    EXPECT_EQ(welcome->size(), QSize(440, 570));
    EXPECT_FALSE(delegate->models().welcome->showTelemetryNotice());
    EXPECT_TRUE(findByAccessibleName(welcome, rowName(u"label.screen_recording"_s, u"label.granted"_s)));
    EXPECT_TRUE(findByAccessibleName(welcome, h.strings.text(u"menu.sign_in"_s)));
    auto* microphoneButton = findByAccessibleName(welcome, rowName(u"label.microphone"_s, u"btn.allow"_s));
    ASSERT_TRUE(microphoneButton);
    // Right to left in Arabic: the row's trailing control sits on the left.
    const qreal buttonX = microphoneButton->mapToScene({microphoneButton->width() / 2, 0}).x();
    EXPECT_EQ(buttonX < welcome->width() / 2, h.strings.isRightToLeft()) << buttonX;
    saveScreenshot(welcome, u"welcome-"_s + language);
}

INSTANTIATE_TEST_SUITE_P(Languages, WelcomeLanguageTest, ::testing::Values("en", "zh", "ar"));

TEST_F(WindowsTest, TelemetryNoticeComesUntilAnsweredAndTurnOffSticks)
{
    launch(u"en"_s, h.rights, false);
    auto* turnOff = findByAccessibleName(welcome, h.strings.text(u"welcome.telemetry_turn_off"_s));
    ASSERT_TRUE(turnOff);
    saveScreenshot(welcome, u"welcome-telemetry-notice"_s);

    // Closed without an answer, it returns at the next appearance.
    windows.hide(ShellWindows::Panel::welcome);
    windows.show(ShellWindows::Panel::welcome);
    ASSERT_TRUE(delegate->models().welcome->showTelemetryNotice());

    QMetaObject::invokeMethod(turnOff, "clicked");
    EXPECT_FALSE(delegate->userSettings().sendAnonymousTelemetry());
    EXPECT_EQ(h.preferences.boolean(UserSettings::Keys::telemetryNoticeShown), true);
    EXPECT_FALSE(findByAccessibleName(welcome, h.strings.text(u"welcome.telemetry_turn_off"_s)));
}

TEST_F(WindowsTest, TrayPopupListsEveryRowAndShowsTheOverlay)
{
    launch(u"en"_s, h.rights);
    auto* tray = windows.trayIcon();
    ASSERT_TRUE(tray);
    tray->showPopup();
    auto* popup = tray->popup();
    ASSERT_TRUE(popup);
    ASSERT_TRUE(QTest::qWaitForWindowExposed(popup));
    EXPECT_EQ(popup->width(), 240);
    for (const auto* key : {"status.ready", "menu.sign_in", "menu.show_overlay", "menu.settings", "menu.quit"})
        EXPECT_TRUE(findByAccessibleName(popup, h.strings.text(QString::fromLatin1(key)))) << key;
    saveScreenshot(popup, u"tray-popup"_s);

    QMetaObject::invokeMethod(findByAccessibleName(popup, h.strings.text(u"menu.show_overlay"_s)), "clicked");
    EXPECT_TRUE(windows.isVisible(ShellWindows::Panel::overlay));
    EXPECT_FALSE(popup->isVisible());
    tray->showPopup();
    EXPECT_TRUE(QTest::qWaitFor([&] { return findByAccessibleName(popup, h.strings.text(u"menu.hide_overlay"_s)); }, 2000));
}

// The system-audio right appears when a sound server starts while the panel is open.
TEST_F(WindowsTest, RightThatAppearsTurnsItsRowToGrantedAtTheNextPoll)
{
    qputenv("PULSE_SERVER", "unix:/nonexistent/ravlet-no-server");
    PulseAudioRights pulseRights(h.clock);
    launch(u"en"_s, pulseRights);
    const QString rowGranted = rowName(u"label.screen_recording"_s, u"label.granted"_s);
    const QString rowButton = rowName(u"label.screen_recording"_s, u"btn.open_settings"_s);
    ASSERT_TRUE(QTest::qWaitFor([&] { return h.clock.pendingTimerCount() > 0; }, 5000)) << "the first check never ended";
    EXPECT_TRUE(findByAccessibleName(welcome, rowButton));

    QTemporaryDir pulseState;
    ASSERT_EQ(QProcess::execute(u"bash"_s, {QStringLiteral(RAVLET_PULSE_SCRIPT), u"start"_s, pulseState.path()}), 0);
    const auto server = DisplayFixture::stateValue(pulseState.filePath(u"state"_s), "PULSE_SERVER");
    if (server.isEmpty())
        GTEST_SKIP() << "no sound server here (pulseaudio is not installed)";
    qputenv("PULSE_SERVER", server);
    QTest::qWait(200);
    EXPECT_FALSE(findByAccessibleName(welcome, rowGranted)) << "changed before the next poll";

    h.clock.advance(WelcomeViewModel::pollInterval);
    EXPECT_TRUE(QTest::qWaitFor([&] { return findByAccessibleName(welcome, rowGranted) != nullptr; }, 5000));
    EXPECT_FALSE(findByAccessibleName(welcome, rowButton));

    windows.hide(ShellWindows::Panel::welcome);
    EXPECT_TRUE(QTest::qWaitFor([&] { return !delegate->models().welcome->isPolling(); }, 2000)) << "the timer outlived the panel";
    QProcess::execute(u"bash"_s, {QStringLiteral(RAVLET_PULSE_SCRIPT), u"stop"_s, pulseState.path()});
}

} // namespace
