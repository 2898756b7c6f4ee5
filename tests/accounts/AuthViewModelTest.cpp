// Sign-in against a FakeBackend, with the tokens in the private Secret Service of the CTest
// fixture "Keyring"; then the token's profile, the browser sign-in's state and deep links alone.

#include "QtPrinters.h"

#include "APIClient.h"
#include "AuthService.h"
#include "AuthViewModel.h"
#include "AwaitTask.h"
#include "Clock.h"
#include "FakeBackend.h"
#include "KeychainHelper.h"
#include "LogCapture.h"
#include "NotificationCenter.h"
#include "OAuthService.h"
#include "PrivateKeyring.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrlQuery>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

// header.payload.signature with `payload` encoded as given.
QString token(const QByteArray& payloadJson, QByteArray::Base64Options options = QByteArray::Base64Encoding)
{
    return u"eyJhbGciOiJIUzI1NiJ9."_s + QString::fromLatin1(payloadJson.toBase64(options)) + u".sig"_s;
}

const QString aliceToken = token(R"({"sub":"u-1","email":"alice@example.com"})");

FakeBackend::Response reply(int status, const QJsonObject& body = {})
{
    return FakeBackend::Response::json(status, QJsonDocument(body).toJson());
}

void settle()
{
    for (int k = 0; k < 5; ++k)
        QCoreApplication::processEvents();
}

class AuthViewModelTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (const auto reason = PrivateKeyring::attach())
            GTEST_SKIP() << *reason;
        awaitTask(store.clearTokens());
        notifications.addObserver(Notifications::apiRequestFailed, nullptr,
                                  [this](const Notification& n) { failures.append(n.userInfo); });
        model.setApiClient(&client);
    }

    std::optional<QString> stored(const QString& key) { return awaitTask(keychain.read(key)); }

    void loadAndRestore()
    {
        awaitTask(model.loadStoredTokens());
        awaitTask(model.restoreSession());
        settle();
    }

    KeychainHelper keychain;
    AuthService store{std::make_shared<const KeychainHelper>()};
    FakeBackend backend;
    NotificationCenter notifications;
    APIClient client{backend.origin(), store, notifications};
    AuthViewModel model{store};
    QList<QVariantMap> failures;
    LogCapture logs;
};

TEST_F(AuthViewModelTest, NoStoredRefreshTokenSendsNothingAndStaysSignedOut)
{
    awaitTask(store.saveTokens(aliceToken, u"r"_s));
    awaitTask(keychain.remove(AuthTokenStore::refreshTokenKey)); // an access token alone

    loadAndRestore();

    EXPECT_FALSE(model.isLoggedIn());
    EXPECT_EQ(backend.totalRequests(), 0);
    EXPECT_TRUE(logs.lines().contains(u"[Auth] init: hasStoredTokens=false, refreshToken=false"_s));
}

TEST_F(AuthViewModelTest, StoredRefreshTokenSignsInAtOnceAndARestoreRenewsBothTokens)
{
    awaitTask(store.saveTokens(u"old-access"_s, u"old-refresh"_s));
    const QString renewed = token(R"({"sub":"u-7","email":"bob@example.com","name":"Bob"})");
    backend.setRoute("POST", "/api/v1/auth/refresh",
                     reply(200, {{u"accessToken"_s, renewed}, {u"refreshToken"_s, u"new-refresh"_s}}));

    awaitTask(model.loadStoredTokens());
    EXPECT_TRUE(model.isLoggedIn()) << "a returning user is known before any request";
    EXPECT_EQ(backend.totalRequests(), 0);
    EXPECT_TRUE(logs.lines().contains(u"[Auth] init: hasStoredTokens=true, refreshToken=true"_s));

    awaitTask(model.restoreSession());
    const auto requests = backend.requests("POST", "/api/v1/auth/refresh");
    ASSERT_EQ(requests.size(), 1);
    EXPECT_EQ(QJsonDocument::fromJson(requests.first().body).object().value(u"refreshToken"_s).toString(),
              u"old-refresh"_s);
    EXPECT_EQ(stored(AuthTokenStore::accessTokenKey), renewed);
    EXPECT_EQ(stored(AuthTokenStore::refreshTokenKey), u"new-refresh"_s);
    EXPECT_EQ(client.accessToken(), renewed);
    ASSERT_TRUE(model.currentUser());
    EXPECT_EQ(*model.currentUser(), (AuthViewModel::UserProfile{u"u-7"_s, u"bob@example.com"_s, std::nullopt}));
}

// A server fault keeps the session on the strength of what is stored, with or without an
// access token to hand to the client.
class RestoreServerErrorTest : public AuthViewModelTest, public ::testing::WithParamInterface<bool> {};

