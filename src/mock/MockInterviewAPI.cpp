#include "MockInterviewAPI.h"

#include "APIClient.h"
#include "Helpers.h"
#include "Json.h"
#include "NotificationCenter.h"
#include "ReplySupport.h"

#include <QCoroNetworkReply>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QStringDecoder>

using namespace Qt::StringLiterals;

namespace {
const QString questionsPath = u"/api/v1/mock-interview/questions"_s;
const QString avatarPath = u"/api/v1/mock-interview/avatar"_s;
const QString generatePath = u"/api/v1/mock-interview/avatar/generate"_s;
const QString imagePath = u"/api/v1/mock-interview/avatar/image"_s;
const QString speechPath = u"/api/v1/mock-interview/tts"_s;

template<typename T>
T decode(const QByteArray& body)
{
    try {
        return T::fromJson(Json::parseObject(body));
    } catch (const DecodingError& error) {
        throw MockInterviewError::decoding(error.message());
    }
}

// The body as text, or nothing when it is not UTF-8.
std::optional<QString> utf8Text(const QByteArray& bytes)
{
    auto decoder = QStringDecoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    QString text = decoder(bytes);
    if (decoder.hasError())
        return std::nullopt;
    return text;
}
} // namespace

MockQuestion MockQuestion::fromJson(const QJsonObject& object)
{
    return {Json::requireString(object, u"id"_s), Json::requireString(object, u"text"_s),
            Json::requireString(object, u"category"_s)};
}

QuestionsResponse QuestionsResponse::fromJson(const QJsonObject& object)
{
    QuestionsResponse response{Json::requireString(object, u"sessionId"_s), {}};
    for (const auto& value : Json::requireArray(object, u"questions"_s)) {
        if (!value.isObject())
            throw DecodingError(u"questions: expected objects"_s);
        response.questions.append(MockQuestion::fromJson(value.toObject()));
    }
    return response;
}

AvatarResponse AvatarResponse::fromJson(const QJsonObject& object)
{
    return {Json::requireString(object, u"key"_s), Json::requireString(object, u"generatedAt"_s)};
}

MockInterviewError::MockInterviewError(Kind kind, int status, QString description)
    : m_kind(kind)
    , m_status(status)
    , m_description(std::move(description))
    , m_what(m_description.toStdString())
{
}

MockInterviewError MockInterviewError::http(int status, std::optional<QString> body)
{
    auto text = u"HTTP "_s + QString::number(status);
    if (body)
        text += u": "_s + *body;
    return {Kind::http, status, text};
}

MockInterviewError MockInterviewError::decoding(QString message)
{
    return {Kind::decoding, 0, u"Decoding error: "_s + message};
}

MockInterviewError MockInterviewError::transport(QString message)
{
    return {Kind::transport, 0, u"Network error: "_s + message};
}

MockInterviewError MockInterviewError::unauthenticated()
{
    return {Kind::unauthenticated, 0, u"Not signed in"_s};
}

MockInterviewAPI::MockInterviewAPI(APIClient& apiClient, QNetworkAccessManager& urlSession,
                                   NotificationCenter& notifications, QObject* parent)
    : QObject(parent)
    , m_apiClient(&apiClient)
    , m_urlSession(&urlSession)
    , m_notifications(notifications)
{
}

QJsonObject MockInterviewAPI::questionsBody(const std::optional<QString>& resumeId,
                                            const std::optional<QString>& jobDescriptionId,
                                            const QString& language, int count)
{
    QJsonObject body{{u"language"_s, language}, {u"count"_s, count}};
    if (resumeId)
        body.insert(u"resumeId"_s, *resumeId);
    if (jobDescriptionId)
        body.insert(u"jobDescriptionId"_s, *jobDescriptionId);
    return body;
}

QNetworkRequest MockInterviewAPI::makeRequest(const QString& path) const
{
    const auto token = m_apiClient ? m_apiClient->accessToken() : std::nullopt;
    if (!token)
        throw MockInterviewError::unauthenticated();
    const QUrl url(m_apiClient->baseURL() + path, QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty())
        throw MockInterviewError::transport(u"Invalid URL"_s);
    QNetworkRequest request(url);
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute,
                         QNetworkRequest::PreferNetwork);
    request.setTransferTimeout(timeoutMs);
    request.setRawHeader("Authorization", "Bearer " + token->toUtf8());
    return request;
}

