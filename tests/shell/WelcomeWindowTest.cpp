// The real windows under Xvfb: the welcome panel in three languages, its notice, the tray's
// popup, and a right that appears while the panel is open. Screenshots go to build/screenshots.

#include "DisplayFixture.h"
#include "ShellFakes.h"

#include "AuthTokenStore.h"
#include "PulseAudioRights.h"
#include "QmlShellWindows.h"
#include "TrayIcon.h"
#include "WelcomeViewModel.h"

#include <QGuiApplication>
#include <QProcess>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

namespace {

using DisplayFixture::findByAccessibleName;
using DisplayFixture::saveScreenshot;

// The whole shell over real windows, with the interview's fakes behind it.
class WindowsTest : public ::testing::Test {
protected:
    void TearDown() override { awaitResumeCheck(delegate.get(), backend); }
    void SetUp() override
    {
        if (const auto reason = DisplayFixture::skipReason())
            GTEST_SKIP() << *reason;
    }

    void launch(const QString& language, AudioRights& audioRights, bool noticeSeen = true)
    {
        strings.setLanguageCode(language);
        QGuiApplication::setLayoutDirection(strings.isRightToLeft() ? Qt::RightToLeft : Qt::LeftToRight);
        if (noticeSeen)
            preferences.setBool(UserSettings::Keys::telemetryNoticeShown, true);
        delegate = std::make_unique<AppDelegate>(AppDelegate::Environment{
            backend.origin(), clock, preferences, notifications, strings, windows, keys, updates, audioRights,
            keysRight, [] { return std::make_unique<InMemoryTokenStore>(); }, [this] { return interview.make(); },
            [this](APIClient&) { return std::make_shared<ScriptedBackend>(clock, interview.gates); },
            [](TelemetryClient*, std::function<QString()>) {}, [](const QUrl&) { return true; },
            [] { return false; }, [] {}});
        awaitTask(delegate->applicationDidFinishLaunching());
        welcome = windows.quickWindow(ShellWindows::Panel::welcome);
        ASSERT_TRUE(welcome);
        ASSERT_TRUE(QTest::qWaitForWindowExposed(welcome));
    }

    // A right's row, as a screen reader names it: its label, then its state or its button.
    QString rowName(const QString& label, const QString& state) const
    {
        return strings.text(label) + u": "_s + strings.text(state);
    }

    EventLog log;
    FakeBackend backend;
    ManualClock clock;
    PreferencesStore preferences;
    NotificationCenter notifications;
    AppStrings strings{QStringList{u"en"_s}};
    QmlShellWindows windows;
    RecordingKeyMonitors keys{log};
    RecordingUpdates updates{log};
    FixedKeysRight keysRight;
    FakeInterviewServices interview;
    std::unique_ptr<AppDelegate> delegate;
    QQuickWindow* welcome = nullptr;
};

class WelcomeLanguageTest : public WindowsTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(WelcomeLanguageTest, ShowsTheWelcomePanelInTheLanguageAndItsDirection)
{
    const QString language = QString::fromLatin1(GetParam());
    interview.rights.systemAudio = true;
    interview.rights.microphone = false;
    keysRight.value = true;
    launch(language, interview.rights);
    ASSERT_TRUE(QTest::qWaitFor([&] { return delegate->models().welcome->screenPermission(); }, 5000));

    EXPECT_EQ(welcome->title(), strings.text(u"welcome.title"_s));
    EXPECT_EQ(welcome->size(), QSize(440, 570));
    EXPECT_FALSE(delegate->models().welcome->showTelemetryNotice());
    EXPECT_TRUE(findByAccessibleName(welcome, rowName(u"label.screen_recording"_s, u"label.granted"_s)));
    auto* microphoneButton = findByAccessibleName(welcome, rowName(u"label.microphone"_s, u"btn.allow"_s));
    ASSERT_TRUE(microphoneButton);
    EXPECT_TRUE(findByAccessibleName(welcome, strings.text(u"menu.sign_in"_s)));

