// The overlay as a real window under Xvfb with a window manager: it stays out of the focus
// when clicked, takes the arrow keys from another program only while it shows, starts answers
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

#include <QDir>
#include <QGuiApplication>
#include <QHash>
#include <QProcess>
#include <QQmlContext>
#include <QQmlProperty>
#include <QQuickItem>
#include <QQuickWindow>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QTest>

#include <X11/keysym.h>
#include <xcb/xcb.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <stdexcept>

using namespace std::chrono_literals;

namespace {

using DisplayFixture::findByAccessibleName;
using DisplayFixture::saveScreenshot;

using Speaker = TranscriptEntry::Speaker;

template<typename T>
using XcbReply = std::unique_ptr<T, decltype(&std::free)>;

// A connection of the test's own to the display, apart from Qt's.
class X11 {
public:
    X11() : m_connection(xcb_connect(nullptr, nullptr))
    {
        if (xcb_connection_has_error(m_connection))
            throw std::runtime_error("no X display");
        m_root = xcb_setup_roots_iterator(xcb_get_setup(m_connection)).data->root;
    }
    ~X11() { xcb_disconnect(m_connection); }
    X11(const X11&) = delete;
    X11& operator=(const X11&) = delete;

    xcb_connection_t* connection() const { return m_connection; }
    xcb_window_t root() const { return m_root; }

    xcb_atom_t atom(const char* name) const
    {
        XcbReply<xcb_intern_atom_reply_t> reply(
            xcb_intern_atom_reply(m_connection, xcb_intern_atom(m_connection, 0, qstrlen(name), name), nullptr),
            &std::free);
        return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
    }

    QList<quint32> property(xcb_window_t window, const char* name) const
    {
        XcbReply<xcb_get_property_reply_t> reply(
            xcb_get_property_reply(m_connection,
                                   xcb_get_property(m_connection, 0, window, atom(name), XCB_GET_PROPERTY_TYPE_ANY, 0, 64),
                                   nullptr),
            &std::free);
        QList<quint32> values;
        if (!reply || reply->format != 32)
            return values;
        const auto* data = static_cast<const quint32*>(xcb_get_property_value(reply.get()));
        for (int k = 0; k < xcb_get_property_value_length(reply.get()) / 4; ++k)
            values.append(data[k]);
        return values;
    }

    xcb_window_t activeWindow() const
    {
        const auto values = property(m_root, "_NET_ACTIVE_WINDOW");
        return values.isEmpty() ? xcb_window_t(XCB_WINDOW_NONE) : values.first();
    }

private:
    xcb_connection_t* m_connection;
    xcb_window_t m_root = XCB_WINDOW_NONE;
};

// A small window of the test's own that holds the focus, as the video call would.
class FocusHolder {
public:
    explicit FocusHolder(X11& x11) : m_x11(x11)
    {
        auto* c = x11.connection();
        m_window = xcb_generate_id(c);
        const uint32_t values[] = {0x303030, XCB_EVENT_MASK_KEY_PRESS};
        xcb_create_window(c, XCB_COPY_FROM_PARENT, m_window, x11.root(), 20, 20, 240, 120, 0,
                          XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT, XCB_CW_BACK_PIXEL | XCB_CW_EVENT_MASK,
                          values);
        const QByteArray title = "focus holder";
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, m_window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8,
                            title.size(), title.constData());
        xcb_map_window(c, m_window);
        xcb_flush(c);
    }
    ~FocusHolder()
    {
        xcb_destroy_window(m_x11.connection(), m_window);
        xcb_flush(m_x11.connection());
    }
    FocusHolder(const FocusHolder&) = delete;
    FocusHolder& operator=(const FocusHolder&) = delete;

