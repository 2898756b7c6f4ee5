#include "AccountService.h"

#include "Clock.h"
#include "Helpers.h"
#include "PasswordHasher.h"

#include <QCoroFuture>
#include <QCryptographicHash>
#include <QMessageAuthenticationCode>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr auto base64Url = QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals;

QString randomToken()
{
    return QString::fromLatin1(PasswordHasher::randomBytes(32).toBase64(base64Url));
}

// The pad that seals a spent token's successor: only the holder of the spent token can open
// it, and a copy of the database alone cannot. Each spent token seals one successor.
QByteArray successorPad(const QString& spentToken)
{
    return QMessageAuthenticationCode::hash("successor", spentToken.toUtf8(),
                                            QCryptographicHash::Sha256);
}

QByteArray sealedSuccessor(const QString& spentToken, const QString& successor)
{
    auto bytes = QByteArray::fromBase64(successor.toLatin1(), base64Url);
    const auto pad = successorPad(spentToken);
    for (qsizetype i = 0; i < bytes.size() && i < pad.size(); ++i)
        bytes[i] = char(bytes[i] ^ pad[i]);
    return bytes;
}

QString unsealedSuccessor(const QString& spentToken, QByteArray sealed)
{
    const auto pad = successorPad(spentToken);
    if (sealed.size() != pad.size())
        return {};
    for (qsizetype i = 0; i < sealed.size(); ++i)
        sealed[i] = char(sealed[i] ^ pad[i]);
    return QString::fromLatin1(sealed.toBase64(base64Url));
}

bool plausibleEmail(const QString& email)
{
    const auto at = email.indexOf(u'@');
    return at > 0 && at < email.size() - 1 && email.size() <= 254 && !email.contains(u' ');
}

} // namespace

QString tokenHash(const QString& token)
{
    return QString::fromLatin1(
        QCryptographicHash::hash(token.toUtf8(), QCryptographicHash::Sha256).toHex());
}

AccountService::AccountService(Database& db, const Clock& clock, QByteArray signingKey)
    : m_db(db)
    , m_users(db)
    , m_auth(db)
    , m_clock(clock)
    , m_signer(signingKey)
    , m_speechSigner(derivedKey(signingKey, QByteArrayLiteral("ravlet speech token")))
    , m_standInHash(PasswordHasher::hashInBackground(randomToken()))
{
}

QString AccountService::normalisedEmail(const QString& email)
{
    return email.trimmed().toLower();
}

namespace {

std::optional<QString> refusalOf(const QString& address, const QString& password)
{
    if (!plausibleEmail(address) || address == AccountService::localEmail)
        return u"Enter a valid e-mail address."_s;
    if (password.size() < 8)
        return u"Choose a password of at least 8 characters."_s;
    if (password.size() > 1024)
        return u"That password is too long."_s;
    return std::nullopt;
}

} // namespace

std::variant<UserRecord, QString> AccountService::createAccount(const QString& email,
                                                                const QString& password)
{
    const auto address = normalisedEmail(email);
    if (auto refusal = refusalOf(address, password))
        return *refusal;
    return saveAccount(address, PasswordHasher::hash(password));
}

QCoro::Task<std::variant<UserRecord, QString>> AccountService::registerAccount(QString email,
                                                                               QString password)
{
    // The service lives as long as the server; it is not a QObject to be watched.
    const auto address = normalisedEmail(email);
    if (auto refusal = refusalOf(address, password))
        co_return *refusal;
    const auto hash = co_await PasswordHasher::hashInBackground(password);
    co_return saveAccount(address, hash);
}

std::variant<UserRecord, QString> AccountService::saveAccount(const QString& address,
                                                              const QString& hash)
{
    if (hash.isEmpty())
        return u"The account could not be created. Try again."_s;
    auto user = m_users.create(address, hash, m_clock.nowMs());
    if (!user)
        return u"An account with this e-mail address already exists. Sign in instead."_s;
    return *user;
}

QCoro::Task<std::optional<UserRecord>> AccountService::signIn(QString email, QString password)
{
    if (password.size() > 1024)
        co_return std::nullopt;
    auto user = m_users.byEmail(normalisedEmail(email));
    const bool known = user && !user->passwordHash.isEmpty();
    QString stored;
    if (known)
        stored = user->passwordHash;
    else
        stored = co_await m_standInHash;
    const bool matches = co_await PasswordHasher::verifyInBackground(stored, password);
    if (!known || !matches)
        co_return std::nullopt;
    co_return user;
}

UserRecord AccountService::localAccount()
{
    if (auto user = m_users.byEmail(localEmail))
        return *user;
    if (auto user = m_users.create(localEmail, {}, m_clock.nowMs()))
        return *user;
    return *m_users.byEmail(localEmail); // created concurrently by another server
}

QString AccountService::issueCode(const QString& userId)
{
    const auto code = randomToken();
    m_auth.saveCode(tokenHash(code), userId, m_clock.nowMs() + codeLifetimeMs);
    return code;
}

