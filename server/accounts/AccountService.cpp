#include "AccountService.h"

#include "Clock.h"
#include "Helpers.h"
#include "PasswordHasher.h"

#include <QCryptographicHash>

using namespace Qt::StringLiterals;

namespace {

constexpr auto base64Url = QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals;

QString randomToken()
{
    return QString::fromLatin1(PasswordHasher::randomBytes(32).toBase64(base64Url));
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
    : m_users(db)
    , m_auth(db)
    , m_clock(clock)
    , m_signer(std::move(signingKey))
{
}

QString AccountService::normalisedEmail(const QString& email)
{
    return email.trimmed().toLower();
}

std::variant<UserRecord, QString> AccountService::createAccount(const QString& email,
                                                                const QString& password)
{
    const auto address = normalisedEmail(email);
    if (!plausibleEmail(address) || address == localEmail)
        return u"Enter a valid e-mail address."_s;
    if (password.size() < 8)
        return u"Choose a password of at least 8 characters."_s;
    if (password.size() > 1024)
        return u"That password is too long."_s;
    const auto hash = PasswordHasher::hash(password);
    if (hash.isEmpty())
        return u"The account could not be created. Try again."_s;
    auto user = m_users.create(address, hash, m_clock.nowMs());
    if (!user)
        return u"An account with this e-mail address already exists. Sign in instead."_s;
    return *user;
}

std::optional<UserRecord> AccountService::signIn(const QString& email, const QString& password)
{
    auto user = m_users.byEmail(normalisedEmail(email));
    if (!user || user->passwordHash.isEmpty() || password.size() > 1024)
        return std::nullopt;
    if (!PasswordHasher::verify(user->passwordHash, password))
        return std::nullopt;
    return user;
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
    return issuePair(*user, uuidLower());
}

std::optional<AccountService::TokenPair> AccountService::refresh(const QString& refreshToken)
{
    if (refreshToken.isEmpty() || refreshToken.size() > 256)
        return std::nullopt;
    const auto hash = tokenHash(refreshToken);
    const auto record = m_auth.refresh(hash);
    if (!record || record->revoked)
        return std::nullopt;
    if (record->used || !m_auth.markUsed(hash)) {
        // A spent token seen again: whoever holds the family's tokens, one of them is not the
        // owner. Everyone in the family signs in again.
        m_auth.revokeFamily(record->familyId);
        return std::nullopt;
    }
    if (record->expiresAtMs <= m_clock.nowMs())
        return std::nullopt;
    const auto user = m_users.byId(record->userId);
    if (!user)
        return std::nullopt;
    return issuePair(*user, record->familyId);
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
    return m_signer.sign({{u"sub"_s, userId},
                          {u"typ"_s, u"speech"_s},
                          {u"iat"_s, now / 1000},
                          {u"exp"_s, (now + speechTokenLifetimeMs) / 1000}});
}

std::optional<QString> AccountService::verifySpeechToken(const QString& token) const
{
    const auto claims = m_signer.verify(token);
    if (!claims || claims->value(u"typ"_s).toString() != u"speech"_s)
        return std::nullopt;
    if (claims->value(u"exp"_s).toInteger(0) * 1000 <= m_clock.nowMs())
        return std::nullopt;
    const auto sub = claims->value(u"sub"_s).toString();
    if (sub.isEmpty())
        return std::nullopt;
    return sub;
}

AccountService::TokenPair AccountService::issuePair(const UserRecord& user, const QString& familyId)
{
    const auto now = m_clock.nowMs();
    const auto access = m_signer.sign({{u"sub"_s, user.id},
                                       {u"email"_s, user.email},
                                       {u"typ"_s, u"access"_s},
                                       {u"iat"_s, now / 1000},
                                       {u"exp"_s, (now + accessLifetimeMs) / 1000}});
    const auto refresh = randomToken();
    m_auth.saveRefresh(tokenHash(refresh), user.id, familyId, now + refreshLifetimeMs);
    return {access, refresh, {user.id, user.email}};
}