    // Asks the window manager for the focus, as a pager would, until it is given.
    bool takeFocus()
    {
        auto* c = m_x11.connection();
        return QTest::qWaitFor(
            [&] {
                xcb_client_message_event_t event{};
                event.response_type = XCB_CLIENT_MESSAGE;
                event.format = 32;
                event.window = m_window;
                event.type = m_x11.atom("_NET_ACTIVE_WINDOW");
                event.data.data32[0] = 2; // from a pager: not subject to focus-stealing rules
                event.data.data32[1] = XCB_CURRENT_TIME;
                xcb_send_event(c, 0, m_x11.root(),
                               XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY,
                               reinterpret_cast<const char*>(&event));
                xcb_flush(c);
                QTest::qWait(50);
                return m_x11.activeWindow() == m_window;
            },
            5000);
    }
    xcb_window_t id() const { return m_window; }

    // How many presses of the key the window was given.
    int pressesOf(quint8 keycode)
    {
        while (xcb_generic_event_t* event = xcb_poll_for_event(m_x11.connection())) {
            if ((event->response_type & 0x7f) == XCB_KEY_PRESS)
                m_presses.append(reinterpret_cast<xcb_key_press_event_t*>(event)->detail);
            std::free(event);
        }
        return static_cast<int>(m_presses.count(keycode));
    }

private:
    X11& m_x11;
    xcb_window_t m_window = XCB_WINDOW_NONE;
    QList<quint8> m_presses;
};

// The program's key source, counting what it passed on: a key seen here has been dealt with
// by the monitors, since both come over the same connection in order.
class CountingKeySource final : public KeySource {
public:
    bool seesOtherPrograms() const override { return source.seesOtherPrograms(); }
    void observeKeys(KeyHandler handler) override
    {
        source.observeKeys([this, handler = std::move(handler)](quint16 code, bool pressed) {
            if (handler)
                handler(code, pressed);
            if (!pressed)
                ++releases[code];
        });
    }
    void grabArrows(ArrowHandler handler) override { source.grabArrows(std::move(handler)); }
    void releaseArrows() override { source.releaseArrows(); }

    X11KeySource source;
    QHash<quint16, int> releases;
};

// A window manager on the test display for the length of one test program.
class WindowManager {
public:
    static bool start(X11& x11)
    {
        const QString openbox = QStandardPaths::findExecutable(u"openbox"_s);
        if (openbox.isEmpty())
            return false;
        s_home = std::make_unique<QTemporaryDir>();
        s_process = std::make_unique<QProcess>();
        auto environment = QProcessEnvironment::systemEnvironment();
        environment.insert(u"HOME"_s, s_home->path());
        environment.insert(u"XDG_CONFIG_HOME"_s, s_home->path());
        environment.remove(u"DBUS_SESSION_BUS_ADDRESS"_s);
        s_process->setProcessEnvironment(environment);
        s_process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
        s_process->start(openbox, {u"--sm-disable"_s});
        if (!s_process->waitForStarted(5000))
            return false;
        // Up once it names itself on the root window.
        return QTest::qWaitFor([&] { return !x11.property(x11.root(), "_NET_SUPPORTING_WM_CHECK").isEmpty(); },
                               10000);
    }
    static void stop()
    {
        if (!s_process)
            return;
        s_process->terminate();
        if (!s_process->waitForFinished(3000))
            s_process->kill();
        s_process.reset();
        s_home.reset();
    }

private:
    static inline std::unique_ptr<QProcess> s_process;
    static inline std::unique_ptr<QTemporaryDir> s_home;
};

