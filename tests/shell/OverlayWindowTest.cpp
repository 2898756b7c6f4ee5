// The overlay as a real window under Xvfb with a window manager: it stays out of the focus
// when clicked, takes the arrow keys from the focused program only while it shows, starts answers
// on the trigger key, sits on every workspace where it was placed, and draws its content in
// three languages (screenshots in build/screenshots).

#include "../core/InterviewHarness.h"
#include "DisplayFixture.h"

#include "GlobalKeys.h"
#include "OverlayViewModel.h"
#include "QmlShellWindows.h"
#include "X11KeySource.h"
#include "X11Workspaces.h"
#include "XTestKeyboard.h"

#include <QGuiApplication>
#include <QHash>
#include <QProcess>
#include <QQuickItem>
#include <QQuickWindow>
#include <QScreen>
#include <QTemporaryDir>
#include <QTest>

#include <X11/keysym.h>

#include <gtest/gtest.h>

#include <stdexcept>

using namespace std::chrono_literals;

namespace {

using DisplayFixture::findByAccessibleName;
using DisplayFixture::saveScreenshot;
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

// The real pointer of the display, so the window manager sees it too: a click, or a press,
// a move in two steps (past the drag threshold, then on) and a release.
bool pointer(QQuickItem* item, QPointF at, QPoint by = {})
{
    if (!item)
        return false;
    const QPoint from = item->mapToGlobal(at).toPoint();
    const auto to = [&](int step) {
        return QStringList{u"mousemove"_s, QString::number(from.x() + by.x() * step / 10),
                           QString::number(from.y() + by.y() * step / 10), u"sleep"_s, u"0.2"_s};
    };
    const QStringList press{u"mousedown"_s, u"1"_s, u"sleep"_s, u"0.2"_s};
    const QStringList end = by.isNull() ? QStringList{u"click"_s, u"1"_s} : to(1) + to(10) + QStringList{u"mouseup"_s, u"1"_s};
    return tool(u"xdotool"_s, to(0) + (by.isNull() ? QStringList() : press) + end).has_value();
}

QPointF centre(QQuickItem* item)
{
    return item ? QPointF(item->width() / 2, item->height() / 2) : QPointF();
}

// The focused program: the whole-product test's video call, which asks for the focus and
// prints its window and every key and loss of focus that reaches it.
class VideoCall {
public:
    VideoCall() { m_process.start(QStringLiteral(RAVLET_VIDEO_CALL)); }
    ~VideoCall()
    {
        m_process.kill();
        m_process.waitForFinished();
    }
    VideoCall(const VideoCall&) = delete;
    VideoCall& operator=(const VideoCall&) = delete;

    // Its window once the window manager has given it the focus; empty if never.
    QString focusedWindow()
    {
        const auto window = [&] {
            const auto line = lines().filter(u"window "_s);
            return line.isEmpty() ? QString() : line.first().mid(7);
        };
        return QTest::qWaitFor([&] { return !window().isEmpty() && activeWindow() == window(); }, 10000) ? window()
                                                                                                      : QString();
    }
    int presses(const char* keysym) { return int(lines().count(u"press "_s + QLatin1String(keysym))); }
    bool lostFocus() { return lines().contains(u"focus out"_s); }

private:
    const QStringList& lines()
    {
        m_pending += m_process.readAllStandardOutput();
        const auto end = m_pending.lastIndexOf('\n') + 1;
        m_lines += QString::fromUtf8(m_pending.left(end)).split(u'\n', Qt::SkipEmptyParts);
        m_pending.remove(0, end);
        return m_lines;
    }
    QProcess m_process;
    QByteArray m_pending;
    QStringList m_lines;
};

// The program's key source, counting the releases it passed on: a key seen here has been dealt
// with by the monitors, since both come over the same connection in order.
class CountingKeySource final : public KeySource {
public:
    bool seesOtherPrograms() const override { return source.seesOtherPrograms(); }
    void observeKeys(KeyHandler handler) override
    {
        source.observeKeys([this, handler = std::move(handler)](quint16 code, bool pressed) {
            if (handler)
                handler(code, pressed);
            releases[code] += pressed ? 0 : 1;
        });
    }
    void grabArrows(ArrowHandler handler) override { source.grabArrows(std::move(handler)); }
    void releaseArrows() override { source.releaseArrows(); }

