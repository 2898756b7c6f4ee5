#pragma once

#include "Database.h"

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>

#include <optional>

// The queries of each kind of record. Every query of a user's data names the user's id in
// the statement itself, so one user can never reach another's rows.

struct UserRecord {
    QString id;
    QString email;
    QString passwordHash; // empty for the account of this computer
};

class UserStore {
public:
    explicit UserStore(Database& db)
        : m_db(db)
    {
    }
    // Nothing when the address is taken.
    std::optional<UserRecord> create(const QString& email, const QString& passwordHash,
                                     qint64 nowMs);
    std::optional<UserRecord> byEmail(const QString& email);
    std::optional<UserRecord> byId(const QString& id);

private:
    Database& m_db;
};

class AuthStore {
public:
    explicit AuthStore(Database& db)
        : m_db(db)
    {
    }
    void saveCode(const QString& codeHash, const QString& userId, qint64 expiresAtMs);
    // One use only: the code is deleted whether or not it is still valid.
    std::optional<QString> takeCode(const QString& codeHash, qint64 nowMs);

    struct RefreshRecord {
        QString userId;
        QString familyId;
        qint64 expiresAtMs = 0;
        bool used = false;
        bool revoked = false;
        qint64 familyStartedAtMs = 0;
        qint64 usedAtMs = 0;
        QByteArray successor; // sealed; empty until the token is spent
    };
    void saveRefresh(const QString& tokenHash, const QString& userId, const QString& familyId,
                     qint64 expiresAtMs, qint64 familyStartedAtMs);
    std::optional<RefreshRecord> refresh(const QString& tokenHash);
    // True for the one caller that spends it first; two racing refreshes cannot both rotate.
    bool markUsed(const QString& tokenHash, qint64 nowMs, const QByteArray& sealedSuccessor);
    void revokeFamily(const QString& familyId);

private:
    Database& m_db;
};

struct TranscriptLine {
    QString id;
    QString speaker;
    QString content;
    qint64 timestampMs = 0;
    std::optional<double> confidence;
    qint64 revision = 0;
};

class InterviewStore {
public:
    explicit InterviewStore(Database& db)
        : m_db(db)
    {
    }
    QJsonObject createSession(const QString& userId, const QString& languageInput,
                              const QString& languageOutput, qint64 nowMs);
    std::optional<QJsonObject> session(const QString& userId, const QString& sessionId);
    QList<QJsonObject> sessions(const QString& userId);
    bool complete(const QString& userId, const QString& sessionId, qint64 sttAudioDurationMs,
                  qint64 nowMs);
    // The revision now stored for the line (which may be newer than this one), or nothing when
    // the session is not the user's.
    std::optional<qint64> upsertLine(const QString& userId, const QString& sessionId,
                                     const TranscriptLine& line);
    // Ordered by the time of speech, whatever order they arrived in.
    QList<TranscriptLine> lines(const QString& userId, const QString& sessionId);

private:
    Database& m_db;
};

struct ResumeRecord {
    QString id;
    QString filename;
    QString contentType;
    QByteArray fileData;
    QString extractedText;
    qint64 createdAtMs = 0;
};

struct JobDescriptionRecord {
    QString id;
    QString title;
    QString company;
    QString content;
    qint64 createdAtMs = 0;
};

class DocumentStore {
public:
    explicit DocumentStore(Database& db)
        : m_db(db)
    {
    }
    ResumeRecord addResume(const QString& userId, ResumeRecord resume);
    QList<ResumeRecord> resumes(const QString& userId);
    std::optional<ResumeRecord> resume(const QString& userId, const QString& id);
    bool deleteResume(const QString& userId, const QString& id);
    JobDescriptionRecord addJobDescription(const QString& userId, JobDescriptionRecord record);
    QList<JobDescriptionRecord> jobDescriptions(const QString& userId);
    std::optional<JobDescriptionRecord> jobDescription(const QString& userId, const QString& id);
    bool deleteJobDescription(const QString& userId, const QString& id);
    // What a user keeps: resumes and job descriptions, and their size (file bytes plus text
    // characters).
    struct Usage {
        int documents = 0;
        qint64 size = 0;
    };
    Usage usage(const QString& userId);

private:
    Database& m_db;
};

class AnswerLogStore {
public:
    explicit AnswerLogStore(Database& db)
        : m_db(db)
    {
    }
    QString create(const QString& userId, const std::optional<QString>& sessionId,
                   const QString& question, qint64 nowMs);
    bool setAnswer(const QString& userId, const QString& id, const QString& answer);
    std::optional<QJsonObject> log(const QString& userId, const QString& id);

private:
    Database& m_db;
};

class TelemetryStore {
public:
    explicit TelemetryStore(Database& db)
        : m_db(db)
    {
    }
    void addEvent(const QString& deviceId, const QString& appVersion, const QJsonObject& event,
                  qint64 nowMs);
    void addCrash(const QString& deviceId, const QJsonObject& report, qint64 nowMs);
    // Drops the oldest rows past these counts, so that what arrives without an account can
    // never fill the disk.
    void keepNewest(int events, int crashes);
    int eventCount();
    int crashCount();

private:
    Database& m_db;
};

// Times in records are "2024-05-01T12:30:00.250Z".
QString isoTime(qint64 msSinceEpoch);
