// The endpoints a live interview touches: the streamed answer, the answer log, the speech
// token, the session with its transcript, and the account status.
#include "APIClient.h"
#include "ReplySupport.h"
#include "ReplyActivity.h"

#include <QCoroNetworkReply>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>

using namespace Qt::StringLiterals;
using namespace ReplySupport;

namespace {

QByteArray json(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// Reads the body as it arrives; never holds more than the line being read.
QCoro::Task<> readAnswerLines(ReplyPtr reply, std::shared_ptr<LogIdBox> box,
                              std::shared_ptr<AnswerStream> inner)
{
    for (;;) {
        while (reply->canReadLine()) {
            if (AnswerEvents::handleLine(reply->readLine(), *box, *inner)) {
                inner->finish();
                co_return;
            }
        }
        if (reply->isFinished()) {
            // A last line without a line end.
            if (const auto rest = reply->readAll(); !rest.isEmpty() && AnswerEvents::handleLine(rest, *box, *inner)) {
                inner->finish();
                co_return;
            }
            if (reply->error() != QNetworkReply::NoError)
                inner->fail(std::make_exception_ptr(transportError(*reply)));
            else
                inner->finish(); // the body ended without "[DONE]": a normal end
            co_return;
        }
        co_await ReplyActivity(reply.get());
    }
}

QCoro::Task<> forwardAnswer(QList<QString> buffered, std::shared_ptr<AnswerStream> inner,
                            std::shared_ptr<AnswerStream> outer)
{
    for (auto& chunk : buffered)
        outer->push(std::move(chunk));
    try {
        while (auto chunk = co_await inner->next())
            outer->push(std::move(*chunk));
        outer->finish();
    } catch (...) {
        outer->fail(std::current_exception());
    }
}

} // namespace

QCoro::Task<APIClient::StreamAnswerResult> APIClient::streamAnswer(AnswerRequest answer)
{
    QJsonArray context;
    for (const auto& entry : answer.context)
        context.append(entry);
    QJsonObject body{{u"question"_s, answer.question}, {u"context"_s, context}};
    const std::pair<QString, const std::optional<QString>*> optionals[] = {
        {u"sessionId"_s, &answer.sessionId},
        {u"language"_s, &answer.language},
        {u"resumeId"_s, &answer.resumeId},
        {u"jobDescriptionId"_s, &answer.jobDescriptionId},
    };
    for (const auto& [key, value] : optionals) {
        if (*value)
            body.insert(key, **value);
    }

    const Request request{"POST", u"/api/v1/chat/answer"_s, json(body), jsonHeaders()};
    ReplyPtr reply(m_network->sendCustomRequest(networkRequest(request, m_accessToken), request.method,
                                                request.body));
    while (!reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid() && !reply->isFinished())
        co_await ReplyActivity(reply.get());

    int status = 500; // an answer that is not HTTP counts as 500
    if (const auto code = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute); code.isValid())
        status = code.toInt();
    else if (!isNotHttp(reply->error()))
        throw transportError(*reply);
    // Only 200 opens the stream; a 401 gets no refresh here.
    if (status != 200)
        throw APIError::serverError(status);

    auto box = std::make_shared<LogIdBox>();
    auto inner = std::make_shared<AnswerStream>();
    readAnswerLines(std::move(reply), box, inner);

    // Hold back at most three chunks, to return the log id together with the stream.
    QList<QString> buffered;
    while (buffered.size() < 3 && !box->value()) {
        auto chunk = co_await inner->next();
        if (!chunk)
            break;
        buffered.append(std::move(*chunk));
    }
    auto outer = std::make_shared<AnswerStream>();
    const auto logId = box->value();
    forwardAnswer(std::move(buffered), inner, outer);
    co_return StreamAnswerResult{logId, outer};
}

QCoro::Task<> APIClient::saveAnswerLog(QString logId, QString answer)
{
    QMap<QString, QString> fields;
    fields.insert(u"answer"_s, answer);
    co_await patch(u"/api/v1/chat/log/"_s + pathSegment(logId), std::move(fields));
}

APIClient::SpeechTokenResponse APIClient::SpeechTokenResponse::fromJson(const QJsonObject& object)
{
    return {Json::requireString(object, u"provider"_s), Json::requireString(object, u"token"_s),
            Json::optionalString(object, u"sttModel"_s), Json::optionalString(object, u"endpoint"_s)};
}

QCoro::Task<APIClient::SpeechTokenResponse> APIClient::fetchSpeechToken(bool isRetry)
{
    QPointer self(this);
    Request request{QByteArray("GET"), u"/api/v1/speech/token"_s, {}, {}};
    const auto response = co_await send(std::move(request), m_accessToken);
    if (!self || !response.status)
        throw APIError::networkError();
    const int status = *response.status;
    if (status == 401) {
        if (isRetry)
            throw APIError::unauthorized();
        co_await renewAccessToken();
        if (!self)
            throw APIError::networkError();
        co_return co_await fetchSpeechToken(true);
    }
    if (isSuccess(status))
        co_return SpeechTokenResponse::fromJson(Json::parseObject(response.body));
    // The vendor's refusal reaches the user in its own words.
    const auto error = QJsonDocument::fromJson(response.body).object().value(u"error"_s);
    if (error.isString())
        throw SpeechTokenError(error.toString());
    throw APIError::serverError(status);
}

QCoro::Task<InterviewSession> APIClient::createSession(QString languageInput, QString languageOutput)
{
    QJsonObject fields;
    fields.insert(u"languageInput"_s, languageInput);
    fields.insert(u"languageOutput"_s, languageOutput);
    const auto body = json(fields);
    Request request{QByteArray("POST"), u"/api/v1/interview/session"_s, body, jsonHeaders()};
    co_return co_await perform<InterviewSession>(std::move(request), true);
}

QCoro::Task<> APIClient::postTranscript(QString sessionId, QList<QJsonObject> entries)
{
    QJsonArray list;
    for (const auto& entry : entries)
        list.append(entry);
    QJsonObject body;
    body.insert(u"entries"_s, list);
    co_await post(u"/api/v1/interview/session/"_s + pathSegment(sessionId) + u"/transcript"_s, json(body));
}

QCoro::Task<> APIClient::completeSession(QString sessionId, qint64 sttAudioDurationMs)
{
    QJsonObject body;
    body.insert(u"status"_s, u"completed"_s);
    body.insert(u"sttAudioDurationMs"_s, sttAudioDurationMs);
    co_await put(u"/api/v1/interview/session/"_s + pathSegment(sessionId), json(body));
}

APIClient::AccountStatus APIClient::AccountStatus::fromJson(const QJsonObject& object)
{
    return {Json::optionalString(object, u"speechProvider"_s)};
}

QCoro::Task<APIClient::AccountStatus> APIClient::fetchAccountStatus()
{
    co_return co_await get<AccountStatus>(u"/api/v1/subscription/status"_s);
}
