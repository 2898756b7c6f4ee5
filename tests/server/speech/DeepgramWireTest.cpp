#include "DeepgramWire.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using DeepgramWire::Control;

namespace {
QJsonObject parsed(const QString& text)
{
    QJsonParseError error;
    const auto document = QJsonDocument::fromJson(text.toUtf8(), &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << text.toStdString();
    return document.object();
}
} // namespace

// The program reads channel.alternatives[0].transcript (text), its confidence (number) and the
// top-level is_final (flag); anything of another type would be dropped without a word.
TEST(DeepgramWireTest, ResultsCarryTheFieldsTheProgramReadsWithTheirTypes)
{
    const auto message = parsed(DeepgramWire::results(
        {u"tell me \"more\""_s, 0.8125, true, false, true, 1.23456, 2.5}, u"req-1"_s));
    EXPECT_EQ(message.value(u"type"_s).toString(), u"Results"_s);
    const auto alternatives = message.value(u"channel"_s).toObject().value(u"alternatives"_s);
    ASSERT_TRUE(alternatives.isArray());
    const auto first = alternatives.toArray().first().toObject();
    EXPECT_EQ(first.value(u"transcript"_s).toString(), u"tell me \"more\""_s);
    ASSERT_TRUE(first.value(u"confidence"_s).isDouble());
    EXPECT_DOUBLE_EQ(first.value(u"confidence"_s).toDouble(), 0.8125);
    ASSERT_TRUE(message.value(u"is_final"_s).isBool());
    EXPECT_TRUE(message.value(u"is_final"_s).toBool());
    EXPECT_FALSE(message.value(u"speech_final"_s).toBool(true));
    EXPECT_TRUE(message.value(u"from_finalize"_s).toBool());
    EXPECT_DOUBLE_EQ(message.value(u"start"_s).toDouble(), 1.235);
    EXPECT_DOUBLE_EQ(message.value(u"duration"_s).toDouble(), 2.5);
    EXPECT_EQ(message.value(u"metadata"_s).toObject().value(u"request_id"_s).toString(), u"req-1"_s);
}

TEST(DeepgramWireTest, UtteranceEndMetadataAndTurnsHaveTheirTypes)
{
    const auto end = parsed(DeepgramWire::utteranceEnd(3.0004));
    EXPECT_EQ(end.value(u"type"_s).toString(), u"UtteranceEnd"_s);
    EXPECT_DOUBLE_EQ(end.value(u"last_word_end"_s).toDouble(), 3.0);

    const auto metadata = parsed(DeepgramWire::metadata(u"req-2"_s, 12.5));
    EXPECT_EQ(metadata.value(u"type"_s).toString(), u"Metadata"_s);
    EXPECT_EQ(metadata.value(u"request_id"_s).toString(), u"req-2"_s);
    EXPECT_DOUBLE_EQ(metadata.value(u"duration"_s).toDouble(), 12.5);
    EXPECT_EQ(metadata.value(u"channels"_s).toInt(), 1);

    EXPECT_EQ(parsed(DeepgramWire::connected(u"r"_s)).value(u"type"_s).toString(), u"Connected"_s);
    const auto turn = parsed(DeepgramWire::turnInfo(DeepgramWire::TurnEvent::endOfTurn, 3, u"Hi there"_s, 1, 2));
    EXPECT_EQ(turn.value(u"type"_s).toString(), u"TurnInfo"_s);
    EXPECT_EQ(turn.value(u"event"_s).toString(), u"EndOfTurn"_s);
    EXPECT_EQ(turn.value(u"transcript"_s).toString(), u"Hi there"_s);
    EXPECT_EQ(turn.value(u"turn_index"_s).toInt(), 3);
    EXPECT_EQ(parsed(DeepgramWire::turnInfo(DeepgramWire::TurnEvent::startOfTurn, 0, u"a"_s, 0, 0))
                  .value(u"event"_s).toString(), u"StartOfTurn"_s);
}

TEST(DeepgramWireTest, ControlMessagesAsTheProgramWritesThemAndGarbage)
{
    // The program writes them with a space after the colon.
    EXPECT_EQ(DeepgramWire::parseControl(u"{\"type\": \"KeepAlive\"}"_s), Control::keepAlive);
    EXPECT_EQ(DeepgramWire::parseControl(u"{\"type\": \"CloseStream\"}"_s), Control::closeStream);
    EXPECT_EQ(DeepgramWire::parseControl(u"{\"type\":\"Finalize\"}"_s), Control::finalize);
    for (const auto& garbage : {u""_s, u"KeepAlive"_s, u"[\"KeepAlive\"]"_s, u"{\"type\":7}"_s,
                                u"{\"type\":\"keepalive\"}"_s, u"{\"type\":\"CloseStream\""_s})
        EXPECT_EQ(DeepgramWire::parseControl(garbage), Control::unknown) << garbage.toStdString();
}

TEST(DeepgramWireTest, ListenAddressesOfTheProgramAreServedInEnglishOnly)
{
    // The two addresses the program forms for English and for "Auto Detect".
    const auto english = DeepgramWire::parseListenUrl(QUrl(
        u"ws://h/v2/listen?model=flux-general-en&encoding=linear16&sample_rate=16000&eot_threshold=0.7&eot_timeout_ms=5000"_s));
    EXPECT_FALSE(english.error);
    EXPECT_EQ(english.version, 2);
    EXPECT_TRUE(english.interimResults);

    const auto automatic = DeepgramWire::parseListenUrl(QUrl(
        u"ws://h/v1/listen?encoding=linear16&sample_rate=16000&channels=1&interim_results=true&utterance_end_ms=1500&vad_events=true&language=au&model=nova-3"_s));
    EXPECT_FALSE(automatic.error);
    EXPECT_EQ(automatic.version, 1);
    EXPECT_TRUE(automatic.interimResults);
    EXPECT_EQ(automatic.utteranceEndMs, 1500);

    const auto bare = DeepgramWire::parseListenUrl(QUrl(u"ws://h/v1/listen"_s));
    EXPECT_FALSE(bare.error);
    EXPECT_FALSE(bare.interimResults);
    EXPECT_EQ(bare.utteranceEndMs, 0);

    for (const auto& refused : {u"ws://h/v1/listen?language=fr&model=nova-3"_s, u"ws://h/v1/listen?encoding=opus"_s,
                                u"ws://h/v1/listen?sample_rate=48000"_s, u"ws://h/v1/listen?channels=2"_s,
                                u"ws://h/v3/listen"_s})
        EXPECT_TRUE(DeepgramWire::parseListenUrl(QUrl(refused)).error) << refused.toStdString();
}