// Drives the real pointer of the display, so the window manager sees it too. The program keeps
// handling its events meanwhile, as it would under a user's hand.
bool xdotool(const QStringList& arguments)
{
    QProcess process;
    process.start(u"xdotool"_s, arguments);
    return QTest::qWaitFor([&] { return process.state() == QProcess::NotRunning; }, 10000)
        && process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

bool click(QQuickItem* item)
{
    const QPoint at = item->mapToGlobal(QPointF(item->width() / 2, item->height() / 2)).toPoint();
    return xdotool({u"mousemove"_s, QString::number(at.x()), QString::number(at.y()), u"click"_s, u"1"_s});
}

// Presses at `from`, moves in two steps (past the drag threshold, then on) and lets go.
bool drag(QPoint from, QPoint by)
{
    const auto number = [](int value) { return QString::number(value); };
    return xdotool({u"mousemove"_s, number(from.x()), number(from.y()), u"mousedown"_s, u"1"_s, u"sleep"_s,
                    u"0.2"_s, u"mousemove"_s, number(from.x() + by.x() / 10), number(from.y() + by.y() / 10),
                    u"sleep"_s, u"0.2"_s, u"mousemove"_s, number(from.x() + by.x()), number(from.y() + by.y()),
                    u"sleep"_s, u"0.2"_s, u"mouseup"_s, u"1"_s});
}

QCoro::Task<qsizetype> noResumeList()
{
    throw std::runtime_error("no resume list in this test");
    co_return 0;
}

class OverlayWindowTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        if (DisplayFixture::skipReason())
            return;
        s_x11 = std::make_unique<X11>();
        s_hasWindowManager = WindowManager::start(*s_x11);
    }
    static void TearDownTestSuite()
    {
        WindowManager::stop();
        s_x11.reset();
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
        ShellModels models;
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
        // No tool tip from where an earlier test left the pointer.
        xdotool({u"mousemove"_s, u"5"_s, u"5"_s});
    }

    void line(Speaker speaker, const QString& text)
    {
        h.clock.advance(6s);
        h.recognizerOf(speaker)->say(text, true, h.clock.nowMs());
        InterviewHarness::settle();
    }

    void answer(const QStringList& chunks, bool finish)
    {
        h.backend->answerChunks = chunks;
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

    static inline std::unique_ptr<X11> s_x11;
    static inline bool s_hasWindowManager = false;

    InterviewHarness h;
    std::unique_ptr<OverlayViewModel> overlay;
    QmlShellWindows windows;
    QQuickWindow* window = nullptr;
};

TEST_F(OverlayWindowTest, ClicksOnTheOverlayLeaveTheFocusWhereItWas)
{
    ASSERT_NO_FATAL_FAILURE(open(u"en"_s));
    FocusHolder holder(*s_x11);
    ASSERT_TRUE(holder.takeFocus()) << "the window manager never focused the test's own window";
    const auto stillFocused = [&] { return s_x11->activeWindow() == holder.id() && !window->isActive(); };

    // Start: the click lands, the interview runs, the focus stays.
    auto* start = control(h.strings.text(u"overlay.btn_start"_s));
    ASSERT_TRUE(start);
    ASSERT_TRUE(click(start));
    ASSERT_TRUE(QTest::qWaitFor([&] { return h.vm.isRecording(); }, 5000)) << "the click never reached the button";
    QTest::qWait(200);
    EXPECT_TRUE(stillFocused());

    line(Speaker::interviewer, u"Walk me through a hard bug."_s);
    answer({u"First answer."_s}, true);
    answer({u"Second answer."_s}, true);
    ASSERT_EQ(h.vm.selectedAnswerIndex(), 1);

    // The chevron, a line of the transcript (selectable text) and the resume button.
    auto* previous = control(u"Previous answer"_s);
    ASSERT_TRUE(previous);
    ASSERT_TRUE(click(previous));
    ASSERT_TRUE(QTest::qWaitFor([&] { return h.vm.selectedAnswerIndex() == 0; }, 5000));
    QTest::qWait(200);
    EXPECT_TRUE(stillFocused());

    auto* row = control(u"Walk me through a hard bug."_s);
    ASSERT_TRUE(row);
    ASSERT_TRUE(click(row));
    QTest::qWait(300);
    EXPECT_TRUE(stillFocused());

    // The divider, dragged down by 200 from its place at a fifth of the height.
    auto* divider = control(u"Resize areas"_s);
    ASSERT_TRUE(divider);
    ASSERT_TRUE(drag(divider->mapToGlobal(QPointF(divider->width() / 2, divider->height() / 2)).toPoint(),
                     QPoint(0, 200)));
    ASSERT_TRUE(QTest::qWaitFor([&] { return !overlay->isDragging() && overlay->dividerRatio() > 0.4; }, 5000))
        << overlay->dividerRatio();
    EXPECT_LT(overlay->dividerRatio(), 0.6);
    EXPECT_TRUE(stillFocused());

    // The top bar moves the panel.
    auto* bar = control(u"Move overlay"_s);
    ASSERT_TRUE(bar);
    const QPoint before = window->position();
    ASSERT_TRUE(drag(bar->mapToGlobal(QPointF(60, bar->height() / 2)).toPoint(), QPoint(-100, 40)));
    EXPECT_TRUE(QTest::qWaitFor([&] { return window->position() == before + QPoint(-100, 40); }, 5000))
        << window->position().x() << "," << window->position().y();
    EXPECT_TRUE(stillFocused());

    int dashboards = 0;
    h.notifications.addObserver(Notifications::showDashboard, nullptr, [&](const Notification&) { ++dashboards; });
    auto* resume = control(h.strings.text(u"sidebar.resume"_s));
    ASSERT_TRUE(resume);
    ASSERT_TRUE(click(resume));
    ASSERT_TRUE(QTest::qWaitFor([&] { return dashboards == 1; }, 5000));
    QTest::qWait(200);
    EXPECT_TRUE(stillFocused());
}

