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

class AuthTokenStoreTest : public ::testing::TestWithParam<TokenStoreBacking> {
protected:
    void SetUp() override
    {
        if (const auto reason = GetParam().unavailable())
            GTEST_SKIP() << *reason;
        store = GetParam().make();
        ASSERT_TRUE(store);
        // A store outside this process (the keyring) may still hold another test's tokens.
        QCoro::waitFor(store->clearTokens());
        ASSERT_FALSE(QCoro::waitFor(store->getAccessToken()));
        ASSERT_FALSE(QCoro::waitFor(store->getRefreshToken()));
    }

    void save(const QString& access, const QString& refresh)
    {
        QCoro::waitFor(store->saveTokens(access, refresh));
    }
    std::optional<QString> access() { return QCoro::waitFor(store->getAccessToken()); }
    std::optional<QString> refresh() { return QCoro::waitFor(store->getRefreshToken()); }
    void clear() { QCoro::waitFor(store->clearTokens()); }

    std::unique_ptr<AuthTokenStore> store;
    LogCapture logs;
};

inline std::string backingName(const ::testing::TestParamInfo<TokenStoreBacking>& info)
{
    return info.param.name;
}

TEST_P(AuthTokenStoreTest, SavedTokensReadBackAndASecondSaveReplacesBoth)
{
    save(QStringLiteral("access-1"), QStringLiteral("refresh-1"));
    EXPECT_EQ(access(), QStringLiteral("access-1"));
    EXPECT_EQ(refresh(), QStringLiteral("refresh-1"));

    save(QStringLiteral("access-2"), QStringLiteral("refresh-2"));
    EXPECT_EQ(access(), QStringLiteral("access-2"));
    EXPECT_EQ(refresh(), QStringLiteral("refresh-2"));
    EXPECT_EQ(logs.lines(), QStringList());
}

TEST_P(AuthTokenStoreTest, ClearRemovesBothAndIsHarmlessOnAnEmptyStore)
{
    clear();
    EXPECT_FALSE(access());
    EXPECT_FALSE(refresh());

    save(QStringLiteral("access"), QStringLiteral("refresh"));
    clear();
    EXPECT_FALSE(access());
    EXPECT_FALSE(refresh());

    clear();
    EXPECT_FALSE(access());
    EXPECT_EQ(logs.lines(), QStringList());
}

TEST_P(AuthTokenStoreTest, TextsComeBackExactlyAsSaved)
{
    const QString texts[] = {
        QString(), // an empty token is an empty text, not a missing one
        QStringLiteral(u"t\u00f8ken-\u2713-\U0001D11E"),
        QStringLiteral(u"\ufeffleading byte-order mark"),
        QString(8192, u'x'),
    };
    for (const auto& text : texts) {
        save(text, text + QStringLiteral(".r"));
        const auto saved = access();
        ASSERT_TRUE(saved) << "saved " << text.size() << " characters";
        EXPECT_EQ(*saved, text);
        EXPECT_EQ(refresh(), text + QStringLiteral(".r"));
    }
    EXPECT_EQ(logs.lines(), QStringList());
}
