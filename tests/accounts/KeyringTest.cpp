// Against a real Secret Service: the private one of the CTest fixture "Keyring".

#include "AuthService.h"
#include "KeychainHelper.h"
#include "PrivateKeyring.h"
#include "QtPrinters.h"

#include <QCoroTask>
#include <QStandardPaths>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

// Save replaces both tokens, even items someone else left in either of QtKeychain's forms; texts
// come back exactly as saved, clear removes both (and clearing nothing is harmless); only UTF-8
// bytes read as text. Items are planted past our code with secret-tool. (That no token reaches a
// log or a file, the whole-product test looks for.)
TEST(KeyringTest, TokensComeBackExactlyReplaceEarlierItemsAndOnlyUtf8ReadsAsText)
{
    if (const auto reason = PrivateKeyring::attach())
        GTEST_SKIP() << *reason;
    if (QStandardPaths::findExecutable(u"secret-tool"_s).isEmpty())
        GTEST_SKIP() << "secret-tool (libsecret-tools) is needed to look at the keyring";
    AuthService store(std::make_shared<const KeychainHelper>());
    using Tokens = std::pair<std::optional<QString>, std::optional<QString>>;
    const auto tokens = [&] {
        return Tokens(QCoro::waitFor(store.getAccessToken()),
                      QCoro::waitFor(store.getRefreshToken()));
    };
    // The store updates an item with the same attributes by itself; an item in the other form
    // (text, as an older writer may have left it) would survive that and win on read.
    ASSERT_TRUE(PrivateKeyring::storeRawItem(AuthTokenStore::accessTokenKey, "old-access",
                                             PrivateKeyring::Form::PlainText));
    ASSERT_TRUE(PrivateKeyring::storeRawItem(AuthTokenStore::refreshTokenKey, "old-refresh"));
    // An empty token is an empty text, not a missing one.
    for (const QString& text : {u"first"_s, QString(), u"t\u00f8ken-\u2713-\U0001D11E"_s,
                                u"\ufeffleading byte-order mark"_s, QString(8192, u'x')}) {
        QCoro::waitFor(store.saveTokens(text, text + u".r"_s));
        EXPECT_EQ(tokens(), Tokens(text, text + u".r"_s)) << text.size() << " characters";
    }
    QCoro::waitFor(store.clearTokens());
    QCoro::waitFor(store.clearTokens());
    EXPECT_EQ(tokens(), Tokens());

    const KeychainHelper keychain;
    const QString key = u"ravlet.keyringTest"_s;
    const std::pair<QByteArray, std::optional<QString>> items[] = {
        {"t\xc3\xb8ken", u"t\u00f8ken"_s},
        {"tok\xff"
         "en",
         std::nullopt},
        {"token\xe2\x82", std::nullopt}};
    for (const auto& [bytes, text] : items) {
        QCoro::waitFor(keychain.remove(key));
        ASSERT_TRUE(PrivateKeyring::storeRawItem(key, bytes));
        EXPECT_EQ(QCoro::waitFor(keychain.read(key)), text) << bytes.toStdString();
    }
    QCoro::waitFor(keychain.remove(key));
}