TEST_F(OverlayWindowTest, KeysFromAnotherProgramReachTheOverlayOnlyAsDesigned)
{
    ASSERT_NO_FATAL_FAILURE(open(u"en"_s));
    h.start();
    for (const auto& question : {u"First question?"_s, u"Second question?"_s, u"Third question?"_s})
        line(Speaker::interviewer, question);
    CountingKeySource source;
    ASSERT_TRUE(source.seesOtherPrograms());
    GlobalKeys keys(source);
    ShellModels models;
    models.interview = &h.vm;
    models.settings = &h.settings;
    keys.attach(models, window);
    keys.installKeyMonitors();
    keys.installEventTap();
    FocusHolder holder(*s_x11);
    ASSERT_TRUE(holder.takeFocus());
    XTestKeyboard keyboard;
    ASSERT_TRUE(keyboard.isOpen());
    const quint8 up = keyboard.keycode(XK_Up);
    const quint8 left = keyboard.keycode(XK_Left);
    const quint8 f5 = keyboard.keycode(XK_F5);
    // "a" is nobody's key: once the focused window and the key source have it, every key
    // pressed before it has reached both.
    const quint8 a = keyboard.keycode(XK_a);
    const auto settled = [&] {
        const int given = holder.pressesOf(a);
        const int seen = source.releases.value(0);
        keyboard.tap(XK_a);
        return QTest::qWaitFor([&] { return holder.pressesOf(a) > given && source.releases.value(0) > seen; }, 5000);
    };

    // Hidden, the overlay takes no key.
    windows.hide(ShellWindows::Panel::overlay);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !window->isVisible(); }, 3000));
    keyboard.tap(XK_Up);
    ASSERT_TRUE(settled());
    EXPECT_EQ(holder.pressesOf(up), 1) << "the arrow never reached the program in front";
    EXPECT_FALSE(h.vm.selectedTranscriptIndex());

    // Shown, the arrows are the overlay's, even those that change nothing.
    windows.show(ShellWindows::Panel::overlay);
    ASSERT_TRUE(QTest::qWaitForWindowExposed(window));
    keyboard.tap(XK_Up);
    ASSERT_TRUE(QTest::qWaitFor([&] { return h.vm.selectedTranscriptIndex() == 2; }, 3000));
    keyboard.tap(XK_Up);
    ASSERT_TRUE(QTest::qWaitFor([&] { return h.vm.selectedTranscriptIndex() == 1; }, 3000));
    keyboard.tap(XK_Down);
    ASSERT_TRUE(QTest::qWaitFor([&] { return h.vm.selectedTranscriptIndex() == 2; }, 3000));
    keyboard.tap(XK_Left);
    keyboard.tap(XK_Right);
    ASSERT_TRUE(settled());
    EXPECT_EQ(holder.pressesOf(up), 1);
    EXPECT_EQ(holder.pressesOf(left), 0);
    EXPECT_FALSE(h.vm.selectedAnswerIndex()) << "no answers yet";
    EXPECT_EQ(s_x11->activeWindow(), holder.id());

    // The trigger fires once per press, and goes on to the program in front.
    h.backend->answerChunks = {u"An answer."_s};
    const auto useTrigger = [&](quint16 code, const QString& name) {
        const bool modifier = OverlayKeys::isModifierKey(code);
        h.settings.setAITriggerKey({code, modifier, UserSettings::modifierFlagForKeyCode(code), name});
        keys.installKeyMonitors();
    };
    useTrigger(60, u"Right Shift"_s);
    keyboard.tap(XK_Shift_R);
    ASSERT_TRUE(QTest::qWaitFor([&] { return h.backend->answerRequests.size() == 1; }, 3000));
    ASSERT_TRUE(settled());
    EXPECT_EQ(h.backend->answerRequests.size(), 1) << "the release fired too";
    InterviewHarness::settle();

    useTrigger(96, u"F5"_s);
    keyboard.tap(XK_Shift_R);
    ASSERT_TRUE(settled());
    EXPECT_EQ(h.backend->answerRequests.size(), 1) << "the old key still fires";
    keyboard.tap(XK_F5);
    ASSERT_TRUE(QTest::qWaitFor([&] { return h.backend->answerRequests.size() == 2; }, 3000));
    ASSERT_TRUE(settled());
    EXPECT_EQ(h.backend->answerRequests.size(), 2);
    EXPECT_EQ(holder.pressesOf(f5), 1) << "the trigger key is observed, never swallowed";
    EXPECT_EQ(s_x11->activeWindow(), holder.id());
}

