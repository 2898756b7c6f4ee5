#include "AuthViewModel.h"

#include "APIClient.h"
#include "APIError.h"
#include "AuthTokenStore.h"
#include "Helpers.h"
#include "Log.h"
#include "TaskHandle.h"
#include "TelemetryClient.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

using namespace Qt::StringLiterals;

namespace {

QString boolWord(bool value)
{
    return value ? u"true"_s : u"false"_s;
}

QString describe(const std::exception_ptr& failure)
{
    try {
        std::rethrow_exception(failure);
    } catch (const APIError& error) {
        return error.description();
    } catch (const DescribedError& error) {
        return error.description();
    } catch (const std::exception& error) {
        return QString::fromUtf8(error.what());
    } catch (...) {
        return u"Unknown error"_s;
    }
}

// The server ends the refresh family, so that a copy of the token taken from this machine dies
// with the sign-out. The user is signed out here whatever the server answers.
QByteArray logoutBody(const QString& refreshToken)
{
    return QJsonDocument(QJsonObject{{u"refreshToken"_s, refreshToken}})
        .toJson(QJsonDocument::Compact);
}

QCoro::Task<> endServerSession(AuthTokenStore* store, QPointer<APIClient> client)
{
    // Both start now, the read first (the keyring serves its jobs in order): the deletes do not
    // wait for the read, so the sign-out clears the keyring as promptly as it always did.
    auto read = store->getRefreshToken();
    auto clear = store->clearTokens();
    const auto refreshToken = co_await std::move(read);
    co_await std::move(clear);
    if (!refreshToken || !client)
        co_return;
    std::exception_ptr failure;
    try {
        co_await client->post(QStringLiteral("/api/v1/auth/logout"), logoutBody(*refreshToken));
    } catch (...) {
        failure = std::current_exception();
    }
    logLine(QStringView(u"Auth"), failure ? QStringLiteral("logout error: ") + describe(failure)
                                          : QStringLiteral("logout: the server ended the session"));
}

} // namespace

AuthViewModel::AuthViewModel(AuthTokenStore& tokens, QObject* parent)
    : QObject(parent)
    , m_authService(tokens)
{
}

void AuthViewModel::setApiClient(APIClient* client)
{
    m_apiClient = client;
}

APIClient* AuthViewModel::apiClient() const
{
    return m_apiClient;
}

void AuthViewModel::setTelemetry(TelemetryClient* telemetry)
{
    m_telemetry = telemetry;
}

QCoro::Task<> AuthViewModel::loadStoredTokens()
{
    QPointer self(this);
    auto& store = m_authService;
    const auto refreshToken = co_await store.getRefreshToken();
    if (!self)
        co_return;
    const bool stored = refreshToken.has_value();
    logLine(u"Auth", u"init: hasStoredTokens="_s + boolWord(stored) + u", refreshToken="_s
                         + boolWord(stored));
    if (stored)
        setLoggedIn(true);
}

QCoro::Task<> AuthViewModel::exchangeCode(QString code)
{
    QPointer self(this);
    setLoading(true);
    setError(std::nullopt);
    QPointer<APIClient> client = m_apiClient;
    if (!client) {
        setError(clientNotConfigured);
        setLoading(false);
        co_return;
    }

    std::optional<APIClient::AuthResponse> response;
    std::exception_ptr failure;
    try {
        response = co_await client->exchangeCode(std::move(code));
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self)
        co_return;
    if (failure) {
        setError(describe(failure));
        setLoading(false);
        co_return;
    }

    auto& store = m_authService;
    co_await store.saveTokens(response->accessToken, response->refreshToken);
    if (!self)
        co_return;
    if (m_apiClient)
        m_apiClient->setAccessToken(response->accessToken);
    setCurrentUser(
        UserProfile{response->user.id, response->user.email, response->user.displayName});
    setLoggedIn(true);
    if (m_telemetry) {
        // Its own turn of the event loop, as a task of its own would have.
        QTimer::singleShot(0, m_telemetry.data(), [telemetry = m_telemetry] {
            if (telemetry)
                telemetry->authSuccess();
        });
    }
    setLoading(false);
}