    X11KeySource source;
    QHash<quint16, int> releases;
};

QCoro::Task<qsizetype> noResumeList()
{
    throw std::runtime_error("no resume list in this test");
    co_return 0;
}

class OverlayWindowTest : public ::testing::Test {
protected:
    // A window manager on the test display for the length of the test program.
    static void SetUpTestSuite()
    {
        if (DisplayFixture::skipReason())
            return;
        s_home = std::make_unique<QTemporaryDir>();
        s_windowManager = std::make_unique<QProcess>();
        auto environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"HOME"_s, s_home->path());
        environment.insert(u"XDG_CONFIG_HOME"_s, s_home->path());
        environment.remove(u"DBUS_SESSION_BUS_ADDRESS"_s);
        s_windowManager->setProcessEnvironment(environment);
        s_windowManager->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        s_windowManager->start(u"openbox"_s, {u"--sm-disable"_s});
        // Up once it names itself on the root window.
        s_hasWindowManager = s_windowManager->waitForStarted(5000) && QTest::qWaitFor([] {
            return xprop({u"-root"_s, u"_NET_SUPPORTING_WM_CHECK"_s}).contains(u"window id"_s);
        }, 10000);
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
        ASSERT_TRUE(s_hasWindowManager) << "openbox did not start (scripts/install-deps.sh installs it)";
    }

    void open(const QString& language)
    {
        h.strings.setLanguageCode(language);
        QGuiApplication::setLayoutDirection(h.strings.isRightToLeft() ? Qt::RightToLeft : Qt::LeftToRight);
        h.settings.setAutoTriggerAIAnswers(false);
        overlay = std::make_unique<OverlayViewModel>(OverlayViewModel::Services{
            h.vm, h.settings, h.strings, h.notifications, h.clock, [] { return noResumeList(); }});
        models.interview = &h.vm;
        models.settings = &h.settings;
        models.strings = &h.strings;
        models.overlay = overlay.get();
        windows.setAllWorkspaces(showOnAllWorkspaces);
        windows.createPanel(ShellWindows::Panel::overlay, models);
        window = windows.quickWindow(ShellWindows::Panel::overlay);
        ASSERT_TRUE(window);
        windows.show(ShellWindows::Panel::overlay);
        h.notifications.post(Notifications::overlayVisibilityChanged, true);
        ASSERT_TRUE(QTest::qWaitForWindowExposed(window));
        tool(u"xdotool"_s, {u"mousemove"_s, u"5"_s, u"5"_s}); // no tool tip from where a test left the pointer
    }

    // A final line of its own: more than the utterance gap after the speaker's last one.
    void line(Speaker speaker, const QString& text)
    {
        h.passTime(6s);
        h.say(speaker, text);
    }

    void answer(const QString& text, bool finish = true)
    {
        h.backend->answerChunks = {text};
        h.backend->finishAnswers = finish;
        h.vm.triggerAIAnswer();
        InterviewHarness::settle();
    }

    QQuickItem* control(const QString& name)
    {
        auto* item = findByAccessibleName(window, name);
        EXPECT_TRUE(item) << name.toStdString();
        return item;
    }

    static inline std::unique_ptr<QTemporaryDir> s_home;
    static inline std::unique_ptr<QProcess> s_windowManager;
    static inline bool s_hasWindowManager = false;

    InterviewHarness h;
    std::unique_ptr<OverlayViewModel> overlay;
    ShellModels models;
    QmlShellWindows windows;
    QQuickWindow* window = nullptr;
};

