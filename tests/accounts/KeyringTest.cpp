// Against a real Secret Service: the private one of the CTest fixture "Keyring".

#include "QtPrinters.h"
#include "AuthService.h"
#include "AuthTokenStoreContract.h"
#include "KeychainHelper.h"
#include "PrivateKeyring.h"

using namespace Qt::StringLiterals;

INSTANTIATE_TEST_SUITE_P(
    Stores, AuthTokenStoreTest,
    ::testing::Values(TokenStoreBacking{
        "SecretService",
        [] { return std::make_unique<AuthService>(std::make_shared<const KeychainHelper>()); },
        PrivateKeyring::attach}),
    backingName);

// Items that someone else put there, seen past our code with secret-tool.
TEST(KeyringTest, EarlierItemsOfEitherFormAreReplacedAndOnlyUtf8ReadsAsText)
{
    if (const auto reason = PrivateKeyring::attach())
        GTEST_SKIP() << *reason;
    if (!PrivateKeyring::hasSecretTool())
        GTEST_SKIP() << "secret-tool (libsecret-tools) is needed to look at the keyring";
    LogCapture logs;
    // The store updates an item with the same attributes by itself; an item in QtKeychain's
    // other form (text, as an older writer may have left it) would survive that and win on read.
    ASSERT_TRUE(PrivateKeyring::storeRawItem(AuthTokenStore::accessTokenKey, "old-access", PrivateKeyring::Form::PlainText));
    ASSERT_TRUE(PrivateKeyring::storeRawItem(AuthTokenStore::refreshTokenKey, "old-refresh", PrivateKeyring::Form::Base64));
    AuthService store(std::make_shared<const KeychainHelper>());
    QCoro::waitFor(store.saveTokens(u"access-2"_s, u"refresh-2"_s));
    EXPECT_EQ(QCoro::waitFor(store.getAccessToken()), u"access-2"_s);
    EXPECT_EQ(QCoro::waitFor(store.getRefreshToken()), u"refresh-2"_s);
    QCoro::waitFor(store.clearTokens());
    EXPECT_FALSE(QCoro::waitFor(store.getAccessToken()));
    EXPECT_FALSE(QCoro::waitFor(store.getRefreshToken()));

    const KeychainHelper keychain;
    const QString key = u"ravlet.keyringTest"_s;
    const std::pair<QByteArray, std::optional<QString>> items[] = {
        {"t\xc3\xb8ken", u"t\u00f8ken"_s}, {"tok\xff" "en", std::nullopt}, {"token\xe2\x82", std::nullopt}};
    for (const auto& [bytes, text] : items) {
        QCoro::waitFor(keychain.remove(key));
        ASSERT_TRUE(PrivateKeyring::storeRawItem(key, bytes));
        EXPECT_EQ(QCoro::waitFor(keychain.read(key)), text) << bytes.toStdString();
    }
    QCoro::waitFor(keychain.remove(key));
    EXPECT_EQ(logs.lines(), QStringList());
}
