#include "PracticeStore.h"

using namespace Qt::StringLiterals;

void PracticeStore::saveAvatar(const QString& userId, const AvatarRecord& avatar)
{
    m_db.run(u"INSERT INTO practice_avatars (user_id, avatar_key, image_png, generated_at) "
             u"VALUES (?, ?, ?, ?) ON CONFLICT (user_id) DO UPDATE SET "
             u"avatar_key = excluded.avatar_key, image_png = excluded.image_png, "
             u"generated_at = excluded.generated_at"_s,
             {userId, avatar.key, avatar.png, avatar.generatedAtMs}, Database::Retry::once);
}

std::optional<AvatarRecord> PracticeStore::avatar(const QString& userId)
{
    auto q = m_db.run(
        u"SELECT avatar_key, generated_at FROM practice_avatars WHERE user_id = ?"_s, {userId});
    if (!q.next())
        return std::nullopt;
    return AvatarRecord{q.value(0).toString(), {}, q.value(1).toLongLong()};
}

std::optional<QByteArray> PracticeStore::avatarImage(const QString& userId)
{
    auto q = m_db.run(u"SELECT image_png FROM practice_avatars WHERE user_id = ?"_s, {userId});
    if (!q.next())
        return std::nullopt;
    return q.value(0).toByteArray();
}
