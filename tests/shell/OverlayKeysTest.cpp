// The decisions of the global keys without a display: the arrow tap, the trigger and the
// keysym table. (GlobalKeys, which applies them, runs against the real X display in
// OverlayWindowTest.)

#include "OverlayKeys.h"
#include "UserSettings.h"
#include "X11KeyTable.h"

#include <X11/keysym.h>

#include <gtest/gtest.h>

using namespace OverlayKeys;

namespace {

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

} // namespace
