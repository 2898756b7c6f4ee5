#pragma once

#include "Stores.h"
#include "TokenSigner.h"

#include <QCoroTask>
#include <QFuture>
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
    // However often its tokens rotate, a sign-in lasts this long.
    static constexpr qint64 familyLifetimeMs = 90LL * 24 * 3600'000;
    // A spent refresh token presented again this soon is a retry after a lost answer, not theft.
    static constexpr qint64 refreshGraceMs = 2'000;
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

    // The new account, or the reason it was refused (shown on the sign-in page). Hashes on
    // the calling thread: for the operator's command line and tests.
    std::variant<UserRecord, QString> createAccount(const QString& email, const QString& password);
    // The same with the hash made on the hashing pool, for requests.
    QCoro::Task<std::variant<UserRecord, QString>> registerAccount(QString email, QString password);
    // Hashes on the pool. An unknown address or an account without a password is checked
    // against a stand-in hash, so the answer takes as long as for a wrong password.
    QCoro::Task<std::optional<UserRecord>> signIn(QString email, QString password);
    UserRecord localAccount();

    QString issueCode(const QString& userId);
    std::optional<TokenPair> exchange(const QString& code);
    // Rotates: the presented token is spent. A spent token presented again within the grace
    // time gets the same refresh token back; later, it revokes its family.
    std::optional<TokenPair> refresh(const QString& refreshToken);
    // Sign-out: the token's whole family ends. Unknown tokens are ignored.
    void signOut(const QString& refreshToken);
    std::optional<SignedInUser> verifyAccessToken(const QString& token) const;

    // A short-lived token of ours for a self-hosted recogniser, which checks it with the same key.
    QString issueSpeechToken(const QString& userId) const;
    // The user a speech token was issued to, while it lasts; an access token is no speech token.
    std::optional<QString> verifySpeechToken(const QString& token) const;

    static QString normalisedEmail(const QString& email);

private:
    std::variant<UserRecord, QString> saveAccount(const QString& address, const QString& hash);
    QString accessToken(const UserRecord& user) const;
    TokenPair issuePair(const UserRecord& user, const QString& familyId, qint64 familyStartedAtMs,
                        QString refreshToken = {});

    Database& m_db;
    UserStore m_users;
    AuthStore m_auth;
    const Clock& m_clock;
    TokenSigner m_signer;
    // Speech tokens are checked by recognisers outside this server: they get a key of their own,
    // derived from the signing key, that cannot sign access tokens.
    TokenSigner m_speechSigner;
    // Made once on the pool; of a random password nobody knows.
    QFuture<QString> m_standInHash;
};

// Codes and tokens are stored as hashes, so a copy of the database cannot be used to sign in.
QString tokenHash(const QString& token);