TEST_F(OverlayWindowTest, OpensAtItsPlaceOnEveryWorkspaceAboveTheOthers)
{
    ASSERT_NO_FATAL_FAILURE(open(u"en"_s));
    EXPECT_EQ(window->size(), QSize(680, 700));
    EXPECT_EQ(window->minimumSize(), QSize(400, 300));
    EXPECT_TRUE(window->flags().testFlags(Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint
                                          | Qt::WindowDoesNotAcceptFocus));
    // Xvfb's screen is 1280 by 800 with nothing reserved.
    const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
    EXPECT_EQ(window->position(), QmlShellWindows::overlayPosition(area, QSize(680, 700)));
    EXPECT_EQ(QmlShellWindows::overlayPosition(QRect(0, 0, 1280, 800), QSize(680, 700)), QPoint(400, 52));

    const QString id = QString::number(window->winId());
    // The window manager keeps the window on every workspace: it would otherwise put it on
    // the current one.
    EXPECT_TRUE(QTest::qWaitFor([&] { return xprop({u"-id"_s, id, u"_NET_WM_DESKTOP"_s}).endsWith(u"= 4294967295"_s); },
                                3000));
    // Qt's own state for a window on top survives next to ours.
    EXPECT_TRUE(xprop({u"-id"_s, id, u"_NET_WM_STATE"_s}).contains(u"_NET_WM_STATE_ABOVE"_s));
}

