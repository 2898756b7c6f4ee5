// The practice-interview routes: questions from the bank, per-user avatars, and spoken questions
// through espeak-ng (the real one where installed, otherwise a stand-in script).
#include "ServerRoutesFixture.h"

#include "AvatarPainter.h"
#include "PracticeStore.h"
#include "QuestionBank.h"
#include "SpeechSynthesizer.h"

#include <QAudioDecoder>
#include <QBuffer>
#include <QImage>
#include <QProcess>
#include <QSet>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtEndian>

using namespace Qt::StringLiterals;

namespace {

quint32 le32(const QByteArray& bytes, qsizetype at)
{
    return qFromLittleEndian<quint32>(bytes.constData() + at);
}

// Decodes a WAV through Qt Multimedia, as the client's player does; the samples it gave, or
// nothing when this machine's multimedia backend cannot decode at all.
std::optional<qint64> decodedSamples(const QByteArray& wav)
{
    QBuffer buffer;
    buffer.setData(wav);
    buffer.open(QIODevice::ReadOnly);
    QAudioDecoder decoder;
    if (!decoder.isSupported())
        return std::nullopt;
    decoder.setSourceDevice(&buffer);
    qint64 samples = 0;
    bool ended = false;
    bool failed = false;
    QObject::connect(&decoder, &QAudioDecoder::bufferReady,
                     [&] { samples += decoder.read().frameCount(); });
    QObject::connect(&decoder, &QAudioDecoder::finished, [&] { ended = true; });
    QObject::connect(&decoder, qOverload<QAudioDecoder::Error>(&QAudioDecoder::error),
                     [&](QAudioDecoder::Error) { failed = true; });
    decoder.start();
    waitUntil([&] { return ended || failed; }, 20'000);
    if (failed && samples == 0) {
        std::fprintf(stderr, "QAudioDecoder: %s\n", qPrintable(decoder.errorString()));
        return std::nullopt;
    }
    return samples;
}

// A stand-in for espeak-ng: an executable file with this text.
bool writeProgram(const QString& path, const QByteArray& text)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text) != text.size())
        return false;
    file.close();
    return file.setPermissions(file.permissions() | QFileDevice::ExeOwner);
}

} // namespace

class PracticeRoutesTest : public ServerRoutesFixture {
protected:
    CurlResult questions(const Account& account, const QJsonObject& body)
    {
        return server.call(account, u"POST"_s, u"/api/v1/mock-interview/questions"_s, compact(body));
    }
};

TEST_F(PracticeRoutesTest, QuestionsComeInTheCountAndLanguageAskedForWithoutRepeats)
{
    const auto account = server.signUp();
    QSet<QString> sessions;
    for (const auto& [language, count, served] :
         {std::tuple{u"en"_s, 8, u"en"_s}, std::tuple{u"de-AT"_s, 20, u"de"_s},
          std::tuple{u"ja"_s, 5, u"en"_s}, std::tuple{u"auto"_s, 1, u"en"_s}}) {
        SCOPED_TRACE(language.toStdString());
        const auto result = questions(account, {{u"language"_s, language}, {u"count"_s, count}});
        ASSERT_EQ(result.status, 200) << result.body.toStdString();
        const auto body = json(result);
        EXPECT_EQ(body.value(u"language"_s).toString(), served);
        sessions.insert(body.value(u"sessionId"_s).toString());
        const auto list = body.value(u"questions"_s).toArray();
        ASSERT_EQ(list.size(), count);
        QSet<QString> ids, texts, categories;
        for (const auto& value : list) {
            const auto question = value.toObject();
            const auto text = question.value(u"text"_s).toString();
            ids.insert(question.value(u"id"_s).toString());
            texts.insert(text);
            categories.insert(question.value(u"category"_s).toString());
            EXPECT_EQ(QuestionBank::builtIn().languageOf(text), served) << text.toStdString();
        }
        EXPECT_EQ(ids.size(), count) << "no question twice in one session";
        EXPECT_EQ(texts.size(), count);
        EXPECT_EQ(categories.size(), std::min(count, 5)) << "categories take turns";
        EXPECT_FALSE(categories.contains(QString()));
    }
    EXPECT_EQ(sessions.size(), 4);
    EXPECT_FALSE(sessions.contains(QString()));

    for (const auto& bad : {QJsonObject{{u"count"_s, 0}}, QJsonObject{{u"count"_s, 21}},
                            QJsonObject{{u"count"_s, 2.5}}, QJsonObject{{u"count"_s, u"8"_s}},
                            QJsonObject{{u"count"_s, 8}, {u"language"_s, 7}}})
        EXPECT_EQ(questions(account, bad).status, 400) << compact(bad).toStdString();
}

