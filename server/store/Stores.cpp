#include "Stores.h"

#include "Helpers.h"

#include <QJsonDocument>
#include <QSqlQuery>
#include <QVariant>

using namespace Qt::StringLiterals;

QString isoTime(qint64 msSinceEpoch)
{
    return formatIso8601(msSinceEpoch, Iso8601::withFractionalSeconds);
}

namespace {

UserRecord userFrom(const Rows& q)
{
    return {q.value(0).toString(), q.value(1).toString(), q.value(2).toString()};
}

QVariant nullable(const std::optional<QString>& value)
{
    return value ? QVariant(*value) : QVariant(QMetaType::fromType<QString>());
}

} // namespace

std::optional<UserRecord> UserStore::create(const QString& email, const QString& passwordHash,
                                            qint64 nowMs)
{
    if (byEmail(email))
        return std::nullopt;
    UserRecord user{uuidLower(), email, passwordHash};
    try {
        m_db.run(u"INSERT INTO users (id, email, password_hash, created_at) VALUES (?, ?, ?, ?)"_s,
                 {user.id, email, passwordHash, nowMs});
    } catch (const StoreError&) {
        // A concurrent creation of the same address won the unique index.
        if (byEmail(email))
            return std::nullopt;
        throw;
    }
    return user;
}

std::optional<UserRecord> UserStore::byEmail(const QString& email)
{
    auto q = m_db.run(u"SELECT id, email, password_hash FROM users WHERE email = ?"_s, {email});
    if (!q.next())
        return std::nullopt;
    return userFrom(q);
}

std::optional<UserRecord> UserStore::byId(const QString& id)
{
    auto q = m_db.run(u"SELECT id, email, password_hash FROM users WHERE id = ?"_s, {id});
    if (!q.next())
        return std::nullopt;
    return userFrom(q);
}

void AuthStore::saveCode(const QString& codeHash, const QString& userId, qint64 expiresAtMs)
{
    m_db.run(u"INSERT INTO login_codes (code_hash, user_id, expires_at) VALUES (?, ?, ?)"_s,
             {codeHash, userId, expiresAtMs});
}

std::optional<QString> AuthStore::takeCode(const QString& codeHash, qint64 nowMs)
{
    auto q =
        m_db.run(u"SELECT user_id, expires_at FROM login_codes WHERE code_hash = ?"_s, {codeHash});
    if (!q.next())
        return std::nullopt;
    const auto userId = q.value(0).toString();
    const auto expiresAt = q.value(1).toLongLong();
    auto deleted = m_db.run(u"DELETE FROM login_codes WHERE code_hash = ?"_s, {codeHash});
    // Only the request that deleted the row may use it.
    if (deleted.numRowsAffected() != 1 || expiresAt <= nowMs)
        return std::nullopt;
    m_db.run(u"DELETE FROM login_codes WHERE expires_at <= ?"_s, {nowMs});
    return userId;
}

void AuthStore::saveRefresh(const QString& tokenHash, const QString& userId,
                            const QString& familyId, qint64 expiresAtMs, qint64 familyStartedAtMs)
{
    m_db.run(u"INSERT INTO refresh_tokens (token_hash, user_id, family_id, expires_at, "
             u"family_started_at) VALUES (?, ?, ?, ?, ?)"_s,
             {tokenHash, userId, familyId, expiresAtMs, familyStartedAtMs});
}

std::optional<AuthStore::RefreshRecord> AuthStore::refresh(const QString& tokenHash)
{
    auto q = m_db.run(u"SELECT user_id, family_id, expires_at, used, revoked, family_started_at, "
                      u"used_at, successor FROM refresh_tokens WHERE token_hash = ?"_s,
                      {tokenHash});
    if (!q.next())
        return std::nullopt;
    return RefreshRecord{q.value(0).toString(),   q.value(1).toString(),   q.value(2).toLongLong(),
                         q.value(3).toInt() != 0, q.value(4).toInt() != 0, q.value(5).toLongLong(),
                         q.value(6).toLongLong(), q.value(7).toByteArray()};
}

bool AuthStore::markUsed(const QString& tokenHash, qint64 nowMs, const QByteArray& sealedSuccessor)
{
    auto q = m_db.run(u"UPDATE refresh_tokens SET used = 1, used_at = ?, successor = ? "
                      u"WHERE token_hash = ? AND used = 0 AND revoked = 0"_s,
                      {nowMs, sealedSuccessor, tokenHash});
    return q.numRowsAffected() == 1;
}

void AuthStore::revokeFamily(const QString& familyId)
{
    m_db.run(u"UPDATE refresh_tokens SET revoked = 1 WHERE family_id = ?"_s, {familyId});
}

