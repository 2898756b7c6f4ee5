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

// A field missing, of the wrong type or with an unknown value refuses the whole record.
TEST(RecordsTest, RefuseMissingFieldsWrongTypesAndUnknownValues)
{
    const struct {
        bool session; // else a transcript entry
        const char* key;
        QJsonValue value;
        QString message; // empty: any message
    } cases[] = {
        {true, "id", QJsonValue::Undefined, {}},
        {true, "status", u"archived"_s, {}},
        {true, "durationSeconds", 1.5, {}},
        {true, "startedAt", u"2024-05-01"_s, u"Invalid date: 2024-05-01"_s},
        {true, "startedAt", 1714566600, {}},
        {false, "speaker", u"assistant"_s, {}},
        {false, "isFinal", 1, {}},
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
