#pragma once

#include "Database.h"

#include <QByteArray>
#include <QString>

#include <optional>

struct AvatarRecord {
    QString key;
    QByteArray png;
    qint64 generatedAtMs = 0;
};

// What practice sessions keep per user. Every query names the user's id.
class PracticeStore {
public:
    explicit PracticeStore(Database& db)
        : m_db(db)
    {
    }
    // Replaces the user's avatar, if there was one.
    void saveAvatar(const QString& userId, const AvatarRecord& avatar);
    // Without the image bytes, which only the image route needs.
    std::optional<AvatarRecord> avatar(const QString& userId);
    std::optional<QByteArray> avatarImage(const QString& userId);

private:
    Database& m_db;
};