TEST_F(PracticeRoutesTest, TheUsersOwnJobDescriptionShapesTheFirstQuestionAndNoOneElses)
{
    const auto owner = server.signUp();
    const auto other = server.signUp();
    const auto job = create(owner, u"/api/v1/job-description"_s,
                            R"({"title":"Build Engineer","company":"Acme","content":"CI"})");
    ASSERT_FALSE(job.isEmpty());
    const auto ask = [&](const Account& account) {
        return json(questions(account, {{u"language"_s, u"en"_s}, {u"count"_s, 3},
                                        {u"jobDescriptionId"_s, job}}))
            .value(u"questions"_s)
            .toArray();
    };
    const auto mine = ask(owner);
    ASSERT_EQ(mine.size(), 3);
    EXPECT_EQ(mine.first().toObject().value(u"text"_s).toString(),
              u"What interests you about the role of Build Engineer at Acme?"_s);
    const auto theirs = ask(other);
    ASSERT_EQ(theirs.size(), 3);
    for (const auto& question : theirs)
        EXPECT_FALSE(question.toObject().value(u"text"_s).toString().contains(u"Acme"_s));
}

TEST_F(PracticeRoutesTest, AvatarsArePngsOfTheirOwnUserAndSurviveARestart)
{
    const auto avatar = u"/api/v1/mock-interview/avatar"_s;
    const auto first = server.signUp();
    const auto second = server.signUp();
    const auto generate = [&](const Account& account, const QByteArray& body) {
        return status(account, u"POST"_s, avatar + u"/generate"_s, body);
    };
    const auto image = [&](const Account& account) {
        return server.call(account, u"GET"_s, avatar + u"/image"_s);
    };
    EXPECT_EQ(status(first, u"GET"_s, avatar), 404);
    EXPECT_EQ(image(first).status, 404);

    const auto generated = post(first, avatar + u"/generate"_s, "{}");
    EXPECT_FALSE(generated.value(u"key"_s).toString().isEmpty());
    EXPECT_TRUE(
        QDateTime::fromString(generated.value(u"generatedAt"_s).toString(), Qt::ISODateWithMs)
            .isValid());
    EXPECT_EQ(get(first, avatar), generated);

    const auto firstImage = image(first);
    ASSERT_EQ(firstImage.status, 200);
    EXPECT_TRUE(firstImage.headers.toLower().contains("content-type: image/png"));
    const auto picture = QImage::fromData(firstImage.body, "PNG");
    EXPECT_EQ(picture.size(), QSize(512, 512));
    EXPECT_GT(QSet<QRgb>({picture.pixel(20, 20), picture.pixel(256, 230), picture.pixel(256, 500)})
                  .size(),
              1)
        << "a picture, not a blank";

    // Another user gets another face; so does a regeneration.
    EXPECT_EQ(image(second).status, 404);
    ASSERT_EQ(generate(second, "{}"), 200);
    const auto secondImage = image(second).body;
    const auto secondPicture = QImage::fromData(secondImage, "PNG");
    EXPECT_EQ(secondPicture.size(), QSize(512, 512));
    EXPECT_NE(secondPicture, picture);
    ASSERT_EQ(generate(first, ""), 200);
    const auto regenerated = image(first).body;
    EXPECT_NE(regenerated, firstImage.body);
    EXPECT_EQ(AvatarPainter::paintPng(u"same seed"_s), AvatarPainter::paintPng(u"same seed"_s));

    // A restart: a new connection to the same database serves the same bytes.
    const auto url = qEnvironmentVariable("RAVLET_TEST_DATABASE");
    auto reopened = Database::open(url.isEmpty() ? server.dir.filePath(u"server.sqlite"_s) : url);
    EXPECT_EQ(PracticeStore(*reopened).avatarImage(first.id), regenerated);
    EXPECT_EQ(PracticeStore(*reopened).avatarImage(second.id), secondImage);
}