namespace {

const auto sessionColumns =
    u"id, language_input, language_output, status, started_at, ended_at, stt_audio_duration_ms"_s;

QJsonObject sessionFrom(const Rows& q)
{
    QJsonObject object{{u"id"_s, q.value(0).toString()},
                       {u"languageInput"_s, q.value(1).toString()},
                       {u"languageOutput"_s, q.value(2).toString()},
                       {u"status"_s, q.value(3).toString()},
                       {u"startedAt"_s, isoTime(q.value(4).toLongLong())}};
    if (!q.value(5).isNull()) {
        object.insert(u"endedAt"_s, isoTime(q.value(5).toLongLong()));
        object.insert(u"durationSeconds"_s,
                      (q.value(5).toLongLong() - q.value(4).toLongLong()) / 1000);
    }
    if (!q.value(6).isNull())
        object.insert(u"sttAudioDurationMs"_s, q.value(6).toLongLong());
    return object;
}

} // namespace

QJsonObject InterviewStore::createSession(const QString& userId, const QString& languageInput,
                                          const QString& languageOutput, qint64 nowMs)
{
    const auto id = uuidLower();
    m_db.run(u"INSERT INTO interview_sessions (id, user_id, language_input, language_output, "
             u"status, started_at) "
             u"VALUES (?, ?, ?, ?, 'active', ?)"_s,
             {id, userId, languageInput, languageOutput, nowMs});
    return *session(userId, id);
}

std::optional<QJsonObject> InterviewStore::session(const QString& userId, const QString& sessionId)
{
    auto q = m_db.run(u"SELECT "_s + sessionColumns
                          + u" FROM interview_sessions WHERE id = ? AND user_id = ?"_s,
                      {sessionId, userId});
    if (!q.next())
        return std::nullopt;
    return sessionFrom(q);
}

QList<QJsonObject> InterviewStore::sessions(const QString& userId)
{
    auto q =
        m_db.run(u"SELECT "_s + sessionColumns
                     + u" FROM interview_sessions WHERE user_id = ? ORDER BY started_at DESC, id"_s,
                 {userId});
    QList<QJsonObject> result;
    while (q.next())
        result.append(sessionFrom(q));
    return result;
}

bool InterviewStore::complete(const QString& userId, const QString& sessionId,
                              qint64 sttAudioDurationMs, qint64 nowMs)
{
    // A second completion keeps the first end time.
    auto q = m_db.run(
        u"UPDATE interview_sessions SET status = 'completed', ended_at = COALESCE(ended_at, ?), "
        u"stt_audio_duration_ms = ? WHERE id = ? AND user_id = ?"_s,
        {nowMs, sttAudioDurationMs, sessionId, userId});
    return q.numRowsAffected() == 1;
}

std::optional<qint64> InterviewStore::upsertLine(const QString& userId, const QString& sessionId,
                                                 const TranscriptLine& line)
{
    const QVariant confidence =
        line.confidence ? QVariant(*line.confidence) : QVariant(QMetaType::fromType<double>());
    // An older revision never replaces a newer text; a repeat of the same revision rewrites it
    // unchanged.
    // A new line's arrival is one past the session's last; an update keeps it. Running it
    // twice leaves the same row, so a lost connection retries it rather than refuse the line.
    auto q = m_db.run(u"INSERT INTO transcript_lines (session_id, entry_id, speaker, content, "
                      u"timestamp_ms, confidence, revision, arrival) "
                      u"SELECT ?, ?, ?, ?, ?, ?, ?, (SELECT COALESCE(MAX(arrival), 0) + 1 FROM "
                      u"transcript_lines WHERE session_id = ?) WHERE EXISTS "
                      u"(SELECT 1 FROM interview_sessions WHERE id = ? AND user_id = ?) "
                      u"ON CONFLICT (session_id, entry_id) DO UPDATE SET speaker = "
                      u"excluded.speaker, content = excluded.content, "
                      u"timestamp_ms = excluded.timestamp_ms, confidence = excluded.confidence, "
                      u"revision = excluded.revision "
                      u"WHERE excluded.revision >= transcript_lines.revision"_s,
                      {sessionId, line.id, line.speaker, line.content, line.timestampMs, confidence,
                       line.revision, sessionId, sessionId, userId},
                      Database::Retry::once);
    if (q.numRowsAffected() == 1)
        return line.revision;
    auto stored = m_db.run(u"SELECT t.revision FROM transcript_lines t JOIN interview_sessions s "
                           u"ON s.id = t.session_id "
                           u"WHERE t.session_id = ? AND t.entry_id = ? AND s.user_id = ?"_s,
                           {sessionId, line.id, userId});
    if (!stored.next())
        return std::nullopt;
    return stored.value(0).toLongLong();
}

