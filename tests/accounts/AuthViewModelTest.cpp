// Sign-in against a FakeBackend, with the tokens in the private Secret Service of the CTest
// fixture "Keyring"; then the browser sign-in's state and deep links alone.

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

// header.payload.signature
QString token(const QByteArray& payloadJson)
{
    return u"eyJhbGciOiJIUzI1NiJ9."_s + QString::fromLatin1(payloadJson.toBase64()) + u".sig"_s;
}

FakeBackend::Response reply(int status, const QJsonObject& body = {})
{
    return FakeBackend::Response::json(status, QJsonDocument(body).toJson());
}

// A returning user is signed in from what the keyring holds before any request; the restore
// then renews both tokens, keeps the session through a server fault, and ends it on a 401. A
// refused exchange keeps what the keyring holds.
TEST(AuthViewModelTest, StartUpRestoreAndRefusedExchange)
{
    if (const auto reason = PrivateKeyring::attach())
        GTEST_SKIP() << *reason;
    KeychainHelper keychain;
    AuthService store{std::make_shared<const KeychainHelper>()};
    FakeBackend backend;
    NotificationCenter notifications;
    APIClient client{backend.origin(), store, notifications};
    LogCapture logs;
    // The access and refresh tokens in the keyring.
    const auto stored = [&] { // braced: the access token is read first
        return std::pair<std::optional<QString>, std::optional<QString>>{
            awaitTask(keychain.read(AuthTokenStore::accessTokenKey)),
            awaitTask(keychain.read(AuthTokenStore::refreshTokenKey))};
    };

    using Profile = AuthViewModel::UserProfile;
    const QString alice = token(R"({"sub":"u-1","email":"alice@example.com"})");
    const QString bob = token(R"({"sub":"u-7","email":"bob@example.com","name":"Bob"})");
    const auto none = std::nullopt;
    const auto keeping = u"[Auth] restoreSession error: Server error (500), keeping session"_s;
    // Stored at start; the answer to the refresh; signed in after the restore; stored after it
    // (the client holds that access token when signed in); the user; a line of the log.
    const struct {
        std::optional<QString> access, refresh;
        FakeBackend::Response answer;
        bool signedIn;
        std::optional<QString> access2, refresh2;
        std::optional<Profile> user;
        QString log;
    } rows[] = {
        {alice, none, reply(200), false, alice, none, none,
         u"[Auth] init: hasStoredTokens=false, refreshToken=false"_s},
        {u"old-access"_s, u"old-refresh"_s,
         reply(200, {{u"accessToken"_s, bob}, {u"refreshToken"_s, u"new-refresh"_s}}), true, bob,
         u"new-refresh"_s, Profile{u"u-7"_s, u"bob@example.com"_s, none},
         u"[Auth] init: hasStoredTokens=true, refreshToken=true"_s},
        {alice, u"refresh"_s, reply(500), true, alice, u"refresh"_s,
         Profile{u"u-1"_s, u"alice@example.com"_s, none}, keeping},
        {none, u"refresh"_s, reply(500), true, none, u"refresh"_s, none, keeping},
        {alice, u"refresh"_s, reply(401), false, none, none, none,
         u"[Auth] restoreSession auth rejected, logging out"_s},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows));
        awaitTask(
            store.saveTokens(row.access.value_or(QString()), row.refresh.value_or(QString())));
        for (const auto& [key, value] : {std::pair(AuthTokenStore::accessTokenKey, row.access),
                                         std::pair(AuthTokenStore::refreshTokenKey, row.refresh)})
            if (!value)
                awaitTask(keychain.remove(key));
        backend.setRoute("POST", "/api/v1/auth/refresh", row.answer);
        const auto refreshes = backend.requestCount("POST", "/api/v1/auth/refresh");
        const auto logsBefore = logs.lines().size();
        AuthViewModel fresh(store);
        fresh.setApiClient(&client);
        client.setAccessToken(std::nullopt);

        awaitTask(fresh.loadStoredTokens());
        EXPECT_EQ(fresh.isLoggedIn(), row.refresh.has_value());
        EXPECT_EQ(backend.requestCount("POST", "/api/v1/auth/refresh"), refreshes);
        awaitTask(fresh.restoreSession());
        for (int k = 0; k < 5; ++k)
            QCoreApplication::processEvents();
        const auto sent = backend.requests("POST", "/api/v1/auth/refresh").mid(refreshes);
        ASSERT_EQ(sent.size(), row.refresh ? 1 : 0);
        EXPECT_EQ(sent.isEmpty()
                      ? QString()
                      : QJsonDocument::fromJson(sent.first().body)[u"refreshToken"_s].toString(),
                  row.refresh.value_or(QString()));
        EXPECT_EQ(fresh.isLoggedIn(), row.signedIn);
        EXPECT_EQ(stored(), std::pair(row.access2, row.refresh2));
        EXPECT_EQ(client.accessToken(), row.signedIn ? row.access2 : std::nullopt);
        EXPECT_EQ(fresh.currentUser(), row.user);
        EXPECT_TRUE(logs.lines().mid(logsBefore).contains(row.log))
            << logs.lines().join(u'\n').toStdString();
    }

    awaitTask(store.saveTokens(u"a-0"_s, u"r-0"_s));
    backend.setRoute("POST", "/api/v1/auth/exchange", reply(401));
    AuthViewModel model{store};
    model.setApiClient(&client);
    awaitTask(model.exchangeCode(u"stale"_s));
    EXPECT_TRUE(!model.isLoggedIn() && !model.isLoading());
    EXPECT_EQ(model.error(), u"Server error (401)"_s);
    EXPECT_EQ(stored(), std::pair(std::optional(u"a-0"_s), std::optional(u"r-0"_s)));
}