QCoro::Task<> AuthViewModel::restoreSession()
{
    QPointer self(this);
    auto& store = m_authService;
    const auto refreshToken = co_await store.getRefreshToken();
    if (!self || !refreshToken)
        co_return;
    QPointer<APIClient> client = m_apiClient;
    if (!client)
        co_return;

    std::optional<APIClient::RefreshResponse> tokens;
    std::exception_ptr failure;
    try {
        tokens = co_await client->refreshTokens(*refreshToken);
    } catch (...) {
        failure = std::current_exception();
    }
    if (!self)
        co_return;

    if (tokens) {
        co_await store.saveTokens(tokens->accessToken, tokens->refreshToken);
        if (!self)
            co_return;
        if (m_apiClient)
            m_apiClient->setAccessToken(tokens->accessToken);
        setCurrentUser(decodeProfile(tokens->accessToken));
        setLoggedIn(true);
        co_return;
    }

    bool unauthorized = false;
    try {
        std::rethrow_exception(failure);
    } catch (const APIError& error) {
        unauthorized = error.kind() == APIError::Kind::unauthorized;
    } catch (...) {
    }
    if (unauthorized) {
        logLine(u"Auth", u"restoreSession auth rejected, logging out");
        logout();
        co_return;
    }

    // A transient fault never signs the user out: the stored token stands until a request
    // gets its 401 and its own chance to refresh.
    logLine(u"Auth", u"restoreSession error: "_s + describe(failure) + u", keeping session"_s);
    const auto accessToken = co_await store.getAccessToken();
    if (!self)
        co_return;
    if (accessToken) {
        if (m_apiClient)
            m_apiClient->setAccessToken(*accessToken);
        setCurrentUser(decodeProfile(*accessToken));
    }
    setLoggedIn(true);
}

void AuthViewModel::logout()
{
    // The store's deletes finish on their own; the next sign-in's save replaces them anyway.
    auto* store = &m_authService;
    TaskHandle::run([store, client = m_apiClient](const CancellationToken&) {
        return endServerSession(store, client);
    });
    // A turn of the event loop later, as a task of its own on the main context.
    if (m_apiClient) {
        QTimer::singleShot(0, m_apiClient.data(), [client = m_apiClient] {
            if (client)
                client->setAccessToken(std::nullopt);
        });
    }
    setLoggedIn(false);
    setCurrentUser(std::nullopt);
}

std::optional<AuthViewModel::UserProfile> AuthViewModel::decodeProfile(const QString& accessToken)
{
    const auto pieces = accessToken.split(u'.', Qt::KeepEmptyParts);
    if (pieces.size() != 3)
        return std::nullopt;
    QByteArray payload = pieces.at(1).toLatin1();
    while (payload.size() % 4 != 0)
        payload.append('=');
    // Plain base64 only: a payload in the URL-safe alphabet gives no profile.
    const auto decoded =
        QByteArray::fromBase64Encoding(payload, QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded)
        return std::nullopt;
    QJsonParseError parseError;
    const auto document = QJsonDocument::fromJson(*decoded, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    const auto object = document.object();
    const auto sub = object.value(u"sub"_s);
    const auto email = object.value(u"email"_s);
    if (!sub.isString() || !email.isString())
        return std::nullopt;
    // A "\ud800" escape alone is half a character: no account has such an id or address, and
    // the server refuses it in a body.
    const auto id = sub.toString();
    const auto address = email.toString();
    if (withValidUnicode(id) != id || withValidUnicode(address) != address)
        return std::nullopt;
    return UserProfile{id, address, std::nullopt};
}

void AuthViewModel::setLoggedIn(bool loggedIn)
{
    if (m_isLoggedIn == loggedIn)
        return;
    m_isLoggedIn = loggedIn;
    Q_EMIT isLoggedInChanged();
}

void AuthViewModel::setCurrentUser(std::optional<UserProfile> user)
{
    if (m_currentUser == user)
        return;
    m_currentUser = std::move(user);
    Q_EMIT currentUserChanged();
}

void AuthViewModel::setLoading(bool loading)
{
    if (m_isLoading == loading)
        return;
    m_isLoading = loading;
    Q_EMIT isLoadingChanged();
}

void AuthViewModel::setError(std::optional<QString> error)
{
    if (m_error == error)
        return;
    m_error = std::move(error);
    Q_EMIT errorChanged();
}

void AuthViewModel::setPendingVerificationEmailText(const QString& email)
{
    std::optional<QString> value = email.isEmpty() ? std::nullopt : std::optional(email);
    if (m_pendingVerificationEmail == value)
        return;
    m_pendingVerificationEmail = std::move(value);
    Q_EMIT pendingVerificationEmailChanged();
}
