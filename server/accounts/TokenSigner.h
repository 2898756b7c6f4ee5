#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <optional>

// Compact JSON Web Tokens signed with HMAC-SHA256. The client reads the payload with plain
// base64 (no URL-safe alphabet), so every payload segment issued here avoids "-" and "_":
// such a segment is the same text in both alphabets.
class TokenSigner {
public:
    explicit TokenSigner(QByteArray key)
        : m_key(std::move(key))
    {
    }

    QString sign(QJsonObject claims) const;
    // The claims of a token signed with this key, or nothing. Expiry is the caller's check.
    std::optional<QJsonObject> verify(const QString& token) const;

private:
    QByteArray m_key;
};

// HKDF-SHA256 (RFC 5869) of `key` for one `purpose`: 32 bytes that reveal nothing of `key` or
// of the keys of other purposes.
QByteArray derivedKey(const QByteArray& key, const QByteArray& purpose);
