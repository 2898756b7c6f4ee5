#include "APIClient.h"
#include "ReplySupport.h"

#include "AuthTokenStore.h"
#include "NotificationCenter.h"

#include <QCoroNetworkReply>
#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

using namespace Qt::StringLiterals;
using namespace ReplySupport;

struct APIClient::RefreshFlight {
    TaskHandle task;
    std::optional<RefreshResponse> result;
    std::exception_ptr error;
};

void validateJsonBody(const QByteArray& body)
{
    // Any JSON value is fine; wrapping it in an array lets the object/array parser judge it.
    QJsonParseError error;
    const auto document = QJsonDocument::fromJson("[" + body + "]", &error);
    if (error.error != QJsonParseError::NoError || document.array().size() != 1)
        throw DecodingError(u"Invalid JSON body"_s);
}

APIClient::RefreshResponse APIClient::RefreshResponse::fromJson(const QJsonObject& object)
{
    return {Json::requireString(object, u"accessToken"_s), Json::requireString(object, u"refreshToken"_s)};
}

APIClient::UserResponse APIClient::UserResponse::fromJson(const QJsonObject& object)
{
    return {Json::requireString(object, u"id"_s), Json::requireString(object, u"email"_s),
            Json::optionalString(object, u"displayName"_s)};
}

APIClient::AuthResponse APIClient::AuthResponse::fromJson(const QJsonObject& object)
{
    return {Json::requireString(object, u"accessToken"_s), Json::requireString(object, u"refreshToken"_s),
            UserResponse::fromJson(Json::requireObject(object, u"user"_s))};
}

APIClient::APIClient(QString baseURL, AuthTokenStore& tokens, NotificationCenter& notifications,
                     QNetworkAccessManager* network, QObject* parent)
    : QObject(parent)
    , m_baseURL(std::move(baseURL))
    , m_tokens(tokens)
    , m_notifications(notifications)
    , m_network(network ? network : new QNetworkAccessManager(this))
{
    // On the manager, so that every request has it and a test's manager can set a shorter one.
    if (m_network->transferTimeout() == 0)
        m_network->setTransferTimeout(timeoutMs);
}

APIClient::~APIClient() = default;

QNetworkRequest APIClient::networkRequest(const Request& request,
                                          const std::optional<QString>& token) const
{
    const QUrl url(m_baseURL + request.path);
    if (!url.isValid())
        qFatal("invalid backend address for path %s", qPrintable(request.path));
    QNetworkRequest result(url);
    for (const auto& [name, value] : request.headers)
        result.setRawHeader(name, value);
    if (token)
        result.setRawHeader("Authorization", "Bearer " + token->toUtf8());
    return result;
}

QCoro::Task<APIClient::RawResponse> APIClient::send(Request request, std::optional<QString> token)
{
    const auto networkRequest = this->networkRequest(request, token);
    ReplyPtr reply(m_network->sendCustomRequest(networkRequest, request.method, request.body));
    co_await reply.get();

    const auto status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (status.isValid() && isTransportFailure(reply->error()))
        throw transportError(*reply); // a body cut short
    if (status.isValid())
        co_return RawResponse{status.toInt(), reply->readAll()};
    if (isNotHttp(reply->error()))
        co_return RawResponse{std::nullopt, {}};
    throw transportError(*reply);
}

void APIClient::postRequestFailed(const QString& path, int status)
{
    const auto route = QUrl(m_baseURL + path).path();
    m_notifications.post(Notifications::apiRequestFailed, {},
                         {{u"route"_s, route.isEmpty() ? u"unknown"_s : route}, {u"status"_s, status}});
}

QCoro::Task<> APIClient::performWith(Request request, bool allowRefresh,
                                     std::function<void(const QByteArray&)> decode)
{
    QPointer self(this);
    // First attempt: transport and decoding failures reach the caller as they are.
    auto firstToken = m_accessToken;
    const auto first = co_await send(request, std::move(firstToken));
    if (!self)
        throw APIError::networkError();
    if (!first.status)
        throw APIError::networkError();
    const int status = *first.status;
    if (!(allowRefresh && status == 401)) {
        if (!isSuccess(status)) {
            postRequestFailed(request.path, status);
            throw APIError::serverError(status);
        }
        decode(first.body);
        co_return;
    }

    // Expired token: one shared refresh, then the only retry. Anything that is not our own
    // error becomes a network error here, so the same fault reads differently on the retry.
    try {
        std::optional<QString> token = co_await renewAccessToken();
        if (!self)
            throw APIError::networkError();
        const auto second = co_await send(request, std::move(token));
        if (!self)
            throw APIError::networkError();
        if (!second.status)
            throw APIError::serverError(500);
        if (!isSuccess(*second.status))
            throw APIError::serverError(*second.status);
        decode(second.body);
    } catch (const APIError&) {
        throw;
    } catch (...) {
        throw APIError::networkError();
    }
}

