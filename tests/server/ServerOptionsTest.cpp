#include "ServerOptions.h"

#include "Database.h"
#include "ServerHarness.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

auto parse(const QStringList& arguments, const QStringList& environment = {})
{
    return ServerOptions::parse(QStringList{u"ravlet-server"_s} + arguments, environment);
}

// What was chosen, as "address port|database|LLM key|local sign-in offline speech|endpoint|vendor".
QString chosen(const QStringList& arguments, const QStringList& environment)
{
    const auto result = parse(arguments, environment);
    if (const auto* error = std::get_if<QString>(&result))
        return u"error: "_s + *error;
    const auto& o = std::get<ServerOptions>(result);
    const auto vendor = o.config.speechVendor;
    return QStringList{o.address.toString() + u' ' + QString::number(o.port),
                       o.database,
                       o.llmApiKey,
                       QString::number(o.config.localSignIn) + u' '
                           + QString::number(o.config.offlineSpeech),
                       o.config.speechEndpoint.value_or(u"-"_s),
                       vendor ? QStringList{vendorName(vendor->vendor), vendor->apiKey,
                                            vendor->baseUrl, vendor->sttModel}
                                    .join(u' ')
                              : u"-"_s}
        .join(u'|');
}

} // namespace

// Command line over environment over defaults; secrets come from files or the environment only,
// and a bad value is refused with its reason.
TEST(ServerOptionsTest, CommandLineOverEnvironmentOverDefaultsAndSecretsFromFilesOnly)
{
    QTemporaryDir dir;
    const auto key = writeFile(dir.filePath(u"key"_s), "from-file\n");
    const QStringList environment{u"RAVLET_LISTEN=0.0.0.0:9000"_s,
                                  u"RAVLET_DATABASE=postgresql://db/ravlet"_s,
                                  u"RAVLET_LLM_API_KEY=from-env"_s, u"RAVLET_NO_LOCAL_SIGN_IN=1"_s,
                                  u"RAVLET_NO_OFFLINE_SPEECH=1"_s};
    const QStringList both{u"RAVLET_DEEPGRAM_API_KEY=dg"_s, u"RAVLET_ELEVENLABS_API_KEY=el"_s};
    const auto secret = u"error: ~never given on the command line"_s, error = u"error: ~"_s;
    const struct {
        QStringList arguments, environment;
        QString expected; // a leading "~" matches the end of the chosen values only
    } rows[] = {
        // clang-format off
        // Never every interface by default.
        {{}, {}, u"127.0.0.1 8787|~/RavletAI/server.sqlite||1 1|-|-"_s},
        {{}, environment, u"0.0.0.0 9000|postgresql://db/ravlet|from-env|0 0|-|-"_s},
        {{u"--listen=[::1]:8800"_s, u"--llm-api-key-file"_s, key, u"--speech-endpoint"_s, u"ws://127.0.0.1:9100"_s}, environment,
         u"::1 8800|postgresql://db/ravlet|from-file|0 0|ws://127.0.0.1:9100|-"_s},
        {{}, {u"RAVLET_DEEPGRAM_API_KEY=dg-env"_s}, u"~|1 1|-|deepgram dg-env https://api.deepgram.com "_s},
        {{u"--openai-key-file"_s, key, u"--openai-url"_s, u"http://127.0.0.1:9"_s, u"--openai-stt-model"_s, u"whisper-1"_s}, {},
         u"~|1 1|-|openai from-file http://127.0.0.1:9 whisper-1"_s},
        // Two keys: the operator has to say which one mints.
        {{}, both, u"error: ~--speech-vendor"_s},
        {{u"--speech-vendor"_s, u"elevenlabs"_s}, both, u"~|elevenlabs el "_s},
        // Signing in without a password is for the computer the server runs on: never when
        // others can reach it, directly or through a proxy.
        {{u"--listen"_s, u"192.0.2.1:8787"_s}, {}, u"~||0 1|-|-"_s},
        {{u"--listen"_s, u"[::]:8787"_s}, {}, u"~||0 1|-|-"_s},
        {{u"--public-url"_s, u"https://ravlet.example.org"_s}, {}, u"~||0 1|-|-"_s},
        {{u"--llm-api-key"_s, u"sk-123"_s}, {}, secret},
        {{u"--openai-api-key=sk"_s, u"sk"_s}, {}, secret},
        {{u"--listen"_s, u"8787"_s}, {}, error},
        {{u"--llm-api-key-file"_s, u"/nonexistent/key"_s}, {}, error},
        {{u"--frobnicate"_s}, {}, error},
        {{u"--speech-vendor"_s, u"openai"_s}, {}, error}, // a vendor without its key
        {{u"--max-connections-per-address=many"_s}, {}, u"error: ~positive"_s},
        {{u"--max-answer-streams"_s, u"0"_s}, {}, u"error: ~at least 1"_s},
        // clang-format on
    };
    for (const auto& row : rows) {
        const auto actual = chosen(row.arguments, row.environment);
        const auto tilde = row.expected.indexOf(u'~');
        EXPECT_TRUE(tilde < 0 ? actual == row.expected
                              : actual.startsWith(row.expected.left(tilde))
                                    && actual.contains(row.expected.mid(tilde + 1)))
            << actual.toStdString() << " for " << row.arguments.join(u' ').toStdString();
    }
    // Host names answered: loopback, the public one, and those given; a quota from the command
    // line, one from the environment.
    const auto parsed =
        parse({u"--public-url=https://Team.example.org:8443/"_s, u"--allowed-host"_s,
               u"a.example, B.example"_s, u"--max-document-bytes"_s, u"5000000000"_s},
              {u"RAVLET_MAX_CRASH_REPORTS=5"_s});
    ASSERT_TRUE(std::get_if<ServerOptions>(&parsed));
    const auto& options = std::get<ServerOptions>(parsed);
    EXPECT_EQ(options.httpLimits.allowedHosts,
              QStringList({u"localhost"_s, u"team.example.org"_s, u"a.example"_s, u"b.example"_s}));
    EXPECT_EQ(
        std::pair(options.config.quotas.documentBytes, options.config.quotas.crashReportsKept),
        std::pair(5'000'000'000LL, 5));
}

// The files' modes are the socket test's, on the real server's folder; here, what it refuses.
TEST(ServerOptionsTest, SigningKeyIsKeptAndRefusedWhenShortOrExposedAndCommitsReachTheDisk)
{
    QTemporaryDir dir;
    const auto path = dir.filePath(u"keys/signing.key"_s);
    const auto created = loadOrCreateSigningKey(path);
    ASSERT_TRUE(std::get_if<QByteArray>(&created));
    EXPECT_EQ(std::get<QByteArray>(created).size(), 32);
    EXPECT_EQ(std::get<QByteArray>(loadOrCreateSigningKey(path)), std::get<QByteArray>(created));
    const auto refused = loadOrCreateSigningKey(writeFile(dir.filePath(u"short"_s), "abcd"));
    EXPECT_TRUE(std::get_if<QString>(&refused));
    // A key others can read may already have been copied: refused, naming the file.
    ::chmod(QFile::encodeName(path).constData(), 0644);
    const auto exposed = loadOrCreateSigningKey(path);
    ASSERT_TRUE(std::get_if<QString>(&exposed));
    EXPECT_TRUE(std::get<QString>(exposed).contains(path))
        << std::get<QString>(exposed).toStdString();

    // An acknowledged transcript line must survive a power cut, not only a crash: every commit
    // reaches the disk (FULL is 2).
    auto synchronous =
        Database::open(dir.filePath(u"server.sqlite"_s))->run(u"PRAGMA synchronous"_s);
    ASSERT_TRUE(synchronous.next());
    EXPECT_EQ(synchronous.value(0).toInt(), 2);
}
