#include "QtPrinters.h"
#include "NotificationCenter.h"
#include "PreferencesStore.h"
#include "UserSettings.h"

#include <QSignalSpy>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using Keys = UserSettings::Keys;

class UserSettingsTest : public ::testing::Test {
protected:
    std::unique_ptr<UserSettings> load() { return std::make_unique<UserSettings>(store, notifications); }

    PreferencesStore store;
    NotificationCenter notifications;
};

TEST_F(UserSettingsTest, MissingValuesAndValuesOfTheWrongKindGiveDefaultsNotZero)
{
    store.setString(Keys::overlayOpacity, u"0.5"_s);
    store.setString(Keys::autoTriggerAIAnswers, u"true"_s);
    store.setDouble(Keys::inputLanguage, 1.0);
    store.setBool(Keys::activeResumeId, true);
    auto settings = load();
    EXPECT_EQ(settings->inputLanguage(), u"en-US"_s);
    EXPECT_EQ(settings->outputLanguage(), u"en-US"_s);
    EXPECT_EQ(settings->overlayOpacity(), 0.85);
    EXPECT_EQ(settings->overlayFontSize(), 14.0);
    EXPECT_FALSE(settings->autoTriggerAIAnswers());
    EXPECT_TRUE(settings->sendAnonymousTelemetry());
    EXPECT_FALSE(settings->activeResumeId());
    EXPECT_FALSE(settings->activeJobDescriptionId());

    // Numbers are taken as stored, with no clamp here (the sliders enforce ranges).
    store.setDouble(Keys::overlayOpacity, 5.0);
    store.setDouble(Keys::overlayFontSize, 30.0);
    store.setInteger(Keys::sendAnonymousTelemetry, 0);
    settings = load();
    EXPECT_EQ(settings->overlayOpacity(), 5.0);
    EXPECT_EQ(settings->overlayFontSize(), 30.0);
    EXPECT_FALSE(settings->sendAnonymousTelemetry()) << "a stored 0 casts to false";
}

TEST_F(UserSettingsTest, AssignmentsPersistAndNotifyOnlyOnChangeButAlwaysWrite)
{
    QTemporaryDir dir;
    const auto path = dir.filePath(u"preferences.json"_s);
    {
        JsonPreferencesStore file(path);
        UserSettings settings(file, notifications);
        QSignalSpy opacity(&settings, &UserSettings::overlayOpacityChanged);
        settings.setOverlayOpacity(0.85); // equal to the default: no signal, but written
        EXPECT_EQ(opacity.count(), 0);
        EXPECT_EQ(file.number(Keys::overlayOpacity), 0.85);
        settings.setOverlayOpacity(0.4);
        EXPECT_EQ(opacity.count(), 1);
        settings.setInputLanguage(u"ja-JP"_s);
        settings.setAutoTriggerAIAnswers(true);
        settings.setSendAnonymousTelemetry(false);
        settings.setOverlayFontSize(18);
        settings.setActiveResumeId(u"r-1"_s);
        settings.setActiveJobDescriptionId(u"jd-1"_s);
        settings.setActiveJobDescriptionId(std::nullopt);
        EXPECT_FALSE(file.contains(Keys::activeJobDescriptionId)) << "assigning nothing removes the key";
        settings.setTriggerSuppressed(true);
    }
    JsonPreferencesStore file(path);
    UserSettings settings(file, notifications);
    EXPECT_EQ(settings.overlayOpacity(), 0.4);
    EXPECT_EQ(settings.inputLanguage(), u"ja-JP"_s);
    EXPECT_TRUE(settings.autoTriggerAIAnswers());
    EXPECT_FALSE(settings.sendAnonymousTelemetry());
    EXPECT_EQ(settings.overlayFontSize(), 18.0);
    EXPECT_EQ(settings.activeResumeId(), u"r-1"_s);
    EXPECT_FALSE(settings.activeJobDescriptionId());
    EXPECT_FALSE(settings.isTriggerSuppressed()) << "kept in memory only";
}

TEST_F(UserSettingsTest, TriggerKeyFallsBackFromV2ToLegacyToDefault)
{
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
        {"V2WithFlag", R"({"keyCode":62,"isModifier":true,"modifierFlag":262144,"displayName":"Right Control"})", {},
         rightControl},
        {"InvalidV2LegacyOption", "{not json", u"rightOption"_s, rightOption},
        {"V2MissingDisplayName", R"({"keyCode":122,"isModifier":false})", u"rightOption"_s, rightOption},
        {"V2KeyCodeOutOfRange", R"({"keyCode":70000,"isModifier":false,"displayName":"x"})", {}, rightShift},
        {"LegacyControl", {}, u"rightControl"_s, rightControl},
        {"LegacyCommand", {}, u"rightCommand"_s, AITriggerKey{54, true, 1048576, u"Right Command"_s}},
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
}

TEST_F(UserSettingsTest, AssigningTriggerKeyStoresV2AndPostsEveryTime)
{
    store.setString(Keys::legacyAITriggerKey, u"rightOption"_s);
    const auto settings = load();
    int posts = 0;
    notifications.addObserver(Notifications::aiTriggerKeyChanged, nullptr, [&](const Notification& n) {
        ++posts;
        EXPECT_FALSE(n.object.isValid());
    });
    const AITriggerKey f5{96, false, std::nullopt, u"F5"_s};
    settings->setAITriggerKey(f5);
    settings->setAITriggerKey(f5);
    EXPECT_EQ(posts, 2);
    EXPECT_EQ(AITriggerKey::fromJson(*store.bytes(Keys::aiTriggerKey)), f5);
    EXPECT_FALSE(store.bytes(Keys::aiTriggerKey)->contains("modifierFlag")) << "an absent flag is left out";
    EXPECT_EQ(store.string(Keys::legacyAITriggerKey), u"rightOption"_s) << "the old key is never removed";
    EXPECT_EQ(load()->aiTriggerKey(), f5);
}

TEST(KeyTablesTest, DisplayNamesFlagsAndBlockedKeys)
{
    EXPECT_EQ(UserSettings::keyDisplayName(60, u"x"_s), u"Right Shift"_s) << "a table name wins over the characters";
    EXPECT_EQ(UserSettings::keyDisplayName(113, std::nullopt), u"F15"_s) << "function keys after modifiers";
    EXPECT_EQ(UserSettings::keyDisplayName(50, std::nullopt), u"Grave (`)"_s);
    EXPECT_EQ(UserSettings::keyDisplayName(0, u"a"_s), u"A"_s);
    EXPECT_EQ(UserSettings::keyDisplayName(10, std::nullopt), u"Key 10"_s);
    EXPECT_EQ(UserSettings::keyDisplayName(10, QString()), u"Key 10"_s);

    EXPECT_FALSE(UserSettings::modifierFlagForKeyCode(57)) << "Caps Lock has no flag, inside the range";
    EXPECT_FALSE(UserSettings::modifierFlagForKeyCode(64));
    // Every named modifier has the flag of its family.
    for (const auto& [code, name] : UserSettings::modifierKeyNames())
        EXPECT_TRUE(UserSettings::modifierFlagForKeyCode(code)) << name.toStdString();

    EXPECT_TRUE(UserSettings::isBlockedTriggerKey(55)) << "Left Command is blocked";
    EXPECT_FALSE(UserSettings::isBlockedTriggerKey(54)) << "Right Command is allowed";
    EXPECT_FALSE(UserSettings::isBlockedTriggerKey(60));

    EXPECT_EQ(speechProviderFromText(u"deepgram"), SpeechProvider::deepgram);
    EXPECT_FALSE(speechProviderFromText(u"Deepgram"));
}
