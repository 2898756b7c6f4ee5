#include "OfflineRecognizer.h"
#include "RecognizerWorker.h"
#include "SpokenAudio.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTest>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <memory>

using namespace Qt::StringLiterals;
using Kind = RecognitionEvent::Kind;

namespace {

const auto proudQuestion = u"Tell me about a project you are proud of"_s;

QString finals(const std::vector<RecognitionEvent>& events)
{
    QStringList texts;
    for (const auto& event : events) {
        if (event.kind == Kind::final)
            texts << event.text;
    }
    return texts.join(u' ');
}

class OfflineRecognizerTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (const auto tool = SpokenAudio::missingTool(); !tool.isEmpty())
            GTEST_SKIP() << tool.toStdString() << " is not installed: no speech to recognise";
        if (!OfflineRecognizer::isModelInstalled())
            GTEST_SKIP() << "PocketSphinx's English model is not installed";
    }
};

std::vector<RecognitionEvent> feedInChunks(OfflineRecognizer& recognizer, const QByteArray& pcm, qsizetype chunk)
{
    std::vector<RecognitionEvent> events;
    for (qsizetype offset = 0; offset < pcm.size(); offset += chunk) {
        auto heard = recognizer.feed(QByteArrayView(pcm).sliced(offset, std::min(chunk, pcm.size() - offset)));
        events.insert(events.end(), heard.begin(), heard.end());
    }
    return events;
}

} // namespace

TEST_F(OfflineRecognizerTest, HearsASpokenQuestionWithPartialsThenOneFinalAtThePause)
{
    const auto speech = SpokenAudio::speak(proudQuestion);
    ASSERT_TRUE(speech);
    OfflineRecognizer recognizer;
    // Odd chunk sizes split samples between calls; the odd byte must wait for its partner.
    const auto events = feedInChunks(recognizer, *speech, 4095);
    const auto heard = finals(events);
    EXPECT_GE(SpokenAudio::wordsHeard(proudQuestion, heard), 4) << "heard: " << heard.toStdString();
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.front().kind, Kind::partial) << "a guess comes while the phrase is under way";
    const auto last = events.back();
    EXPECT_EQ(last.kind, Kind::final) << "the trailing second of silence ends the phrase";
    EXPECT_TRUE(last.atPause);
    const double total = recognizer.processedSeconds();
    EXPECT_NEAR(total, double(speech->size()) / 32000.0, 0.01);
    EXPECT_GT(last.start, 0.1);
    EXPECT_LT(last.start, 1.0) << "speech begins after half a second of silence";
    EXPECT_GT(last.duration, 1.0);
    EXPECT_LE(last.start + last.duration, total);
    EXPECT_GE(last.confidence, 0.0);
    EXPECT_LE(last.confidence, 1.0);
    EXPECT_TRUE(recognizer.finish().empty()) << "nothing is left open after the pause";
}

