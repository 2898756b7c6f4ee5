#include "ServerHarness.h"

#include "FakeBackend.h"
#include "LogCapture.h"
#include "VendorTokens.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpServer>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

const auto longLivedKey = u"sk-live-7f3c9e1a5b2d4c6e8f0a1b2c3d4e5f60"_s;

// Where each vendor's token API lives and what its documentation says a grant looks like.
struct VendorCase {
    SpeechVendor vendor;
    QByteArray path;
    QByteArray grant;
    QByteArray mintedToken;
    // The vendor's answer to a bad key, quoting the key back as some services do.
    QByteArray refusal;
};

QByteArray quoted(const QString& text)
{
    return text.toUtf8();
}

QList<VendorCase> vendorCases()
{
    return {
        {SpeechVendor::deepgram, "/v1/auth/grant",
         R"({"access_token":"eyJhbGciOiJIUzI1NiJ9.dg-temporary.sig","expires_in":60})",
         "eyJhbGciOiJIUzI1NiJ9.dg-temporary.sig",
         R"({"err_code":"INVALID_AUTH","err_msg":"Invalid credentials: )" + quoted(longLivedKey)
             + R"(","request_id":"r1"})"},
        {SpeechVendor::elevenlabs, "/v1/single-use-token/realtime_scribe",
         R"({"token":"sutkn_0a1b2c3d"})", "sutkn_0a1b2c3d",
         R"({"detail":{"status":"invalid_api_key","message":"Invalid API key )" + quoted(longLivedKey)
             + R"("}})"},
        {SpeechVendor::openai, "/v1/realtime/client_secrets",
         R"({"value":"ek_68af296e8e408191","expires_at":1756310470,"session":{"type":"transcription"}})",
         "ek_68af296e8e408191",
         R"({"error":{"message":"Incorrect API key provided: )" + quoted(longLivedKey)
             + R"(.","type":"invalid_request_error","code":"invalid_api_key"}})"},
    };
}

void PrintTo(const VendorCase& vendorCase, std::ostream* out)
{
    *out << vendorName(vendorCase.vendor).toStdString();
}

std::string caseName(const ::testing::TestParamInfo<VendorCase>& info)
{
    return vendorName(info.param.vendor).toStdString();
}

// Every warning the server prints, next to its own log lines.
QStringList* capturedMessages = nullptr;
void captureMessage(QtMsgType, const QMessageLogContext&, const QString& message)
{
    if (capturedMessages)
        capturedMessages->append(message);
}

QJsonObject json(const CurlResult& result)
{
    return QJsonDocument::fromJson(result.body).object();
}

} // namespace

class VendorTokenTest : public ::testing::TestWithParam<VendorCase> {
protected:
    VendorTokenTest()
        : server(configFor(vendorFake.origin()))
    {
        capturedMessages = &messages;
        previousHandler = qInstallMessageHandler(captureMessage);
        account = server.signUp();
    }
    ~VendorTokenTest() override
    {
        qInstallMessageHandler(previousHandler);
        capturedMessages = nullptr;
    }

    ServerConfig configFor(const QString& baseUrl) const
    {
        ServerConfig config;
        config.speechVendor = SpeechVendorConfig{GetParam().vendor, longLivedKey, baseUrl,
                                                 u"gpt-4o-mini-transcribe"_s};
        // The built-in recogniser is there too: a vendor's key still comes first.
        config.speechEndpoint = u"ws://127.0.0.1:1"_s;
        return config;
    }

    CurlResult fetchToken()
    {
        auto result = server.call(account, u"GET"_s, u"/api/v1/speech/token"_s);
        seen += result.headers + "\n" + result.body + "\n";
        return result;
    }

    // The key must not be anywhere a user or an operator's log could see it.
    void expectKeyNowhere()
    {
        EXPECT_FALSE(seen.contains(longLivedKey.toUtf8())) << "in a response";
        EXPECT_FALSE((logs.lines().join(u'\n') + messages.join(u'\n')).contains(longLivedKey))
            << "in the log";
        if (qEnvironmentVariableIsEmpty("RAVLET_TEST_DATABASE")) {
            const auto files = QDir(server.dir.path())
                                   .entryList({u"server.sqlite*"_s}, QDir::Files);
            ASSERT_FALSE(files.isEmpty());
            for (const auto& name : files) {
                QFile file(server.dir.filePath(name));
                ASSERT_TRUE(file.open(QIODevice::ReadOnly));
                EXPECT_FALSE(file.readAll().contains(longLivedKey.toUtf8())) << name.toStdString();
            }
        }
    }

