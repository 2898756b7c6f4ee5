// The overlay as a real window under Xvfb with a window manager: it sits on every workspace,
// stays out of the focus when clicked, takes the arrow keys from the focused program only while
// it shows, starts answers on the trigger key, and draws its content in three languages
// (screenshots in build/screenshots).

#include "../core/InterviewHarness.h"
#include "DisplayFixture.h"

#include "GlobalKeys.h"
#include "OverlayViewModel.h"
#include "QmlShellWindows.h"
#include "X11KeySource.h"
#include "X11Workspaces.h"

#include <QGuiApplication>
#include <QProcess>
#include <QQuickItem>
#include <QQuickWindow>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

#include <stdexcept>

using namespace std::chrono_literals;

namespace {

using DisplayFixture::tool;
using Speaker = TranscriptEntry::Speaker;

QString xprop(const QStringList& arguments)
{
    return tool(u"xprop"_s, arguments).value_or(QString());
}
QString activeWindow()
{
    return tool(u"xdotool"_s, {u"getactivewindow"_s}).value_or(QString());
}

// A click of the display's real pointer at the item's centre, so the window manager sees it too.
bool click(QQuickItem* item)
{
    if (!item)
        return false;
    const QPoint at = item->mapToGlobal({item->width() / 2, item->height() / 2}).toPoint();
    return tool(u"xdotool"_s, {u"mousemove"_s, u"--sync"_s, QString::number(at.x()),
                               QString::number(at.y()), u"click"_s, u"1"_s})
        .has_value();
}

// The focused program: the whole-product test's video call, which asks for the focus and
// prints its window and every key and loss of focus that reaches it, a line each.
class VideoCall : public QProcess {
public:
    VideoCall() { start(QStringLiteral(RAVLET_VIDEO_CALL)); }
    ~VideoCall() override
    {
        kill();
        waitForFinished();
    }
    QString window() { return output().section(u"window "_s, 1, 1).section(u'\n', 0, 0); }
    int presses(const char* keysym)
    {
        return int(output().count(u"\npress "_s + QLatin1String(keysym) + u'\n'));
    }
    bool lostFocus() { return output().contains(u"\nfocus out\n"_s); }

private:
    const QString& output() { return m_output += QString::fromUtf8(readAllStandardOutput()); }
    QString m_output;
};

class OverlayWindowTest : public ::testing::Test {
protected:
    // A window manager on the test display for the length of the test program; up once it
    // names itself on the root window.
    static void SetUpTestSuite()
    {
        if (DisplayFixture::skipReason())
            return;
        s_home = std::make_unique<QTemporaryDir>();
        s_windowManager = std::make_unique<QProcess>();
        auto environment = QProcessEnvironment::systemEnvironment();
        for (const auto& name : {u"HOME"_s, u"XDG_CONFIG_HOME"_s})
            environment.insert(name, s_home->path());
        environment.remove(u"DBUS_SESSION_BUS_ADDRESS"_s);
        s_windowManager->setProcessEnvironment(environment);
        s_windowManager->start(u"openbox"_s, {u"--sm-disable"_s});
        s_hasWindowManager = s_windowManager->waitForStarted(5000)
                             && QTest::qWaitFor(
                                 [] {
                                     return xprop({u"-root"_s, u"_NET_SUPPORTING_WM_CHECK"_s})
                                         .contains(u"window id"_s);
                                 },
                                 10000);
    }
    static void TearDownTestSuite()
    {
        s_windowManager.reset();
        s_home.reset();
    }

    void SetUp() override
    {
        if (const auto reason = DisplayFixture::skipReason())
            GTEST_SKIP() << *reason;
        ASSERT_TRUE(s_hasWindowManager)
            << "openbox did not start (scripts/install-deps.sh installs it)";
    }