TEST_F(PracticeRoutesTest, SpeechIsAWavThatDecodes)
{
    if (QStandardPaths::findExecutable(u"espeak-ng"_s).isEmpty())
        GTEST_SKIP() << "espeak-ng is not installed";
    const auto account = server.signUp();
    const auto spoken = server.call(account, u"POST"_s, u"/api/v1/mock-interview/tts"_s,
                                    R"({"text":"Tell me about a time you had to learn something new very quickly."})");
    ASSERT_EQ(spoken.status, 200) << spoken.body.toStdString();
    EXPECT_TRUE(spoken.headers.toLower().contains("content-type: audio/wav"));
    const auto& wav = spoken.body;
    ASSERT_GT(wav.size(), 44);
    EXPECT_TRUE(wav.startsWith("RIFF"));
    EXPECT_EQ(wav.mid(8, 8), "WAVEfmt ");
    EXPECT_EQ(le32(wav, 4), quint32(wav.size() - 8)) << "sizes filled in, not streamed placeholders";
    const auto dataAt = wav.indexOf("data");
    ASSERT_GT(dataAt, 0);
    const auto dataSize = le32(wav, dataAt + 4);
    EXPECT_EQ(dataSize, quint32(wav.size() - dataAt - 8));
    const auto sampleRate = le32(wav, 24);
    // More than a second of speech for a sentence, and not all silence.
    EXPECT_GT(qint64(dataSize) / 2, qint64(sampleRate));
    const auto pcm = wav.mid(dataAt + 8);
    qint64 loud = 0;
    for (qsizetype i = 0; i + 1 < pcm.size(); i += 2)
        loud += std::abs(qFromLittleEndian<qint16>(pcm.constData() + i)) > 1000;
    EXPECT_GT(loud, sampleRate / 10);

    if (const auto decoded = decodedSamples(wav))
        EXPECT_EQ(*decoded, qint64(dataSize) / 2) << "every sample decodes";
    else
        std::fprintf(stderr, "QAudioDecoder cannot decode on this machine; checked the header\n");
}

// Refusals without a token are in ServerTest.EveryApiRouteRefusesMissingExpiredAndForgedTokens.
TEST_F(PracticeRoutesTest, HostileRequestsAreRefused)
{
    const auto account = server.signUp();
    const auto base = u"/api/v1/mock-interview/"_s;
    const auto huge = compact({{u"text"_s, QString(SpeechSynthesizer::maxTextLength + 1, u'a')}});
    const QList<std::tuple<QString, QByteArray, int>> cases{
        {u"tts"_s, huge, 413},
        {u"tts"_s, QByteArray(2 * 1024 * 1024, '{'), 413},
        {u"tts"_s, "{\"text\":", 400},
        {u"tts"_s, "[\"text\"]", 400},
        {u"tts"_s, R"({"text":42})", 400},
        {u"tts"_s, R"({"text":"   "})", 400},
        {u"questions"_s, "{oops", 400},
        {u"avatar/generate"_s, "nope", 400},
    };
    for (const auto& [path, body, expected] : cases)
        EXPECT_EQ(status(account, u"POST"_s, base + path, body), expected)
            << path.toStdString() << ' ' << body.left(20).toStdString();
    // Still serving.
    EXPECT_EQ(status(account, u"GET"_s, base + u"avatar"_s), 404);
}

TEST(PracticeSpeechTest, WithoutEspeakTheRouteSaysSo)
{
    ServerConfig config;
    config.espeakProgram = u"/nonexistent/espeak-ng"_s;
    ServerHarness server(config);
    const auto result = server.call(server.signUp(), u"POST"_s, u"/api/v1/mock-interview/tts"_s,
                                    R"({"text":"Hello"})");
    EXPECT_EQ(result.status, 503);
    EXPECT_TRUE(json(result).value(u"error"_s).toString().contains(u"espeak-ng"_s));
}

// A child that never ends is killed once its time is up on the server's clock, and the request
// gets its answer: a stuck espeak-ng must not hold a request, or a slot of the four, for ever.
TEST(PracticeSpeechTest, AStuckChildIsKilledWhenItsTimeIsUp)
{
    QTemporaryDir dir;
    const auto program = dir.filePath(u"stuck-espeak"_s);
    ASSERT_TRUE(writeProgram(program, "#!/bin/sh\necho $$ >\"$0.pid\"\nexec sleep 600\n"));
    ServerConfig config;
    config.espeakProgram = program;
    ServerHarness server(config);
    const auto account = server.signUp();

    QProcess request;
    request.start(u"curl"_s, {u"-s"_s, u"-o"_s, u"/dev/null"_s, u"-w"_s, u"%{http_code}"_s, u"-H"_s,
                              u"Authorization: Bearer "_s + account.accessToken, u"--data-binary"_s,
                              u"{\"text\":\"Hello\"}"_s, server.base() + u"/api/v1/mock-interview/tts"_s});
    QFile pidFile(program + u".pid"_s);
    ASSERT_TRUE(waitUntil([&] { return pidFile.exists() && pidFile.size() > 0; }));
    ASSERT_TRUE(pidFile.open(QIODevice::ReadOnly));
    const auto pid = pidFile.readAll().trimmed();

    server.clock.advance(std::chrono::milliseconds(SpeechSynthesizer::processLimitMs - 1));
    EXPECT_FALSE(waitUntil([&] { return request.state() == QProcess::NotRunning; }, 300));
    server.clock.advance(std::chrono::milliseconds(1));
    ASSERT_TRUE(waitUntil([&] { return request.state() == QProcess::NotRunning; }));
    EXPECT_EQ(request.readAllStandardOutput(), "500");
    EXPECT_TRUE(waitUntil([&] { return !QFile::exists(u"/proc/"_s + QString::fromLatin1(pid)); }))
        << "the child " << pid.constData() << " still runs";
}

