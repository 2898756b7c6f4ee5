#include "ServerOptions.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

ServerOptions parsed(const QStringList& arguments, const QStringList& environment = {})
{
    auto result = ServerOptions::parse(QStringList{u"ravlet-server"_s} + arguments, environment);
    if (auto* error = std::get_if<QString>(&result))
        ADD_FAILURE() << error->toStdString();
    return std::get_if<ServerOptions>(&result) ? std::get<ServerOptions>(result) : ServerOptions{};
}

QString refusal(const QStringList& arguments)
{
    const auto result = ServerOptions::parse(QStringList{u"ravlet-server"_s} + arguments, {});
    return std::get_if<QString>(&result) ? std::get<QString>(result) : QString();
}

} // namespace

TEST(ServerOptionsTest, CommandLineOverEnvironmentOverDefaults)
{
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

    QTemporaryDir dir;
    QFile key(dir.filePath(u"key"_s));
    ASSERT_TRUE(key.open(QIODevice::WriteOnly));
    key.write("from-file\n");
    key.close();
    const auto overridden = parsed({u"--listen=[::1]:8800"_s, u"--llm-api-key-file"_s, key.fileName(),
                                    u"--speech-endpoint"_s, u"ws://127.0.0.1:9100"_s},
                                   environment);
    EXPECT_EQ(overridden.address, QHostAddress(QHostAddress::LocalHostIPv6));
    EXPECT_EQ(overridden.port, 8800);
    EXPECT_EQ(overridden.llmApiKey, u"from-file"_s);
    EXPECT_EQ(overridden.config.speechEndpoint, u"ws://127.0.0.1:9100"_s);
}

TEST(ServerOptionsTest, RefusesSecretsOnTheCommandLineAndBadValues)
{
    EXPECT_TRUE(refusal({u"--llm-api-key"_s, u"sk-123"_s}).contains(u"never given on the command line"_s));
    EXPECT_TRUE(refusal({u"--llm-api-key=sk-123"_s}).contains(u"never given on the command line"_s));
    EXPECT_FALSE(refusal({u"--listen"_s, u"8787"_s}).isEmpty());
    EXPECT_FALSE(refusal({u"--listen"_s}).isEmpty());
    EXPECT_FALSE(refusal({u"--speech-endpoint"_s, u"http://x"_s}).isEmpty());
    EXPECT_FALSE(refusal({u"--llm-api-key-file"_s, u"/nonexistent/key"_s}).isEmpty());
    EXPECT_FALSE(refusal({u"--frobnicate"_s}).isEmpty());
    const auto help = ServerOptions::parse({u"ravlet-server"_s, u"--help"_s}, {});
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
    QFile shortKey(dir.filePath(u"short"_s));
    ASSERT_TRUE(shortKey.open(QIODevice::WriteOnly));
    shortKey.write("abcd");
    shortKey.close();
    const auto refused = loadOrCreateSigningKey(shortKey.fileName());
    EXPECT_TRUE(std::get_if<QString>(&refused));
}

TEST(ServerOptionsTest, SpeechVendorKeysComeFromFilesOrTheEnvironmentOnly)
{
    QTemporaryDir dir;
    QFile key(dir.filePath(u"openai.key"_s));
    ASSERT_TRUE(key.open(QIODevice::WriteOnly));
    key.write("sk-file\n");
    key.close();

    EXPECT_FALSE(parsed({}).config.speechVendor) << "no key, no vendor";
    const auto fromEnvironment = parsed({}, {u"RAVLET_DEEPGRAM_API_KEY=dg-env"_s});
    ASSERT_TRUE(fromEnvironment.config.speechVendor);
    EXPECT_EQ(fromEnvironment.config.speechVendor->vendor, SpeechVendor::deepgram);
    EXPECT_EQ(fromEnvironment.config.speechVendor->apiKey, u"dg-env"_s);
    EXPECT_EQ(fromEnvironment.config.speechVendor->baseUrl, u"https://api.deepgram.com"_s);

    const auto fromFile = parsed({u"--openai-key-file"_s, key.fileName(), u"--openai-url"_s,
                                  u"http://127.0.0.1:9"_s, u"--openai-stt-model"_s, u"whisper-1"_s});
    ASSERT_TRUE(fromFile.config.speechVendor);
    EXPECT_EQ(fromFile.config.speechVendor->vendor, SpeechVendor::openai);
    EXPECT_EQ(fromFile.config.speechVendor->apiKey, u"sk-file"_s);
    EXPECT_EQ(fromFile.config.speechVendor->baseUrl, u"http://127.0.0.1:9"_s);
    EXPECT_EQ(fromFile.config.speechVendor->sttModel, u"whisper-1"_s);

    // Two keys: the operator has to say which one mints.
    const QStringList both{u"RAVLET_DEEPGRAM_API_KEY=dg"_s, u"RAVLET_ELEVENLABS_API_KEY=el"_s};
    const auto ambiguous = ServerOptions::parse({u"ravlet-server"_s}, both);
    ASSERT_TRUE(std::get_if<QString>(&ambiguous));
    EXPECT_TRUE(std::get<QString>(ambiguous).contains(u"--speech-vendor"_s));
    const auto chosen = parsed({u"--speech-vendor"_s, u"elevenlabs"_s}, both);
    ASSERT_TRUE(chosen.config.speechVendor);
    EXPECT_EQ(chosen.config.speechVendor->vendor, SpeechVendor::elevenlabs);
    EXPECT_EQ(chosen.config.speechVendor->apiKey, u"el"_s);

    for (const auto& argument : {u"--deepgram-key"_s, u"--openai-api-key=sk"_s, u"--elevenlabs-key"_s})
        EXPECT_TRUE(refusal({argument, u"sk"_s}).contains(u"never given on the command line"_s))
            << argument.toStdString();
    EXPECT_FALSE(refusal({u"--speech-vendor"_s, u"openai"_s}).isEmpty()) << "a vendor without its key";
    EXPECT_FALSE(refusal({u"--speech-vendor"_s, u"acme"_s}).isEmpty());
    EXPECT_FALSE(refusal({u"--deepgram-url"_s, u"wss://api.deepgram.com"_s}).isEmpty());
    EXPECT_FALSE(refusal({u"--elevenlabs-key-file"_s, u"/nonexistent/key"_s}).isEmpty());
}
