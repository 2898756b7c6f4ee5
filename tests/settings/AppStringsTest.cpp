#include "AppStrings.h"
#include "QtPrinters.h"

#include <QLocale>
#include <QRegularExpression>
#include <QSet>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

TEST(AppStringsTest, LanguageFollowsThePreferredLanguagesAndLookupFallsBack)
{
    const struct {
        QStringList preferred;
        QString expected;
    } cases[] = {
        {{u"de-AT"_s, u"en"_s}, u"de"_s},
        {{u"xx"_s, u"fr-CA"_s}, u"fr"_s},
        {{}, u"en"_s},
        {{u"ZH-TW"_s}, u"zh-tw"_s},
        {{u"zh-Hant-HK"_s}, u"zh-tw"_s},
        {{u"zh_TW"_s}, u"zh-tw"_s},
        {{u"zh-Hans-CN"_s}, u"zh"_s},
        {{u"fil-PH"_s}, u"fil"_s},
        {{u"fi-FI"_s}, u"en"_s},
    };
    for (const auto& [preferred, expected] : cases)
        EXPECT_EQ(AppStrings::chooseLanguage(preferred), expected)
            << preferred.join(u',').toStdString();

    // A key the language lacks is English's; a key nobody has is its own text, brand and all.
    AppStrings ja({u"ja-JP"_s});
    EXPECT_EQ(ja.text(u"mock.title"_s), u"Mock Interview"_s);
    EXPECT_EQ(ja.text(u"status.ready"_s), AppStrings::table(u"ja"_s).value(u"status.ready"_s));
    EXPECT_EQ(ja.text(u"{brand}.key"_s), u"RavletAI.key"_s);
    ja.setLanguageCode(u"en"_s);
    EXPECT_EQ(ja.text(u"menu.quit"_s), u"Quit RavletAI"_s);
    EXPECT_FALSE(ja.text(u"vm.missing_screen_permission"_s).contains(u"System Settings"_s))
        << "the system-audio texts speak of this desktop";

    EXPECT_EQ(ja.format(u"mock.meeting.progress"_s, {2, 5}), u"Question 2 of 5"_s);
    EXPECT_EQ(AppStrings::fill(u"100%% %d%@ %x"_s, {7, u"!"_s}), u"100% 7! %x"_s);
    EXPECT_EQ(AppStrings::fill(u"%@ and %@"_s, {u"one"_s}), u"one and "_s)
        << "a missing argument leaves nothing";
}

// Every table holds English's keys (less the later ones, which only some have) with English's
// placeholders, mostly translated; only Arabic reads right to left.
TEST(AppStringsTest, EveryTableIsComplete)
{
    // A text's %@ and %d in their order, the rest dropped.
    static const QRegularExpression otherThanPlaceholders(
        u"(%[@d])|."_s, QRegularExpression::DotMatchesEverythingOption);
    const auto placeholders = [](QString text) {
        return text.replace(otherThanPlaceholders, u"\\1"_s);
    };
    const auto& english = AppStrings::table(u"en"_s);
    ASSERT_EQ(english.size(), 203);
    for (const auto& code : AppStrings::languageCodes()) {
        SCOPED_TRACE(code.toStdString());
        const auto& table = AppStrings::table(code);
        auto expectedKeys = QSet<QString>(english.keyBegin(), english.keyEnd());
        if (code != u"en" && code != u"zh") {
            for (const auto& key : AppStrings::laterKeys())
                expectedKeys.remove(key);
        }
        EXPECT_EQ(QSet<QString>(table.keyBegin(), table.keyEnd()), expectedKeys);

        int sameAsEnglish = 0;
        for (auto it = table.begin(); it != table.end(); ++it) {
            const auto englishText = english.value(it.key());
            EXPECT_FALSE(it.value().trimmed().isEmpty()) << it.key().toStdString();
            EXPECT_EQ(placeholders(it.value()), placeholders(englishText))
                << it.key().toStdString();
            EXPECT_EQ(it.value().count(u"{brand}"_s), englishText.count(u"{brand}"_s))
                << it.key().toStdString();
            sameAsEnglish += it.value() == englishText ? 1 : 0;
        }
        // Short labels such as "AI" may stay as they are; a table mostly in English was not
        // translated.
        EXPECT_TRUE(code == u"en" || sameAsEnglish < table.size() / 5)
            << "looks untranslated: " << sameAsEnglish;
        const bool arabic = code == u"ar";
        EXPECT_EQ(AppStrings({code}).isRightToLeft(), arabic);
        EXPECT_EQ(QLocale(code).textDirection() == Qt::RightToLeft, arabic)
            << "a right-to-left language other than Arabic";
    }
}
