#include "Records.h"
#include "Json.h"
#include "QtPrinters.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {
const QJsonObject fullSession = Json::parseObject(R"({
    "id": "s-1", "title": "Onsite", "company": "Acme", "role": "SRE",
    "languageInput": "en-US", "languageOutput": "de-DE",
    "startedAt": "2024-05-01T12:30:00.250Z", "endedAt": "2024-05-01T13:00:00Z",
    "durationSeconds": 1800, "status": "completed", "unrelated": [1, 2]
})");
const QJsonObject entry = Json::parseObject(
    R"({"id": "E1", "speaker": "user", "content": "hi", "timestampMs": 1714566600250, "isFinal": true})");

// The object with `key` set to `value`, or removed when no value is given.
QJsonObject with(QJsonObject object, const QString& key,
                 const QJsonValue& value = QJsonValue::Undefined)
{
    object.insert(key, value);
    return object;
}
} // namespace

// Every field is read under its own name (the fuzz target's round trip cannot see a name both
// directions get wrong); optional ones absent or null stay absent, also when written again.
TEST(RecordsTest, SessionReadsEveryFieldAndLeavesOptionalOnesAbsent)
{
    const auto session = InterviewSession::fromJson(fullSession);
    EXPECT_EQ((QStringList{session.id, *session.title, *session.company, *session.role,
                           session.languageInput, session.languageOutput}),
              (QStringList{u"s-1"_s, u"Onsite"_s, u"Acme"_s, u"SRE"_s, u"en-US"_s, u"de-DE"_s}));
    EXPECT_EQ((QList<qint64>{session.startedAt.toMSecsSinceEpoch(),
                             session.endedAt->toMSecsSinceEpoch(), *session.durationSeconds}),
              (QList<qint64>{1714566600250, 1714568400000, 1800}));
    EXPECT_EQ(session.status, InterviewSession::SessionStatus::completed);

    auto object = with(fullSession, u"endedAt"_s, QJsonValue::Null);
    for (const auto& key : {u"title"_s, u"company"_s, u"role"_s, u"durationSeconds"_s})
        object.remove(key);
    const auto bare = InterviewSession::fromJson(object);
    EXPECT_FALSE(bare.title || bare.company || bare.role || bare.endedAt || bare.durationSeconds);
    EXPECT_FALSE(bare.toJson().contains(u"endedAt"_s));
}

// A field missing, of the wrong type or with an unknown value refuses the whole record.
TEST(RecordsTest, RefuseMissingFieldsWrongTypesAndUnknownValues)
{
    const struct {
        bool session; // else a transcript entry
        const char* key;
        QJsonValue value;
        QString message; // empty: any message
    } cases[] = {
        {true, "languageInput", QJsonValue::Undefined, {}},
        {true, "id", QJsonValue::Undefined, {}},
        {true, "status", u"archived"_s, {}},
        {true, "status", u"Active"_s, {}},
        {true, "durationSeconds", 1.5, {}},
        {true, "startedAt", u"2024-05-01"_s, u"Invalid date: 2024-05-01"_s},
        {true, "endedAt", u"later"_s, u"Invalid date: later"_s},
        {true, "startedAt", 1714566600, {}},
        {false, "speaker", u"assistant"_s, {}},
        {false, "isFinal", 1, {}},
        {false, "timestampMs", u"5"_s, {}},
        {false, "confidence", u"high"_s, {}},
    };
    EXPECT_NO_THROW(TranscriptEntry::fromJson(with(entry, u"speaker"_s, u"interviewer"_s)));
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << c.key << " = "
                     << QJsonDocument(QJsonArray{c.value}).toJson().toStdString());
        try {
            if (c.session)
                InterviewSession::fromJson(with(fullSession, QString::fromLatin1(c.key), c.value));
            else
                TranscriptEntry::fromJson(with(entry, QString::fromLatin1(c.key), c.value));
            ADD_FAILURE() << "decoded";
        } catch (const DecodingError& e) {
            EXPECT_TRUE(c.message.isEmpty() || e.message() == c.message)
                << e.message().toStdString();
        }
    }
}

// The server wants a number: an absent confidence goes up as 0.0, and only an upload carries it.
TEST(RecordsTest, AbsentConfidenceUploadsAsZero)
{
    auto decoded = TranscriptEntry::fromJson(entry);
    EXPECT_FALSE(decoded.confidence || decoded.toJson().contains(u"confidence"_s));
    EXPECT_EQ(decoded.uploadForm(), with(with(entry, u"isFinal"_s), u"confidence"_s, 0.0));
    EXPECT_TRUE(decoded.uploadForm().value(u"confidence"_s).isDouble());
    EXPECT_EQ(decoded.contextForm(),
              (QJsonObject{{u"speaker"_s, u"user"_s}, {u"content"_s, u"hi"_s}}));
    decoded.confidence = 0.92;
    EXPECT_EQ(decoded.uploadForm().value(u"confidence"_s).toDouble(), 0.92);
}