// Each start opens the login page with a fresh state and ends the sign-in it replaces with
// nothing; a callback must carry the state of the pending one. A sign-in left pending expires on
// the clock.
TEST(BrowserSignInTest, StateReplacementCallbackAndExpiry)
{
    ManualClock clock;
    QList<QUrl> opened;
    QList<std::optional<QString>> results;
    OAuthService oauth{u"http://accounts.example"_s, clock, [&](const QUrl& url) {
                           opened.append(url);
                           return true;
                       }};
    // Starts a sign-in and returns the state of the page it opened.
    const auto start = [&] {
        oauth.startLogin([&](std::optional<QString> code) { results.append(code); });
        return opened.isEmpty() ? QString() : QUrlQuery(opened.last()).queryItemValue(u"state"_s);
    };
    const QString first = start();
    EXPECT_EQ(opened.last().toString(QUrl::FullyEncoded),
              u"http://accounts.example/auth/login?state="_s + first);
    EXPECT_TRUE(first == first.toUpper() && first.size() == 36) << first.toStdString();
    const QString second = start();
    EXPECT_NE(first, second);
    EXPECT_EQ(results, (QList<std::optional<QString>>{std::nullopt}));
    // The first sign-in's callback now belongs to the second, whose state it does not carry.
    oauth.handleCallback(QUrl(u"ravlet://auth-callback?code=c&state="_s + first));
    EXPECT_EQ(results, (QList<std::optional<QString>>{std::nullopt, std::nullopt}));
    EXPECT_FALSE(oauth.isPending());

    start();
    clock.advance(OAuthService::pendingLimit - std::chrono::seconds(1));
    EXPECT_TRUE(oauth.isPending());
    clock.advance(std::chrono::seconds(1));
    EXPECT_FALSE(oauth.isPending());
    EXPECT_EQ(results.size(), 3);
    EXPECT_FALSE(results.last());
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
        {{}, std::nullopt},
        {{u"ravlet://other?code=x"_s, u"ravlet://auth-callback?code=y"_s}, std::nullopt},
    };
    for (const auto& [addresses, code] : cases)
        EXPECT_EQ(OAuthService::deepLinkCode(QUrl::fromStringList(addresses)), code)
            << addresses.join(u' ').toStdString();
}

} // namespace
