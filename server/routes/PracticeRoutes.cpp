#include "Api.h"
#include "AvatarPainter.h"
#include "Clock.h"
#include "Helpers.h"
#include "QuestionBank.h"
#include "SpeechSynthesizer.h"

#include <QJsonArray>
#include <QRandomGenerator>

using namespace Qt::StringLiterals;

namespace {

// A practice session is a handful of questions; the client asks for eight.
constexpr int maxQuestions = 20;
constexpr qsizetype maxIdLength = 100;

std::optional<QString> optionalText(const QJsonObject& object, const QString& key)
{
    const auto value = object.value(key);
    return value.isString() && !value.toString().trimmed().isEmpty()
               ? std::optional(value.toString().trimmed())
               : std::nullopt;
}

QJsonObject questionJson(const PracticeQuestion& question)
{
    return {{u"id"_s, question.id}, {u"text"_s, question.text}, {u"category"_s, question.category}};
}

// Questions about the user's own target role, in the served language; the bank only holds
// general ones.
QList<PracticeQuestion> roleQuestions(const QString& language,
                                      const std::optional<JobDescriptionRecord>& job,
                                      bool hasResume)
{
    const bool german = language == u"de"_s;
    QList<PracticeQuestion> questions;
    if (job && !job->title.trimmed().isEmpty()) {
        const auto title = job->title.simplified().left(120);
        const auto company = job->company.simplified().left(120);
        const auto text =
            german ? u"Was reizt Sie an der Stelle als "_s + title
                         + (company.isEmpty() ? QString() : u" bei "_s + company) + u'?'
                   : u"What interests you about the role of "_s + title
                         + (company.isEmpty() ? QString() : u" at "_s + company) + u'?';
        questions.append({u"role-position"_s, text, u"role"_s});
    }
    if (hasResume) {
        questions.append(
            {u"role-resume"_s,
             german ? u"Welche Erfahrung in Ihrem Lebenslauf bereitet Sie am besten auf diese "
                      u"Stelle vor, und warum?"_s
                    : u"Which experience on your resume prepares you best for this role, and why?"_s,
             u"role"_s});
    }
    return questions;
}

HttpResponse avatarJson(const AvatarRecord& avatar)
{
    return jsonResponse(200,
                        {{u"key"_s, avatar.key}, {u"generatedAt"_s, isoTime(avatar.generatedAtMs)}});
}

} // namespace

