// The decisions of the global keys without a display: the arrow tap, the trigger and the
// keysym table. (GlobalKeys, which applies them, runs against the real X display in
// OverlayWindowTest.)

#include "OverlayKeys.h"
#include "TypedKeySource.h"
#include "UserSettings.h"
#include "X11KeyTable.h"

#include <X11/keysym.h>

#include <gtest/gtest.h>

#include <memory>

using namespace OverlayKeys;
using namespace Qt::StringLiterals;

namespace {

constexpr quint16 rightShift = 60;
constexpr quint16 f5 = 96;

TEST(OverlayKeysTest, TheTapTakesOnlyTheArrowsOfAVisibleOverlay)
{
    using enum TapAction;
    // Key, overlay visible, has a model, what the tap does.
    const std::tuple<quint16, bool, bool, TapAction> cases[] = {
        {leftArrow, true, true, selectPreviousAnswer},
        {rightArrow, true, true, selectNextAnswer},
        {upArrow, true, true, selectPreviousTranscript},
        {downArrow, true, true, selectNextTranscript},
        {upArrow, false, true, passOn},
        {leftArrow, true, false, passOn},
        {f5, true, true, passOn},
        {0, true, true, passOn}};
    for (const auto& [code, visible, hasModel, action] : cases)
        EXPECT_EQ(tapAction(code, visible, hasModel), action)
            << code << " " << visible << " " << hasModel;
}

TEST(OverlayKeysTest, TheTriggerFiresOnItsOwnKeyAndAModifierOnlyOnPress)
{
    const auto key = [](quint16 code) {
        return AITriggerKey{
            code, isModifierKey(code), UserSettings::modifierFlagForKeyCode(code), {}};
    };
    const quint64 shift = 0x20000;
    using enum EventKind;
    // Trigger key, the event its monitors get, suppressed, fires. Right Shift fires on its press
    // only, not on its release nor the other shift's; Caps Lock has no flag and fires on both; F5
    // fires on its key down with or without a modifier held, and not on a change of flags, which
    // its monitors never get.
    const std::tuple<quint16, KeyEvent, bool, bool> cases[] = {
        {rightShift, {rightShift, flagsChanged, shift}, false, true},
        {rightShift, {rightShift, flagsChanged, 0}, false, false},
        {rightShift, {56, flagsChanged, shift}, false, false},
        {rightShift, {rightShift, flagsChanged, shift}, true, false},
        {57, {57, flagsChanged, 0}, false, true},
        {f5, {f5, keyDown, 0}, false, true},
        {f5, {f5, keyDown, shift}, false, true},
        {f5, {f5, flagsChanged, 0}, false, false},
        {f5, {97, keyDown, 0}, false, false},
        {f5, {f5, keyDown, 0}, true, false}};
    for (const auto& [code, event, suppressed, fires] : cases)
        EXPECT_EQ(triggerFires(key(code), suppressed, event), fires)
            << code << ": " << event.keyCode << " " << event.modifierFlags << " " << suppressed;
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
    // (The loop above has every keysym of those keys, the keypad's second ones too.) A capital
    // is its letter's key, an arrow the tap's, and a keysym of no key is nothing.
    const std::pair<unsigned long, std::optional<quint16>> others[] = {
        {XK_Q, canonicalKeyCode(XK_q)}, {XK_Up, upArrow}, {XK_Multi_key, std::nullopt}};
    for (const auto& [keysym, code] : others)
        EXPECT_EQ(canonicalKeyCode(keysym), code) << keysym;
}

} // namespace

// Readers come and go in any order, one may drop another while a key is on its way, and a
// subscription may outlive its source; the desktop reports keys exactly while anyone listens.
TEST(KeySourceTest, EveryReaderSeesTheKeysUntilItsSubscriptionGoes)
{
    auto source = std::make_unique<TypedKeySource>();
    QList<QString> seen;
    const auto reader = [&](const QString& name) {
        return [&seen, name](quint16 code, bool) { seen.append(name + QString::number(code)); };
    };
    KeySource::Subscription monitors = source->observeKeys(reader(u"monitors "_s));
    KeySource::Subscription recorder;
    recorder = source->observeKeys([&](quint16 code, bool pressed) {
        reader(u"recorder "_s)(code, pressed);
        monitors.reset(); // what a recording that takes the key over does
    });
    EXPECT_EQ(source->observing, QList<bool>{true});
    source->type(f5);
    source->type(rightShift);
    EXPECT_EQ(seen, (QList<QString>{u"monitors 96"_s, u"recorder 96"_s, u"recorder 60"_s}));
    EXPECT_FALSE(monitors.isActive());

    // Moved, the subscription is still the one reader; replaced, the old one stops.
    KeySource::Subscription moved = std::move(recorder);
    EXPECT_FALSE(recorder.isActive());
    EXPECT_TRUE(moved.isActive());
    moved = source->observeKeys(reader(u"tester "_s));
    seen.clear();
    source->type(f5);
    EXPECT_EQ(seen, QList<QString>{u"tester 96"_s});
    EXPECT_EQ(source->observing, QList<bool>{true});
    moved.reset();
    EXPECT_FALSE(source->observeKeys({}).isActive());
    auto late = source->observeKeys(reader(u"late "_s));
    EXPECT_EQ(source->observing, (QList<bool>{true, false, true}));

    source.reset();
    late.reset(); // after the source: nothing left to tell
    EXPECT_FALSE(late.isActive());
}
