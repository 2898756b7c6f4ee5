// The decisions of the global keys without a display: the arrow tap, the trigger monitors and
// the keysym table, driven through a scripted key source against a real interview.

#include "../core/InterviewHarness.h"

#include "GlobalKeys.h"
#include "OverlayKeys.h"
#include "X11KeyTable.h"

#include <X11/keysym.h>

#include <gtest/gtest.h>

using namespace std::chrono_literals;
using namespace OverlayKeys;

namespace {

// A desktop that delivers the keys the test presses.
class ScriptedKeySource final : public KeySource {
public:
    bool seesOtherPrograms() const override { return seesOthers; }
    void observeKeys(KeyHandler handler) override { m_keys = std::move(handler); }
    void grabArrows(ArrowHandler handler) override { m_arrows = std::move(handler); }
    void releaseArrows() override { m_arrows = {}; }

    bool holdsArrows() const { return bool(m_arrows); }
    void tap(quint16 code)
    {
        if (m_keys) {
            m_keys(code, true);
            m_keys(code, false);
        }
        if (m_arrows && isArrowKey(code))
            m_arrows(code);
        InterviewHarness::settle();
    }

    bool seesOthers = true;

private:
    KeyHandler m_keys;
    ArrowHandler m_arrows;
};

// The overlay window as the keys see it: a visible flag that tells when it changes.
class FakeOverlayWindow final : public QObject {
    Q_OBJECT
    Q_PROPERTY(bool visible READ isVisible WRITE setVisible NOTIFY visibleChanged)

public:
    bool isVisible() const { return m_visible; }
    void setVisible(bool visible)
    {
        if (visible == m_visible)
            return;
        m_visible = visible;
        emit visibleChanged(visible);
    }

signals:
    void visibleChanged(bool visible);

private:
    bool m_visible = false;
};

AITriggerKey triggerKey(quint16 code, const char* name)
{
    return {code, isModifierKey(code), UserSettings::modifierFlagForKeyCode(code), QString::fromLatin1(name)};
}

constexpr quint16 rightShift = 60;
constexpr quint16 f5 = 96;

TEST(OverlayKeysTest, TheTapTakesOnlyTheArrowsOfAVisibleOverlay)
{
    struct Case {
        quint16 code;
        bool visible;
        bool hasModel;
        TapAction action;
    };
    for (const auto& c : {
             Case{leftArrow, true, true, TapAction::selectPreviousAnswer},
             Case{rightArrow, true, true, TapAction::selectNextAnswer},
             Case{upArrow, true, true, TapAction::selectPreviousTranscript},
             Case{downArrow, true, true, TapAction::selectNextTranscript},
             Case{upArrow, false, true, TapAction::passOn},
             Case{leftArrow, true, false, TapAction::passOn},
             Case{f5, true, true, TapAction::passOn},
             Case{0, true, true, TapAction::passOn},
         })
        EXPECT_EQ(tapAction(c.code, c.visible, c.hasModel), c.action) << c.code << " " << c.visible;
}

TEST(OverlayKeysTest, TheTriggerFiresOnItsOwnKeyAndAModifierOnlyOnPress)
{
    const auto shift = triggerKey(rightShift, "Right Shift");
    const auto capsLock = triggerKey(57, "Caps Lock");
    const auto key = triggerKey(f5, "F5");
    const quint64 shiftFlag = 0x20000;
    struct Case {
        const AITriggerKey& key;
        KeyEvent event;
        bool suppressed;
        bool fires;
    };
    for (const auto& c : {
             Case{shift, {rightShift, EventKind::flagsChanged, shiftFlag}, false, true},
             Case{shift, {rightShift, EventKind::flagsChanged, 0}, false, false}, // its release
             Case{shift, {56, EventKind::flagsChanged, shiftFlag}, false, false},  // the other shift
             Case{shift, {rightShift, EventKind::flagsChanged, shiftFlag}, true, false},
             Case{capsLock, {57, EventKind::flagsChanged, 0}, false, true}, // no flag: press and release
             Case{key, {f5, EventKind::keyDown, 0}, false, true},
             Case{key, {f5, EventKind::keyDown, shiftFlag}, false, true},
             Case{key, {f5, EventKind::flagsChanged, 0}, false, false}, // not what its monitors get
             Case{key, {97, EventKind::keyDown, 0}, false, false},
             Case{key, {f5, EventKind::keyDown, 0}, true, false},
         })
        EXPECT_EQ(triggerFires(c.key, c.suppressed, c.event), c.fires)
            << c.key.displayName.toStdString() << " " << c.event.keyCode << " " << c.event.modifierFlags;
}

TEST(OverlayKeysTest, TheReaderTurnsPressesIntoEventsWithTheHeldModifiers)
{
    KeyEventReader reader;
    EXPECT_EQ(reader.read(59, true), (KeyEvent{59, EventKind::flagsChanged, 0x40000}));
    EXPECT_EQ(reader.read(rightShift, true), (KeyEvent{rightShift, EventKind::flagsChanged, 0x60000}));
    EXPECT_EQ(reader.read(f5, true), (KeyEvent{f5, EventKind::keyDown, 0x60000}));
    EXPECT_EQ(reader.read(f5, false), std::nullopt);
    EXPECT_EQ(reader.read(rightShift, false), (KeyEvent{rightShift, EventKind::flagsChanged, 0x40000}));
    EXPECT_EQ(reader.read(59, false), (KeyEvent{59, EventKind::flagsChanged, 0}));
    // Both commands and both options share a flag; letting go of one keeps the other's.
    reader.read(54, true);
    reader.read(55, true);
    EXPECT_EQ(reader.read(54, false), (KeyEvent{54, EventKind::flagsChanged, 0x100000}));
}

TEST(OverlayKeysTest, EveryKeyOfTheSettingsTablesHasItsKeysymAndBack)
{
    for (const auto* table : {&UserSettings::modifierKeyNames(), &UserSettings::functionKeyNames(),
                              &UserSettings::otherKeyNames()}) {
        for (const auto& [code, name] : *table) {
            if (code == 63)
                continue; // Function is not a key an X server reports.
            const auto keysyms = keysymsOfKeyCode(code);
            ASSERT_FALSE(keysyms.empty()) << name.toStdString();
            for (const auto keysym : keysyms)
                EXPECT_EQ(canonicalKeyCode(keysym), code) << name.toStdString();
        }
    }
    EXPECT_EQ(canonicalKeyCode(XK_Super_L), 55);
    EXPECT_EQ(canonicalKeyCode(XK_Super_R), 54);
    EXPECT_EQ(canonicalKeyCode(XK_Alt_L), 58);
    EXPECT_EQ(canonicalKeyCode(XK_ISO_Level3_Shift), 61);
    EXPECT_EQ(canonicalKeyCode(XK_Q), canonicalKeyCode(XK_q));
    EXPECT_EQ(canonicalKeyCode(XK_Up), upArrow);
    EXPECT_EQ(canonicalKeyCode(XK_KP_Up), 91) << "the keypad's 8 stays itself with Num Lock off";
    EXPECT_EQ(canonicalKeyCode(XK_Multi_key), std::nullopt);
}

class GlobalKeysTest : public ::testing::Test {
protected:
    GlobalKeysTest()
    {
        h.settings.setAutoTriggerAIAnswers(false);
        ShellModels models;
        models.interview = &h.vm;
        models.settings = &h.settings;
        keys.attach(models, &window);
        keys.installKeyMonitors();
        keys.installEventTap();
    }

