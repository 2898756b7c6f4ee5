#include "BackendTestSupport.h"

#include <QJsonDocument>
#include <QTcpServer>

#include <functional>
#include <tuple>
#include <vector>

using namespace Qt::StringLiterals;

namespace {
const QByteArray statusPath = "/api/v1/subscription/status";
const QByteArray refreshPath = "/api/v1/auth/refresh";
const QByteArray notHttp = "SSH-2.0-OpenSSH\r\n\r\n";

FakeBackend::Response garbage()
{
    FakeBackend::Response response;
    response.raw = notHttp;
    return response;
}
} // namespace

class APIClientTest : public BackendTest {};

TEST_F(APIClientTest, SendsBearerTokenAndDecodesResults)
{
    server.setRoute("GET", statusPath, FakeBackend::Response::json(200, R"({"speechProvider":"deepgram","plan":"pro"})"));
    client.setAccessToken(u"A1"_s);
    const auto status = awaitTask(client.fetchAccountStatus());
    EXPECT_EQ(status.speechProvider, u"deepgram"_s);
    EXPECT_EQ(server.requests("GET", statusPath).first().header("Authorization"), "Bearer A1");

    client.setAccessToken(std::nullopt);
    awaitTask(client.fetchAccountStatus());
    EXPECT_FALSE(server.requests("GET", statusPath).last().headers.contains("authorization"));
}

TEST_F(APIClientTest, ExpiredTokenRefreshesOnceAndRetriesWithTheNewToken)
{
    storeTokens(u"old"_s, u"R1"_s);
    server.setHandler("GET", statusPath, [](const FakeBackend::Request& request) {
        return request.header("Authorization") == "Bearer new" ? FakeBackend::Response::json(200, "{}")
                                                                : FakeBackend::Response::json(401, "{}");
    });
    server.setRoute("POST", refreshPath, refreshed("new", "R2"));

    awaitTask(client.fetchAccountStatus());
    ASSERT_EQ(server.requestCount("POST", refreshPath), 1);
    const auto refresh = server.requests("POST", refreshPath).first();
    EXPECT_EQ(QJsonDocument::fromJson(refresh.body).object(), (QJsonObject{{u"refreshToken"_s, u"R1"_s}}));
    EXPECT_FALSE(refresh.headers.contains("authorization"));
    EXPECT_EQ(refresh.header("Content-Type"), "application/json");
    EXPECT_EQ(server.requestCount("GET", statusPath), 2);
    EXPECT_EQ(client.accessToken(), u"new"_s);
    EXPECT_EQ(tokens.item(AuthTokenStore::accessTokenKey), u"new"_s);
    EXPECT_EQ(tokens.item(AuthTokenStore::refreshTokenKey), u"R2"_s);
    EXPECT_TRUE(failures.isEmpty());
    EXPECT_FALSE(client.isRefreshing());
}

