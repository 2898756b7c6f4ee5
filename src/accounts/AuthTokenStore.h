#pragma once

#include <QCoroTask>
#include <QString>

#include <map>
#include <optional>

// Where the account's two tokens are kept across runs. Calls may suspend: the desktop's secret
// store answers over D-Bus. Tokens never go to preference files or logs.
class AuthTokenStore {
public:
    static inline const QString accessTokenKey = QStringLiteral("ravlet.accessToken");
    static inline const QString refreshTokenKey = QStringLiteral("ravlet.refreshToken");

    virtual ~AuthTokenStore() = default;

    // Access token first, then refresh token.
    virtual QCoro::Task<> saveTokens(QString accessToken, QString refreshToken) = 0;
    virtual QCoro::Task<std::optional<QString>> getAccessToken() = 0;
    virtual QCoro::Task<std::optional<QString>> getRefreshToken() = 0;
    // Access token first, then refresh token.
    virtual QCoro::Task<> clearTokens() = 0;
};

// Keeps the tokens in memory only: tests, and a desktop without a secret store.
class InMemoryTokenStore final : public AuthTokenStore {
public:
    QCoro::Task<> saveTokens(QString accessToken, QString refreshToken) override
    {
        m_items.insert_or_assign(accessTokenKey, std::move(accessToken));
        m_items.insert_or_assign(refreshTokenKey, std::move(refreshToken));
        co_return;
    }
    QCoro::Task<std::optional<QString>> getAccessToken() override { co_return item(accessTokenKey); }
    QCoro::Task<std::optional<QString>> getRefreshToken() override { co_return item(refreshTokenKey); }
    QCoro::Task<> clearTokens() override
    {
        m_items.clear();
        co_return;
    }

    std::optional<QString> item(const QString& key) const
    {
        const auto it = m_items.find(key);
        return it == m_items.end() ? std::nullopt : std::optional(it->second);
    }

private:
    std::map<QString, QString> m_items;
};