// With the video call in front: clicks on the overlay do their work and leave the focus where it
// was; an arrow is the showing overlay's, any other key and every key of a hidden overlay goes
// on to the video call; the trigger key starts answers and reaches the video call too.
TEST_F(OverlayWindowTest, TheVideoCallKeepsTheFocusAndEveryKeyTheOverlayDoesNotTake)
{
    ASSERT_NO_FATAL_FAILURE(open(u"en"_s));
    VideoCall call;
    const QString callWindow = call.focusedWindow();
    ASSERT_FALSE(callWindow.isEmpty()) << "the window manager never focused the video call";
    const auto keptFocus = [&](const char* what, const std::function<bool()>& done) {
        SCOPED_TRACE(what);
        EXPECT_TRUE(QTest::qWaitFor(done, 5000));
        QTest::qWait(200);
        EXPECT_EQ(activeWindow(), callWindow);
        EXPECT_FALSE(window->isActive());
        EXPECT_FALSE(call.lostFocus());
    };

    auto* start = control(h.strings.text(u"overlay.btn_start"_s));
    ASSERT_TRUE(pointer(start, centre(start)));
    keptFocus("start", [&] { return h.vm.isRecording(); });
    for (const auto& question : {u"First question?"_s, u"Second question?"_s, u"Third question?"_s})
        line(Speaker::interviewer, question);
    answer(u"First answer."_s);
    answer(u"Second answer."_s);
    ASSERT_EQ(h.vm.selectedAnswerIndex(), 1);
    auto* previous = control(u"Previous answer"_s);
    ASSERT_TRUE(pointer(previous, centre(previous)));
    keptFocus("previous answer", [&] { return h.vm.selectedAnswerIndex() == 0; });
    h.vm.selectNextAnswer();
    auto* row = control(u"Third question?"_s); // selectable text
    ASSERT_TRUE(pointer(row, centre(row)));
    keptFocus("transcript line", [] { return true; });
    // The divider, dragged down by 200 from its place at a fifth of the height.
    auto* divider = control(u"Resize areas"_s);
    ASSERT_TRUE(pointer(divider, centre(divider), QPoint(0, 200)));
    keptFocus("divider", [&] { return !overlay->isDragging() && overlay->dividerRatio() > 0.4 && overlay->dividerRatio() < 0.6; });
    // The top bar moves the panel.
    auto* bar = control(u"Move overlay"_s);
    const QPoint before = window->position();
    ASSERT_TRUE(pointer(bar, QPointF(60, bar ? bar->height() / 2 : 0), QPoint(-100, 40)));
    keptFocus("top bar", [&] { return window->position() == before + QPoint(-100, 40); });
    int dashboards = 0;
    h.notifications.addObserver(Notifications::showDashboard, nullptr, [&](const Notification&) { ++dashboards; });
    auto* resume = control(h.strings.text(u"sidebar.resume"_s));
    ASSERT_TRUE(pointer(resume, centre(resume)));
    keptFocus("resume", [&] { return dashboards == 1; });

    CountingKeySource source;
    ASSERT_TRUE(source.seesOtherPrograms());
    GlobalKeys keys(source);
    keys.attach(models, window);
    keys.installKeyMonitors();
    keys.installEventTap();
    XTestKeyboard keyboard;
    ASSERT_TRUE(keyboard.isOpen());
    // "a" is nobody's key: once the video call and the key source have it, every key pressed
    // before it has reached both. What the key did to the video call: its count of presses.
    const auto tap = [&](unsigned long keysym, const char* name) {
        const int given = call.presses(name), a = call.presses("a"), seen = source.releases.value(0);
        keyboard.tap(keysym);
        keyboard.tap(XK_a);
        EXPECT_TRUE(QTest::qWaitFor([&] { return call.presses("a") > a && source.releases.value(0) > seen; }, 5000));
        InterviewHarness::settle();
        return call.presses(name) - given;
    };

    // State of the overlay, key, its name, then the selected line and answer and whether the
    // video call got the key.
    using Transcript = std::optional<qsizetype>;
    const std::tuple<const char*, unsigned long, const char*, Transcript, qsizetype, bool> arrows[] = {
        {"hidden", XK_Up, "Up", {}, 1, true},
        {"shown", XK_Up, "Up", 2, 1, false},
        {"shown", XK_Up, "Up", 1, 1, false},
        {"shown", XK_Down, "Down", 2, 1, false},
        {"shown", XK_Left, "Left", 2, 0, false},
        {"shown", XK_Right, "Right", 2, 1, false},
        {"shown", XK_Right, "Right", 2, 1, false}, // the newest already: taken all the same
        {"shown", XK_Down, "Down", {}, 1, false},  // past the last line: following the newest again
        {"tap removed", XK_Left, "Left", {}, 1, true},
    };
    QString state = u"shown"_s;
    for (const auto& [stateOfOverlay, keysym, name, transcript, answer, passedOn] : arrows) {
        SCOPED_TRACE(std::string(stateOfOverlay) + " " + name);
        if (state != QLatin1String(stateOfOverlay)) {
            state = QString::fromLatin1(stateOfOverlay);
            if (state == u"hidden"_s) {
                windows.hide(ShellWindows::Panel::overlay);
                ASSERT_TRUE(QTest::qWaitFor([&] { return !window->isVisible(); }, 3000));
            } else if (state == u"shown"_s) {
                windows.show(ShellWindows::Panel::overlay);
                ASSERT_TRUE(QTest::qWaitForWindowExposed(window));
            } else {
                keys.removeEventTap();
            }
        }
        EXPECT_EQ(tap(keysym, name), passedOn ? 1 : 0);
        EXPECT_EQ(h.vm.selectedTranscriptIndex(), transcript);
        EXPECT_EQ(h.vm.selectedAnswerIndex(), answer);
    }

    // The trigger key's code and name, whether the settings are recording a new key, the key
    // pressed and whether it starts an answer. Observed, never swallowed, it always reaches the call.
    const std::tuple<quint16, const char*, bool, unsigned long, const char*, bool> presses[] = {
        {60, "Right Shift", false, XK_Shift_R, "Shift_R", true},
        {96, "F5", false, XK_Shift_R, "Shift_R", false},
        {96, "F5", false, XK_F5, "F5", true},
        {96, "F5", true, XK_F5, "F5", false},
    };
    for (const auto& [trigger, triggerName, suppressed, keysym, name, fires] : presses) {
        SCOPED_TRACE(std::string(triggerName) + ", pressed " + name);
        // As the delegate does when the settings change the key.
        h.settings.setAITriggerKey({trigger, OverlayKeys::isModifierKey(trigger),
                                    UserSettings::modifierFlagForKeyCode(trigger), QString::fromLatin1(triggerName)});
        keys.installKeyMonitors();
        h.settings.setTriggerSuppressed(suppressed);
        const auto asked = h.backend->answerRequests.size();
        EXPECT_EQ(tap(keysym, name), 1);
        EXPECT_EQ(h.backend->answerRequests.size() - asked, fires ? 1 : 0);
    }
    EXPECT_EQ(activeWindow(), callWindow);
    EXPECT_FALSE(call.lostFocus());
}