// A stand-in for espeak-ng that records its arguments and standard input, then answers as the
// real one does on a pipe, or fails when told to.
TEST(PracticeSpeechTest, TheTextGoesOnStandardInputAndTheVoiceFollowsTheQuestionsLanguage)
{
    QTemporaryDir dir;
    const auto program = dir.filePath(u"fake-espeak"_s);
    ASSERT_TRUE(writeProgram(program, R"(#!/usr/bin/python3
import struct, sys
folder = sys.argv[0].rsplit('/', 1)[0]
text = sys.stdin.buffer.read()
with open(folder + '/calls', 'ab') as calls:
    calls.write(repr((sys.argv[1:], text)).encode() + b'\n')
if b'fail' in text:
    sys.exit(1)
pcm = struct.pack('<4h', 0, 1000, -1000, 0)
sys.stdout.buffer.write(b'RIFF' + struct.pack('<I', 0x7ffff024) + b'WAVEfmt '
    + struct.pack('<IHHIIHH', 16, 1, 1, 22050, 44100, 2, 16)
    + b'data' + struct.pack('<I', 0x7ffff000) + pcm)
)"));

    ServerConfig config;
    config.espeakProgram = program;
    ServerHarness server(config);
    const auto account = server.signUp();
    const auto speak = [&](const QJsonObject& body) {
        return server.call(account, u"POST"_s, u"/api/v1/mock-interview/tts"_s, compact(body));
    };
    const auto spoken = speak({{u"text"_s, u"Why $(touch /tmp/x); rm -rf ~ `id` -v de"_s}});
    ASSERT_EQ(spoken.status, 200) << spoken.body.toStdString();
    EXPECT_EQ(spoken.body.size(), 44 + 8);
    EXPECT_EQ(le32(spoken.body, 40), 8u);

    ASSERT_EQ(speak({{u"text"_s, u"Warum interessieren Sie sich für diese Stelle?"_s}}).status, 200);
    ASSERT_EQ(speak({{u"text"_s, u"Hello"_s}, {u"language"_s, u"es"_s}}).status, 200);
    // After German questions, a text the bank does not hold (the question about the user's own
    // role) is spoken in German too.
    ASSERT_EQ(server.call(account, u"POST"_s, u"/api/v1/mock-interview/questions"_s,
                          R"({"language":"de","count":1})")
                  .status,
              200);
    ASSERT_EQ(speak({{u"text"_s, u"Was reizt Sie an der Stelle als Koch?"_s}}).status, 200);
    EXPECT_EQ(speak({{u"text"_s, u"please fail"_s}}).status, 500);

    QFile calls(dir.filePath(u"calls"_s));
    ASSERT_TRUE(calls.open(QIODevice::ReadOnly));
    const auto lines = QString::fromUtf8(calls.readAll()).split(u'\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 5);
    EXPECT_TRUE(lines[0].contains(u"$(touch /tmp/x); rm -rf ~ `id` -v de"_s)) << "on stdin, untouched";
    const QStringList voices{u"en-us"_s, u"de"_s, u"es"_s, u"de"_s};
    for (qsizetype i = 0; i < voices.size(); ++i)
        EXPECT_TRUE(lines[i].startsWith(u"(['-v', '"_s + voices[i] + u"', '--stdout'], b"_s))
            << lines[i].toStdString();
}

TEST(PracticeSpeechTest, StreamedHeadersAreCompletedAndOtherBytesRefused)
{
    // What espeak-ng writes to a pipe: placeholder sizes, then the samples.
    QByteArray streamed("RIFF\x24\xf0\xff\x7f" "WAVEfmt " "\x10\0\0\0" "\x01\0\x01\0" "\x22\x56\0\0"
                        "\x44\xac\0\0" "\x02\0\x10\0" "data" "\x00\xf0\xff\x7f",
                        44);
    const QByteArray samples("\x01\x02\x03\x04\x05", 5);
    const auto completed = SpeechSynthesizer::completeWav(streamed + samples);
    ASSERT_TRUE(completed);
    EXPECT_EQ(completed->size(), 44 + 4) << "an odd byte is half a sample";
    EXPECT_EQ(le32(*completed, 4), quint32(completed->size() - 8));
    EXPECT_EQ(le32(*completed, 40), 4u);
    EXPECT_EQ(completed->mid(44), samples.left(4));

    auto floatFormat = streamed;
    floatFormat[20] = '\x03';
    for (const auto& bad : {QByteArray(), QByteArray("RIFF....WAVE"), streamed.left(20),
                            floatFormat + samples}) // the last is not plain PCM
        EXPECT_FALSE(SpeechSynthesizer::completeWav(bad)) << bad.toHex().left(48).toStdString();
}
