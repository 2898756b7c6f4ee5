#pragma once

#include "Stores.h"
#include "TokenSigner.h"

#include <QString>

#include <optional>
#include <variant>

class Clock;

// Accounts, one-time sign-in codes, and the token pairs that the program holds.
class AccountService {
public:
    static constexpr qint64 codeLifetimeMs = 60'000;
    static constexpr qint64 accessLifetimeMs = 15 * 60'000;
    static constexpr qint64 refreshLifetimeMs = 30LL * 24 * 3600'000;
    static constexpr qint64 speechTokenLifetimeMs = 10 * 60'000;
    // The one account that "Continue on this computer" signs in to.
    static inline const QString localEmail = QStringLiteral("local@localhost");

    struct SignedInUser {
        QString id;
        QString email;
    };
    struct TokenPair {
        QString accessToken;
        QString refreshToken;
        SignedInUser user;
    };

    AccountService(Database& db, const Clock& clock, QByteArray signingKey);

    // The new account, or the reason it was refused (shown on the sign-in page).
    std::variant<UserRecord, QString> createAccount(const QString& email, const QString& password);
    std::optional<UserRecord> signIn(const QString& email, const QString& password);
    UserRecord localAccount();

    QString issueCode(const QString& userId);
    std::optional<TokenPair> exchange(const QString& code);
    // Rotates: the presented token is spent. A spent token presented again revokes its family.
    std::optional<TokenPair> refresh(const QString& refreshToken);
    std::optional<SignedInUser> verifyAccessToken(const QString& token) const;

    // A short-lived token of ours for a self-hosted recogniser, which checks it with the same key.
    QString issueSpeechToken(const QString& userId) const;
    // The user a speech token was issued to, while it lasts; an access token is no speech token.
    std::optional<QString> verifySpeechToken(const QString& token) const;

    static QString normalisedEmail(const QString& email);

private:
    TokenPair issuePair(const UserRecord& user, const QString& familyId);

    UserStore m_users;
    AuthStore m_auth;
    const Clock& m_clock;
    TokenSigner m_signer;
};

// Codes and tokens are stored as hashes, so a copy of the database cannot be used to sign in.
QString tokenHash(const QString& token);
