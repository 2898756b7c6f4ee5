#include "Api.h"
#include "Clock.h"
#include "TranscriptSocket.h"

#include <QJsonArray>

using namespace Qt::StringLiterals;

namespace {

QJsonObject lineJson(const TranscriptLine& line)
{
    QJsonObject object{{u"id"_s, line.id},
                       {u"speaker"_s, line.speaker},
                       {u"content"_s, line.content},
                       {u"timestampMs"_s, line.timestampMs},
                       {u"revision"_s, line.revision}};
    if (line.confidence)
        object.insert(u"confidence"_s, *line.confidence);
    return object;
}

HttpResponse notFound()
{
    return HttpResponse::error(404, u"Not found"_s);
}

} // namespace

void Api::registerInterviewRoutes()
{
    addRoute("POST", u"/api/v1/interview/session"_s,
             withJsonBody([this](const QJsonObject& object, const User& user, const Params&) {
                 const auto input = object.value(u"languageInput"_s);
                 const auto output = object.value(u"languageOutput"_s);
                 if (!input.isString() || !output.isString() || input.toString().size() > 64
                     || output.toString().size() > 64)
                     return HttpResponse::error(
                         400, u"languageInput and languageOutput must be texts"_s);
                 return jsonResponse(200, m_interviews.createSession(user.id, input.toString(),
                                                                     output.toString(),
                                                                     m_clock.nowMs()));
             }));
    addRoute("GET", u"/api/v1/interview/session"_s,
             [this](const HttpRequest&, const User& user, const Params&) {
                 QJsonArray sessions;
                 for (const auto& session : m_interviews.sessions(user.id))
                     sessions.append(session);
                 return jsonResponse(200, {{u"sessions"_s, sessions}});
             });
    addRoute("GET", u"/api/v1/interview/session/*"_s,
             [this](const HttpRequest&, const User& user, const Params& params) {
                 auto session = m_interviews.session(user.id, params[0]);
                 if (!session)
                     return notFound();
                 QJsonArray transcript;
                 for (const auto& line : m_interviews.lines(user.id, params[0]))
                     transcript.append(lineJson(line));
                 session->insert(u"transcript"_s, transcript);
                 return jsonResponse(200, *session);
             });
    addRoute(
        "PUT", u"/api/v1/interview/session/*"_s,
        withJsonBody([this](const QJsonObject& object, const User& user, const Params& params) {
            const auto duration = object.value(u"sttAudioDurationMs"_s);
            if (object.value(u"status"_s).toString() != u"completed"_s || !duration.isDouble()
                || duration.toDouble() < 0)
                return HttpResponse::error(
                    400, u"Expected status \"completed\" and sttAudioDurationMs"_s);
            if (!m_interviews.complete(user.id, params[0], duration.toInteger(), m_clock.nowMs()))
                return notFound();
            return jsonResponse(200, *m_interviews.session(user.id, params[0]));
        }));
    addRoute(
        "POST", u"/api/v1/interview/session/*/transcript"_s,
        withJsonBody([this](const QJsonObject& object, const User& user, const Params& params) {
            const auto entries = object.value(u"entries"_s);
            if (!entries.isArray())
                return HttpResponse::error(400, u"entries must be a list"_s);
            QList<TranscriptLine> lines;
            for (const auto& entry : entries.toArray()) {
                auto line = transcriptLineFrom(entry.toObject());
                if (!line)
                    return HttpResponse::error(
                        400, u"Each entry needs id, speaker, content and timestampMs"_s);
                lines.append(*line);
            }
            if (!m_interviews.session(user.id, params[0]))
                return notFound();
            QJsonArray ids;
            for (const auto& line : std::as_const(lines)) {
                if (m_interviews.upsertLine(user.id, params[0], line))
                    ids.append(line.id);
            }
            return jsonResponse(200, {{u"ids"_s, ids}});
        }));

    addRoute(
        "PATCH", u"/api/v1/chat/log/*"_s,
        withJsonBody([this](const QJsonObject& object, const User& user, const Params& params) {
            const auto answer = object.value(u"answer"_s);
            if (!answer.isString())
                return HttpResponse::error(400, u"answer must be a text"_s);
            if (!m_answerLogs.setAnswer(user.id, params[0], answer.toString()))
                return notFound();
            return jsonResponse(200, {});
        }));
    addRoute("GET", u"/api/v1/chat/log/*"_s,
             [this](const HttpRequest&, const User& user, const Params& params) {
                 const auto log = m_answerLogs.log(user.id, params[0]);
                 return log ? jsonResponse(200, *log) : notFound();
             });
}
