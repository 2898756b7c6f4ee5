#include "TranscriptSocket.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

QByteArray entryFrame(const QString& id, const QString& content)
{
    const QJsonObject frame{{u"type"_s, u"transcript_entry"_s},
                            {u"id"_s, id},
                            {u"speaker"_s, u"user"_s},
                            {u"content"_s, content},
                            {u"timestampMs"_s, qint64(1'700'000'000'000)},
                            {u"revision"_s, 2}};
    return QJsonDocument(frame).toJson(QJsonDocument::Compact);
}

} // namespace

TEST(TranscriptSocketTest, BinaryFramesCountOnlyWhenWholeUtf8)
{
    EXPECT_EQ(TranscriptSocket::binaryFrameText("{\"a\":\"caf\xc3\xa9\"}"),
              u"{\"a\":\"caf\u00e9\"}"_s);
    EXPECT_FALSE(TranscriptSocket::binaryFrameText("{\"a\":1}\xff"));
    // Cut off in the middle of a character: an error, not a character still to come.
    EXPECT_FALSE(TranscriptSocket::binaryFrameText("{\"a\":\"caf\"}\xc3"));
}

TEST(TranscriptSocketTest, ReadsLinesAndRefusesHalfCharacters)
{
    const auto line = TranscriptSocket::lineOfFrame(entryFrame(u"a1"_s, u"I led \U0001F680"_s));
    ASSERT_TRUE(line);
    EXPECT_EQ(line->id, u"a1"_s);
    EXPECT_EQ(line->content, u"I led \U0001F680"_s);
    EXPECT_EQ(line->revision, 2);

    // JSON escapes of one half of a pair: valid JSON, but text that storage would change.
    EXPECT_FALSE(TranscriptSocket::lineOfFrame(
        R"({"type":"transcript_entry","id":"a1","speaker":"user","content":"x\ud800","timestampMs":1})"));
    EXPECT_FALSE(TranscriptSocket::lineOfFrame(
        R"({"type":"transcript_entry","id":"\udc00","speaker":"user","content":"x","timestampMs":1})"));
    EXPECT_FALSE(TranscriptSocket::lineOfFrame(
        R"({"type":"transcript_entry","id":"a1","speaker":"robot","content":"x","timestampMs":1})"));
}

TEST(TranscriptSocketTest, AckNamesTheLineAndTheStoredRevision)
{
    const auto ack =
        QJsonDocument::fromJson(TranscriptSocket::ackFrame(u"id \"1\""_s, 7).toUtf8()).object();
    EXPECT_EQ(ack.value(u"type"_s).toString(), u"ack"_s);
    EXPECT_EQ(ack.value(u"ids"_s).toArray(), QJsonArray{u"id \"1\""_s});
    EXPECT_EQ(ack.value(u"revisions"_s).toObject().value(u"id \"1\""_s).toInteger(), 7);
}