QCoro::Task<QString> APIClient::renewAccessToken()
{
    QPointer self(this);
    const auto refreshToken = co_await m_tokens.getRefreshToken();
    if (!refreshToken)
        throw APIError::unauthorized();
    if (!self)
        throw APIError::networkError();
    const auto tokens = co_await refreshTokens(*refreshToken);
    if (!self)
        throw APIError::networkError();
    m_accessToken = tokens.accessToken;
    co_await m_tokens.saveTokens(tokens.accessToken, tokens.refreshToken);
    co_return tokens.accessToken;
}

QCoro::Task<APIClient::RefreshResponse> APIClient::refreshTokens(QString refreshToken)
{
    QPointer self(this);
    if (auto flight = m_refreshTask) {
        co_await flight->task.finished();
        if (flight->error)
            std::rethrow_exception(flight->error);
        // A copy: QCoro moves from any lvalue given to co_return, and others share this result.
        RefreshResponse result = *flight->result;
        co_return result;
    }

    Request request{"POST", u"/api/v1/auth/refresh"_s, {}, jsonHeaders()};
    const auto body = QJsonDocument(QJsonObject{{u"refreshToken"_s, refreshToken}}).toJson(QJsonDocument::Compact);
    auto flight = std::make_shared<RefreshFlight>();
    // The refresh runs on its own, so that it outlives any one waiter; it is stored before
    // the first suspension so that concurrent callers find it.
    flight->task = TaskHandle::run([&](const CancellationToken&) {
        return runRefresh(m_network, networkRequest(request, std::nullopt), body, flight);
    });
    m_refreshTask = flight;

    co_await flight->task.finished();
    if (self && m_refreshTask == flight)
        m_refreshTask.reset();
    if (flight->error)
        std::rethrow_exception(flight->error);
    RefreshResponse result = *flight->result;
    co_return result;
}

QCoro::Task<> APIClient::runRefresh(QPointer<QNetworkAccessManager> network, QNetworkRequest request,
                                    QByteArray body, std::shared_ptr<RefreshFlight> flight)
{
    try {
        if (!network)
            throw APIError::networkError();
        ReplyPtr reply(network->post(request, body));
        co_await reply.get();
        const auto status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        if (status.isValid() && isTransportFailure(reply->error()))
            throw transportError(*reply);
        if (!status.isValid()) {
            if (isNotHttp(reply->error()))
                throw APIError::networkError();
            throw transportError(*reply);
        }
        if (status.toInt() == 401)
            throw APIError::unauthorized();
        if (!isSuccess(status.toInt()))
            throw APIError::serverError(status.toInt());
        flight->result = RefreshResponse::fromJson(Json::parseObject(reply->readAll()));
    } catch (...) {
        flight->error = std::current_exception();
    }
}

QCoro::Task<APIClient::AuthResponse> APIClient::exchangeCode(QString code)
{
    // Requests are built as locals: temporaries inside a co_await expression are not safe
    // with this compiler.
    Request request{QByteArray("POST"), u"/api/v1/auth/exchange"_s,
                    QJsonDocument(QJsonObject{{u"code"_s, code}}).toJson(QJsonDocument::Compact), jsonHeaders()};
    co_return co_await perform<AuthResponse>(std::move(request), false);
}

QCoro::Task<> APIClient::post(QString path, QByteArray body)
{
    Request request{QByteArray("POST"), std::move(path), std::move(body), jsonHeaders()};
    co_await perform<EmptyResponse>(std::move(request), true);
}

QCoro::Task<> APIClient::put(QString path, QByteArray body)
{
    Request request{QByteArray("PUT"), std::move(path), std::move(body), jsonHeaders()};
    co_await perform<EmptyResponse>(std::move(request), true);
}

QCoro::Task<> APIClient::patch(QString path, QMap<QString, QString> fields)
{
    QJsonObject object;
    for (auto it = fields.cbegin(); it != fields.cend(); ++it)
        object.insert(it.key(), it.value());
    Request request{QByteArray("PATCH"), std::move(path), QJsonDocument(object).toJson(QJsonDocument::Compact),
                    jsonHeaders()};
    co_await perform<EmptyResponse>(std::move(request), true);
}

QCoro::Task<> APIClient::deleteResource(QString path)
{
    Request request{QByteArray("DELETE"), std::move(path), {}, {}};
    co_await perform<EmptyResponse>(std::move(request), true);
}