    void liveWithQuestions(int count)
    {
        h.start();
        for (int k = 0; k < count; ++k) {
            h.passTime(6s); // a line of its own
            h.say(TranscriptEntry::Speaker::interviewer, u"Question %1?"_s.arg(k + 1));
        }
    }

    qsizetype answersAsked() const { return h.backend->answerRequests.size(); }

    InterviewHarness h;
    ScriptedKeySource source;
    FakeOverlayWindow window;
    GlobalKeys keys{source};
};

TEST_F(GlobalKeysTest, ArrowsAreTakenOnlyWhileTheOverlayShowsAndMoveTheSelections)
{
    liveWithQuestions(3);
    EXPECT_FALSE(source.holdsArrows()) << "a hidden overlay takes no key";
    source.tap(upArrow);
    EXPECT_FALSE(h.vm.selectedTranscriptIndex());

    window.setVisible(true);
    ASSERT_TRUE(source.holdsArrows());
    source.tap(leftArrow);
    source.tap(rightArrow);
    EXPECT_FALSE(h.vm.selectedAnswerIndex()) << "no answers: swallowed, nothing changes";
    source.tap(upArrow);
    EXPECT_EQ(h.vm.selectedTranscriptIndex(), 2);
    source.tap(upArrow);
    EXPECT_EQ(h.vm.selectedTranscriptIndex(), 1);
    source.tap(downArrow);
    EXPECT_EQ(h.vm.selectedTranscriptIndex(), 2);
    source.tap(downArrow);
    EXPECT_FALSE(h.vm.selectedTranscriptIndex()) << "down from the last line follows the newest again";

    window.setVisible(false);
    EXPECT_FALSE(source.holdsArrows());
    window.setVisible(true);
    keys.removeEventTap();
    EXPECT_FALSE(source.holdsArrows());
}

TEST_F(GlobalKeysTest, WithoutASessionWideSourceNoArrowIsTaken)
{
    keys.removeEventTap();
    source.seesOthers = false;
    keys.installEventTap();
    window.setVisible(true);
    EXPECT_FALSE(source.holdsArrows());
}

TEST_F(GlobalKeysTest, TheTriggerKeyStartsOneAnswerPerPressAndFollowsAChangeAtOnce)
{
    liveWithQuestions(1);
    h.settings.setAITriggerKey(triggerKey(rightShift, "Right Shift"));
    keys.installKeyMonitors();
    source.tap(rightShift);
    EXPECT_EQ(answersAsked(), 1) << "a press fires, its release does not";
    source.tap(f5);
    EXPECT_EQ(answersAsked(), 1);

    h.settings.setAITriggerKey(triggerKey(f5, "F5"));
    keys.installKeyMonitors();
    source.tap(rightShift);
    EXPECT_EQ(answersAsked(), 1) << "the old key stops at once";
    source.tap(f5);
    EXPECT_EQ(answersAsked(), 2);

    // While the settings record a new key, the current one fires nothing.
    h.settings.setTriggerSuppressed(true);
    source.tap(f5);
    EXPECT_EQ(answersAsked(), 2);
    h.settings.setTriggerSuppressed(false);
    source.tap(f5);
    EXPECT_EQ(answersAsked(), 3);
}

} // namespace

#include "OverlayKeysTest.moc"
