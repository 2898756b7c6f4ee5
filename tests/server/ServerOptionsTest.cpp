#include "ServerOptions.h"

#include "ServerHarness.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

auto parse(const QStringList& arguments, const QStringList& environment = {})
{
    return ServerOptions::parse(QStringList{u"ravlet-server"_s} + arguments, environment);
}

ServerOptions parsed(const QStringList& arguments, const QStringList& environment = {})
{
    auto result = parse(arguments, environment);
    if (auto* error = std::get_if<QString>(&result))
        ADD_FAILURE() << error->toStdString();
    return std::get_if<ServerOptions>(&result) ? std::get<ServerOptions>(result) : ServerOptions{};
}

} // namespace

TEST(ServerOptionsTest, CommandLineOverEnvironmentOverDefaultsAndSecretsFromFilesOnly)
{
    QTemporaryDir dir;
    const auto key = writeFile(dir.filePath(u"key"_s), "from-file\n");
    const auto defaults = parsed({});
    EXPECT_EQ(defaults.address, QHostAddress(QHostAddress::LocalHost)) << "never every interface by default";
    EXPECT_EQ(defaults.port, 8787);
    EXPECT_TRUE(defaults.database.endsWith(u"/RavletAI/server.sqlite"_s));
    EXPECT_TRUE(defaults.config.localSignIn);
    EXPECT_FALSE(defaults.config.speechEndpoint);
    EXPECT_TRUE(defaults.config.offlineSpeech);

    const QStringList environment{u"RAVLET_LISTEN=0.0.0.0:9000"_s, u"RAVLET_DATABASE=postgresql://db/ravlet"_s,
                                  u"RAVLET_LLM_API_KEY=from-env"_s, u"RAVLET_NO_LOCAL_SIGN_IN=1"_s,
                                  u"RAVLET_NO_OFFLINE_SPEECH=1"_s};
    const auto fromEnvironment = parsed({}, environment);
    EXPECT_EQ(fromEnvironment.address, QHostAddress(u"0.0.0.0"_s));
    EXPECT_EQ(fromEnvironment.port, 9000);
    EXPECT_EQ(fromEnvironment.database, u"postgresql://db/ravlet"_s);
    EXPECT_EQ(fromEnvironment.llmApiKey, u"from-env"_s);
    EXPECT_FALSE(fromEnvironment.config.localSignIn);
    EXPECT_FALSE(fromEnvironment.config.offlineSpeech);

    const auto overridden = parsed({u"--listen=[::1]:8800"_s, u"--llm-api-key-file"_s, key,
                                    u"--speech-endpoint"_s, u"ws://127.0.0.1:9100"_s}, environment);
    EXPECT_EQ(overridden.address, QHostAddress(QHostAddress::LocalHostIPv6));
    EXPECT_EQ(overridden.port, 8800);
    EXPECT_EQ(overridden.llmApiKey, u"from-file"_s);
    EXPECT_EQ(overridden.config.speechEndpoint, u"ws://127.0.0.1:9100"_s);

    // Speech vendor keys, from files or the environment only: "vendor|key|base URL|model".
    const auto vendor = [](const QStringList& arguments, const QStringList& environment) {
        const auto chosen = parsed(arguments, environment).config.speechVendor;
        return chosen ? QStringList{vendorName(chosen->vendor), chosen->apiKey, chosen->baseUrl, chosen->sttModel}.join(u'|')
                      : u"none"_s;
    };
    EXPECT_EQ(vendor({}, {}), u"none"_s);
    EXPECT_EQ(vendor({}, {u"RAVLET_DEEPGRAM_API_KEY=dg-env"_s}), u"deepgram|dg-env|https://api.deepgram.com|"_s);
    EXPECT_EQ(vendor({u"--openai-key-file"_s, key, u"--openai-url"_s, u"http://127.0.0.1:9"_s, u"--openai-stt-model"_s,
                      u"whisper-1"_s}, {}), u"openai|from-file|http://127.0.0.1:9|whisper-1"_s);
    // Two keys: the operator has to say which one mints.
    const QStringList both{u"RAVLET_DEEPGRAM_API_KEY=dg"_s, u"RAVLET_ELEVENLABS_API_KEY=el"_s};
    const auto ambiguous = parse({}, both);
    ASSERT_TRUE(std::get_if<QString>(&ambiguous));
    EXPECT_TRUE(std::get<QString>(ambiguous).contains(u"--speech-vendor"_s));
    EXPECT_TRUE(vendor({u"--speech-vendor"_s, u"elevenlabs"_s}, both).startsWith(u"elevenlabs|el|"_s));
}

TEST(ServerOptionsTest, RefusesSecretsOnTheCommandLineAndBadValues)
{
    const auto secret = u"never given on the command line"_s;
    const std::pair<QStringList, QString> refusals[] = {
        {{u"--llm-api-key"_s, u"sk-123"_s}, secret},
        {{u"--llm-api-key=sk-123"_s}, secret},
        {{u"--deepgram-key"_s, u"sk"_s}, secret},
        {{u"--openai-api-key=sk"_s, u"sk"_s}, secret},
        {{u"--elevenlabs-key"_s, u"sk"_s}, secret},
        {{u"--listen"_s, u"8787"_s}, {}},
        {{u"--listen"_s}, {}},
        {{u"--speech-endpoint"_s, u"http://x"_s}, {}},
        {{u"--llm-api-key-file"_s, u"/nonexistent/key"_s}, {}},
        {{u"--frobnicate"_s}, {}},
        {{u"--speech-vendor"_s, u"openai"_s}, {}}, // a vendor without its key
        {{u"--speech-vendor"_s, u"acme"_s}, {}},
        {{u"--deepgram-url"_s, u"wss://api.deepgram.com"_s}, {}},
        {{u"--elevenlabs-key-file"_s, u"/nonexistent/key"_s}, {}},
    };
    for (const auto& [arguments, reason] : refusals) {
        const auto result = parse(arguments);
        ASSERT_TRUE(std::get_if<QString>(&result)) << arguments.join(u' ').toStdString();
        EXPECT_TRUE(std::get<QString>(result).contains(reason)) << arguments.join(u' ').toStdString();
    }
    const auto help = parse({u"--help"_s});
    ASSERT_TRUE(std::get_if<ServerOptions::Help>(&help));
    for (const auto& option : {u"--listen"_s, u"--database"_s, u"--llm-base-url"_s, u"--llm-model"_s,
                               u"--llm-api-key-file"_s, u"--speech-endpoint"_s, u"--updates-dir"_s})
        EXPECT_TRUE(std::get<ServerOptions::Help>(help).text.contains(option)) << option.toStdString();
}

TEST(ServerOptionsTest, SigningKeyIsCreatedOnceAndKeptPrivate)
{
    QTemporaryDir dir;
    const auto path = dir.filePath(u"keys/signing.key"_s);
    const auto created = loadOrCreateSigningKey(path);
    ASSERT_TRUE(std::get_if<QByteArray>(&created));
    EXPECT_EQ(std::get<QByteArray>(created).size(), 32);
    EXPECT_EQ(QFile(path).permissions() & (QFileDevice::ReadGroup | QFileDevice::ReadOther), QFileDevice::Permissions());
    EXPECT_EQ(std::get<QByteArray>(loadOrCreateSigningKey(path)), std::get<QByteArray>(created));
    const auto refused = loadOrCreateSigningKey(writeFile(dir.filePath(u"short"_s), "abcd"));
    EXPECT_TRUE(std::get_if<QString>(&refused));
}
