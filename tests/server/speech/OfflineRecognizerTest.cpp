// The decoder alone. Garbage, odd frames, the words heard and many decoders on their own threads
// at once are the listen socket's suite, which drives the same decoders through the socket.
#include "OfflineRecognizer.h"
#include "SpokenAudio.h"

#include <QStringList>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using Kind = RecognitionEvent::Kind;

TEST(OfflineRecognizerTest, PartialsThenOneFinalAtThePauseInAudioTimeAndFinishEndsAPhraseUnderWay)
{
    if (const auto tool = SpokenAudio::missingTool(); !tool.isEmpty())
        GTEST_SKIP() << tool.toStdString() << " is not installed: no speech to recognise";
    if (!OfflineRecognizer::isModelInstalled())
        GTEST_SKIP() << "PocketSphinx's English model is not installed";
    const auto question = u"Tell me about a project you are proud of"_s;
    const auto speech = SpokenAudio::speak(question);
    ASSERT_TRUE(speech);
    OfflineRecognizer recognizer;
    // Odd chunk sizes split samples between calls; the odd byte must wait for its partner.
    std::vector<RecognitionEvent> events;
    for (qsizetype offset = 0; offset < speech->size(); offset += 4095) {
        const auto heard = recognizer.feed(QByteArrayView(*speech).sliced(
            offset, std::min<qsizetype>(4095, speech->size() - offset)));
        events.insert(events.end(), heard.begin(), heard.end());
    }
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.front().kind, Kind::partial) << "a guess comes while the phrase is under way";
    const auto last = events.back();
    ASSERT_EQ(last.kind, Kind::final) << "the trailing second of silence ends the phrase";
    EXPECT_TRUE(last.atPause);
    EXPECT_NEAR(recognizer.processedSeconds(), double(speech->size()) / 32000.0, 0.01);
    EXPECT_TRUE(recognizer.finish().empty()) << "nothing is left open after the pause";

    // Without the trailing silence there is no pause, until finish.
    OfflineRecognizer unfinished;
    for (const auto& event : unfinished.feed(*SpokenAudio::speak(question, {}, 0.0)))
        EXPECT_EQ(event.kind, Kind::partial);
    const auto ended = unfinished.finish();
    ASSERT_EQ(ended.size(), 1u);
    EXPECT_TRUE(ended[0].kind == Kind::final && !ended[0].atPause);

    OfflineRecognizer::Options options;
    options.modelDirectory = u"/nonexistent/model"_s;
    OfflineRecognizer missing(options);
    EXPECT_TRUE(!missing.isValid() && missing.errorString().contains(u"/nonexistent/model"_s)
                && missing.feed(*speech).empty());
}
