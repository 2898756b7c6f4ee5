#include "UserSettings.h"
#include "NotificationCenter.h"
#include "PreferencesStore.h"
#include "QtPrinters.h"

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using Keys = UserSettings::Keys;

// Missing values and values of the wrong kind give the defaults, not zero; numbers are taken as
// stored, with no clamp here (the sliders enforce ranges). (That every setting reads back as
// written, through the file, is the fuzz target's.)
TEST(UserSettingsTest, DefaultsForWhatIsMissingOrOfAnotherKind)
{
    PreferencesStore store;
    NotificationCenter notifications;
    for (const auto& [key, value] : std::initializer_list<std::pair<QString, PreferenceValue>>{
             {Keys::overlayOpacity, u"0.5"_s},
             {Keys::autoTriggerAIAnswers, u"true"_s},
             {Keys::inputLanguage, 1.0},
             {Keys::activeResumeId, true},
             {Keys::overlayFontSize, 30.0},
             {Keys::sendAnonymousTelemetry, qint64(0)}})
        store.setValue(key, value);
    UserSettings settings(store, notifications);
    EXPECT_EQ((QStringList{settings.inputLanguage(), settings.outputLanguage()}),
              (QStringList{u"en-US"_s, u"en-US"_s}));
    EXPECT_EQ(std::pair(settings.overlayOpacity(), settings.overlayFontSize()),
              std::pair(0.85, 30.0));
    EXPECT_FALSE(settings.autoTriggerAIAnswers() || settings.activeResumeId());
    EXPECT_FALSE(settings.sendAnonymousTelemetry()) << "a stored 0 casts to false";

    settings.setTriggerSuppressed(true);
    EXPECT_FALSE(UserSettings(store, notifications).isTriggerSuppressed()) << "kept in memory only";
}

// The stored key, else an older version's name for it, else Right Shift; read without writing.
// (How a key is recorded, named and blocked runs in the keybinds page test.)
TEST(UserSettingsTest, TriggerKeyFallsBackFromV2ToLegacyToDefaultAndIsStoredAsV2)
{
    NotificationCenter notifications;
    const AITriggerKey rightShift{60, true, 131072, u"Right Shift"_s};
    const AITriggerKey rightOption{61, true, 524288, u"Right Option"_s};
    const AITriggerKey rightControl{62, true, 262144, u"Right Control"_s};
    const AITriggerKey f1{122, false, std::nullopt, u"F1"_s};
    const struct {
        std::optional<QByteArray> v2;
        std::optional<QString> legacy;
        AITriggerKey expected;
    } cases[] = {
        {{}, {}, rightShift},
        {R"({"keyCode":122,"isModifier":false,"displayName":"F1"})", u"rightOption"_s, f1},
        {R"({"keyCode":62,"isModifier":true,"modifierFlag":262144,"displayName":"Right Control"})",
         {},
         rightControl},
        {"{not json", u"rightOption"_s, rightOption},
        {R"({"keyCode":122,"isModifier":false})", u"rightOption"_s, rightOption}, // no name
        {R"({"keyCode":70000,"isModifier":false,"displayName":"x"})", {}, rightShift},
        {{}, u"rightCommand"_s, AITriggerKey{54, true, 1048576, u"Right Command"_s}},
        {{}, u"rightControl"_s, rightControl},
        {{}, u"leftControl"_s, rightShift},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("row " + std::to_string(&c - cases));
        PreferencesStore fresh;
        if (c.v2)
            fresh.setBytes(Keys::aiTriggerKey, *c.v2);
        if (c.legacy)
            fresh.setString(Keys::legacyAITriggerKey, *c.legacy);
        const auto keysBefore = fresh.keys();
        EXPECT_EQ(UserSettings(fresh, notifications).aiTriggerKey(), c.expected);
        EXPECT_EQ(fresh.keys(), keysBefore) << "nothing is written back while loading";
    }

    // Assigned: stored as v2 without an absent flag, posted every time (the key monitors are
    // installed anew), the old key left alone for an older version.
    PreferencesStore store;
    store.setString(Keys::legacyAITriggerKey, u"rightOption"_s);
    UserSettings settings(store, notifications);
    int posts = 0;
    notifications.addObserver(Notifications::aiTriggerKeyChanged, nullptr,
                              [&](const Notification&) { ++posts; });
    settings.setAITriggerKey(f1);
    settings.setAITriggerKey(f1);
    EXPECT_EQ(posts, 2);
    EXPECT_FALSE(store.bytes(Keys::aiTriggerKey)->contains("modifierFlag"));
    EXPECT_EQ(store.string(Keys::legacyAITriggerKey), u"rightOption"_s);
}
