#include "AuthService.h"

// Each call keeps its own reference to the helper, so a call in flight never needs `this`.

AuthService::AuthService(std::shared_ptr<const KeychainHelper> keychain)
    : m_keychain(std::move(keychain))
{
}

QCoro::Task<> AuthService::saveTokens(QString accessToken, QString refreshToken)
{
    const auto keychain = m_keychain;
    co_await keychain->save(std::move(accessToken), accessTokenKey);
    co_await keychain->save(std::move(refreshToken), refreshTokenKey);
}

QCoro::Task<std::optional<QString>> AuthService::getAccessToken()
{
    const auto keychain = m_keychain;
    co_return co_await keychain->read(accessTokenKey);
}

QCoro::Task<std::optional<QString>> AuthService::getRefreshToken()
{
    const auto keychain = m_keychain;
    co_return co_await keychain->read(refreshTokenKey);
}

QCoro::Task<> AuthService::clearTokens()
{
    const auto keychain = m_keychain;
    co_await keychain->remove(accessTokenKey);
    co_await keychain->remove(refreshTokenKey);
}
