// A server holding a speech vendor's key: what it asks the vendor, what the program's own client
// reads from it, what it says when the vendor fails, and that the key stays hidden.
#include "ServerHarness.h"

#include "APIClient.h"
#include "AuthTokenStore.h"
#include "AwaitTask.h"
#include "FakeBackend.h"
#include "LogCapture.h"
#include "NotificationCenter.h"
#include "VendorTokens.h"

#include <QDir>
#include <QTcpServer>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

const auto longLivedKey = u"sk-live-7f3c9e1a5b2d4c6e8f0a1b2c3d4e5f60"_s;
const auto key = longLivedKey.toUtf8();

// Where each vendor's token API lives and what its documentation says a grant looks like.
struct VendorCase {
    SpeechVendor vendor;
    // The vendor's answer to a bad key quotes the key back, as some services do.
    QByteArray path, grant, mintedToken, refusal, keyHeader, keyScheme;
    const char* lifetimeField; // in the request body; null where the vendor fixes it
};

// clang-format off
const VendorCase vendorCases[] = {
    {SpeechVendor::deepgram, "/v1/auth/grant", R"({"access_token":"eyJhbGciOiJIUzI1NiJ9.dg-temporary.sig","expires_in":60})",
     "eyJhbGciOiJIUzI1NiJ9.dg-temporary.sig", R"({"err_code":"INVALID_AUTH","err_msg":"Invalid credentials: )" + key + R"(","request_id":"r1"})",
     "authorization", "Token ", "ttl_seconds"},
    {SpeechVendor::elevenlabs, "/v1/single-use-token/realtime_scribe", R"({"token":"sutkn_0a1b2c3d"})", "sutkn_0a1b2c3d",
     R"({"detail":{"status":"invalid_api_key","message":"Invalid API key )" + key + R"("}})", "xi-api-key", "", nullptr},
    {SpeechVendor::openai, "/v1/realtime/client_secrets", R"({"value":"ek_68af296e8e408191","expires_at":1756310470,"session":{"type":"transcription"}})",
     "ek_68af296e8e408191", R"({"error":{"message":"Incorrect API key provided: )" + key + R"(.","type":"invalid_request_error","code":"invalid_api_key"}})",
     "authorization", "Bearer ", "expires_after/seconds"},
};
// clang-format on

// The vendor's name in test output, where the bytes of the case would say nothing.
void PrintTo(const VendorCase& vendorCase, std::ostream* out)
{
    *out << vendorName(vendorCase.vendor).toStdString();
}

// Every warning the server prints, next to its own log lines.
QStringList* capturedMessages = nullptr;
void captureMessage(QtMsgType, const QMessageLogContext&, const QString& message)
{
    if (capturedMessages)
        capturedMessages->append(message);
}

// "a/b/c" through nested objects.
QJsonValue at(QJsonValue value, const QString& path)
{
    for (const auto& name : path.split(u'/'))
        value = value.toObject().value(name);
    return value;
}

} // namespace

class VendorTokenTest : public ::testing::TestWithParam<VendorCase> {
protected:
    VendorTokenTest()
        : previousHandler(qInstallMessageHandler(captureMessage))
    {
        capturedMessages = &messages;
    }
    ~VendorTokenTest() override
    {
        qInstallMessageHandler(previousHandler);
        capturedMessages = nullptr;
    }

    ServerConfig config() const
    {
        ServerConfig config;
        config.speechVendor = SpeechVendorConfig{GetParam().vendor, longLivedKey,
                                                 vendorFake->origin(), u"gpt-4o-mini-transcribe"_s};
        // The built-in recogniser is there too: a vendor's key still comes first.
        config.speechEndpoint = u"ws://127.0.0.1:1"_s;
        return config;
    }
    // The token route's error text, after checking its status.
    QString fetchError(int expectedStatus)
    {
        auto result = server.call(account, "GET", u"/api/v1/speech/token"_s);
        seen += result.headers + "\n" + result.body + "\n";
        EXPECT_EQ(result.status, expectedStatus) << result.body.toStdString();
        return result.json()[u"error"_s].toString();
    }

    QStringList messages;
    QtMessageHandler previousHandler;
    // Optional so that a test can take the vendor off the network.
    std::optional<FakeBackend> vendorFake{std::in_place};
    LogCapture logs;
    ServerHarness server{config()};
    ServerHarness::Account account = server.signUp();
    QByteArray seen;
    InMemoryTokenStore tokens;
    NotificationCenter notifications;
    APIClient client{server.base(), tokens, notifications};
};

