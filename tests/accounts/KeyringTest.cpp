// Against a real Secret Service: the private one of the CTest fixture "Keyring".

#include "QtPrinters.h"
#include "AuthService.h"
#include "AuthTokenStoreContract.h"
#include "KeychainHelper.h"
#include "PrivateKeyring.h"

using namespace Qt::StringLiterals;

namespace {

class KeyringTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (const auto reason = PrivateKeyring::attach())
            GTEST_SKIP() << *reason;
        if (!PrivateKeyring::hasSecretTool())
            GTEST_SKIP() << "secret-tool (libsecret-tools) is needed to look at the keyring";
        QCoro::waitFor(keychain.remove(key));
    }

    const QString key = u"ravlet.keyringTest"_s;
    KeychainHelper keychain;
    LogCapture logs;
};

} // namespace

INSTANTIATE_TEST_SUITE_P(
    Stores, AuthTokenStoreTest,
    ::testing::Values(TokenStoreBacking{
        "SecretService",
        [] { return std::make_unique<AuthService>(std::make_shared<const KeychainHelper>()); },
        PrivateKeyring::attach}),
    backingName);

using AuthServiceTest = KeyringTest;

// The store updates an item with the same attributes by itself; an item in QtKeychain's other
// form (text, as an older writer may have left it) would survive that and win on read.
TEST_F(AuthServiceTest, SaveReplacesEarlierItemsWhateverTheirForm)
{
    using PrivateKeyring::Form;
    using PrivateKeyring::itemCount;
    const auto accessKey = AuthTokenStore::accessTokenKey;
    const auto refreshKey = AuthTokenStore::refreshTokenKey;
    ASSERT_TRUE(PrivateKeyring::storeRawItem(accessKey, "old-access", Form::PlainText));
    ASSERT_TRUE(PrivateKeyring::storeRawItem(refreshKey, "old-refresh", Form::Base64));

    AuthService store(std::make_shared<const KeychainHelper>());
    QCoro::waitFor(store.saveTokens(u"access-2"_s, u"refresh-2"_s));
    EXPECT_EQ(itemCount(accessKey), 1);
    EXPECT_EQ(itemCount(refreshKey), 1);
    EXPECT_EQ(QCoro::waitFor(store.getAccessToken()), u"access-2"_s);
    EXPECT_EQ(QCoro::waitFor(store.getRefreshToken()), u"refresh-2"_s);

    QCoro::waitFor(store.clearTokens());
    EXPECT_EQ(itemCount(accessKey), 0);
    EXPECT_EQ(itemCount(refreshKey), 0);
    EXPECT_EQ(logs.lines(), QStringList());
}

struct StoredBytes {
    const char* name;
    QByteArray bytes;
    std::optional<QString> expected;
};

class KeychainHelperTest : public KeyringTest, public ::testing::WithParamInterface<StoredBytes> {};

// Items put there by someone else: only well-formed UTF-8 is a text.
TEST_P(KeychainHelperTest, ReadDecodesUtf8AndRefusesAnythingElse)
{
    ASSERT_TRUE(PrivateKeyring::storeRawItem(key, GetParam().bytes));
    EXPECT_EQ(QCoro::waitFor(keychain.read(key)), GetParam().expected);
    EXPECT_EQ(logs.lines(), QStringList());
}

INSTANTIATE_TEST_SUITE_P(
    Items, KeychainHelperTest,
    ::testing::Values(StoredBytes{"Utf8", "t\xc3\xb8ken", u"t\u00f8ken"_s},
                      StoredBytes{"InvalidByte", "tok\xff" "en", std::nullopt},
                      StoredBytes{"TruncatedSequence", "token\xe2\x82", std::nullopt}),
    [](const auto& info) { return std::string(info.param.name); });