    void open(const QString& language)
    {
        h.strings.setLanguageCode(language);
        QGuiApplication::setLayoutDirection(h.strings.isRightToLeft() ? Qt::RightToLeft
                                                                      : Qt::LeftToRight);
        h.settings.setAutoTriggerAIAnswers(false);
        overlay = std::make_unique<OverlayViewModel>(OverlayViewModel::Services{
            h.vm, h.settings, h.strings, h.notifications, h.clock, []() -> QCoro::Task<qsizetype> {
                throw std::runtime_error("no resume list in this test");
                co_return 0;
            }});
        windows.setAllWorkspaces(showOnAllWorkspaces);
        windows.createPanel(ShellWindows::Panel::overlay, *overlay);
        window = windows.quickWindow(ShellWindows::Panel::overlay);
        ASSERT_NE(window, nullptr);
        windows.show(ShellWindows::Panel::overlay);
        h.notifications.post(Notifications::overlayVisibilityChanged, true);
        ASSERT_TRUE(QTest::qWaitForWindowExposed(window));
        tool(u"xdotool"_s,
             {u"mousemove"_s, u"5"_s, u"5"_s}); // no tool tip from where a test left the pointer
    }

    // A final line of its own: more than the utterance gap after the speaker's last one.
    void line(Speaker speaker, const QString& text)
    {
        h.passTime(6s);
        h.say(speaker, text);
    }

    void answer(const QString& text)
    {
        h.backend->answerChunks = {text};
        h.vm.triggerAIAnswer();
        InterviewHarness::settle();
    }

    QQuickItem* control(const QString& name)
    {
        auto* item = DisplayFixture::findByAccessibleName(window, name);
        EXPECT_TRUE(item) << name.toStdString();
        return item;
    }

    static inline std::unique_ptr<QTemporaryDir> s_home;
    static inline std::unique_ptr<QProcess> s_windowManager;
    static inline bool s_hasWindowManager = false;

    InterviewHarness h;
    std::unique_ptr<OverlayViewModel> overlay;
    QmlShellWindows windows;
    QQuickWindow* window = nullptr;
};

// Placed on every workspace above the others; with the video call in front, a click on the
// overlay does its work and leaves the focus where it was; a hidden overlay takes no key, a shown
// one the arrows; the trigger key is silent while suppressed. (That arrows and the trigger key
// work, and the focus stays, through a whole interview, the whole-product test sees.)
TEST_F(OverlayWindowTest, OnEveryWorkspaceItLeavesTheFocusAndEveryKeyItDoesNotTakeToTheVideoCall)
{
    ASSERT_NO_FATAL_FAILURE(open(u"en"_s));
    const QString id = QString::number(window->winId());
    // Kept on every workspace by the window manager, and Qt's own state for a window on top
    // survives next to ours.
    EXPECT_TRUE(QTest::qWaitFor(
        [&] {
            return xprop({u"-id"_s, id, u"_NET_WM_DESKTOP"_s}).endsWith(u"= 4294967295"_s);
        },
        3000));
    EXPECT_TRUE(xprop({u"-id"_s, id, u"_NET_WM_STATE"_s}).contains(u"_NET_WM_STATE_ABOVE"_s));

    VideoCall call;
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return !call.window().isEmpty() && activeWindow() == call.window(); }, 10000))
        << "the window manager never focused the video call";
    ASSERT_TRUE(click(control(h.strings.text(u"overlay.btn_start"_s))));
    EXPECT_TRUE(QTest::qWaitFor([&] { return h.vm.isRecording(); }, 5000));
    QTest::qWait(200);
    EXPECT_EQ(activeWindow(), call.window());
    EXPECT_FALSE(window->isActive());
    EXPECT_FALSE(call.lostFocus());
    line(Speaker::interviewer, u"First question?"_s);
    answer(u"First answer."_s);
    answer(u"Second answer."_s);

    X11KeySource source;
    ASSERT_TRUE(source.seesOtherPrograms());
    GlobalKeys keys(source);
    keys.attach(h.vm, h.settings, window);
    keys.installEventTap();
    // Pressed through XTEST, as a keyboard would, then "a", nobody's key: the X server sends a
    // key to every client before the video call can print it, so once the video call has "a"
    // the key source only needs a turn of the event loop. What the key did to the video call:
    // its count of presses. A grabbed key reaches no other program.
    const auto tap = [&](const char* name) {
        const int given = call.presses(name), a = call.presses("a");
        EXPECT_TRUE(tool(QStringLiteral(RAVLET_XTEST_PRESS), {QString::fromLatin1(name), u"a"_s})
                        .has_value());
        EXPECT_TRUE(QTest::qWaitFor([&] { return call.presses("a") > a; }, 5000));
        InterviewHarness::settle();
        return call.presses(name) - given;
    };
    windows.hide(ShellWindows::Panel::overlay);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !window->isVisible(); }, 3000));
    EXPECT_EQ(tap("Up"), 1);
    windows.show(ShellWindows::Panel::overlay);
    ASSERT_TRUE(QTest::qWaitForWindowExposed(window));
    EXPECT_EQ(tap("Left"), 0);
    EXPECT_EQ(h.vm.selectedAnswerIndex(), 0);

    // The trigger key, observed and never swallowed, always reaches the call; it starts nothing
    // while the settings are recording a key.
    keys.installKeyMonitors();
    for (const bool suppressed : {true, false}) {
        h.settings.setTriggerSuppressed(suppressed);
        const auto asked = h.backend->answerRequests.size();
        EXPECT_EQ(tap("Shift_R"), 1) << suppressed;
        EXPECT_EQ(h.backend->answerRequests.size() - asked, suppressed ? 0 : 1) << suppressed;
    }
}

