#pragma once

#include "AuthTokenStore.h"
#include "KeychainHelper.h"

#include <memory>

// The account's tokens in the desktop's secret store, one item per token.
class AuthService final : public AuthTokenStore {
public:
    explicit AuthService(std::shared_ptr<const KeychainHelper> keychain);

    QCoro::Task<> saveTokens(QString accessToken, QString refreshToken) override;
    QCoro::Task<std::optional<QString>> getAccessToken() override;
    QCoro::Task<std::optional<QString>> getRefreshToken() override;
    QCoro::Task<> clearTokens() override;

private:
    std::shared_ptr<const KeychainHelper> m_keychain;
};
