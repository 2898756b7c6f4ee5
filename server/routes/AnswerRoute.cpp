#include "AnswerEngine.h"
#include "Api.h"
#include "Clock.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QPointer>

#include <functional>
#include <utility>

using namespace Qt::StringLiterals;
using ravlet::server::AnswerEngine;
using ravlet::server::AnswerRequest;

namespace {

// The recent transcript the engine sees; older lines add little to one answer.
constexpr int maxContextLines = 30;

QByteArray sseEvent(const QJsonObject& object)
{
    return "data: " + QJsonDocument(object).toJson(QJsonDocument::Compact) + "\n\n";
}

std::optional<QString> optionalText(const QJsonObject& object, const QString& key)
{
    const auto value = object.value(key);
    return value.isString() && !value.toString().isEmpty() ? std::optional(value.toString())
                                                           : std::nullopt;
}

// One answer on its way to the client. The response starts with the first chunk, so that an
// engine that fails at once is reported with a status instead of an empty stream.
struct AnswerFlight {
    std::shared_ptr<HttpResponder> responder;
    QString logId;
    QString answer;
    bool started = false;
    bool finished = false;
    AnswerEngine::Handle handle;
    // Gives back the user's streaming slot; runs once, when the answer ends either way.
    std::function<void()> freeSlot;

    void finish()
    {
        finished = true;
        if (auto free = std::exchange(freeSlot, {}))
            free();
    }

    // The engine's handle may hold the callbacks that hold this flight: let go of it once the
    // answer is over, after the engine's current call has returned.
    void release(const std::shared_ptr<AnswerFlight>& self)
    {
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [self] { self->handle = {}; }, Qt::QueuedConnection);
    }

    void start()
    {
        if (started)
            return;
        started = true;
        responder->beginStream(200, QByteArrayLiteral("text/event-stream; charset=utf-8"));
        responder->writeChunk(sseEvent({{u"logId"_s, logId}}));
    }
};

} // namespace

void Api::streamAnswer(const HttpRequest& request, const User& user,
                       std::shared_ptr<HttpResponder> responder)
{
    auto body = jsonBody(request);
    if (auto* refusal = std::get_if<HttpResponse>(&body)) {
        responder->respond(*refusal);
        return;
    }
    const auto& object = std::get<QJsonObject>(body);
    const auto question = object.value(u"question"_s);
    const auto context = object.value(u"context"_s);
    if (!question.isString() || question.toString().size() > 20'000
        || !(context.isArray() || context.isUndefined())) {
        responder->respond(
            HttpResponse::error(400, u"question must be a text and context a list"_s));
        return;
    }
    if (!m_engine) {
        responder->respond(
            HttpResponse::error(503, u"No answer engine is configured on this server"_s));
        return;
    }

    const auto& quotas = m_config.quotas;
    if (m_answersStreaming.value(user.id) >= quotas.answerStreamsAtOnce) {
        responder->respond(tooMany(u"Too many answers at once: at most %1 stream at a time"_s.arg(
                                       quotas.answerStreamsAtOnce),
                                   1));
        return;
    }
    if (!m_answerStarts.take(user.id, quotas.answersPerMinute)) {
        responder->respond(
            tooMany(u"Too many answers: at most %1 per minute"_s.arg(quotas.answersPerMinute),
                    m_answerStarts.retryAfterSeconds(user.id)));
        return;
    }

    AnswerRequest answerRequest;
    answerRequest.question = question.toString();
    const auto lines = context.toArray();
    for (qsizetype i = std::max<qsizetype>(0, lines.size() - maxContextLines); i < lines.size();
         ++i) {
        const auto line = lines[i].toObject();
        const auto content = line.value(u"content"_s).toString();
        if (content.isEmpty())
            continue;
        answerRequest.recentTranscript.append(
            (line.value(u"speaker"_s).toString() == u"user"_s ? u"You: "_s : u"Interviewer: "_s)
            + content);
    }
    // Documents are looked up with the user's id: another user's id gives nothing.
    if (const auto id = optionalText(object, u"resumeId"_s)) {
        if (const auto resume = m_documents.resume(user.id, *id))
            answerRequest.resumeText = resume->extractedText;
    }
    if (const auto id = optionalText(object, u"jobDescriptionId"_s)) {
        if (const auto job = m_documents.jobDescription(user.id, *id))
            answerRequest.jobDescriptionText = job->content;
    }
    answerRequest.outputLanguage = optionalText(object, u"language"_s).value_or(QString());
    auto sessionId = optionalText(object, u"sessionId"_s);
    if (sessionId && !m_interviews.session(user.id, *sessionId))
        sessionId.reset();

    auto flight = std::make_shared<AnswerFlight>();
    flight->responder = std::move(responder);
    ++m_answersStreaming[user.id];
    flight->freeSlot = [self = QPointer(this), userId = user.id] {
        if (self && --self->m_answersStreaming[userId] <= 0)
            self->m_answersStreaming.remove(userId);
    };
    flight->logId =
        m_answerLogs.create(user.id, sessionId, answerRequest.question, m_clock.nowMs());
    // Weak: the responder owns this callback, and the flight owns the responder.
    flight->responder->setOnDisconnected([weak = std::weak_ptr(flight)] {
        if (auto flight = weak.lock(); flight && !flight->finished && flight->handle.cancel) {
            flight->finish();
            flight->handle.cancel();
            flight->release(flight);
        }
    });

    QPointer<Api> self(this);
    const auto userId = user.id;
    auto onChunk = [flight](const QString& chunk) {
        if (flight->finished || chunk.isEmpty())
            return;
        flight->start();
        flight->answer += chunk;
        flight->responder->writeChunk(sseEvent({{u"content"_s, chunk}}));
    };
    auto onDone = [flight, self, userId](const QString& error) {
        if (flight->finished)
            return;
        flight->finish();
        flight->release(flight);
        if (!error.isEmpty() && !flight->started) {
            flight->responder->respond(HttpResponse::error(502, error));
            return;
        }
        flight->start();
        if (error.isEmpty())
            flight->responder->writeChunk(QByteArrayLiteral("data: [DONE]\n\n"));
        else
            flight->responder->writeChunk(sseEvent({{u"error"_s, error}}));
        flight->responder->endStream();
        // What was produced is kept, also when the client never saves its copy.
        if (self) {
            try {
                self->m_answerLogs.setAnswer(userId, flight->logId, flight->answer);
            } catch (const StoreError& storeError) {
                qWarning("An answer log was not stored: %s", storeError.what());
            }
        }
    };
    flight->handle = m_engine->answer(answerRequest, std::move(onChunk), std::move(onDone));
}