TEST_F(OverlayWindowTest, OpensAtItsPlaceOnEveryWorkspace)
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

    const auto id = static_cast<xcb_window_t>(window->winId());
    // The window manager keeps the window on every workspace: it would otherwise put it on
    // the current one.
    EXPECT_TRUE(QTest::qWaitFor([&] { return s_x11->property(id, "_NET_WM_DESKTOP") == QList<quint32>{0xFFFFFFFF}; },
                                3000));
    // Qt's own state for a window on top survives next to ours.
    EXPECT_TRUE(s_x11->property(id, "_NET_WM_STATE").contains(s_x11->atom("_NET_WM_STATE_ABOVE")));
}

struct Sample {
    const char* language;
    QString question;
    QString reply;
    QString followUp;
    QString firstAnswer;
    QString secondAnswer;
    QString streaming;
};

class OverlayScreenshotTest : public OverlayWindowTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(OverlayScreenshotTest, DrawsTranscriptAnswerAndTipInTheLanguageAndItsDirection)
{
    const QString language = QString::fromLatin1(GetParam());
    const QList<Sample> samples{
        {"en", u"Tell me about a project you are proud of."_s, u"I rebuilt our audio pipeline last year."_s,
         u"What was the hardest part?"_s, u"Start with the goal and your role."_s,
         u"The hardest part was keeping latency under 200 ms while the team moved the capture to a new "
         u"thread model. I measured first, then changed one stage at a time."_s,
         u"Another angle: "_s},
        {"zh", u"请介绍一个你引以为豪的项目。"_s, u"去年我重建了我们的音频处理流程。"_s, u"最难的部分是什么？"_s,
         u"先说明目标和你的角色。"_s,
         u"最难的是在团队把采集迁移到新线程模型的同时，把延迟保持在 200 毫秒以内。我先测量，再逐步修改每个环节。"_s,
         u"另一个角度："_s},
        {"ar", u"حدثني عن مشروع تفخر به."_s, u"أعدت بناء مسار معالجة الصوت العام الماضي."_s, u"ما أصعب جزء فيه؟"_s,
         u"ابدأ بالهدف ودورك فيه."_s,
         u"كان أصعب جزء هو إبقاء زمن الاستجابة أقل من 200 ملي ثانية بينما نقل الفريق الالتقاط إلى نموذج خيوط جديد. "
         u"قست أولًا ثم غيرت مرحلة واحدة في كل مرة."_s,
         u"زاوية أخرى: "_s},
    };
    const auto sample = std::find_if(samples.cbegin(), samples.cend(),
                                     [&](const Sample& s) { return language == QLatin1String(s.language); });
    ASSERT_NE(sample, samples.cend());

