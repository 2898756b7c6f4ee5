#include "PasswordHasher.h"

#include <sodium.h>

namespace {

bool ready()
{
    static const bool initialised = sodium_init() >= 0;
    return initialised;
}

} // namespace

namespace PasswordHasher {

QString hash(const QString& password)
{
    if (!ready())
        return {};
    const auto bytes = password.toUtf8();
    char out[crypto_pwhash_STRBYTES];
    if (crypto_pwhash_str(out, bytes.constData(), static_cast<unsigned long long>(bytes.size()),
                          crypto_pwhash_OPSLIMIT_INTERACTIVE, crypto_pwhash_MEMLIMIT_INTERACTIVE)
        != 0)
        return {};
    return QString::fromLatin1(out);
}

bool verify(const QString& storedHash, const QString& password)
{
    if (!ready() || storedHash.isEmpty())
        return false;
    const auto stored = storedHash.toLatin1();
    const auto bytes = password.toUtf8();
    return crypto_pwhash_str_verify(stored.constData(), bytes.constData(),
                                    static_cast<unsigned long long>(bytes.size()))
           == 0;
}

QByteArray randomBytes(int count)
{
    ready();
    QByteArray out(count, Qt::Uninitialized);
    randombytes_buf(out.data(), static_cast<size_t>(out.size()));
    return out;
}

bool constantTimeEquals(const QByteArray& a, const QByteArray& b)
{
    return a.size() == b.size()
           && sodium_memcmp(a.constData(), b.constData(), static_cast<size_t>(a.size())) == 0;
}

} // namespace PasswordHasher