class OverlayLanguageTest : public OverlayWindowTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(OverlayLanguageTest, DrawsTranscriptAnswerAndTipInTheLanguageAndItsDirection)
{
    const QString language = QString::fromLatin1(GetParam());
    // The interviewer's question, the user's reply and an answer, as a user of the language has them.
    const QHash<QString, QStringList> samples{
        {u"en"_s, {u"Tell me about a project you are proud of."_s, u"I rebuilt our audio pipeline last year."_s,
                   u"The hardest part was keeping latency under 200 ms while the capture moved to a new thread "
                   u"model. I measured first, then changed one stage at a time."_s}},
        {u"zh"_s, {u"请介绍一个你引以为豪的项目。"_s, u"去年我重建了我们的音频处理流程。"_s,
                   u"最难的是在采集迁移到新线程模型的同时，把延迟保持在 200 毫秒以内。我先测量，再逐步修改每个环节。"_s}},
        {u"ar"_s, {u"حدثني عن مشروع تفخر به."_s, u"أعدت بناء مسار معالجة الصوت العام الماضي."_s,
                   u"كان أصعب جزء هو إبقاء زمن الاستجابة أقل من 200 ملي ثانية أثناء نقل الالتقاط إلى نموذج خيوط جديد. "
                   u"قست أولًا ثم غيرت مرحلة واحدة في كل مرة."_s}},
    };
    const QStringList sample = samples.value(language);
    ASSERT_EQ(sample.size(), 3);

    ASSERT_NO_FATAL_FAILURE(open(language));
    h.start();
    // The hint and the placeholder before anything is said, with the button that asks.
    QTest::qWait(150);
    for (const auto& text : {overlay->hintText(), h.strings.text(u"overlay.empty_placeholder"_s),
                             h.strings.text(u"overlay.ai_btn"_s)})
        control(text);

    h.clock.advance(600ms); // the resume list failed: the tip comes after its delay
    line(Speaker::interviewer, sample[0]);
    line(Speaker::user, sample[1]);
    answer(sample[2].left(24));
    answer(sample[2]);
    answer(u"…"_s, false);
    h.vm.selectPreviousAnswer();
    h.vm.selectPreviousTranscript();
    InterviewHarness::settle();
    QTest::qWait(400); // the tip's entrance
    for (const auto& text : {u"2/3"_s, sample[2], h.strings.text(u"overlay.resume_tip"_s)})
        control(text);
    // Mirrored in Arabic: the controls of the top bar sit on the left.
    auto* stop = control(h.strings.text(u"overlay.btn_stop"_s));
    ASSERT_TRUE(stop);
    const qreal stopX = stop->mapToScene({stop->width() / 2, 0}).x();
    EXPECT_EQ(stopX < window->width() / 2, h.strings.isRightToLeft()) << stopX;
    saveScreenshot(window, u"overlay-"_s + language);
}

INSTANTIATE_TEST_SUITE_P(Languages, OverlayLanguageTest, ::testing::Values("en", "zh", "ar"));

} // namespace
