#include "QtPrinters.h"
#include "Json.h"
#include "Records.h"

#include <QJsonDocument>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {
QJsonObject fullSession()
{
    return Json::parseObject(R"({
        "id": "s-1", "title": "Onsite", "company": "Acme", "role": "SRE",
        "languageInput": "en-US", "languageOutput": "de-DE",
        "startedAt": "2024-05-01T12:30:00.250Z", "endedAt": "2024-05-01T13:00:00Z",
        "durationSeconds": 1800, "status": "completed", "unrelated": [1, 2]
    })");
}

QJsonObject without(QJsonObject object, const QString& key)
{
    object.remove(key);
    return object;
}

QJsonObject with(QJsonObject object, const QString& key, const QJsonValue& value)
{
    object.insert(key, value);
    return object;
}
} // namespace

TEST(InterviewSessionTest, DecodesEveryFieldAndRoundTrips)
{
    const auto session = InterviewSession::fromJson(fullSession());
    EXPECT_EQ(session.id, u"s-1"_s);
    EXPECT_EQ(session.title, u"Onsite"_s);
    EXPECT_EQ(session.company, u"Acme"_s);
    EXPECT_EQ(session.role, u"SRE"_s);
    EXPECT_EQ(session.languageOutput, u"de-DE"_s);
    EXPECT_EQ(session.startedAt.toMSecsSinceEpoch(), 1714566600250);
    EXPECT_EQ(session.endedAt->toMSecsSinceEpoch(), 1714568400000);
    EXPECT_EQ(session.durationSeconds, 1800);
    EXPECT_EQ(session.status, InterviewSession::SessionStatus::completed);
    EXPECT_EQ(InterviewSession::fromJson(session.toJson()), session);
}

TEST(InterviewSessionTest, OptionalFieldsMayBeAbsentOrNull)
{
    auto object = fullSession();
    for (const auto& key : {u"title"_s, u"company"_s, u"role"_s, u"endedAt"_s, u"durationSeconds"_s})
        object.remove(key);
    auto session = InterviewSession::fromJson(object);
    EXPECT_FALSE(session.title || session.company || session.role || session.endedAt || session.durationSeconds);
    EXPECT_FALSE(session.toJson().contains(u"endedAt"_s)) << "absent fields stay absent when encoded";

    session = InterviewSession::fromJson(with(fullSession(), u"endedAt"_s, QJsonValue::Null));
    EXPECT_FALSE(session.endedAt);
}

struct BadSession {
    const char* name;
    QJsonObject object;
    QString message; // empty: any message
};

class InterviewSessionDecodingTest : public ::testing::TestWithParam<BadSession> {};

TEST_P(InterviewSessionDecodingTest, Fails)
{
    try {
        InterviewSession::fromJson(GetParam().object);
        FAIL() << "decoded";
    } catch (const DecodingError& e) {
        if (!GetParam().message.isEmpty()) {
            EXPECT_EQ(e.message(), GetParam().message);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Cases, InterviewSessionDecodingTest,
    ::testing::Values(
        BadSession{"NoLanguageInput", without(fullSession(), u"languageInput"_s), {}},
        BadSession{"NoStatus", without(fullSession(), u"status"_s), {}},
        BadSession{"NoId", without(fullSession(), u"id"_s), {}},
        BadSession{"UnknownStatus", with(fullSession(), u"status"_s, u"archived"_s), {}},
        BadSession{"StatusInCapitals", with(fullSession(), u"status"_s, u"Active"_s), {}},
        BadSession{"NumericId", with(fullSession(), u"id"_s, 12), {}},
        BadSession{"FractionalDuration", with(fullSession(), u"durationSeconds"_s, 1.5), {}},
        BadSession{"BadDate", with(fullSession(), u"startedAt"_s, u"2024-05-01"_s), u"Invalid date: 2024-05-01"_s},
        BadSession{"BadOptionalDate", with(fullSession(), u"endedAt"_s, u"later"_s), u"Invalid date: later"_s},
        BadSession{"DateAsNumber", with(fullSession(), u"startedAt"_s, 1714566600), {}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(TranscriptEntryTest, ConfidenceAbsentDecodesAbsentButUploadsAsZero)
{
    const auto object = Json::parseObject(
        R"({"id": "E1", "speaker": "user", "content": "hi", "timestampMs": 1714566600250, "isFinal": true})");
    const auto entry = TranscriptEntry::fromJson(object);
    EXPECT_FALSE(entry.confidence);
    EXPECT_EQ(entry.speaker, TranscriptEntry::Speaker::user);
    EXPECT_EQ(entry.timestampMs, 1714566600250);
    EXPECT_FALSE(entry.toJson().contains(u"confidence"_s));

    const auto upload = entry.uploadForm();
    EXPECT_EQ(upload.keys(), (QStringList{u"confidence"_s, u"content"_s, u"id"_s, u"speaker"_s, u"timestampMs"_s}));
    EXPECT_TRUE(upload.value(u"confidence"_s).isDouble());
    EXPECT_EQ(upload.value(u"confidence"_s).toDouble(), 0.0);
    EXPECT_EQ(upload.value(u"speaker"_s).toString(), u"user"_s);
    EXPECT_EQ(upload.value(u"timestampMs"_s).toInteger(), 1714566600250);

    auto withConfidence = entry;
    withConfidence.confidence = 0.92;
    EXPECT_EQ(withConfidence.uploadForm().value(u"confidence"_s).toDouble(), 0.92);
    EXPECT_EQ(TranscriptEntry::fromJson(withConfidence.toJson()), withConfidence);

    EXPECT_EQ(entry.contextForm(), (QJsonObject{{u"speaker"_s, u"user"_s}, {u"content"_s, u"hi"_s}}));
}

TEST(TranscriptEntryTest, RejectsUnknownSpeakerAndWrongTypes)
{
    const auto base = Json::parseObject(
        R"({"id": "E1", "speaker": "interviewer", "content": "hi", "timestampMs": 5, "isFinal": false})");
    EXPECT_NO_THROW(TranscriptEntry::fromJson(base));
    EXPECT_THROW(TranscriptEntry::fromJson(with(base, u"speaker"_s, u"assistant"_s)), DecodingError);
    EXPECT_THROW(TranscriptEntry::fromJson(with(base, u"isFinal"_s, 1)), DecodingError);
    EXPECT_THROW(TranscriptEntry::fromJson(with(base, u"timestampMs"_s, u"5"_s)), DecodingError);
    EXPECT_THROW(TranscriptEntry::fromJson(with(base, u"confidence"_s, u"high"_s)), DecodingError);
    EXPECT_THROW(TranscriptEntry::fromJson(without(base, u"content"_s)), DecodingError);
}