QList<TranscriptLine> InterviewStore::lines(const QString& userId, const QString& sessionId)
{
    auto q = m_db.run(
        u"SELECT t.entry_id, t.speaker, t.content, t.timestamp_ms, t.confidence, t.revision "
        u"FROM transcript_lines t JOIN interview_sessions s ON s.id = t.session_id "
        u"WHERE t.session_id = ? AND s.user_id = ? ORDER BY t.timestamp_ms, t.arrival, t.entry_id"_s,
        {sessionId, userId});
    QList<TranscriptLine> result;
    while (q.next()) {
        TranscriptLine line{q.value(0).toString(), q.value(1).toString(),
                            q.value(2).toString(), q.value(3).toLongLong(),
                            std::nullopt,          q.value(5).toLongLong()};
        if (!q.value(4).isNull())
            line.confidence = q.value(4).toDouble();
        result.append(line);
    }
    return result;
}

ResumeRecord DocumentStore::addResume(const QString& userId, ResumeRecord resume)
{
    resume.id = uuidLower();
    m_db.run(u"INSERT INTO resumes (id, user_id, filename, content_type, file_data, "
             u"extracted_text, created_at) "
             u"VALUES (?, ?, ?, ?, ?, ?, ?)"_s,
             {resume.id, userId, resume.filename, resume.contentType, resume.fileData,
              resume.extractedText, resume.createdAtMs});
    return resume;
}

QList<ResumeRecord> DocumentStore::resumes(const QString& userId)
{
    // The list leaves the file bytes out: they are kept, not shown.
    auto q = m_db.run(u"SELECT id, filename, content_type, extracted_text, created_at FROM resumes "
                      u"WHERE user_id = ? ORDER BY created_at DESC, id"_s,
                      {userId});
    QList<ResumeRecord> result;
    while (q.next())
        result.append({q.value(0).toString(),
                       q.value(1).toString(),
                       q.value(2).toString(),
                       {},
                       q.value(3).toString(),
                       q.value(4).toLongLong()});
    return result;
}

std::optional<ResumeRecord> DocumentStore::resume(const QString& userId, const QString& id)
{
    auto q = m_db.run(
        u"SELECT id, filename, content_type, file_data, extracted_text, created_at FROM resumes "
        u"WHERE id = ? AND user_id = ?"_s,
        {id, userId});
    if (!q.next())
        return std::nullopt;
    return ResumeRecord{q.value(0).toString(),    q.value(1).toString(), q.value(2).toString(),
                        q.value(3).toByteArray(), q.value(4).toString(), q.value(5).toLongLong()};
}

bool DocumentStore::deleteResume(const QString& userId, const QString& id)
{
    return m_db.run(u"DELETE FROM resumes WHERE id = ? AND user_id = ?"_s, {id, userId})
               .numRowsAffected()
           == 1;
}

DocumentStore::Usage DocumentStore::usage(const QString& userId)
{
    auto q = m_db.run(
        u"SELECT (SELECT COUNT(*) FROM resumes WHERE user_id = ?) + "
        u"(SELECT COUNT(*) FROM job_descriptions WHERE user_id = ?), "
        u"(SELECT COALESCE(SUM(LENGTH(file_data) + LENGTH(extracted_text)), 0) FROM resumes "
        u"WHERE user_id = ?) + (SELECT COALESCE(SUM(LENGTH(title) + LENGTH(company) + "
        u"LENGTH(content)), 0) FROM job_descriptions WHERE user_id = ?)"_s,
        {userId, userId, userId, userId});
    if (!q.next())
        return {};
    return {q.value(0).toInt(), q.value(1).toLongLong()};
}

JobDescriptionRecord DocumentStore::addJobDescription(const QString& userId,
                                                      JobDescriptionRecord record)
{
    record.id = uuidLower();
    m_db.run(
        u"INSERT INTO job_descriptions (id, user_id, title, company, content, created_at) VALUES (?, ?, ?, ?, ?, ?)"_s,
        {record.id, userId, record.title, record.company, record.content, record.createdAtMs});
    return record;
}

namespace {

const auto jobColumns = u"id, title, company, content, created_at"_s;

JobDescriptionRecord jobFrom(const Rows& q)
{
    return {q.value(0).toString(), q.value(1).toString(), q.value(2).toString(),
            q.value(3).toString(), q.value(4).toLongLong()};
}

} // namespace

