#include "UserSettings.h"
#include "NotificationCenter.h"
#include "PreferencesStore.h"
#include "QtPrinters.h"

#include <QSignalSpy>

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

    // A change is written and signalled; an equal value is written but not signalled.
    QSignalSpy opacity(&settings, &UserSettings::overlayOpacityChanged);
    settings.setOverlayOpacity(0.85);
    EXPECT_EQ(store.number(Keys::overlayOpacity), 0.85);
    settings.setOverlayOpacity(0.4);
    EXPECT_EQ(opacity.count(), 1);
    settings.setTriggerSuppressed(true);
    EXPECT_FALSE(UserSettings(store, notifications).isTriggerSuppressed()) << "kept in memory only";
}

TEST(UserSettingsTest, TriggerKeyFallsBackFromV2ToLegacyToDefaultAndIsStoredAsV2)
{
    NotificationCenter notifications;
    const AITriggerKey rightShift{60, true, 131072, u"Right Shift"_s};
    const AITriggerKey rightOption{61, true, 524288, u"Right Option"_s};
    const AITriggerKey rightControl{62, true, 262144, u"Right Control"_s};
    const struct {
        const char* name;
        std::optional<QByteArray> v2;
        std::optional<QString> legacy;
        AITriggerKey expected;
    } cases[] = {
        {"Nothing", {}, {}, rightShift},
        {"V2", R"({"keyCode":122,"isModifier":false,"displayName":"F1"})", u"rightOption"_s,
         AITriggerKey{122, false, std::nullopt, u"F1"_s}},
        {"V2WithFlag",
         R"({"keyCode":62,"isModifier":true,"modifierFlag":262144,"displayName":"Right Control"})",
         {},
         rightControl},
        {"InvalidV2LegacyOption", "{not json", u"rightOption"_s, rightOption},
        {"V2MissingDisplayName", R"({"keyCode":122,"isModifier":false})", u"rightOption"_s,
         rightOption},
        {"V2KeyCodeOutOfRange",
         R"({"keyCode":70000,"isModifier":false,"displayName":"x"})",
         {},
         rightShift},
        {"LegacyCommand",
         {},
         u"rightCommand"_s,
         AITriggerKey{54, true, 1048576, u"Right Command"_s}},
        {"LegacyControl", {}, u"rightControl"_s, rightControl},
        {"LegacyUnknown", {}, u"leftControl"_s, rightShift},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        PreferencesStore fresh;
        if (c.v2)
            fresh.setBytes(Keys::aiTriggerKey, *c.v2);
        if (c.legacy)
            fresh.setString(Keys::legacyAITriggerKey, *c.legacy);
        const auto keysBefore = fresh.keys();
        EXPECT_EQ(UserSettings(fresh, notifications).aiTriggerKey(), c.expected);
        EXPECT_EQ(fresh.keys(), keysBefore) << "nothing is written back while loading";
    }

    // Assigned: stored as v2 without an absent flag, posted every time, the old key left alone.
    PreferencesStore store;
    store.setString(Keys::legacyAITriggerKey, u"rightOption"_s);
    UserSettings settings(store, notifications);
    int posts = 0;
    notifications.addObserver(Notifications::aiTriggerKeyChanged, nullptr,
                              [&](const Notification&) { ++posts; });
    const AITriggerKey f5{96, false, std::nullopt, u"F5"_s};
    settings.setAITriggerKey(f5);
    settings.setAITriggerKey(f5);
    EXPECT_EQ(posts, 2);
    EXPECT_FALSE(store.bytes(Keys::aiTriggerKey)->contains("modifierFlag"));
    EXPECT_EQ(store.string(Keys::legacyAITriggerKey), u"rightOption"_s);
    EXPECT_EQ(UserSettings(store, notifications).aiTriggerKey(), f5);
}

TEST(KeyTablesTest, DisplayNamesFlagsAndBlockedKeys)
{
    // A table name wins over the characters.
    EXPECT_EQ((QStringList{UserSettings::keyDisplayName(60, u"x"_s),
                           UserSettings::keyDisplayName(0, u"a"_s),
                           UserSettings::keyDisplayName(10, QString())}),
              (QStringList{u"Right Shift"_s, u"A"_s, u"Key 10"_s}));
    EXPECT_FALSE(UserSettings::modifierFlagForKeyCode(57))
        << "Caps Lock has no flag, inside the range";
    EXPECT_TRUE(UserSettings::isBlockedTriggerKey(55) && !UserSettings::isBlockedTriggerKey(54))
        << "only Left Command is blocked";
}