QCoro::Task<MockInterviewAPI::Response> MockInterviewAPI::send(QNetworkRequest request,
                                                               QByteArray method, QByteArray body)
{
    if (!m_urlSession)
        throw MockInterviewError::transport(u"No HTTP response"_s);
    ReplyPtr reply(m_urlSession->sendCustomRequest(request, method, body));
    co_await reply.get();

    const auto status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (status.isValid() && ReplySupport::isTransportFailure(reply->error()))
        throw ReplySupport::transportError(*reply); // a body cut short
    if (status.isValid())
        co_return Response{status.toInt(), reply->readAll()};
    if (ReplySupport::isNotHttp(reply->error()))
        throw MockInterviewError::transport(u"No HTTP response"_s);
    throw ReplySupport::transportError(*reply);
}

QCoro::Task<QByteArray> MockInterviewAPI::postJSON(QString path, QJsonObject body)
{
    auto request = makeRequest(path);
    request.setHeader(QNetworkRequest::ContentTypeHeader, u"application/json"_s);
    QPointer self(this);
    const auto response = co_await send(std::move(request), "POST",
                                        QJsonDocument(body).toJson(QJsonDocument::Compact));
    if (ReplySupport::isSuccess(response.status))
        co_return response.body;
    if (self) {
        m_notifications.post(Notifications::apiRequestFailed, {},
                             {{u"route"_s, path}, {u"status"_s, response.status}});
    }
    throw MockInterviewError::http(response.status, utf8Text(response.body));
}

QCoro::Task<std::optional<QByteArray>> MockInterviewAPI::getOptional(QString path,
                                                                     QList<int> absent)
{
    const auto response = co_await send(makeRequest(path), "GET", {});
    if (absent.contains(response.status))
        co_return std::nullopt;
    if (!ReplySupport::isSuccess(response.status))
        throw MockInterviewError::http(response.status, utf8Text(response.body));
    co_return response.body;
}

QCoro::Task<QuestionsResponse>
MockInterviewAPI::fetchQuestions(std::optional<QString> resumeId,
                                 std::optional<QString> jobDescriptionId, QString language,
                                 int count)
{
    auto request = questionsBody(resumeId, jobDescriptionId, language, count);
    const auto body = co_await postJSON(questionsPath, std::move(request));
    co_return decode<QuestionsResponse>(body);
}

QCoro::Task<std::optional<AvatarResponse>> MockInterviewAPI::fetchAvatar()
{
    const QList<int> absent{204, 404};
    const auto body = co_await getOptional(avatarPath, absent);
    if (!body)
        co_return std::nullopt;
    co_return decode<AvatarResponse>(*body);
}

QCoro::Task<AvatarResponse> MockInterviewAPI::generateAvatar()
{
    QJsonObject empty;
    const auto body = co_await postJSON(generatePath, std::move(empty));
    co_return decode<AvatarResponse>(body);
}

QCoro::Task<std::optional<QByteArray>> MockInterviewAPI::fetchAvatarImage()
{
    // A 204 is a success with no bytes; only a 404 says there is no image.
    const QList<int> absent{404};
    co_return co_await getOptional(imagePath, absent);
}

QCoro::Task<QByteArray> MockInterviewAPI::synthesizeSpeech(QString text)
{
    QJsonObject body{{u"text"_s, text}};
    co_return co_await postJSON(speechPath, std::move(body));
}

QCoro::Task<std::optional<QByteArray>>
loadAvatarImage(QPointer<MockInterviewAPI> api, bool regenerate,
                std::function<void(bool firstTime)> generated)
{
    try {
        bool needsPortrait = regenerate;
        if (!needsPortrait) {
            if (!api)
                co_return std::nullopt;
            needsPortrait = !(co_await api->fetchAvatar()).has_value();
        }
        if (needsPortrait) {
            if (!api)
                co_return std::nullopt;
            co_await api->generateAvatar();
            if (generated)
                generated(!regenerate);
        }
        if (!api)
            co_return std::nullopt;
        co_return co_await api->fetchAvatarImage();
    } catch (const std::exception&) {
        co_return std::nullopt;
    }
}