TEST_F(OfflineRecognizerTest, GarbageAndOddLengthsSurviveAndTheDecoderRecovers)
{
    OfflineRecognizer recognizer;
    QByteArray noise(6'401, Qt::Uninitialized); // a fifth of a second of garbage
    QRandomGenerator random(42);
    for (auto& byte : noise)
        byte = char(random.bounded(256));
    recognizer.feed(noise);
    recognizer.feed(QByteArray(1, '\x7f'));
    recognizer.feed({});
    recognizer.feed(QByteArray(4, '\0')); // 6'406 bytes: the speech below starts on a sample
    EXPECT_NEAR(recognizer.processedSeconds(), 3'203 / 16000.0, 1e-9) << "every whole sample is decoded";
    const auto speech = SpokenAudio::speak(u"What is your greatest weakness"_s);
    ASSERT_TRUE(speech);
    // Three bytes at a time for the last one: every other sample is split across two calls.
    const auto heard = finals(feedInChunks(recognizer, *speech, 3));
    EXPECT_GE(SpokenAudio::wordsHeard(u"What is your greatest weakness"_s, heard), 3) << "heard: " << heard.toStdString();
}

TEST_F(OfflineRecognizerTest, FinishEndsThePhraseUnderWayAndAMissingModelIsAClearError)
{
    const auto speech = SpokenAudio::speak(proudQuestion, {}, 0.0);
    ASSERT_TRUE(speech);
    OfflineRecognizer recognizer;
    const auto before = recognizer.feed(*speech);
    EXPECT_TRUE(finals(before).isEmpty()) << "no pause yet, so no final";
    const auto ended = recognizer.finish();
    ASSERT_EQ(ended.size(), 1u);
    EXPECT_EQ(ended[0].kind, Kind::final);
    EXPECT_FALSE(ended[0].atPause);

    OfflineRecognizer::Options options;
    options.modelDirectory = u"/nonexistent/model"_s;
    OfflineRecognizer missing(options);
    EXPECT_FALSE(missing.isValid());
    EXPECT_TRUE(missing.errorString().contains(u"/nonexistent/model"_s));
    EXPECT_TRUE(missing.feed(*speech).empty());
}

// One decoder per socket, each on its own thread: the texts must not mix between them.
TEST_F(OfflineRecognizerTest, WorkersOnTheirOwnThreadsEachHearTheirOwnSpeech)
{
    const QStringList questions{proudQuestion, u"Why do you want to work here"_s, u"What is your greatest weakness"_s};
    struct Channel {
        std::unique_ptr<QThread> thread = std::make_unique<QThread>();
        RecognizerWorker* worker = nullptr;
        QStringList finals;
        std::atomic<bool> isClosed = false;
    };
    std::vector<Channel> channels(std::size_t(questions.size()));
    DeepgramWire::ListenRequest request;
    request.interimResults = true;
    for (auto& channel : channels) {
        channel.worker = new RecognizerWorker(request, u"r"_s);
        channel.worker->moveToThread(channel.thread.get());
        QObject::connect(channel.thread.get(), &QThread::finished, channel.worker, &QObject::deleteLater);
        QObject::connect(channel.worker, &RecognizerWorker::message, channel.worker, [&channel](const QString& text) {
            const auto message = QJsonDocument::fromJson(text.toUtf8()).object();
            if (message.value(u"is_final"_s).toBool())
                channel.finals << message.value(u"channel"_s).toObject().value(u"alternatives"_s).toArray()
                                      .first().toObject().value(u"transcript"_s).toString();
        }, Qt::DirectConnection);
        QObject::connect(channel.worker, &RecognizerWorker::closeRequested, channel.worker,
                         [&channel] { channel.isClosed = true; }, Qt::DirectConnection);
        channel.thread->start();
        QMetaObject::invokeMethod(channel.worker, &RecognizerWorker::start, Qt::QueuedConnection);
    }
    // Interleaved, as frames from several sockets arrive.
    std::vector<QByteArray> speech;
    for (const auto& question : questions)
        speech.push_back(SpokenAudio::speak(question).value_or(QByteArray()));
    for (qsizetype offset = 0;; offset += 3200) {
        bool any = false;
        for (std::size_t i = 0; i < channels.size(); ++i) {
            if (offset >= speech[i].size())
                continue;
            any = true;
            QMetaObject::invokeMethod(channels[i].worker, "pushAudio", Qt::QueuedConnection,
                                      Q_ARG(QByteArray, speech[i].mid(offset, 3200)));
        }
        if (!any)
            break;
    }
    for (auto& channel : channels)
        QMetaObject::invokeMethod(channel.worker, "pushText", Qt::QueuedConnection, Q_ARG(QString, u"{\"type\": \"CloseStream\"}"_s));
    // A thread told to quit drops what is still queued for it: wait for the answer to
    // "CloseStream" first.
    for (auto& channel : channels)
        EXPECT_TRUE(QTest::qWaitFor([&] { return channel.isClosed.load(); }, 60'000));
    for (auto& channel : channels) {
        channel.thread->quit();
        ASSERT_TRUE(channel.thread->wait(60'000));
    }
    for (std::size_t i = 0; i < channels.size(); ++i) {
        const auto heard = channels[i].finals.join(u' ');
        EXPECT_GE(SpokenAudio::wordsHeard(questions[int(i)], heard), 3) << i << " heard: " << heard.toStdString();
        for (std::size_t j = 0; j < channels.size(); ++j) {
            if (j != i) {
                EXPECT_LT(SpokenAudio::wordsHeard(questions[int(j)], heard), SpokenAudio::wordsHeard(questions[int(i)], heard)) << i << " vs " << j;
            }
        }
    }
}