TEST_P(RestoreServerErrorTest, KeepsTheUserSignedIn)
{
    const bool hasAccessToken = GetParam();
    awaitTask(store.saveTokens(aliceToken, u"refresh"_s));
    if (!hasAccessToken)
        awaitTask(keychain.remove(AuthTokenStore::accessTokenKey));
    backend.setRoute("POST", "/api/v1/auth/refresh", reply(500));

    loadAndRestore();

    EXPECT_TRUE(model.isLoggedIn());
    EXPECT_EQ(backend.requestCount("POST", "/api/v1/auth/refresh"), 1);
    EXPECT_EQ(stored(AuthTokenStore::refreshTokenKey), u"refresh"_s);
    EXPECT_TRUE(logs.lines().contains(u"[Auth] restoreSession error: Server error (500), keeping session"_s))
        << logs.lines().join(u'\n').toStdString();
    EXPECT_EQ(client.accessToken(), hasAccessToken ? std::optional(aliceToken) : std::nullopt);
    EXPECT_EQ(model.currentUser() ? model.currentUser()->email : QString(),
              hasAccessToken ? u"alice@example.com"_s : QString());
}

INSTANTIATE_TEST_SUITE_P(AccessToken, RestoreServerErrorTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Stored" : "Missing"; });

TEST_F(AuthViewModelTest, RefreshRefusedWith401SignsOutAndClearsBothTokens)
{
    awaitTask(store.saveTokens(aliceToken, u"refresh"_s));
    client.setAccessToken(aliceToken);
    backend.setRoute("POST", "/api/v1/auth/refresh", reply(401));

    loadAndRestore();

    EXPECT_FALSE(model.isLoggedIn());
    EXPECT_FALSE(model.currentUser());
    EXPECT_EQ(stored(AuthTokenStore::accessTokenKey), std::nullopt);
    EXPECT_EQ(stored(AuthTokenStore::refreshTokenKey), std::nullopt);
    EXPECT_EQ(client.accessToken(), std::nullopt);
    EXPECT_TRUE(logs.lines().contains(u"[Auth] restoreSession auth rejected, logging out"_s));
}

TEST_F(AuthViewModelTest, ExchangeStoresBothTokensAndTheUser)
{
    backend.setRoute("POST", "/api/v1/auth/exchange",
                     reply(200, {{u"accessToken"_s, u"a-1"_s}, {u"refreshToken"_s, u"r-1"_s},
                                 {u"user"_s, QJsonObject{{u"id"_s, u"u-1"_s}, {u"email"_s, u"a@example.com"_s},
                                                         {u"displayName"_s, u"Alice"_s}}}}));

    awaitTask(model.exchangeCode(u"one-time"_s));

    EXPECT_TRUE(model.isLoggedIn());
    EXPECT_FALSE(model.isLoading());
    EXPECT_EQ(model.error(), std::nullopt);
    EXPECT_EQ(model.currentUser(), (AuthViewModel::UserProfile{u"u-1"_s, u"a@example.com"_s, u"Alice"_s}));
    EXPECT_EQ(stored(AuthTokenStore::accessTokenKey), u"a-1"_s);
    EXPECT_EQ(stored(AuthTokenStore::refreshTokenKey), u"r-1"_s);
    EXPECT_EQ(client.accessToken(), u"a-1"_s);
}

TEST_F(AuthViewModelTest, RefusedExchangeShowsTheServerErrorAndKeepsTheStoredTokens)
{
    awaitTask(store.saveTokens(u"a-0"_s, u"r-0"_s));
    backend.setRoute("POST", "/api/v1/auth/exchange", reply(401));

    awaitTask(model.exchangeCode(u"stale"_s));

    EXPECT_FALSE(model.isLoggedIn());
    EXPECT_FALSE(model.isLoading());
    EXPECT_EQ(model.error(), u"Server error (401)"_s);
    EXPECT_EQ(stored(AuthTokenStore::accessTokenKey), u"a-0"_s);
    EXPECT_EQ(stored(AuthTokenStore::refreshTokenKey), u"r-0"_s);
    ASSERT_EQ(failures.size(), 1);
    EXPECT_EQ(failures.first().value(u"route"_s), u"/api/v1/auth/exchange"_s);

    AuthViewModel unwired(store);
    awaitTask(unwired.exchangeCode(u"code"_s));
    EXPECT_EQ(unwired.error(), AuthViewModel::clientNotConfigured);
    EXPECT_FALSE(unwired.isLoading());
    EXPECT_FALSE(unwired.isLoggedIn());
}

// The payload of the access token, as the profile decoder reads it.
TEST(DecodeProfileTest, ReadsOnlyAPlainBase64PayloadWithSubAndEmail)
{
    using Profile = AuthViewModel::UserProfile;
    // "?>?" encodes to "Pz4/" in plain base64 and "Pz4_" in the URL-safe alphabet.
    const QByteArray urlSafe = R"({"sub":"u-1","email":"a@example.com","x":"?>?"})";
    const struct {
        const char* name;
        QString token;
        std::optional<Profile> profile;
    } cases[]{
        {"unpadded", token(R"({"sub":"u-2","email":"b@example.com"})", QByteArray::OmitTrailingEquals),
         Profile{u"u-2"_s, u"b@example.com"_s, std::nullopt}},
        {"plain alphabet", token(urlSafe), Profile{u"u-1"_s, u"a@example.com"_s, std::nullopt}},
        {"URL-safe alphabet", token(urlSafe, QByteArray::Base64UrlEncoding), std::nullopt},
        {"two pieces", u"header."_s + QString::fromLatin1(QByteArray(R"({"sub":"u","email":"e"})").toBase64()),
         std::nullopt},
        {"four pieces", aliceToken + u".extra"_s, std::nullopt},
        {"no email", token(R"({"sub":"u-1"})"), std::nullopt},
        {"numeric sub", token(R"({"sub":7,"email":"a@example.com"})"), std::nullopt},
        {"not JSON", token("not json"), std::nullopt},
        {"a JSON array", token(R"(["sub","email"])"), std::nullopt},
        // Half a character ("\ud800" alone) names nobody; a whole pair is an ordinary character.
        {"half a character in email", token(R"({"sub":"u-2","email":"b@exa\ud800mple.com"})"), std::nullopt},
        {"half a character in sub", token(R"({"sub":"u-\udc00","email":"a@example.com"})"), std::nullopt},
        {"surrogate pair in email", token(R"({"sub":"u-3","email":"\ud83d\ude00@example.com"})"),
         Profile{u"u-3"_s, u"\U0001F600@example.com"_s, std::nullopt}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(AuthViewModel::decodeProfile(c.token), c.profile) << c.name;
}

// The browser sign-in and the deep-link path, on the manual clock.
class BrowserSignInTest : public ::testing::Test {
protected:
    // Starts a sign-in; what the completion gets lands in `results`.
    QString start()
    {
        oauth.startLogin([this](std::optional<QString> code) { results.append(code); });
        EXPECT_FALSE(opened.isEmpty());
        return QUrlQuery(opened.last()).queryItemValue(u"state"_s);
    }

    ManualClock clock;
    QList<QUrl> opened;
    OAuthService oauth{u"http://accounts.example"_s, clock, [this](const QUrl& url) {
                           opened.append(url);
                           return true;
                       }};
    QList<std::optional<QString>> results;
};

TEST_F(BrowserSignInTest, OpensTheLoginPageWithAFreshStateAndTakesTheLastCodeOfItsCallback)
{
    const QString first = start();
    EXPECT_EQ(opened.last().toString(QUrl::FullyEncoded), u"http://accounts.example/auth/login?state="_s + first);
    EXPECT_EQ(first, first.toUpper());
    EXPECT_EQ(first.size(), 36);
    const QString second = start();
    EXPECT_NE(first, second);

    // Of several codes, the last that has a value.
    oauth.handleCallback(QUrl(u"ravlet://auth-callback?code=first&state="_s + second + u"&code=second&code="_s));
    EXPECT_EQ(results.last(), u"second"_s);
}

TEST_F(BrowserSignInTest, ReplacedOrExpiredSignInEndsWithNothing)
{
    const QString firstState = start();
    start();
    EXPECT_EQ(results, (QList<std::optional<QString>>{std::nullopt}));
    // The first sign-in's callback now belongs to the second, whose state it does not carry.
    oauth.handleCallback(QUrl(u"ravlet://auth-callback?code=c&state="_s + firstState));
    EXPECT_EQ(results, (QList<std::optional<QString>>{std::nullopt, std::nullopt}));
    EXPECT_FALSE(oauth.isPending());

    start();
    clock.advance(OAuthService::pendingLimit - std::chrono::seconds(1));
    EXPECT_TRUE(oauth.isPending());
    clock.advance(std::chrono::seconds(1));
    EXPECT_FALSE(oauth.isPending());
    EXPECT_EQ(results, (QList<std::optional<QString>>{std::nullopt, std::nullopt, std::nullopt}));
}

TEST(DeepLinkTest, TakesTheFirstAddressWithTheCallbackSchemeHostAndCode)
{
    const QList<std::pair<QStringList, std::optional<QString>>> cases{
        {{u"ravlet://auth-callback?code=x"_s}, u"x"_s},
        // A deep link is taken whatever its state: it may finish a sign-in of an earlier start.
        {{u"ravlet://auth-callback?code=c-1&state=NOT-THE-STATE"_s}, u"c-1"_s},
        {{u"ravlet://other?code=x"_s}, std::nullopt},
        {{u"https://auth-callback?code=x"_s}, std::nullopt},
        {{u"ravlet://auth-callback?code="_s}, std::nullopt},
        {{u"ravlet://other?code=x"_s, u"ravlet://auth-callback?code=y"_s}, std::nullopt},
        {{}, std::nullopt},
    };
    for (const auto& [addresses, code] : cases) {
        QList<QUrl> urls;
        for (const auto& address : addresses)
            urls.append(QUrl(address));
        EXPECT_EQ(OAuthService::deepLinkCode(urls), code) << addresses.join(u' ').toStdString();
    }
}

} // namespace
