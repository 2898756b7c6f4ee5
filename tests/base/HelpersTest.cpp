#include "QtPrinters.h"
#include "Helpers.h"
#include "Json.h"

#include <QRegularExpression>
#include <QSet>
#include <QTimeZone>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

TEST(Iso8601Test, EachFormAcceptsOnlyItsOwnShape)
{
    const auto expected = QDateTime::fromMSecsSinceEpoch(1714566600250, QTimeZone::utc());
    EXPECT_EQ(parseIso8601(u"2024-05-01T12:30:00.250Z"_s, Iso8601::withFractionalSeconds), expected);
    EXPECT_EQ(parseIso8601(u"2024-05-01T14:30:00.25+02:00"_s, Iso8601::withFractionalSeconds), expected);
    EXPECT_EQ(parseIso8601(u"2024-05-01T07:30:00.250123-05:00"_s, Iso8601::withFractionalSeconds), expected);
    EXPECT_FALSE(parseIso8601(u"2024-05-01T12:30:00Z"_s, Iso8601::withFractionalSeconds));

    const auto whole = QDateTime::fromMSecsSinceEpoch(1714566600000, QTimeZone::utc());
    EXPECT_EQ(parseIso8601(u"2024-05-01T12:30:00Z"_s, Iso8601::withoutFractionalSeconds), whole);
    EXPECT_FALSE(parseIso8601(u"2024-05-01T12:30:00.250Z"_s, Iso8601::withoutFractionalSeconds));

    for (const auto& bad : {u"2024-05-01T12:30:00"_s, u"2024-05-01 12:30:00Z"_s, u"2024-13-01T12:30:00Z"_s,
                           u"2024-02-30T12:30:00Z"_s, u"yesterday"_s, u""_s, u"2024-05-01T12:30:00Z "_s}) {
        EXPECT_FALSE(parseBackendDate(bad)) << bad.toStdString();
    }
    EXPECT_EQ(parseBackendDate(u"2024-05-01T12:30:00Z"_s), whole);
    EXPECT_EQ(parseBackendDate(u"2024-05-01T12:30:00.250Z"_s), expected);
}

TEST(Iso8601Test, FormatsInUtcAndRoundTrips)
{
    const qint64 ms = 1714566600007;
    EXPECT_EQ(formatIso8601(ms, Iso8601::withFractionalSeconds), u"2024-05-01T12:30:00.007Z"_s);
    EXPECT_EQ(formatIso8601(ms, Iso8601::withoutFractionalSeconds), u"2024-05-01T12:30:00Z"_s);
    const auto local = QDateTime::fromMSecsSinceEpoch(ms, QTimeZone(3600 * 9));
    EXPECT_EQ(formatIso8601(local, Iso8601::withFractionalSeconds), u"2024-05-01T12:30:00.007Z"_s);
    EXPECT_EQ(parseBackendDate(formatIso8601(ms, Iso8601::withFractionalSeconds))->toMSecsSinceEpoch(), ms);
}

// Found by fuzzing: a "\\ud800" escape in a vendor's JSON gave a segment with half a character.
TEST(ValidUnicodeTest, UnpairedSurrogatesBecomeReplacementCharacters)
{
    // UTF-16 units as they stand, half characters included.
    const auto units = [](std::initializer_list<char16_t> list) {
        return QString(reinterpret_cast<const QChar*>(list.begin()), qsizetype(list.size()));
    };
    const char16_t high = 0xD83D, low = 0xDE00, bad = 0xFFFD;
    const struct {
        QString in, out;
    } cases[] = {
        {u"plain text"_s, u"plain text"_s},
        {units({u'a', high, low, u'b'}), units({u'a', high, low, u'b'})}, // a whole pair stays
        {units({u'a', high, u'b'}), units({u'a', bad, u'b'})},
        {units({u'a', low, u'b'}), units({u'a', bad, u'b'})},
        {units({low, high}), units({bad, bad})},
        {units({u'x', high}), units({u'x', bad})}, // cut at the end
    };
    for (const auto& c : cases) {
        EXPECT_EQ(withValidUnicode(c.in), c.out);
        EXPECT_EQ(QString::fromUtf8(withValidUnicode(c.in).toUtf8()), c.out);
    }
}

TEST(UuidTest, CanonicalTextInBothCasesAndFreshEachTime)
{
    static const QRegularExpression upper(u"^[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}$"_s);
    static const QRegularExpression lower(u"^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$"_s);
    QSet<QString> seen;
    for (int i = 0; i < 100; ++i) {
        const auto u = uuidUpper();
        const auto l = uuidLower();
        EXPECT_TRUE(upper.match(u).hasMatch()) << u.toStdString();
        EXPECT_TRUE(lower.match(l).hasMatch()) << l.toStdString();
        seen.insert(u.toLower());
        seen.insert(l);
    }
    EXPECT_EQ(seen.size(), 200);
}

TEST(JsonTest, StrictTypesAndAbsentVersusNull)
{
    const auto object = Json::parseObject(R"({"n": 5, "f": 5.5, "big": 9007199254740993, "s": "5", "z": null, "b": true})");
    EXPECT_EQ(Json::requireInt64(object, u"n"_s), 5);
    EXPECT_EQ(Json::requireInt64(object, u"big"_s), 9007199254740993LL) << "integers keep all 64 bits";
    EXPECT_THROW(Json::requireInt64(object, u"f"_s), DecodingError);
    EXPECT_THROW(Json::requireInt64(object, u"s"_s), DecodingError);
    EXPECT_THROW(Json::requireString(object, u"n"_s), DecodingError);
    EXPECT_THROW(Json::requireBool(object, u"n"_s), DecodingError);
    EXPECT_THROW(Json::requireString(object, u"z"_s), DecodingError);
    EXPECT_FALSE(Json::optionalString(object, u"z"_s));
    EXPECT_FALSE(Json::optionalString(object, u"missing"_s));
    EXPECT_THROW(Json::optionalString(object, u"n"_s), DecodingError) << "present but wrong type";
    EXPECT_EQ(Json::requireDouble(object, u"n"_s), 5.0);

    EXPECT_THROW(Json::parseObject("[1]"), DecodingError);
    EXPECT_THROW(Json::parseObject(R"({"a": )"), DecodingError);
    EXPECT_THROW(Json::parseObject(""), DecodingError);

    try {
        Json::requireDate(Json::parseObject(R"({"d": "soon"})"), u"d"_s);
        FAIL() << "no error";
    } catch (const DecodingError& e) {
        EXPECT_EQ(e.message(), u"Invalid date: soon"_s);
    }
}
