// Key recording and the key test of the keybinds page, without a display: keys typed into our
// own windows come as Qt gives them (keysyms) and go through the real keysym table; keys of
// other programs come from a source the test types into.

#include "KeybindsPageViewModel.h"

#include "NotificationCenter.h"
#include "PreferencesStore.h"
#include "TypedKeySource.h"
#include "X11KeyTable.h"

#include <X11/keysym.h>

#include <gtest/gtest.h>

using namespace OverlayKeys;
using namespace Qt::StringLiterals;

namespace {

struct Page {
    PreferencesStore store;
    NotificationCenter notifications;
    UserSettings settings{store, notifications};
    AppStrings strings{QStringList{u"en"_s}};
    ManualClock clock;
    TypedKeySource keys;
    KeybindsPageViewModel page{{settings, strings, clock, &keys, u"ravletai"_s}};
};

enum class From { window, otherProgram };
struct Key {
    From from;
    quint32 keysym;
    bool pressed = true;
    bool swallowed = false; // only for our own windows
};
struct Row {
    const char* name;
    bool testing; // the key test, else recording
    std::vector<Key> keys;
    const char* outcome; // still listening or done, blocked, the trigger's name, test succeeded
};
// The row's name, not its bytes, in test listings.
void PrintTo(const Row& row, std::ostream* out)
{
    *out << row.name;
}

class KeybindsPageTest : public ::testing::TestWithParam<Row> {};

TEST_P(KeybindsPageTest, KeysDoWhatThePageSays)
{
    const Row& row = GetParam();
    Page p;
    row.testing ? p.page.startTest() : p.page.startKeyRecording();
    for (const auto& key : row.keys) {
        EXPECT_TRUE(p.settings.isTriggerSuppressed())
            << "the old key stays silent while the page listens";
        if (key.from == From::otherProgram) {
            p.keys.typeKeysym(key.keysym, key.pressed);
            continue;
        }
        const QString text = key.keysym < 0x100 ? QString(QChar(char16_t(key.keysym))) : QString();
        EXPECT_EQ(p.page.handleLocalKey(key.keysym, key.pressed, text), key.swallowed)
            << key.keysym;
    }
    const bool listening = row.testing ? p.page.isTesting() : p.page.isRecording();
    QStringList outcome{listening ? u"listening"_s : u"done"_s};
    if (p.page.isBlocked())
        outcome.append(u"blocked"_s);
    outcome.append(p.page.triggerKeyName());
    if (p.page.testSucceeded())
        outcome.append(u"detected"_s);
    EXPECT_EQ(outcome.join(u", "_s), QString::fromLatin1(row.outcome));
    if (listening) {
        EXPECT_TRUE(p.settings.isTriggerSuppressed());
    }
    p.page.cancel();
    // Once the page is done (and a recorded key's silence over), the trigger in force fires.
    p.clock.advance(std::chrono::milliseconds(KeybindsPageViewModel::settleMaxMs));
    EXPECT_FALSE(p.settings.isTriggerSuppressed());
}

using enum From;
INSTANTIATE_TEST_SUITE_P(
    Recording, KeybindsPageTest,
    ::testing::Values(
        Row{"EscapeIsBlockedAndDoesNotCancel",
            false,
            {{window, XK_Escape, true, true}, {window, XK_Escape, false}},
            "listening, blocked, Right Shift"},
        Row{"RightSuperIsTaken", false, {{window, XK_Super_R, true, true}}, "done, Right Command"},
        Row{"CapsLockPassesSilently",
            false,
            {{window, XK_Caps_Lock}, {window, XK_Caps_Lock, false}},
            "listening, Right Shift"},
        // Shift held as Record was clicked, let go afterwards: a release is no key.
        Row{"AReleasedModifierRecordsNothing",
            false,
            {{window, XK_Shift_L, false}, {window, XK_Control_R, false}},
            "listening, Right Shift"},
        Row{"ALetterByItsCharacter", false, {{window, XK_k, true, true}}, "done, K"},
        Row{"OtherProgramsAreNotRecorded",
            false,
            {{otherProgram, XK_F8}},
            "listening, Right Shift"},
        Row{"TheTestIgnoresOtherKeysAndTheRelease",
            true,
            {{otherProgram, XK_Shift_L},
             {otherProgram, XK_Shift_L, false},
             {window, XK_F8},
             {otherProgram, XK_Shift_R, false}},
            "listening, Right Shift"}),
    [](const auto& info) { return std::string(info.param.name); });

// The key just recorded is still on its way from the global source: its own press must not
// start an answer, however late it comes, and the silence ends on its release or after a while.
TEST(KeybindsPageSettleTest, TheRecordedKeyStaysSilentUntilItIsLetGoAndTheTestEndsOnTime)
{
    Page p;
    p.page.startKeyRecording();
    EXPECT_TRUE(p.page.handleLocalKey(XK_F8, true, u""_s));
    EXPECT_FALSE(p.page.isRecording());
    EXPECT_TRUE(p.settings.isTriggerSuppressed()) << "the late global press of F8";
    p.keys.typeKeysym(XK_F8, true);
    p.page.handleLocalKey(XK_F8, false, {}); // our own window's release is not the last word
    EXPECT_TRUE(p.settings.isTriggerSuppressed());
    p.keys.typeKeysym(XK_F8, false);
    EXPECT_FALSE(p.settings.isTriggerSuppressed());

    // The global source may have had both press and release before our window's press.
    p.page.startKeyRecording();
    p.keys.typeKeysym(XK_F7, true);
    p.keys.typeKeysym(XK_F7, false);
    p.page.handleLocalKey(XK_F7, true, {});
    EXPECT_FALSE(p.settings.isTriggerSuppressed());

    // A release that never comes ends the silence on the clock.
    p.page.startKeyRecording();
    p.page.handleLocalKey(XK_F9, true, {});
    EXPECT_EQ(p.page.triggerKeyName(), u"F9"_s);
    p.clock.advance(std::chrono::milliseconds(KeybindsPageViewModel::settleMaxMs - 1));
    EXPECT_TRUE(p.settings.isTriggerSuppressed());
    p.clock.advance(std::chrono::milliseconds(1));
    EXPECT_FALSE(p.settings.isTriggerSuppressed());

    // The key test hears the trigger key, F9 now, from another program and shows its success for
    // two seconds from the first press.
    p.page.startTest();
    p.keys.typeKeysym(XK_F9, true);
    EXPECT_TRUE(p.page.testSucceeded());
    EXPECT_EQ(p.page.statusKey(), u"keybinds.test_success"_s);
    p.clock.advance(std::chrono::milliseconds(1500));
    p.page.handleLocalKey(XK_F9, true, {}); // the same key again does not restart the time
    p.clock.advance(std::chrono::milliseconds(499));
    EXPECT_TRUE(p.page.isTesting());
    p.clock.advance(std::chrono::milliseconds(1));
    EXPECT_FALSE(p.page.isTesting());
    EXPECT_FALSE(p.settings.isTriggerSuppressed());
    EXPECT_EQ(p.page.statusKey(), QString());
}

} // namespace
