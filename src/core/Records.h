#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QUuid>

#include <optional>

// The plain value records passed around during and after an interview. Timestamps are
// milliseconds since 1970, except the two dates of InterviewSession.

struct InterviewSession {
    enum class SessionStatus { active, completed, analyzed };

    QString id;
    std::optional<QString> title;
    std::optional<QString> company;
    std::optional<QString> role;
    QString languageInput;
    QString languageOutput;
    QDateTime startedAt;
    std::optional<QDateTime> endedAt;
    std::optional<qint64> durationSeconds;
    SessionStatus status = SessionStatus::active;

    // Throws DecodingError for a missing required key, a wrong type, an unknown status or a
    // date the backend's rule refuses.
    static InterviewSession fromJson(const QJsonObject& object);
    QJsonObject toJson() const;

    friend bool operator==(const InterviewSession&, const InterviewSession&) = default;
};

QString toText(InterviewSession::SessionStatus status);
std::optional<InterviewSession::SessionStatus> sessionStatusFromText(QStringView text);

struct TranscriptEntry {
    // The order of the cases is the order of the speaker-keyed maps: interviewer first.
    enum class Speaker { interviewer = 0, user = 1 };

    QString id;
    Speaker speaker = Speaker::interviewer;
    QString content;
    qint64 timestampMs = 0;
    std::optional<double> confidence;
    bool isFinal = false;

    static TranscriptEntry fromJson(const QJsonObject& object);
    QJsonObject toJson() const;

    // Exactly five keys; a missing confidence goes out as 0. Only final entries take it.
    QJsonObject uploadForm() const;
    // Exactly "speaker" and "content", for the context of an answer request.
    QJsonObject contextForm() const;

    friend bool operator==(const TranscriptEntry&, const TranscriptEntry&) = default;
};

QString toText(TranscriptEntry::Speaker speaker);
std::optional<TranscriptEntry::Speaker> speakerFromText(QStringView text);

// One piece delivered by a recogniser. `speaker` is the channel the recogniser serves.
struct TranscriptSegment {
    QString text;
    bool isFinal = false;
    TranscriptEntry::Speaker speaker = TranscriptEntry::Speaker::interviewer;
    qint64 timestampMs = 0;
    std::optional<double> confidence;
};

// One question with its streamed answer; later updates find it by `id`, never by position.
struct AIAnswerEntry {
    QUuid id;
    QString question;
    QString answer;
    qint64 createdAtMs = 0;
    std::optional<QString> logId;
};

// A transcript that could not be delivered when an interview stopped.
struct PendingTranscriptUpload {
    QString sessionId;
    QList<QJsonObject> entries; // upload forms, in transcript order
    qint64 capturedAtMs = 0;
};
