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
