#include "PasswordHasher.h"

#include <QPromise>
#include <QThread>
#include <QThreadPool>

#include <memory>

#include <sodium.h>

namespace {

bool ready()
{
    static const bool initialised = sodium_init() >= 0;
    return initialised;
}

QThreadPool& hashingPool()
{
    static QThreadPool* pool = [] {
        auto* created = new QThreadPool; // lives as long as the process; its threads idle out
        // One core is left to the event loop, so that a crowd of sign-ins (or guesses) slows
        // other sign-ins, never the transcript acks and answers of running interviews.
        created->setMaxThreadCount(std::max(1, QThread::idealThreadCount() - 1));
        return created;
    }();
    return *pool;
}

template<typename T, typename Work>
QFuture<T> onHashingPool(Work work)
{
    auto promise = std::make_shared<QPromise<T>>();
    auto future = promise->future();
    promise->start();
    hashingPool().start([promise, work = std::move(work)] {
        promise->addResult(work());
        promise->finish();
    });
    return future;
}

} // namespace

namespace PasswordHasher {

QFuture<QString> hashInBackground(QString password)
{
    return onHashingPool<QString>([password = std::move(password)] { return hash(password); });
}

QFuture<bool> verifyInBackground(QString storedHash, QString password)
{
    return onHashingPool<bool>(
        [storedHash = std::move(storedHash), password = std::move(password)] {
            return verify(storedHash, password);
        });
}

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
