#include "Records.h"

#include "Helpers.h"
#include "Json.h"

#include <QJsonValue>

using namespace Qt::StringLiterals;

QString toText(InterviewSession::SessionStatus status)
{
    switch (status) {
    case InterviewSession::SessionStatus::active:
        return u"active"_s;
    case InterviewSession::SessionStatus::completed:
        return u"completed"_s;
    case InterviewSession::SessionStatus::analyzed:
        return u"analyzed"_s;
    }
    return {};
}

std::optional<InterviewSession::SessionStatus> sessionStatusFromText(QStringView text)
{
    using enum InterviewSession::SessionStatus;
    for (const auto status : {active, completed, analyzed}) {
        if (toText(status) == text)
            return status;
    }
    return std::nullopt;
}

InterviewSession InterviewSession::fromJson(const QJsonObject& object)
{
    InterviewSession session;
    session.id = Json::requireString(object, u"id"_s);
    session.title = Json::optionalString(object, u"title"_s);
    session.company = Json::optionalString(object, u"company"_s);
    session.role = Json::optionalString(object, u"role"_s);
    session.languageInput = Json::requireString(object, u"languageInput"_s);
    session.languageOutput = Json::requireString(object, u"languageOutput"_s);
    session.startedAt = Json::requireDate(object, u"startedAt"_s);
    session.endedAt = Json::optionalDate(object, u"endedAt"_s);
    session.durationSeconds = Json::optionalInt64(object, u"durationSeconds"_s);
    const auto statusText = Json::requireString(object, u"status"_s);
    const auto status = sessionStatusFromText(statusText);
    if (!status)
        throw DecodingError(u"Unknown session status: "_s + statusText);
    session.status = *status;
    return session;
}

QJsonObject InterviewSession::toJson() const
{
    QJsonObject object{
        {u"id"_s, id},
        {u"languageInput"_s, languageInput},
        {u"languageOutput"_s, languageOutput},
        {u"startedAt"_s, formatIso8601(startedAt, Iso8601::withFractionalSeconds)},
        {u"status"_s, toText(status)},
    };
    if (title)
        object.insert(u"title"_s, *title);
    if (company)
        object.insert(u"company"_s, *company);
    if (role)
        object.insert(u"role"_s, *role);
    if (endedAt)
        object.insert(u"endedAt"_s, formatIso8601(*endedAt, Iso8601::withFractionalSeconds));
    if (durationSeconds)
        object.insert(u"durationSeconds"_s, *durationSeconds);
    return object;
}

QString toText(TranscriptEntry::Speaker speaker)
{
    return speaker == TranscriptEntry::Speaker::interviewer ? u"interviewer"_s : u"user"_s;
}

std::optional<TranscriptEntry::Speaker> speakerFromText(QStringView text)
{
    if (text == u"interviewer")
        return TranscriptEntry::Speaker::interviewer;
    if (text == u"user")
        return TranscriptEntry::Speaker::user;
    return std::nullopt;
}

TranscriptEntry TranscriptEntry::fromJson(const QJsonObject& object)
{
    TranscriptEntry entry;
    entry.id = Json::requireString(object, u"id"_s);
    const auto speakerText = Json::requireString(object, u"speaker"_s);
    const auto speaker = speakerFromText(speakerText);
    if (!speaker)
        throw DecodingError(u"Unknown speaker: "_s + speakerText);
    entry.speaker = *speaker;
    entry.content = Json::requireString(object, u"content"_s);
    entry.timestampMs = Json::requireInt64(object, u"timestampMs"_s);
    entry.confidence = Json::optionalDouble(object, u"confidence"_s);
    entry.isFinal = Json::requireBool(object, u"isFinal"_s);
    return entry;
}

QJsonObject TranscriptEntry::toJson() const
{
    QJsonObject object{
        {u"id"_s, id},
        {u"speaker"_s, toText(speaker)},
        {u"content"_s, content},
        {u"timestampMs"_s, timestampMs},
        {u"isFinal"_s, isFinal},
    };
    if (confidence)
        object.insert(u"confidence"_s, *confidence);
    return object;
}

QJsonObject TranscriptEntry::uploadForm() const
{
    return {
        {u"id"_s, id},
        {u"speaker"_s, toText(speaker)},
        {u"content"_s, content},
        {u"timestampMs"_s, timestampMs},
        {u"confidence"_s, confidence.value_or(0.0)},
    };
}

QJsonObject TranscriptEntry::contextForm() const
{
    return {{u"speaker"_s, toText(speaker)}, {u"content"_s, content}};
}