    FakeBackend vendorFake;
    LogCapture logs;
    QStringList messages;
    QtMessageHandler previousHandler = nullptr;
    ServerHarness server;
    ServerHarness::Account account;
    QByteArray seen;
};

TEST_P(VendorTokenTest, AGrantBecomesTheClientsTokenAndTheVendorSeesTheDocumentedRequest)
{
    const auto& vendor = GetParam();
    vendorFake.setRoute("POST", vendor.path, FakeBackend::Response::json(200, vendor.grant));

    const auto status = json(server.call(account, u"GET"_s, u"/api/v1/subscription/status"_s));
    EXPECT_EQ(status.value(u"speechProvider"_s).toString(), vendorName(vendor.vendor));

    const auto first = fetchToken();
    ASSERT_EQ(first.status, 200) << first.body.toStdString();
    const auto body = json(first);
    EXPECT_EQ(body.value(u"provider"_s).toString(), vendorName(vendor.vendor));
    EXPECT_EQ(body.value(u"token"_s).toString().toUtf8(), vendor.mintedToken);
    EXPECT_FALSE(body.contains(u"endpoint"_s)) << "the client's own vendor origin applies";
    if (vendor.vendor == SpeechVendor::openai)
        EXPECT_EQ(body.value(u"sttModel"_s).toString(), u"gpt-4o-mini-transcribe"_s);
    else
        EXPECT_FALSE(body.contains(u"sttModel"_s)) << "these clients choose their model by language";

    // One grant per request: each channel of an interview gets its own.
    ASSERT_EQ(fetchToken().status, 200);
    const auto requests = vendorFake.requests("POST", vendor.path);
    ASSERT_EQ(requests.size(), 2);
    const auto& request = requests.first();
    const auto sent = QJsonDocument::fromJson(request.body).object();
    switch (vendor.vendor) {
    case SpeechVendor::deepgram:
        EXPECT_EQ(request.header("authorization"), "Token " + longLivedKey.toUtf8());
        EXPECT_GT(sent.value(u"ttl_seconds"_s).toInt(), 0);
        EXPECT_LE(sent.value(u"ttl_seconds"_s).toInt(), 300) << "short-lived";
        break;
    case SpeechVendor::elevenlabs:
        EXPECT_EQ(request.header("xi-api-key"), longLivedKey.toUtf8());
        EXPECT_TRUE(request.header("authorization").isEmpty());
        break;
    case SpeechVendor::openai: {
        EXPECT_EQ(request.header("authorization"), "Bearer " + longLivedKey.toUtf8());
        const auto session = sent.value(u"session"_s).toObject();
        EXPECT_EQ(session.value(u"type"_s).toString(), u"transcription"_s);
        EXPECT_EQ(session.value(u"audio"_s)
                      .toObject()
                      .value(u"input"_s)
                      .toObject()
                      .value(u"transcription"_s)
                      .toObject()
                      .value(u"model"_s)
                      .toString(),
                  u"gpt-4o-mini-transcribe"_s);
        EXPECT_LE(sent.value(u"expires_after"_s).toObject().value(u"seconds"_s).toInt(), 300);
        break;
    }
    }
    EXPECT_TRUE(request.header("content-type").startsWith("application/json"));
    expectKeyNowhere();
}