QList<JobDescriptionRecord> DocumentStore::jobDescriptions(const QString& userId)
{
    auto q =
        m_db.run(u"SELECT "_s + jobColumns
                     + u" FROM job_descriptions WHERE user_id = ? ORDER BY created_at DESC, id"_s,
                 {userId});
    QList<JobDescriptionRecord> result;
    while (q.next())
        result.append(jobFrom(q));
    return result;
}

std::optional<JobDescriptionRecord> DocumentStore::jobDescription(const QString& userId,
                                                                  const QString& id)
{
    auto q = m_db.run(u"SELECT "_s + jobColumns
                          + u" FROM job_descriptions WHERE id = ? AND user_id = ?"_s,
                      {id, userId});
    if (!q.next())
        return std::nullopt;
    return jobFrom(q);
}

bool DocumentStore::deleteJobDescription(const QString& userId, const QString& id)
{
    return m_db.run(u"DELETE FROM job_descriptions WHERE id = ? AND user_id = ?"_s, {id, userId})
               .numRowsAffected()
           == 1;
}

QString AnswerLogStore::create(const QString& userId, const std::optional<QString>& sessionId,
                               const QString& question, qint64 nowMs)
{
    const auto id = uuidLower();
    m_db.run(
        u"INSERT INTO answer_logs (id, user_id, session_id, question, answer, created_at) VALUES (?, ?, ?, ?, '', ?)"_s,
        {id, userId, nullable(sessionId), question, nowMs});
    return id;
}

bool AnswerLogStore::setAnswer(const QString& userId, const QString& id, const QString& answer)
{
    return m_db.run(u"UPDATE answer_logs SET answer = ? WHERE id = ? AND user_id = ?"_s,
                    {answer, id, userId})
               .numRowsAffected()
           == 1;
}

std::optional<QJsonObject> AnswerLogStore::log(const QString& userId, const QString& id)
{
    auto q = m_db.run(
        u"SELECT id, session_id, question, answer, created_at FROM answer_logs WHERE id = ? AND user_id = ?"_s,
        {id, userId});
    if (!q.next())
        return std::nullopt;
    QJsonObject object{{u"id"_s, q.value(0).toString()},
                       {u"question"_s, q.value(2).toString()},
                       {u"answer"_s, q.value(3).toString()},
                       {u"createdAt"_s, isoTime(q.value(4).toLongLong())}};
    if (!q.value(1).isNull())
        object.insert(u"sessionId"_s, q.value(1).toString());
    return object;
}

void TelemetryStore::addEvent(const QString& deviceId, const QString& appVersion,
                              const QJsonObject& event, qint64 nowMs)
{
    m_db.run(u"INSERT INTO telemetry_events (id, device_id, name, category, client_ts, props, "
             u"app_version, received_at) "
             u"VALUES (?, ?, ?, ?, ?, ?, ?, ?)"_s,
             {uuidLower(), deviceId, event.value(u"name"_s).toString(),
              event.value(u"category"_s).toString(), event.value(u"clientTs"_s).toString(),
              QString::fromUtf8(
                  QJsonDocument(event.value(u"props"_s).toObject()).toJson(QJsonDocument::Compact)),
              appVersion, nowMs});
}

void TelemetryStore::addCrash(const QString& deviceId, const QJsonObject& report, qint64 nowMs)
{
    m_db.run(
        u"INSERT INTO crash_reports (id, device_id, report, received_at) VALUES (?, ?, ?, ?)"_s,
        {uuidLower(), deviceId,
         QString::fromUtf8(QJsonDocument(report).toJson(QJsonDocument::Compact)), nowMs});
}

void TelemetryStore::keepNewest(int events, int crashes)
{
    // Ties at the cut go by id: the count kept is exact either way.
    for (const auto& [table, keep] :
         {std::pair{u"telemetry_events"_s, events}, std::pair{u"crash_reports"_s, crashes}}) {
        auto q = m_db.run(u"SELECT COUNT(*) FROM "_s + table);
        const auto excess = q.next() ? q.value(0).toLongLong() - keep : 0;
        if (excess > 0)
            m_db.run(u"DELETE FROM "_s + table + u" WHERE id IN (SELECT id FROM "_s + table
                         + u" ORDER BY received_at, id LIMIT ?)"_s,
                     {excess});
    }
}

int TelemetryStore::eventCount()
{
    auto q = m_db.run(u"SELECT COUNT(*) FROM telemetry_events"_s);
    return q.next() ? q.value(0).toInt() : 0;
}

int TelemetryStore::crashCount()
{
    auto q = m_db.run(u"SELECT COUNT(*) FROM crash_reports"_s);
    return q.next() ? q.value(0).toInt() : 0;
}
