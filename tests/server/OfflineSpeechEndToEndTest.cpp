// Speech played on the machine, heard by the program's own capture and recogniser, recognised by
// the server's built-in recogniser, on either version of the listen protocol. The sound server
// is the private PulseAudio of the CTest fixture "Pulse" (scripts/test-pulse.sh). The same road
// through the whole program, with answers, is the whole-product test's (tests/e2e).
#include "ServerHarness.h"

#include "APIClient.h"
#include "AnswerEngineFactory.h"
#include "AudioCaptureService.h"
#include "AuthTokenStore.h"
#include "AwaitTask.h"
#include "DeepgramProvider.h"
#include "NotificationCenter.h"
#include "PulseSystemAudioSource.h"
#include "SpeechTokens.h"
#include "SpokenAudio.h"

#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

using namespace Qt::StringLiterals;

namespace {

const auto proudQuestion = u"Tell me about a project you are proud of"_s;
constexpr int toolTimeoutMs = 30'000;

// The fixture's state file: KEY=VALUE lines, or MISSING=<tool>.
std::map<QByteArray, QString> readState(const QString& path)
{
    std::map<QByteArray, QString> values;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return values;
    while (!file.atEnd()) {
        const auto line = file.readLine().trimmed();
        values[line.left(line.indexOf('='))] = QString::fromUtf8(line.mid(line.indexOf('=') + 1));
    }
    return values;
}

bool run(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    const bool ran = waitUntil([&] { return process.state() == QProcess::NotRunning; }, toolTimeoutMs);
    if (!ran || process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        process.kill();
        process.waitForFinished();
        ADD_FAILURE() << program.toStdString() << " failed: " << process.readAllStandardError().toStdString();
        return false;
    }
    return true;
}

} // namespace

// The private sound server for this process and its tools, and a spoken question as a WAV file.
class OfflineSpeechEndToEndTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (!SpeechTokens::isBuiltInRecognizerInstalled())
            GTEST_SKIP() << "PocketSphinx's English model is not installed";
        const auto statePath = qEnvironmentVariable("RAVLET_PULSE_STATE");
        if (statePath.isEmpty())
            throw std::runtime_error("RAVLET_PULSE_STATE is not set: run this test through ctest, "
                                     "whose Pulse fixture starts a private sound server");
        state = readState(statePath);
        if (state.empty())
            throw std::runtime_error("no sound server state: did pulse_start fail?");
        if (state.count("MISSING"))
            GTEST_SKIP() << state["MISSING"].toStdString() << " is not installed";
        for (const auto& tool : {u"paplay"_s, u"espeak-ng"_s, u"sox"_s}) {
            if (QStandardPaths::findExecutable(tool).isEmpty())
                GTEST_SKIP() << tool.toStdString() << " is not installed";
        }
        // libpulse keeps a cookie under the home: the server's scratch folder, never the real one.
        qputenv("PULSE_SERVER", state["PULSE_SERVER"].toUtf8());
        for (const auto& [name, folder] : {std::pair{"HOME", u"/home"_s},
                                           std::pair{"XDG_CONFIG_HOME", u"/config"_s},
                                           std::pair{"XDG_RUNTIME_DIR", u"/runtime"_s},
                                           std::pair{"PULSE_RUNTIME_PATH", u"/runtime"_s}})
            qputenv(name, QFile::encodeName(state["SCRATCH"] + folder));
        ASSERT_TRUE(scratch.isValid());
        const auto raw = scratch.filePath(u"raw.wav"_s);
        speech = scratch.filePath(u"speech.wav"_s);
        ASSERT_TRUE(run(u"espeak-ng"_s, {u"-w"_s, raw, proudQuestion}));
        // No dither, so that the leading half second stays silent.
        ASSERT_TRUE(run(u"sox"_s, {u"-D"_s, raw, u"-r"_s, u"48000"_s, speech, u"pad"_s, u"0.5"_s, u"1"_s}));
    }

    // Plays the question on the machine, as the call application would.
    bool play() { return run(u"paplay"_s, {u"--latency-msec=50"_s, u"--device="_s + state["SYSTEM_SINK"], speech}); }

    std::unique_ptr<AudioCaptureService> systemAudio()
    {
        return std::make_unique<AudioCaptureService>([this] { return std::make_unique<PulseSystemAudioSource>(clock); });
    }

    std::map<QByteArray, QString> state;
    QTemporaryDir scratch;
    QString speech;
    SystemClock clock;
    // The offline drafting engine: no language model is configured.
    std::unique_ptr<ravlet::server::AnswerEngine> answers = ravlet::server::makeAnswerEngine({});
    ServerHarness server{{}, answers.get()};
    InMemoryTokenStore tokens;
    NotificationCenter notifications;
    APIClient client{server.base(), tokens, notifications};
};

// The language setting: "auto" takes the first version of the protocol, English the second.
class OfflineSpeechLanguageTest : public OfflineSpeechEndToEndTest,
                                  public ::testing::WithParamInterface<const char*> {};

TEST_P(OfflineSpeechLanguageTest, SpeechPlayedOnTheMachineComesBackAsAFinalSegment)
{
    const QString language = QString::fromLatin1(GetParam());
    const auto account = server.signUp();
    client.setAccessToken(account.accessToken);
    awaitTask(client.createSession(language, u"en-US"_s));
    const auto token = awaitTask(client.fetchSpeechToken());
    EXPECT_EQ(token.provider, u"deepgram"_s);
    ASSERT_TRUE(token.endpoint);

    const auto capture = systemAudio();
    awaitTask(capture->start());
    DeepgramProvider recognizer(TranscriptEntry::Speaker::interviewer, clock);
    recognizer.setOrigin(*token.endpoint);
    awaitTask(recognizer.start(token.token, language, capture->audioStream(), token.sttModel));

    ASSERT_TRUE(play());
    std::vector<TranscriptSegment> segments;
    const auto segmentStream = recognizer.transcriptSegments();
    const auto hasFinal = [&] {
        while (auto segment = segmentStream->tryNext())
            segments.push_back(*segment);
        return std::any_of(segments.begin(), segments.end(), [](const auto& s) { return s.isFinal; });
    };
    const bool heardFinal = waitUntil(hasFinal, 30'000);
    awaitTask(recognizer.stop());
    awaitTask(capture->stop());

    ASSERT_TRUE(heardFinal) << segments.size() << " partial segments and no final one";
    EXPECT_TRUE(recognizer.recoveryEvents()->tryNext() == std::nullopt) << "the socket never failed";
    const auto final = std::find_if(segments.begin(), segments.end(), [](const auto& s) { return s.isFinal; });
    EXPECT_EQ(final->speaker, TranscriptEntry::Speaker::interviewer);
    EXPECT_GE(SpokenAudio::wordsHeard(proudQuestion, final->text), 4) << "heard: " << final->text.toStdString();
}

INSTANTIATE_TEST_SUITE_P(Languages, OfflineSpeechLanguageTest, ::testing::Values("auto", "en-US"),
                         [](const auto& info) { return std::string(info.param).substr(0, 2); });
