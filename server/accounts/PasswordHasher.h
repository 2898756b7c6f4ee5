#pragma once

#include <QByteArray>
#include <QFuture>
#include <QString>

// Argon2id through libsodium: slow and salted, with its parameters inside each stored hash.
namespace PasswordHasher {
// Empty on failure (libsodium not initialised or out of memory).
QString hash(const QString& password);
bool verify(const QString& storedHash, const QString& password);
// The same on a pool of at most one thread per core: each hash takes 64 MiB and about a tenth
// of a second, which on the event loop would stall every socket of the server.
QFuture<QString> hashInBackground(QString password);
QFuture<bool> verifyInBackground(QString storedHash, QString password);
// Random bytes from the system's generator, for codes, tokens and keys.
QByteArray randomBytes(int count);
// Equal-length comparison that does not stop at the first difference.
bool constantTimeEquals(const QByteArray& a, const QByteArray& b);
} // namespace PasswordHasher