TEST_P(VendorTokenTest, GrantsReachTheClientFailuresNameTheVendorAndTheKeyStaysHidden)
{
    const auto& vendor = GetParam();
    const auto name = vendorDisplayName(vendor.vendor);
    auto limited = FakeBackend::Response::json(429, R"({"err_msg":"Too many requests",
        "detail":"Too many requests","error":{"message":"Rate limit reached"}})");
    limited.headers.append(std::pair<QByteArray, QByteArray>("Retry-After", "7"));
    const auto grant = FakeBackend::Response::json(200, vendor.grant);
    vendorFake->setRouteSequence(
        "POST", vendor.path,
        {grant, grant, FakeBackend::Response::json(401, vendor.refusal), limited,
         FakeBackend::Response::json(500, "<html>upstream exploded</html>"),
         FakeBackend::Response::json(200, R"({"unexpected":"shape"})"),
         // The vendor hands back the key itself as the token.
         FakeBackend::Response::json(200,
                                     QByteArray(vendor.grant).replace(vendor.mintedToken, key)),
         grant});
    client.setAccessToken(account.accessToken);
    // One grant per request: each channel of an interview gets its own. The program reads it.
    EXPECT_EQ(awaitTask(client.fetchAccountStatus()).speechProvider, vendorName(vendor.vendor));
    const auto token = awaitTask(client.fetchSpeechToken());
    EXPECT_EQ(token.provider + u' ' + token.token,
              vendorName(vendor.vendor) + u' ' + QString::fromUtf8(vendor.mintedToken));
    EXPECT_FALSE(token.endpoint);
    const bool openai = vendor.vendor == SpeechVendor::openai;
    EXPECT_EQ(token.sttModel, openai ? std::optional(u"gpt-4o-mini-transcribe"_s) : std::nullopt);
    EXPECT_EQ(fetchError(200), QString());
    const auto requests = vendorFake->requests("POST", vendor.path);
    ASSERT_EQ(requests.size(), 2);
    const auto& request = requests.first();
    EXPECT_EQ(request.header(vendor.keyHeader), vendor.keyScheme + key);
    EXPECT_TRUE(vendor.keyHeader == "authorization" || request.header("authorization").isEmpty());
    EXPECT_FALSE(request.body.contains(key)) << "the key travels in a header only";
    const auto sent = QJsonDocument::fromJson(request.body).object();
    const int seconds =
        vendor.lifetimeField ? at(sent, QString::fromLatin1(vendor.lifetimeField)).toInt() : 1;
    EXPECT_TRUE(seconds > 0 && seconds <= 300) << "short-lived: " << seconds;
    EXPECT_TRUE(!openai
                || at(sent, u"session/type"_s).toString() + u' '
                           + at(sent, u"session/audio/input/transcription/model"_s).toString()
                       == u"transcription gpt-4o-mini-transcribe"_s)
        << request.body.constData();

    const auto badKey = fetchError(502);
    EXPECT_TRUE(badKey.startsWith(name + u" refused this server's API key (HTTP 401"_s))
        << badKey.toStdString();
    EXPECT_TRUE(badKey.contains(u"[key]"_s)) << "the vendor's words, with the key cut out";
    EXPECT_TRUE(
        fetchError(503).startsWith(name + u" is limiting this server's requests (HTTP 429"_s));
    EXPECT_TRUE(seen.toLower().contains("retry-after: 7"));
    EXPECT_EQ(fetchError(502), name + u" could not issue a speech token (HTTP 500)."_s);
    EXPECT_EQ(fetchError(502), name + u" answered without a speech token."_s);
    EXPECT_EQ(fetchError(502), name + u" answered without a speech token."_s);
    // The vendor recovers; so does the route. Then it takes the connection and never answers:
    // the request gives up on the server's clock, well before the client's own limit.
    EXPECT_EQ(fetchError(200), QString());
    EXPECT_TRUE(logs.lines().join(u'\n').contains(name + u" token request failed: HTTP 401"_s));
    const auto port = QUrl(vendorFake->origin()).port();
    vendorFake.reset();
    QTcpServer silent;
    ASSERT_TRUE(silent.listen(QHostAddress::LocalHost, port));
    QObject::connect(&silent, &QTcpServer::newConnection, &silent, [&] {
        server.clock.advance(std::chrono::milliseconds(VendorTokens::vendorTimeoutMs));
    });
    EXPECT_EQ(fetchError(503),
              name + u" could not be reached from this server: no answer within 15 s"_s);

    // The key must not be anywhere a user or an operator's log could see it.
    EXPECT_FALSE(seen.contains(key)) << "in a response";
    EXPECT_FALSE((logs.lines() + messages).join(u'\n').contains(longLivedKey)) << "in the log";
    if (!qEnvironmentVariableIsEmpty("RAVLET_TEST_DATABASE"))
        return;
    const auto files = QDir(server.dir.path()).entryList({u"server.sqlite*"_s}, QDir::Files);
    ASSERT_FALSE(files.isEmpty());
    for (const auto& file : files) {
        QFile stored(server.dir.filePath(file));
        EXPECT_TRUE(stored.open(QIODevice::ReadOnly) && !stored.readAll().contains(key))
            << file.toStdString();
    }
}

INSTANTIATE_TEST_SUITE_P(Vendors, VendorTokenTest, ::testing::ValuesIn(vendorCases),
                         [](const auto& info) {
                             return vendorName(info.param.vendor).toStdString();
                         });