// Every cell of the status handling, one row per operation and outcome.
TEST_F(APIClientTest, StatusHandlingOfPerform)
{
    // Another status: serverError, notification with route and status.
    server.setRoute("GET", statusPath, FakeBackend::Response::json(403, "{}"));
    EXPECT_API_ERROR(client.fetchAccountStatus(), APIError::serverError(403));
    ASSERT_EQ(failures.size(), 1);
    EXPECT_EQ(failures[0].value(u"route"_s), u"/api/v1/subscription/status"_s);
    EXPECT_EQ(failures[0].value(u"status"_s), 403);

    // Not HTTP: networkError, no notification.
    server.setRoute("GET", statusPath, garbage());
    EXPECT_API_ERROR(client.fetchAccountStatus(), APIError::networkError());
    EXPECT_EQ(failures.size(), 1);

    // 401 with no refresh token: unauthorized, no refresh, no notification.
    server.setRoute("GET", statusPath, FakeBackend::Response::json(401, "{}"));
    EXPECT_API_ERROR(client.fetchAccountStatus(), APIError::unauthorized());
    EXPECT_EQ(server.requestCount("POST", refreshPath), 0);
    EXPECT_EQ(failures.size(), 1);

    // The retry's own failures: 401 again is serverError(401) and starts no second refresh;
    // 500 posts nothing; a non-HTTP answer is serverError(500).
    storeTokens(u"old"_s, u"R1"_s);
    server.setRoute("POST", refreshPath, refreshed("new", "R2"));
    EXPECT_API_ERROR(client.fetchAccountStatus(), APIError::serverError(401));
    EXPECT_EQ(server.requestCount("POST", refreshPath), 1);

    server.setRouteSequence("GET", statusPath, {FakeBackend::Response::json(401, "{}"), FakeBackend::Response::json(500, "{}")});
    EXPECT_API_ERROR(client.fetchAccountStatus(), APIError::serverError(500));
    server.setRouteSequence("GET", statusPath, {FakeBackend::Response::json(401, "{}"), garbage()});
    EXPECT_API_ERROR(client.fetchAccountStatus(), APIError::serverError(500));
    // A retry whose body doesn't decode, or is cut off, is a network error.
    server.setRouteSequence("GET", statusPath, {FakeBackend::Response::json(401, "{}"), FakeBackend::Response::json(200, "nonsense")});
    EXPECT_API_ERROR(client.fetchAccountStatus(), APIError::networkError());
    auto cut = FakeBackend::Response::json(200, R"({"speechProvider":"openai"})");
    cut.closeMidBody = true;
    server.setRouteSequence("GET", statusPath, {FakeBackend::Response::json(401, "{}"), cut});
    EXPECT_API_ERROR(client.fetchAccountStatus(), APIError::networkError());
    EXPECT_EQ(failures.size(), 1) << "nothing is posted for a retry";

    // The refresh's own failures reach the caller as the same case.
    server.setRoute("GET", statusPath, FakeBackend::Response::json(401, "{}"));
    server.setRoute("POST", refreshPath, FakeBackend::Response::json(401, "{}"));
    EXPECT_API_ERROR(client.fetchAccountStatus(), APIError::unauthorized());
    const auto refreshesBefore = server.requestCount("POST", refreshPath);
    server.setRoute("POST", refreshPath, FakeBackend::Response::json(502, "{}"));
    EXPECT_API_ERROR(client.fetchAccountStatus(), APIError::serverError(502));
    EXPECT_EQ(server.requestCount("POST", refreshPath), refreshesBefore + 1)
        << "a failed refresh is cleared, so the next 401 refreshes again";
    server.setRoute("POST", refreshPath, garbage());
    EXPECT_API_ERROR(client.fetchAccountStatus(), APIError::networkError());
    EXPECT_FALSE(client.isRefreshing());
    EXPECT_EQ(tokens.item(AuthTokenStore::refreshTokenKey), u"R2"_s) << "the client never clears tokens";
    EXPECT_EQ(failures.size(), 1);
}

TEST_F(APIClientTest, FirstAttemptFailuresReachTheCallerRaw)
{
    auto cut = FakeBackend::Response::json(200, R"({"speechProvider":"openai"})");
    cut.closeMidBody = true;
    server.setRoute("GET", statusPath, cut);
    EXPECT_THROW(awaitTask(client.fetchAccountStatus()), TransportError);

    server.setRoute("GET", statusPath, FakeBackend::Response::json(200, "not json"));
    EXPECT_THROW(awaitTask(client.fetchAccountStatus()), DecodingError);
    server.setRoute("GET", statusPath, FakeBackend::Response::json(200, ""));
    EXPECT_THROW(awaitTask(client.fetchAccountStatus()), DecodingError) << "a typed result needs a body";
    server.setRoute("GET", statusPath, FakeBackend::Response::json(200, R"({"speechProvider": 7})"));
    EXPECT_THROW(awaitTask(client.fetchAccountStatus()), DecodingError);

    // A server that is not there at all.
    QTcpServer closed;
    ASSERT_TRUE(closed.listen(QHostAddress::LocalHost, 0));
    const auto port = closed.serverPort();
    closed.close();
    APIClient nowhere(u"http://127.0.0.1:"_s + QString::number(port), tokens, notifications);
    try {
        awaitTask(nowhere.fetchAccountStatus());
        ADD_FAILURE() << "no error";
    } catch (const TransportError& error) {
        EXPECT_EQ(error.code(), QNetworkReply::ConnectionRefusedError);
        EXPECT_FALSE(error.description().isEmpty());
    }
    EXPECT_TRUE(failures.isEmpty());
}

TEST_F(APIClientTest, EmptyResultsAcceptNoBodyOrAnyJson)
{
    const QByteArray path = "/api/v1/interview/session/S1";
    for (const QByteArray& body : {QByteArray(), QByteArray("{}"), QByteArray("[1]"), QByteArray("42"), QByteArray("\"ok\"")}) {
        server.setRoute("PUT", path, FakeBackend::Response::json(200, body));
        EXPECT_NO_THROW(awaitTask(client.completeSession(u"S1"_s, 0))) << body.toStdString();
    }
    server.setRoute("PUT", path, FakeBackend::Response::json(200, "{broken"));
    EXPECT_THROW(awaitTask(client.completeSession(u"S1"_s, 0)), DecodingError);
}