void Api::registerPracticeRoutes()
{
    addRoute(
        "POST", u"/api/v1/mock-interview/questions"_s,
        withJsonBody([this](const QJsonObject& object, const User& user, const Params&) {
            const auto countValue = object.value(u"count"_s);
            const double count = countValue.isUndefined() ? 8 : countValue.toDouble(-1);
            const auto languageValue = object.value(u"language"_s);
            if (!countValue.isUndefined() && !countValue.isDouble())
                return HttpResponse::error(400, u"count must be a number"_s);
            if (count < 1 || count > maxQuestions || count != double(qint64(count)))
                return HttpResponse::error(400, u"count must be a whole number from 1 to 20"_s);
            if (!(languageValue.isString() || languageValue.isUndefined())
                || languageValue.toString().size() > 35)
                return HttpResponse::error(400, u"language must be a short text such as \"en\""_s);
            const auto& bank = QuestionBank::builtIn();
            const auto language = bank.languageServed(languageValue.toString());

            // Documents are looked up with the user's id: another user's id gives nothing.
            std::optional<JobDescriptionRecord> job;
            bool hasResume = false;
            if (const auto id = optionalText(object, u"jobDescriptionId"_s);
                id && id->size() <= maxIdLength)
                job = m_documents.jobDescription(user.id, *id);
            if (const auto id = optionalText(object, u"resumeId"_s); id && id->size() <= maxIdLength)
                hasResume = m_documents.resume(user.id, *id).has_value();

            auto questions = roleQuestions(language, job, hasResume).mid(0, qsizetype(count));
            questions += bank.draw(language, int(count) - int(questions.size()),
                                   *QRandomGenerator::global());
            QJsonArray list;
            for (const auto& question : std::as_const(questions))
                list.append(questionJson(question));
            m_practiceLanguage.insert(user.id, language);
            // The practice is an interview of its own: the client sends its transcript to this
            // session and completes it, as it does for a real one.
            const auto session =
                m_interviews.createSession(user.id, language, language, m_clock.nowMs());
            // `language` tells a client asking for a language the bank lacks what it got.
            return jsonResponse(200, {{u"sessionId"_s, session.value(u"id"_s)},
                                      {u"language"_s, language},
                                      {u"questions"_s, list}});
        }));

    addRoute("GET", u"/api/v1/mock-interview/avatar"_s,
             [this](const HttpRequest&, const User& user, const Params&) {
                 const auto avatar = m_practice.avatar(user.id);
                 return avatar ? avatarJson(*avatar)
                               : HttpResponse::error(404, u"No avatar has been made yet"_s);
             });
    addRoute("POST", u"/api/v1/mock-interview/avatar/generate"_s,
             [this](const HttpRequest& request, const User& user, const Params&) {
                 if (!request.body.trimmed().isEmpty()) {
                     auto body = jsonBody(request);
                     if (auto* refusal = std::get_if<HttpResponse>(&body))
                         return *refusal;
                 }
                 // A new key makes a new face: the user asked for another one.
                 AvatarRecord avatar{uuidLower(), {}, m_clock.nowMs()};
                 avatar.png = AvatarPainter::paintPng(user.id + u':' + avatar.key);
                 m_practice.saveAvatar(user.id, avatar);
                 return avatarJson(avatar);
             });
    addRoute("GET", u"/api/v1/mock-interview/avatar/image"_s,
             [this](const HttpRequest&, const User& user, const Params&) {
                 const auto png = m_practice.avatarImage(user.id);
                 if (!png)
                     return HttpResponse::error(404, u"No avatar has been made yet"_s);
                 return HttpResponse{200,
                                     QByteArrayLiteral("image/png"),
                                     *png,
                                     {{QByteArrayLiteral("Cache-Control"),
                                       QByteArrayLiteral("private, no-cache")}}};
             });
    addDeferredRoute("POST", u"/api/v1/mock-interview/tts"_s,
                     [this](const HttpRequest& request, const User& user,
                            std::shared_ptr<HttpResponder> responder) {
                         speak(request, user, std::move(responder));
                     });
}

void Api::speak(const HttpRequest& request, const User& user,
                std::shared_ptr<HttpResponder> responder)
{
    auto body = jsonBody(request);
    if (auto* refusal = std::get_if<HttpResponse>(&body)) {
        responder->respond(*refusal);
        return;
    }
    const auto& object = std::get<QJsonObject>(body);
    const auto textValue = object.value(u"text"_s);
    const auto text = textValue.toString().trimmed();
    if (!textValue.isString() || text.isEmpty()) {
        responder->respond(HttpResponse::error(400, u"text must be a non-empty text"_s));
        return;
    }
    if (text.size() > SpeechSynthesizer::maxTextLength) {
        responder->respond(HttpResponse::error(
            413, u"text is longer than %1 characters"_s.arg(SpeechSynthesizer::maxTextLength)));
        return;
    }
    // The voice: the language asked for, else that of the bank's question, else that of the
    // user's latest questions (which covers the questions about their own role).
    auto language = optionalText(object, u"language"_s);
    if (!language)
        language = QuestionBank::builtIn().languageOf(text);
    const auto voiceLanguage = language.value_or(m_practiceLanguage.value(user.id, u"en"_s));
    m_synthesizer->speak(text, voiceLanguage,
                         [responder](const SpeechSynthesizer::Result& result) {
                             if (const auto* failure =
                                     std::get_if<SpeechSynthesizer::Failure>(&result)) {
                                 responder->respond(
                                     HttpResponse::error(failure->status, failure->message));
                                 return;
                             }
                             responder->respond({200, QByteArrayLiteral("audio/wav"),
                                                 std::get<QByteArray>(result), {}});
                         });
}
