#include "Helpers.h"
#include "Json.h"
#include "QtPrinters.h"

#include <QTimeZone>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

// Each form accepts only its own shape; the backend's dates may take either. What is written is
// UTC.
TEST(Iso8601Test, ParsesEachFormAndFormatsInUtc)
{
    const std::optional<qint64> fraction = 1714566600250, whole = 1714566600000, none;
    const auto ms = [](const std::optional<QDateTime>& date) {
        return date ? std::optional(date->toMSecsSinceEpoch()) : std::nullopt;
    };
    const std::tuple<QString, std::optional<qint64>, std::optional<qint64>, std::optional<qint64>>
        cases[] = {
            // text, with fractional seconds, without, backend
            {u"2024-05-01T12:30:00.250Z"_s, fraction, none, fraction},
            {u"2024-05-01T14:30:00.25+02:00"_s, fraction, none, fraction},
            {u"2024-05-01T07:30:00.250123-05:00"_s, fraction, none, fraction},
            {u"2024-05-01T12:30:00Z"_s, none, whole, whole},
            {u"2024-05-01T12:30:00"_s, none, none, none},
            {u"2024-05-01 12:30:00Z"_s, none, none, none},
            {u"2024-02-30T12:30:00Z"_s, none, none, none},
            {u"2024-05-01T12:30:00Z "_s, none, none, none},
        };
    for (const auto& [text, withFraction, withoutFraction, backend] : cases) {
        EXPECT_EQ(ms(parseIso8601(text, Iso8601::withFractionalSeconds)), withFraction)
            << text.toStdString();
        EXPECT_EQ(ms(parseIso8601(text, Iso8601::withoutFractionalSeconds)), withoutFraction)
            << text.toStdString();
        EXPECT_EQ(ms(parseBackendDate(text)), backend) << text.toStdString();
    }
    const auto local = QDateTime::fromMSecsSinceEpoch(1714566600007, QTimeZone(3600 * 9));
    EXPECT_EQ(formatIso8601(local, Iso8601::withFractionalSeconds), u"2024-05-01T12:30:00.007Z"_s);
    EXPECT_EQ(formatIso8601(1714566600007, Iso8601::withoutFractionalSeconds),
              u"2024-05-01T12:30:00Z"_s);
}

// (A wrong type, a missing key and a bad date in a record, with their messages, are the records
// test's.)
TEST(JsonTest, AbsentVersusNullAndWholeIntegers)
{
    const auto object = Json::parseObject(R"({"n": 5, "big": 9007199254740993, "z": null})");
    EXPECT_EQ(Json::requireInt64(object, u"big"_s), 9007199254740993LL)
        << "integers keep all 64 bits";
    EXPECT_THROW(Json::requireString(object, u"z"_s), DecodingError);
    EXPECT_FALSE(Json::optionalString(object, u"z"_s));
    EXPECT_FALSE(Json::optionalString(object, u"missing"_s));
    EXPECT_THROW(Json::optionalString(object, u"n"_s), DecodingError) << "present but wrong type";
    EXPECT_THROW(Json::parseObject("[1]"), DecodingError);
}
