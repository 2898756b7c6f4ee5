#include "QtPrinters.h"
#include "AppStrings.h"

#include <QLocale>
#include <QRegularExpression>
#include <QSet>
#include <QSignalSpy>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

TEST(AppStringsTest, LanguageFollowsThePreferredLanguages)
{
    const struct { QStringList preferred; QString expected; } cases[] = {
        {{u"de-AT"_s, u"en"_s}, u"de"_s}, {{u"xx"_s, u"fr-CA"_s}, u"fr"_s}, {{u"xx"_s}, u"en"_s}, {{}, u"en"_s},
        {{u"ZH-TW"_s}, u"zh-tw"_s}, {{u"zh-Hant-HK"_s}, u"zh-tw"_s}, {{u"zh_TW"_s}, u"zh-tw"_s},
        {{u"zh-Hans-CN"_s}, u"zh"_s}, {{u"fil-PH"_s}, u"fil"_s}, {{u"fi-FI"_s, u"sv-SE"_s}, u"sv"_s},
        {{u"fi-FI"_s}, u"en"_s}, {{u"pt-BR"_s}, u"pt"_s}, {{u"AR-EG"_s}, u"ar"_s},
    };
    for (const auto& [preferred, expected] : cases)
        EXPECT_EQ(AppStrings::chooseLanguage(preferred), expected) << preferred.join(u',').toStdString();
}

TEST(AppStringsTest, LookupFallsBackToEnglishThenToTheKeyAndReplacesBrand)
{
    AppStrings ja({u"ja-JP"_s});
    EXPECT_EQ(ja.languageCode(), u"ja"_s);
    EXPECT_EQ(ja.text(u"mock.title"_s), u"Mock Interview"_s);
    const auto ready = ja.text(u"status.ready"_s);
    EXPECT_FALSE(ready.isEmpty());
    EXPECT_NE(ready, u"Ready"_s);
    EXPECT_EQ(ja.text(u"nonsense.key"_s), u"nonsense.key"_s);
    EXPECT_EQ(ja.text(u"{brand}.key"_s), u"RavletAI.key"_s) << "a missing key is its own text, brand and all";

    AppStrings en({u"en-US"_s});
    EXPECT_EQ(en.text(u"menu.quit"_s), u"Quit RavletAI"_s);
    EXPECT_FALSE(en.text(u"vm.missing_screen_permission"_s).contains(u"System Settings"_s))
        << "the system-audio texts speak of this desktop";
}

TEST(AppStringsTest, FormatFillsPlaceholdersInOrder)
{
    AppStrings en({u"en"_s});
    EXPECT_EQ(en.format(u"error.last_issue"_s, {u"12:00"_s, u"socket closed"_s}), u"Last issue (12:00): socket closed"_s);
    EXPECT_EQ(en.format(u"mock.meeting.progress"_s, {2, 5}), u"Question 2 of 5"_s);
    EXPECT_EQ(AppStrings::fill(u"100%% %d%@ %x"_s, {7, u"!"_s}), u"100% 7! %x"_s);
    EXPECT_EQ(AppStrings::fill(u"%@ and %@"_s, {u"one"_s}), u"one and "_s) << "a missing argument leaves nothing";
}

TEST(AppStringsTest, LanguageChangeNotifiesAndOnlyArabicIsRightToLeft)
{
    AppStrings strings({u"en"_s});
    QSignalSpy spy(&strings, &AppStrings::languageCodeChanged);
    strings.setLanguageCode(u"de"_s);
    strings.setLanguageCode(u"de"_s);
    EXPECT_EQ(spy.count(), 1);
    EXPECT_EQ(strings.text(u"status.recording"_s), AppStrings::table(u"de"_s).value(u"status.recording"_s));

    for (const auto& code : AppStrings::languageCodes()) {
        const bool arabic = code == u"ar";
        EXPECT_EQ(AppStrings({code}).isRightToLeft(), arabic) << code.toStdString();
        EXPECT_EQ(QLocale(code).textDirection() == Qt::RightToLeft, arabic)
            << code.toStdString() << ": the tables hold a right-to-left language other than Arabic";
    }
}

namespace {
QStringList placeholders(const QString& text)
{
    static const QRegularExpression pattern(u"%@|%d"_s);
    QStringList found;
    for (auto it = pattern.globalMatch(text); it.hasNext();)
        found.append(it.next().captured());
    return found;
}
} // namespace

TEST(AppStringsTest, EveryTableHoldsItsKeysWithEnglishPlaceholders)
{
    const auto& english = AppStrings::table(u"en"_s);
    ASSERT_EQ(english.size(), 177);
    for (const auto& code : AppStrings::languageCodes()) {
        SCOPED_TRACE(code.toStdString());
        const auto& table = AppStrings::table(code);
        auto expectedKeys = QSet<QString>(english.keyBegin(), english.keyEnd());
        if (code != u"en" && code != u"zh") {
            for (const auto& key : AppStrings::laterKeys())
                expectedKeys.remove(key);
        }
        const auto keys = QSet<QString>(table.keyBegin(), table.keyEnd());
        EXPECT_EQ(keys - expectedKeys, QSet<QString>()) << "keys English does not have, or later keys";
        EXPECT_EQ(expectedKeys - keys, QSet<QString>()) << "missing keys";

        int sameAsEnglish = 0;
        for (auto it = table.begin(); it != table.end(); ++it) {
            const auto englishText = english.value(it.key());
            EXPECT_FALSE(it.value().trimmed().isEmpty()) << it.key().toStdString();
            EXPECT_EQ(placeholders(it.value()), placeholders(englishText)) << it.key().toStdString();
            EXPECT_EQ(it.value().count(u"{brand}"_s), englishText.count(u"{brand}"_s)) << it.key().toStdString();
            sameAsEnglish += it.value() == englishText ? 1 : 0;
        }
        // Short labels such as "AI" may stay as they are; a table mostly in English was not translated.
        EXPECT_TRUE(code == u"en" || sameAsEnglish < table.size() / 5) << "looks untranslated: " << sameAsEnglish;
    }
}
