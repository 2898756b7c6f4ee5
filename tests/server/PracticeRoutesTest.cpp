// The practice-interview routes: questions from the bank, per-user avatars, and spoken questions
// through espeak-ng, here stand-in scripts that record what they are given and answer as the
// real one does on a pipe.
#include "ServerHarness.h"

#include "ClockWait.h"
#include "PracticeStore.h"
#include "QuestionBank.h"
#include "SpeechSynthesizer.h"

#include <QImage>
#include <QJsonArray>
#include <QProcess>
#include <QSet>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

const auto practice = u"/api/v1/mock-interview/"_s;

class PracticeRoutesTest : public ::testing::Test {
protected:
    ServerHarness server;
    const ServerHarness::Account account = server.signUp();
};

// The happy path (eight English questions, the first about the chosen job) is the whole-product
// test's; here, the most a session holds, a language the bank lacks, and another user's job.
TEST_F(PracticeRoutesTest, QuestionsComeInTheCountAndLanguageAskedForWithoutRepeats)
{
    const QByteArray jobBody = R"({"title":"Build Engineer","company":"Acme","content":"CI"})";
    const auto job =
        server.call(account, "POST", u"/api/v1/job-description"_s, jobBody).json()[u"id"_s];
    const auto other = server.signUp();
    for (const auto& [language, count, served] :
         {std::tuple{u"de-AT"_s, 20, u"de"_s}, {u"ja"_s, 5, u"en"_s}}) {
        SCOPED_TRACE(language.toStdString());
        const QJsonObject asked{
            {u"language"_s, language}, {u"count"_s, count}, {u"jobDescriptionId"_s, job}};
        const auto body =
            server.call(other, "POST", practice + u"questions"_s, compact(asked)).json();
        EXPECT_EQ(body[u"language"_s].toString(), served);
        const auto list = body[u"questions"_s].toArray();
        ASSERT_EQ(list.size(), count);
        QSet<QString> texts;
        for (const auto& question : list) {
            const auto text = question[u"text"_s].toString();
            texts.insert(text);
            EXPECT_EQ(QuestionBank::builtIn().languageOf(text), served);
            EXPECT_FALSE(text.contains(u"Acme"_s)) << "the other user's job shapes nothing";
        }
        EXPECT_EQ(texts.size(), count) << "no question twice in one session";
    }
}

TEST_F(PracticeRoutesTest, AvatarsArePngsOfTheirOwnUserAndSurviveARestart)
{
    const auto avatar = practice + u"avatar"_s;
    const auto& first = account;
    const auto second = server.signUp();
    const auto image = [&](const ServerHarness::Account& account) {
        return server.call(account, "GET", avatar + u"/image"_s);
    };
    expectRoutes(server, first, {{"GET", avatar, {}, 404}, {"GET", avatar + u"/image"_s, {}, 404}});
    EXPECT_EQ(server.call(first, "POST", avatar + u"/generate"_s, "{}").status, 200);
    const auto firstImage = image(first);
    EXPECT_TRUE(firstImage.status == 200
                && firstImage.headers.toLower().contains("content-type: image/png")
                && !QImage::fromData(firstImage.body, "PNG").isNull());
    // Another user's face is their own, made with no body at all.
    expectRoutes(
        server, second,
        {{"GET", avatar + u"/image"_s, {}, 404}, {"POST", avatar + u"/generate"_s, "", 200}});
    const auto secondImage = image(second).body;
    EXPECT_NE(secondImage, firstImage.body);
    // A restart: a new connection to the same database serves the same bytes.
    const auto reopened = server.reopen();
    EXPECT_EQ(PracticeStore(*reopened).avatarImage(first.id), firstImage.body);
    EXPECT_EQ(PracticeStore(*reopened).avatarImage(second.id), secondImage);
}

// A child that never ends is killed once its time is up on the server's clock, and the request
// gets its answer: a stuck espeak-ng must not hold a request, or a slot of the four, for ever.
TEST(PracticeSpeechTest, AStuckChildIsKilledWhenItsTimeIsUp)
{
    QTemporaryDir dir;
    ServerConfig config;
    config.espeakProgram = writeFile(dir.filePath(u"stuck-espeak"_s),
                                     "#!/bin/sh\necho $$ >\"$0.pid\"\nexec sleep 600\n", true);
    ServerHarness server(config);
    const auto account = server.signUp();
    QProcess request;
    request.start(u"curl"_s, {u"-s"_s, u"-o"_s, u"/dev/null"_s, u"-w"_s, u"%{http_code}"_s, u"-H"_s,
                              u"Authorization: Bearer "_s + account.accessToken, u"--data-binary"_s,
                              u"{\"text\":\"Hello\"}"_s, server.base() + practice + u"tts"_s});
    QFile pidFile(config.espeakProgram + u".pid"_s);
    ASSERT_TRUE(waitUntil([&] { return pidFile.size() > 0; }) && pidFile.open(QIODevice::ReadOnly));
    const auto pid = pidFile.readAll().trimmed();

    const std::chrono::milliseconds limit(SpeechSynthesizer::processLimitMs);
    ASSERT_TRUE(happensExactlyAfter(server.clock, limit,
                                    [&] { return request.state() == QProcess::NotRunning; }));
    EXPECT_EQ(request.readAllStandardOutput(), "500");
    EXPECT_TRUE(waitUntil([&] { return !QFile::exists(u"/proc/"_s + QString::fromLatin1(pid)); }))
        << "the child " << pid.constData() << " still runs";
}