std::optional<AccountService::TokenPair> AccountService::exchange(const QString& code)
{
    if (code.isEmpty() || code.size() > 256)
        return std::nullopt;
    const auto userId = m_auth.takeCode(tokenHash(code), m_clock.nowMs());
    if (!userId)
        return std::nullopt;
    const auto user = m_users.byId(*userId);
    if (!user)
        return std::nullopt;
    Database::Transaction transaction(m_db);
    auto pair = issuePair(*user, uuidLower(), m_clock.nowMs());
    transaction.commit();
    return pair;
}

std::optional<AccountService::TokenPair> AccountService::refresh(const QString& refreshToken)
{
    if (refreshToken.isEmpty() || refreshToken.size() > 256)
        return std::nullopt;
    const auto hash = tokenHash(refreshToken);
    const auto now = m_clock.nowMs();
    // Spending the token and saving its successor happen together: a failure between the two
    // must not leave the user with a spent token and nothing to replace it.
    Database::Transaction transaction(m_db);
    auto record = m_auth.refresh(hash);
    if (!record || record->revoked)
        return std::nullopt;
    const auto user = m_users.byId(record->userId);
    const bool current =
        record->expiresAtMs > now && now < record->familyStartedAtMs + familyLifetimeMs && user;
    const auto successor = randomToken();
    if (!record->used && current
        && m_auth.markUsed(hash, now, sealedSuccessor(refreshToken, successor))) {
        auto pair = issuePair(*user, record->familyId, record->familyStartedAtMs, successor);
        transaction.commit();
        return pair;
    }
    if (!record->used && !current)
        return std::nullopt;
    // Spent already (here or by a racing request that won): the answer of that rotation once
    // more, for a client whose answer was lost on its way.
    record = m_auth.refresh(hash);
    if (record && !record->revoked && now - record->usedAtMs <= refreshGraceMs && current) {
        const auto earlier = unsealedSuccessor(refreshToken, record->successor);
        if (!earlier.isEmpty()) {
            transaction.commit();
            return TokenPair{accessToken(*user), earlier, {user->id, user->email}};
        }
    }
    // A spent token seen again: whoever holds the family's tokens, one of them is not the
    // owner. Everyone in the family signs in again.
    if (record)
        m_auth.revokeFamily(record->familyId);
    transaction.commit();
    return std::nullopt;
}

void AccountService::signOut(const QString& refreshToken)
{
    if (refreshToken.isEmpty() || refreshToken.size() > 256)
        return;
    if (const auto record = m_auth.refresh(tokenHash(refreshToken)))
        m_auth.revokeFamily(record->familyId);
}

std::optional<AccountService::SignedInUser>
AccountService::verifyAccessToken(const QString& token) const
{
    const auto claims = m_signer.verify(token);
    if (!claims || claims->value(u"typ"_s).toString() != u"access"_s)
        return std::nullopt;
    const auto expiresAtSeconds = claims->value(u"exp"_s).toInteger(0);
    if (expiresAtSeconds * 1000 <= m_clock.nowMs())
        return std::nullopt;
    const auto sub = claims->value(u"sub"_s).toString();
    const auto email = claims->value(u"email"_s).toString();
    if (sub.isEmpty())
        return std::nullopt;
    return SignedInUser{sub, email};
}

QString AccountService::issueSpeechToken(const QString& userId) const
{
    const auto now = m_clock.nowMs();
    return m_speechSigner.sign({{u"sub"_s, userId},
                                {u"typ"_s, u"speech"_s},
                                {u"iat"_s, now / 1000},
                                {u"exp"_s, (now + speechTokenLifetimeMs) / 1000}});
}

std::optional<QString> AccountService::verifySpeechToken(const QString& token) const
{
    const auto claims = m_speechSigner.verify(token);
    if (!claims || claims->value(u"typ"_s).toString() != u"speech"_s)
        return std::nullopt;
    if (claims->value(u"exp"_s).toInteger(0) * 1000 <= m_clock.nowMs())
        return std::nullopt;
    const auto sub = claims->value(u"sub"_s).toString();
    if (sub.isEmpty())
        return std::nullopt;
    return sub;
}

QString AccountService::accessToken(const UserRecord& user) const
{
    const auto now = m_clock.nowMs();
    return m_signer.sign({{u"sub"_s, user.id},
                          {u"email"_s, user.email},
                          {u"typ"_s, u"access"_s},
                          {u"iat"_s, now / 1000},
                          {u"exp"_s, (now + accessLifetimeMs) / 1000}});
}

AccountService::TokenPair AccountService::issuePair(const UserRecord& user, const QString& familyId,
                                                    qint64 familyStartedAtMs, QString refreshToken)
{
    const auto now = m_clock.nowMs();
    if (refreshToken.isEmpty())
        refreshToken = randomToken();
    m_auth.saveRefresh(tokenHash(refreshToken), user.id, familyId,
                       std::min(now + refreshLifetimeMs, familyStartedAtMs + familyLifetimeMs),
                       familyStartedAtMs);
    return {accessToken(user), refreshToken, {user.id, user.email}};
}
