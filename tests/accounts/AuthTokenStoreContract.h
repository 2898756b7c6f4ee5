#pragma once

// What every AuthTokenStore promises, whatever backs it: replace on save, nothing for what was
// never saved or was cleared, texts back exactly as saved, and not a log line on the way.
// Each test executable instantiates AuthTokenStoreTest with the stores it can reach.

#include "QtPrinters.h"
#include "AuthTokenStore.h"
#include "LogCapture.h"

#include <QCoroTask>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <optional>
#include <string>

struct TokenStoreBacking {
    const char* name;
    std::function<std::unique_ptr<AuthTokenStore>()> make;
    // Why this store can't be reached here (a missing tool); nothing when it can.
    std::function<std::optional<std::string>()> unavailable = [] { return std::nullopt; };
};

class AuthTokenStoreTest : public ::testing::TestWithParam<TokenStoreBacking> {};

inline std::string backingName(const ::testing::TestParamInfo<TokenStoreBacking>& info)
{
    return info.param.name;
}

TEST_P(AuthTokenStoreTest, SaveReplacesBothClearRemovesBothAndTextsComeBackExactly)
{
    if (const auto reason = GetParam().unavailable())
        GTEST_SKIP() << *reason;
    const auto store = GetParam().make();
    LogCapture logs;
    const auto tokens = [&] {
        return std::pair(QCoro::waitFor(store->getAccessToken()), QCoro::waitFor(store->getRefreshToken()));
    };
    using Tokens = std::pair<std::optional<QString>, std::optional<QString>>;
    // Twice on an empty store: a store outside this process (the keyring) may still hold
    // another test's tokens, and clearing nothing must be harmless.
    QCoro::waitFor(store->clearTokens());
    QCoro::waitFor(store->clearTokens());
    EXPECT_EQ(tokens(), Tokens());

    const QString texts[] = {
        QStringLiteral("first"),
        QString(), // an empty token is an empty text, not a missing one
        QStringLiteral(u"t\u00f8ken-\u2713-\U0001D11E"),
        QStringLiteral(u"\ufeffleading byte-order mark"),
        QString(8192, u'x'),
    };
    for (const auto& text : texts) {
        QCoro::waitFor(store->saveTokens(text, text + QStringLiteral(".r")));
        EXPECT_EQ(tokens(), Tokens(text, text + QStringLiteral(".r"))) << text.size() << " characters";
    }
    QCoro::waitFor(store->clearTokens());
    EXPECT_EQ(tokens(), Tokens());
    EXPECT_EQ(logs.lines(), QStringList());
}