// A stand-in for espeak-ng that records its arguments and standard input, then answers as the
// real one does on a pipe (placeholder sizes), in floating point when told to, or fails.
TEST(PracticeSpeechTest, TheTextGoesOnStandardInputAndTheVoiceFollowsTheQuestionsLanguage)
{
    QTemporaryDir dir;
    ServerConfig config;
    config.espeakProgram = writeFile(dir.filePath(u"fake-espeak"_s), R"(#!/usr/bin/python3
import os, struct, sys
text = sys.stdin.buffer.read()
with open(sys.argv[0].rsplit('/', 1)[0] + '/calls', 'ab') as calls:
    calls.write(repr((sys.argv[1:], text)).encode() + b'\n')
with open(sys.argv[0].rsplit('/', 1)[0] + '/environment', 'w') as environment:
    environment.write('\n'.join(sorted(k + '=' + v for k, v in os.environ.items())))
if b'fail' in text:
    sys.exit(1)
sys.stdout.buffer.write(b'RIFF' + struct.pack('<I', 0x7ffff024) + b'WAVEfmt '
    + struct.pack('<IHHIIHH', 16, 3 if b'float' in text else 1, 1, 22050, 44100, 2, 16)
    + b'data' + struct.pack('<I', 0x7ffff000) + struct.pack('<4h', 0, 1000, -1000, 0))
)",
                                     true);
    // What the server was started with (a preloaded library, a PATH of the user's) stays with
    // the server: the child gets a fixed PATH and a locale, nothing else.
    qputenv("RAVLET_INHERITED_BY_CHILDREN", "yes");
    ServerHarness server(config);
    const auto account = server.signUp();
    const auto speak = [&](const QJsonObject& body) {
        return server.call(account, "POST", practice + u"tts"_s, compact(body)).status;
    };
    EXPECT_EQ(speak({{u"text"_s, u"Why $(touch /tmp/x); rm -rf ~ `id` -v de"_s}}), 200);
    EXPECT_EQ(speak({{u"text"_s, u"Warum interessieren Sie sich für diese Stelle?"_s}}), 200);
    EXPECT_EQ(speak({{u"text"_s, u"please fail"_s}}), 500);
    EXPECT_EQ(speak({{u"text"_s, u"float samples"_s}}), 500) << "only plain PCM is served";
    // Without espeak-ng the route says what is missing.
    config.espeakProgram = u"/nonexistent/espeak-ng"_s;
    ServerHarness without(config);
    const auto refused =
        without.call(without.signUp(), "POST", practice + u"tts"_s, R"({"text":"Hello"})");
    EXPECT_TRUE(refused.status == 503
                && refused.json()[u"error"_s].toString().contains(u"espeak-ng"_s))
        << refused.body.toStdString();

    qunsetenv("RAVLET_INHERITED_BY_CHILDREN");
    QFile environment(dir.filePath(u"environment"_s));
    ASSERT_TRUE(environment.open(QIODevice::ReadOnly));
    EXPECT_EQ(QString::fromUtf8(environment.readAll()).toStdString(),
              "LANG=C.UTF-8\nPATH=/usr/local/bin:/usr/bin:/bin");

    QFile calls(dir.filePath(u"calls"_s));
    ASSERT_TRUE(calls.open(QIODevice::ReadOnly));
    const auto lines = QString::fromUtf8(calls.readAll()).split(u'\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 4);
    EXPECT_TRUE(lines[0].contains(u"$(touch /tmp/x); rm -rf ~ `id` -v de"_s))
        << "on stdin, untouched";
    const QStringList voices{u"en-us"_s, u"de"_s};
    for (qsizetype i = 0; i < voices.size(); ++i)
        EXPECT_TRUE(lines[i].startsWith(u"(['-v', '"_s + voices[i] + u"', '--stdout'], b"_s))
            << lines[i].toStdString();
}