struct Sample {
    const char* language;
    const char16_t* question;
    const char16_t* answer;
    friend void PrintTo(const Sample& sample, std::ostream* out) { *out << sample.language; }
};

class OverlayLanguageTest : public OverlayWindowTest,
                            public ::testing::WithParamInterface<Sample> {};

// Mirrored in Arabic: the controls of the top bar sit on the left.
TEST_P(OverlayLanguageTest, DrawsTranscriptAnswerAndTipInTheLanguageAndItsDirection)
{
    const QString language = QString::fromLatin1(GetParam().language);
    const QString text = QString::fromUtf16(GetParam().answer);
    ASSERT_NO_FATAL_FAILURE(open(language));
    h.start();
    h.clock.advance(600ms); // the resume list failed: the tip comes after its delay
    line(Speaker::interviewer, QString::fromUtf16(GetParam().question));
    answer(text);
    QTest::qWait(400); // the tip's entrance
    for (const auto& shown : {u"1/1"_s, text, h.strings.text(u"overlay.resume_tip"_s)})
        control(shown);
    auto* stop = control(h.strings.text(u"overlay.btn_stop"_s));
    ASSERT_TRUE(stop);
    const qreal stopX = stop->mapToScene({stop->width() / 2, 0}).x();
    EXPECT_EQ(stopX < window->width() / 2, h.strings.isRightToLeft()) << stopX;
    DisplayFixture::saveScreenshot(window, u"overlay-"_s + language);
}

INSTANTIATE_TEST_SUITE_P(
    Languages, OverlayLanguageTest,
    ::testing::Values(
        Sample{"en", u"Tell me about a project you are proud of.",
               u"I rebuilt our audio pipeline and kept latency under 200 ms."},
        Sample{"zh", u"请介绍一个你引以为豪的项目。",
               u"我重建了音频处理流程，并把延迟保持在 200 毫秒以内。"},
        Sample{"ar", u"حدثني عن مشروع تفخر به.",
               u"أعدت بناء مسار معالجة الصوت وأبقيت زمن الاستجابة أقل من 200 ملي ثانية."}),
    [](const auto& info) { return std::string(info.param.language); });

} // namespace
