// The listen socket's wire without the recogniser. Message shapes, the versions, turn order,
// unasked-for partials and control frames are the listen frames fuzz target's; here, the gap
// rule in audio time.
#include "ListenSession.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using Kind = RecognitionEvent::Kind;

namespace {

// "Results P:text", "Results FS:text" (final at a pause), or the type alone.
QStringList summary(const QStringList& messages)
{
    QStringList out;
    for (const auto& text : messages) {
        const auto message = QJsonDocument::fromJson(text.toUtf8()).object();
        const auto type = message[u"type"_s].toString();
        out << (type != u"Results"
                    ? type
                    : type + (message[u"is_final"_s].toBool() ? u" F"_s : u" P"_s)
                          + (message[u"speech_final"_s].toBool() ? u"S:"_s : u":"_s)
                          + message[u"channel"_s][u"alternatives"_s][0][u"transcript"_s]
                                .toString());
    }
    return out;
}

RecognitionEvent heard(Kind kind, const QString& text, double start, double duration,
                       bool atPause = true)
{
    return {kind, text, start, duration, kind == Kind::final ? 0.9 : 0, atPause};
}

} // namespace

TEST(ListenSessionTest, VersionOneSendsAnUtteranceEndAfterTheGapInAudioTime)
{
    DeepgramWire::ListenRequest request;
    request.interimResults = true;
    request.utteranceEndMs = 1500;
    ListenSession session(request, u"r"_s);
    EXPECT_TRUE(session.opening().isEmpty());
    EXPECT_EQ(summary(session.heard({heard(Kind::partial, u"tell"_s, 0.5, 0.3)}, 0.8)),
              QStringList{u"Results P:tell"_s});
    EXPECT_EQ(summary(session.heard({}, 3.0)), QStringList())
        << "no gap is counted while a phrase is open";
    EXPECT_EQ(summary(session.heard({heard(Kind::final, u"tell me"_s, 0.5, 1.0)}, 2.1)),
              QStringList{u"Results FS:tell me"_s});
    EXPECT_EQ(summary(session.heard({}, 2.99)), QStringList()) << "1.49 s after the last word";
    EXPECT_EQ(summary(session.heard({}, 3.0)), QStringList{u"UtteranceEnd"_s});
    EXPECT_EQ(summary(session.heard({}, 9.0)), QStringList()) << "one per gap";
    // A phrase cut for length is final but the speaker has not paused.
    EXPECT_EQ(summary(session.heard({heard(Kind::final, u"long"_s, 4, 15, false)}, 19)),
              QStringList{u"Results F:long"_s});
    EXPECT_EQ(summary(session.closing({}, 20)), QStringList{u"Metadata"_s});
}
