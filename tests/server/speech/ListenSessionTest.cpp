#include "ListenSession.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using Kind = RecognitionEvent::Kind;

namespace {
RecognitionEvent partial(const QString& text, double start, double duration)
{
    return {Kind::partial, text, start, duration, 0, true};
}
RecognitionEvent final(const QString& text, double start, double duration, bool atPause = true)
{
    return {Kind::final, text, start, duration, 0.9, atPause};
}

// "Results P:text", "Results F:text", "TurnInfo Update:text" and so on, for short comparisons.
QStringList summary(const QStringList& messages)
{
    QStringList out;
    for (const auto& text : messages) {
        const auto message = QJsonDocument::fromJson(text.toUtf8()).object();
        const auto type = message.value(u"type"_s).toString();
        if (type == u"Results") {
            const auto transcript = message.value(u"channel"_s).toObject().value(u"alternatives"_s).toArray()
                                        .first().toObject().value(u"transcript"_s).toString();
            out << type + (message.value(u"is_final"_s).toBool() ? u" F"_s : u" P"_s)
                       + (message.value(u"speech_final"_s).toBool() ? u"S:"_s : u":"_s) + transcript;
        } else if (type == u"TurnInfo") {
            out << type + u" "_s + message.value(u"event"_s).toString() + u":"_s + message.value(u"transcript"_s).toString();
        } else {
            out << type;
        }
    }
    return out;
}

DeepgramWire::ListenRequest v1(bool interim, int utteranceEndMs)
{
    DeepgramWire::ListenRequest request;
    request.interimResults = interim;
    request.utteranceEndMs = utteranceEndMs;
    return request;
}
} // namespace

TEST(ListenSessionTest, VersionOneSendsResultsAndAnUtteranceEndAfterTheGapInAudioTime)
{
    ListenSession session(v1(true, 1500), u"r"_s);
    EXPECT_TRUE(session.opening().isEmpty());
    EXPECT_EQ(summary(session.heard({partial(u"tell"_s, 0.5, 0.3)}, 0.8)), QStringList{u"Results P:tell"_s});
    EXPECT_EQ(summary(session.heard({}, 3.0)), QStringList()) << "no gap is counted while a phrase is open";
    EXPECT_EQ(summary(session.heard({final(u"tell me"_s, 0.5, 1.0)}, 2.1)), QStringList{u"Results FS:tell me"_s});
    EXPECT_EQ(summary(session.heard({}, 2.99)), QStringList()) << "1.49 s after the last word";
    EXPECT_EQ(summary(session.heard({}, 3.0)), QStringList{u"UtteranceEnd"_s});
    EXPECT_EQ(summary(session.heard({}, 9.0)), QStringList()) << "one per gap";
    // A phrase cut for length is final but the speaker has not paused.
    EXPECT_EQ(summary(session.heard({final(u"long"_s, 4, 15, false)}, 19)), QStringList{u"Results F:long"_s});
}

TEST(ListenSessionTest, VersionOneWithoutInterimResultsOrGapKeepsToFinals)
{
    ListenSession session(v1(false, 0), u"r"_s);
    EXPECT_EQ(summary(session.heard({partial(u"a"_s, 0, 1), final(u"a b"_s, 0, 1)}, 60)), QStringList{u"Results FS:a b"_s});
    EXPECT_EQ(summary(session.closing({final(u"c"_s, 61, 1, false)}, 62)),
              (QStringList{u"Results F:c"_s, u"Metadata"_s}));
    const auto finalized = session.finalized({final(u"d"_s, 63, 1, false)}, 64);
    ASSERT_EQ(finalized.size(), 1);
    EXPECT_TRUE(QJsonDocument::fromJson(finalized[0].toUtf8()).object().value(u"from_finalize"_s).toBool());
}

TEST(ListenSessionTest, VersionTwoOpensAndClosesNumberedTurns)
{
    DeepgramWire::ListenRequest request;
    request.version = 2;
    request.interimResults = true;
    request.utteranceEndMs = 1500;
    ListenSession session(request, u"r"_s);
    EXPECT_EQ(summary(session.opening()), QStringList{u"Connected"_s});
    EXPECT_EQ(summary(session.heard({partial(u"hi"_s, 0, 1), partial(u"hi there"_s, 0, 1.3), final(u"hi there"_s, 0, 1.4)}, 30)),
              (QStringList{u"TurnInfo StartOfTurn:hi"_s, u"TurnInfo Update:hi there"_s, u"TurnInfo EndOfTurn:hi there"_s}))
        << "and no UtteranceEnd on version 2";
    const auto next = session.heard({partial(u"and"_s, 31, 1)}, 32);
    ASSERT_EQ(next.size(), 1);
    const auto turn = QJsonDocument::fromJson(next[0].toUtf8()).object();
    EXPECT_EQ(turn.value(u"event"_s).toString(), u"StartOfTurn"_s);
    EXPECT_EQ(turn.value(u"turn_index"_s).toInt(), 1);
    EXPECT_EQ(summary(session.closing({}, 33)), QStringList()) << "Metadata belongs to version 1";
}