    // Right to left in Arabic: the row's trailing control sits on the left.
    const qreal buttonX = microphoneButton->mapToScene({microphoneButton->width() / 2, 0}).x();
    if (strings.isRightToLeft())
        EXPECT_LT(buttonX, welcome->width() / 2);
    else
        EXPECT_GT(buttonX, welcome->width() / 2);
    QTest::qWait(100);
    EXPECT_TRUE(saveScreenshot(welcome, u"welcome-"_s + language));
}

INSTANTIATE_TEST_SUITE_P(Languages, WelcomeLanguageTest, ::testing::Values("en", "zh", "ar"));

TEST_F(WindowsTest, TelemetryNoticeComesUntilAnsweredAndTurnOffSticks)
{
    launch(u"en"_s, interview.rights, false);
    auto* turnOff = findByAccessibleName(welcome, strings.text(u"welcome.telemetry_turn_off"_s));
    ASSERT_TRUE(turnOff);
    QTest::qWait(100);
    EXPECT_TRUE(saveScreenshot(welcome, u"welcome-telemetry-notice"_s));

    // Closed without an answer, it returns at the next appearance.
    windows.hide(ShellWindows::Panel::welcome);
    windows.show(ShellWindows::Panel::welcome);
    ASSERT_TRUE(delegate->models().welcome->showTelemetryNotice());

    QMetaObject::invokeMethod(turnOff, "clicked");
    EXPECT_FALSE(delegate->userSettings().sendAnonymousTelemetry());
    EXPECT_EQ(preferences.boolean(UserSettings::Keys::telemetryNoticeShown), true);
    EXPECT_FALSE(findByAccessibleName(welcome, strings.text(u"welcome.telemetry_turn_off"_s)));
}

TEST_F(WindowsTest, TrayPopupListsEveryRow)
{
    launch(u"en"_s, interview.rights);
    auto* tray = windows.trayIcon();
    ASSERT_TRUE(tray);
    tray->showPopup();
    auto* popup = tray->popup();
    ASSERT_TRUE(popup);
    ASSERT_TRUE(QTest::qWaitForWindowExposed(popup));
    EXPECT_EQ(popup->width(), 240);
    for (const auto& name : {strings.text(u"status.ready"_s), strings.text(u"menu.sign_in"_s),
                             strings.text(u"menu.show_overlay"_s), strings.text(u"menu.settings"_s),
                             strings.text(u"menu.quit"_s)})
        EXPECT_TRUE(findByAccessibleName(popup, name)) << name.toStdString();
    QTest::qWait(100);
    EXPECT_TRUE(saveScreenshot(popup, u"tray-popup"_s));

    auto* show = findByAccessibleName(popup, strings.text(u"menu.show_overlay"_s));
    QMetaObject::invokeMethod(show, "clicked");
    EXPECT_TRUE(windows.isVisible(ShellWindows::Panel::overlay));
    EXPECT_FALSE(popup->isVisible());
    tray->showPopup();
    EXPECT_TRUE(QTest::qWaitFor([&] { return findByAccessibleName(popup, strings.text(u"menu.hide_overlay"_s)); }, 2000));
}

// The system-audio right appears when a sound server starts while the panel is open.
TEST_F(WindowsTest, RightThatAppearsTurnsItsRowToGrantedAtTheNextPoll)
{
    qputenv("PULSE_SERVER", "unix:/nonexistent/ravlet-no-server");
    PulseAudioRights pulseRights(clock);
    launch(u"en"_s, pulseRights);
    const QString rowGranted = rowName(u"label.screen_recording"_s, u"label.granted"_s);
    const QString rowButton = rowName(u"label.screen_recording"_s, u"btn.open_settings"_s);
    ASSERT_TRUE(QTest::qWaitFor([&] { return clock.pendingTimerCount() > 0; }, 5000)) << "the first check never ended";
    EXPECT_TRUE(findByAccessibleName(welcome, rowButton));

    QTemporaryDir pulseState;
    ASSERT_EQ(QProcess::execute(u"bash"_s, {QStringLiteral(RAVLET_PULSE_SCRIPT), u"start"_s, pulseState.path()}), 0);
    const auto server = DisplayFixture::stateValue(pulseState.filePath(u"state"_s), "PULSE_SERVER");
    if (server.isEmpty())
        GTEST_SKIP() << "no sound server here (pulseaudio is not installed)";
    qputenv("PULSE_SERVER", server);
    QTest::qWait(200);
    EXPECT_FALSE(findByAccessibleName(welcome, rowGranted)) << "changed before the next poll";

    clock.advance(WelcomeViewModel::pollInterval);
    EXPECT_TRUE(QTest::qWaitFor([&] { return findByAccessibleName(welcome, rowGranted) != nullptr; }, 5000));
    EXPECT_FALSE(findByAccessibleName(welcome, rowButton));

    windows.hide(ShellWindows::Panel::welcome);
    EXPECT_TRUE(QTest::qWaitFor([&] { return !delegate->models().welcome->isPolling(); }, 2000)) << "the timer outlived the panel";
    QProcess::execute(u"bash"_s, {QStringLiteral(RAVLET_PULSE_SCRIPT), u"stop"_s, pulseState.path()});
}

} // namespace