TEST_F(APIClientTest, ExchangeCodeGetsNoRefreshAndPostsItsFailure)
{
    storeTokens(u"old"_s, u"R1"_s);
    server.setRoute("POST", "/api/v1/auth/exchange", FakeBackend::Response::json(401, "{}"));
    EXPECT_API_ERROR(client.exchangeCode(u"C1"_s), APIError::serverError(401));
    EXPECT_EQ(server.requestCount("POST", refreshPath), 0);
    ASSERT_EQ(failures.size(), 1);
    EXPECT_EQ(failures[0].value(u"route"_s), u"/api/v1/auth/exchange"_s);
    EXPECT_EQ(failures[0].value(u"status"_s), 401);

    server.setRoute("POST", "/api/v1/auth/exchange", FakeBackend::Response::json(500, "{}"));
    EXPECT_API_ERROR(client.exchangeCode(u"C1"_s), APIError::serverError(500));
    EXPECT_EQ(failures.size(), 2);
    server.setRoute("POST", "/api/v1/auth/exchange", garbage());
    EXPECT_API_ERROR(client.exchangeCode(u"C1"_s), APIError::networkError());
    EXPECT_EQ(failures.size(), 2) << "an answer that is not HTTP posts nothing";

    server.setRoute("POST", "/api/v1/auth/exchange",
                    FakeBackend::Response::json(200, R"({"accessToken":"A","refreshToken":"R","user":{"id":"u1","email":"a@b.c"}})"));
    const auto auth = awaitTask(client.exchangeCode(u"C2"_s));
    EXPECT_EQ(auth.user.email, u"a@b.c"_s);
    EXPECT_FALSE(auth.user.displayName);
    EXPECT_EQ(QJsonDocument::fromJson(server.requests("POST", "/api/v1/auth/exchange").last().body).object(),
              (QJsonObject{{u"code"_s, u"C2"_s}}));
}

class ConcurrentRefreshTest : public BackendTest, public ::testing::WithParamInterface<int> {};

TEST_P(ConcurrentRefreshTest, ConcurrentExpiredCallsShareOneRefresh)
{
    const int callers = GetParam();
    storeTokens(u"old"_s, u"R1"_s);
    server.setHandler("GET", statusPath, [](const FakeBackend::Request& request) {
        return request.header("Authorization") == "Bearer new" ? FakeBackend::Response::json(200, "{}")
                                                                : FakeBackend::Response::json(401, "{}");
    });
    // Slow enough that every caller has its 401 while the one refresh is in flight.
    auto slow = refreshed("new", "R2");
    slow.delayMs = 300;
    server.setRoute("POST", refreshPath, slow);

    struct Caller {
        static QCoro::Task<> run(APIClient& client, int& done)
        {
            co_await client.fetchAccountStatus();
            ++done;
        }
    };
    int done = 0;
    std::vector<QCoro::Task<>> tasks;
    for (int i = 0; i < callers; ++i)
        tasks.push_back(Caller::run(client, done));
    for (auto& task : tasks)
        awaitTask(std::move(task));

    EXPECT_EQ(done, callers);
    EXPECT_EQ(server.requestCount("POST", refreshPath), 1);
    EXPECT_EQ(server.requestCount("GET", statusPath), 2 * callers) << "each caller retries once";
    // Every caller received the same new token, not a copy emptied by another caller.
    for (const auto& request : server.requests("GET", statusPath).mid(callers))
        EXPECT_EQ(request.header("Authorization"), "Bearer new");
    EXPECT_FALSE(client.isRefreshing());
}

INSTANTIATE_TEST_SUITE_P(Callers, ConcurrentRefreshTest, ::testing::Values(2, 20));