TEST_P(VendorTokenTest, VendorRefusalsBecomeClearErrorsNamingTheVendor)
{
    const auto& vendor = GetParam();
    const auto name = vendorDisplayName(vendor.vendor);
    auto limited = FakeBackend::Response::json(
        429, R"({"err_msg":"Too many requests","detail":"Too many requests","error":{"message":"Rate limit reached"}})");
    limited.headers.append(std::pair<QByteArray, QByteArray>("Retry-After", "7"));
    vendorFake.setRouteSequence(
        "POST", vendor.path,
        {FakeBackend::Response::json(401, vendor.refusal), limited,
         FakeBackend::Response::json(500, "<html>upstream exploded</html>"),
         FakeBackend::Response::json(200, R"({"unexpected":"shape"})"),
         FakeBackend::Response::json(200, vendor.grant)});

    const auto badKey = fetchToken();
    EXPECT_EQ(badKey.status, 502);
    const auto badKeyText = json(badKey).value(u"error"_s).toString();
    EXPECT_TRUE(badKeyText.startsWith(name + u" refused this server's API key (HTTP 401"_s))
        << badKeyText.toStdString();
    EXPECT_TRUE(badKeyText.contains(u"[key]"_s)) << "the vendor's words, with the key cut out";

    const auto rateLimited = fetchToken();
    EXPECT_EQ(rateLimited.status, 503);
    EXPECT_TRUE(json(rateLimited).value(u"error"_s).toString().startsWith(
        name + u" is limiting this server's requests (HTTP 429"_s));
    EXPECT_TRUE(rateLimited.headers.toLower().contains("retry-after: 7"));

    const auto broken = fetchToken();
    EXPECT_EQ(broken.status, 502);
    EXPECT_EQ(json(broken).value(u"error"_s).toString(),
              name + u" could not issue a speech token (HTTP 500)."_s);

    const auto shapeless = fetchToken();
    EXPECT_EQ(shapeless.status, 502);
    EXPECT_EQ(json(shapeless).value(u"error"_s).toString(),
              name + u" answered without a speech token."_s);

    // The vendor recovers; so does the route.
    EXPECT_EQ(fetchToken().status, 200);
    EXPECT_TRUE(logs.lines().join(u'\n').contains(name + u" token request failed: HTTP 401"_s));
    expectKeyNowhere();
}

TEST_P(VendorTokenTest, AnUnreachableVendorIsA503NamingIt)
{
    QTcpServer closed;
    ASSERT_TRUE(closed.listen(QHostAddress::LocalHost, 0));
    const auto port = closed.serverPort();
    closed.close();
    server.api = std::make_unique<Api>(*server.db, *server.accounts, server.clock,
                                       configFor(u"http://127.0.0.1:%1"_s.arg(port)), &server.engine);
    server.http = std::make_unique<HttpServer>();
    server.api->attach(*server.http);
    server.port = server.http->listen(QHostAddress::LocalHost, 0).value_or(0);

    const auto result = fetchToken();
    EXPECT_EQ(result.status, 503);
    EXPECT_TRUE(json(result).value(u"error"_s).toString().startsWith(
        vendorDisplayName(GetParam().vendor) + u" could not be reached from this server"_s))
        << result.body.toStdString();
    expectKeyNowhere();
}

INSTANTIATE_TEST_SUITE_P(Vendors, VendorTokenTest, ::testing::ValuesIn(vendorCases()), caseName);

TEST(VendorTokensTest, AnAnswerThatHandsBackTheKeyItselfIsNoToken)
{
    const SpeechVendorConfig config{SpeechVendor::deepgram, longLivedKey,
                                    u"https://api.deepgram.com"_s, {}};
    const auto echoed = VendorTokens::interpret(
        config, {200, R"({"access_token":")" + longLivedKey.toUtf8() + R"("})", {}, {}});
    ASSERT_TRUE(std::get_if<VendorTokens::Failure>(&echoed));
    EXPECT_FALSE(std::get<VendorTokens::Failure>(echoed).message.contains(longLivedKey));

    // OpenAI's older transcription-session answer nests the secret.
    const SpeechVendorConfig openai{SpeechVendor::openai, longLivedKey, u"https://api.openai.com"_s,
                                    u"whisper-1"_s};
    const auto nested = VendorTokens::interpret(
        openai, {200, R"({"client_secret":{"value":"ek_nested","expires_at":1}})", {}, {}});
    ASSERT_TRUE(std::get_if<VendorTokens::Token>(&nested));
    EXPECT_EQ(std::get<VendorTokens::Token>(nested).token, u"ek_nested"_s);
    EXPECT_EQ(std::get<VendorTokens::Token>(nested).sttModel, u"whisper-1"_s);
}