    ASSERT_NO_FATAL_FAILURE(open(language));
    h.start();
    // The hint and the placeholder before anything is said, with the button that asks.
    QTest::qWait(150);
    EXPECT_TRUE(control(overlay->hintText()));
    EXPECT_TRUE(control(h.strings.text(u"overlay.empty_placeholder"_s)));
    EXPECT_TRUE(control(h.strings.text(u"overlay.ai_btn"_s)));
    EXPECT_TRUE(saveScreenshot(window, u"overlay-empty-"_s + language));

    // The resume list failed, so the tip comes after its delay.
    h.clock.advance(600ms);
    ASSERT_TRUE(overlay->showResumeTip());

    line(Speaker::interviewer, sample->question);
    line(Speaker::user, sample->reply);
    line(Speaker::interviewer, sample->followUp);
    answer({sample->firstAnswer}, true);
    answer({sample->secondAnswer}, true);
    answer({sample->streaming}, false);
    h.vm.selectPreviousAnswer();
    h.vm.selectPreviousTranscript();
    InterviewHarness::settle();
    ASSERT_EQ(overlay->transcriptRows()->rowCount(), 3);
    ASSERT_EQ(overlay->positionText(), u"2/3"_s);
    ASSERT_TRUE(h.vm.isGeneratingAnswer());

    QTest::qWait(400); // the tip's entrance
    EXPECT_TRUE(control(u"2/3"_s));
    EXPECT_TRUE(control(sample->secondAnswer));
    EXPECT_TRUE(control(h.strings.text(u"overlay.resume_tip"_s)));
    EXPECT_TRUE(control(h.strings.text(u"overlay.btn_stop"_s)));
    // Mirrored in Arabic: the controls of the top bar sit on the left.
    auto* stop = control(h.strings.text(u"overlay.btn_stop"_s));
    ASSERT_TRUE(stop);
    const qreal stopX = stop->mapToScene({stop->width() / 2, 0}).x();
    if (h.strings.isRightToLeft())
        EXPECT_LT(stopX, window->width() / 2);
    else
        EXPECT_GT(stopX, window->width() / 2);
    EXPECT_TRUE(saveScreenshot(window, u"overlay-streaming-"_s + language));

    // The stream ends; the newest answer is shown with the button for the next one.
    h.backend->answerStreams.last()->push(u"…"_s);
    h.backend->answerStreams.last()->finish();
    InterviewHarness::settle();
    h.vm.selectNextAnswer();
    overlay->dismissResumeTip();
    InterviewHarness::settle();
    QTest::qWait(300);
    EXPECT_TRUE(control(h.strings.text(u"overlay.ai_btn"_s)));
    EXPECT_TRUE(control(h.settings.aiTriggerKey().displayName));
    EXPECT_TRUE(control(u"3/3"_s));
    EXPECT_TRUE(saveScreenshot(window, u"overlay-answered-"_s + language));
}

INSTANTIATE_TEST_SUITE_P(Languages, OverlayScreenshotTest, ::testing::Values("en", "zh", "ar"));

} // namespace