TEST_F(APIClientTest, SpeechTokenHasItsOwnRefreshAndVendorErrors)
{
    const QByteArray path = "/api/v1/speech/token";
    server.setRoute("GET", path, FakeBackend::Response::json(200, R"({"provider":"deepgram","token":"t","endpoint":"wss://eu.example"})"));
    auto token = awaitTask(client.fetchSpeechToken());
    EXPECT_EQ(token.provider, u"deepgram"_s);
    EXPECT_FALSE(token.sttModel);
    EXPECT_EQ(token.endpoint, u"wss://eu.example"_s);

    server.setRoute("GET", path, FakeBackend::Response::json(403, R"({"error":"Vendor unavailable"})"));
    try {
        awaitTask(client.fetchSpeechToken());
        ADD_FAILURE() << "no error";
    } catch (const SpeechTokenError& error) {
        EXPECT_EQ(error.description(), u"Vendor unavailable"_s);
    }
    server.setRoute("GET", path, FakeBackend::Response::json(403, ""));
    EXPECT_API_ERROR(client.fetchSpeechToken(), APIError::serverError(403));
    server.setRoute("GET", path, FakeBackend::Response::json(500, R"({"error": 5})"));
    EXPECT_API_ERROR(client.fetchSpeechToken(), APIError::serverError(500));
    server.setRoute("GET", path, garbage());
    EXPECT_API_ERROR(client.fetchSpeechToken(), APIError::networkError());
    server.setRoute("GET", path, FakeBackend::Response::json(200, R"({"provider":"deepgram"})"));
    EXPECT_THROW(awaitTask(client.fetchSpeechToken()), DecodingError);

    // 401 twice: one refresh, then unauthorized.
    storeTokens(u"old"_s, u"R1"_s);
    server.setRoute("POST", refreshPath, refreshed("new", "R2"));
    server.setRoute("GET", path, FakeBackend::Response::json(401, "{}"));
    EXPECT_API_ERROR(client.fetchSpeechToken(), APIError::unauthorized());
    EXPECT_EQ(server.requestCount("POST", refreshPath), 1);
    EXPECT_EQ(server.requests("GET", path).last().header("Authorization"), "Bearer new");
    EXPECT_TRUE(failures.isEmpty()) << "the speech token never posts a failure";
}

TEST_F(APIClientTest, IdsFromTheServerStayOnePathSegment)
{
    // "/" and "?" in an id must not lead to another route or a query.
    const QString id = u"a/b?c d"_s;
    const QByteArray encoded = "a%2Fb%3Fc%20d";
    const std::vector<std::tuple<QByteArray, QByteArray, std::function<QCoro::Task<>()>>> calls{
        {"PATCH", "/api/v1/chat/log/" + encoded, [&] { return client.saveAnswerLog(id, u"x"_s); }},
        {"PUT", "/api/v1/interview/session/" + encoded, [&] { return client.completeSession(id, 0); }},
        {"POST", "/api/v1/interview/session/" + encoded + "/transcript",
         [&] { return client.postTranscript(id, {}); }},
        {"DELETE", "/api/v1/resume/" + encoded, [&] { return client.deleteResume(id); }},
        {"DELETE", "/api/v1/job-description/" + encoded, [&] { return client.deleteJobDescription(id); }},
    };
    for (const auto& [method, path, call] : calls) {
        server.setRoute(method, path, FakeBackend::Response::json(200, "{}"));
        EXPECT_NO_THROW(awaitTask(call())) << path.toStdString();
        EXPECT_EQ(server.requestCount(method, path), 1) << path.toStdString();
    }
}

TEST_F(APIClientTest, InterviewEndpointBodies)
{
    server.setRoute("POST", "/api/v1/interview/session",
                    FakeBackend::Response::json(200, R"({"id":"S1","languageInput":"en-US","languageOutput":"en-US","startedAt":"2024-05-01T12:30:00Z","status":"active"})"));
    const auto session = awaitTask(client.createSession(u"en-US"_s, u"fr-FR"_s));
    EXPECT_EQ(session.id, u"S1"_s);
    EXPECT_EQ(QJsonDocument::fromJson(server.requests("POST", "/api/v1/interview/session").first().body).object(),
              (QJsonObject{{u"languageInput"_s, u"en-US"_s}, {u"languageOutput"_s, u"fr-FR"_s}}));

    server.setRoute("POST", "/api/v1/interview/session",
                    FakeBackend::Response::json(200, R"({"id":"S1","languageInput":"en-US","languageOutput":"en-US","startedAt":"May 1st","status":"active"})"));
    try {
        awaitTask(client.createSession(u"en-US"_s, u"fr-FR"_s));
        ADD_FAILURE() << "decoded";
    } catch (const DecodingError& error) {
        EXPECT_EQ(error.message(), u"Invalid date: May 1st"_s);
    }

    server.setRoute("PUT", "/api/v1/interview/session/S1", FakeBackend::Response::json(200, ""));
    awaitTask(client.completeSession(u"S1"_s, 0));
    EXPECT_EQ(QJsonDocument::fromJson(server.requests("PUT", "/api/v1/interview/session/S1").first().body).object(),
              (QJsonObject{{u"status"_s, u"completed"_s}, {u"sttAudioDurationMs"_s, 0}}));

    TranscriptEntry entry{u"E1"_s, TranscriptEntry::Speaker::user, u"hi"_s, 5, std::nullopt, true};
    server.setRoute("POST", "/api/v1/interview/session/S1/transcript", FakeBackend::Response::json(201, ""));
    awaitTask(client.postTranscript(u"S1"_s, {entry.uploadForm()}));
    const auto posted = QJsonDocument::fromJson(server.requests("POST", "/api/v1/interview/session/S1/transcript").first().body).object();
    EXPECT_EQ(posted.value(u"entries"_s).toArray().first().toObject(), entry.uploadForm());

    server.setRoute("PATCH", "/api/v1/chat/log/L1", FakeBackend::Response::json(200, ""));
    awaitTask(client.saveAnswerLog(u"L1"_s, u"The answer"_s));
    const auto patch = server.requests("PATCH", "/api/v1/chat/log/L1").first();
    EXPECT_EQ(QJsonDocument::fromJson(patch.body).object(), (QJsonObject{{u"answer"_s, u"The answer"_s}}));
    EXPECT_EQ(patch.header("Content-Type"), "application/json");
}
