#include "BackendTestSupport.h"

#include <QJsonDocument>
#include <QTcpServer>

#include <algorithm>
#include <functional>
#include <optional>
#include <tuple>
#include <vector>

using namespace Qt::StringLiterals;

namespace {
const QByteArray statusPath = "/api/v1/subscription/status";
const QByteArray refreshPath = "/api/v1/auth/refresh";
const QByteArray exchangePath = "/api/v1/auth/exchange";
const QByteArray speechPath = "/api/v1/speech/token";

FakeBackend::Response reply(int status, QByteArray body = "{}")
{
    return FakeBackend::Response::json(status, std::move(body));
}

FakeBackend::Response garbage()
{
    FakeBackend::Response response;
    response.raw = "SSH-2.0-OpenSSH\r\n\r\n";
    return response;
}

FakeBackend::Response cutShort()
{
    auto response = reply(200, R"({"speechProvider":"openai"})");
    response.closeMidBody = true;
    return response;
}

QJsonObject bodyOf(const FakeBackend::Request& request)
{
    return QJsonDocument::fromJson(request.body).object();
}

enum class Call { status, exchange, speechToken };

QCoro::Task<> invoke(APIClient& client, Call call)
{
    switch (call) {
    case Call::status: co_await client.fetchAccountStatus(); break;
    case Call::exchange: co_await client.exchangeCode(u"C1"_s); break;
    case Call::speechToken: co_await client.fetchSpeechToken(); break;
    }
}
} // namespace

class APIClientTest : public BackendTest {};

TEST_F(APIClientTest, SendsBearerTokenAndDecodesResults)
{
    server.setRoute("GET", statusPath, reply(200, R"({"speechProvider":"deepgram","plan":"pro"})"));
    client.setAccessToken(u"A1"_s);
    EXPECT_EQ(awaitTask(client.fetchAccountStatus()).speechProvider, u"deepgram"_s);
    EXPECT_EQ(server.requests("GET", statusPath).first().header("Authorization"), "Bearer A1");

    client.setAccessToken(std::nullopt);
    awaitTask(client.fetchAccountStatus());
    EXPECT_FALSE(server.requests("GET", statusPath).last().headers.contains("authorization"));
}

// Every failure of a call, its refresh and its one retry: the error the caller sees, whether it
// was retried, how often it refreshed, and whether an apiRequestFailed notification went out.
TEST_F(APIClientTest, FailuresOfTheCallTheRefreshAndTheRetry)
{
    struct Case {
        const char* name;
        Call call;
        QList<FakeBackend::Response> answers; // in order; the last one repeats
        std::optional<FakeBackend::Response> refresh; // nothing: no refresh token is stored
        APIError expected;
        bool retried; // with the refreshed token
        int refreshes;
        bool posted; // with the route and the first answer's status
    };
    using enum Call;
    const auto renewed = refreshed("new", "R2");
    const auto none = std::nullopt;
    const auto network = APIError::networkError();
    const auto unauthorized = APIError::unauthorized();
    const auto http = [](int code) { return APIError::serverError(code); };
    const Case cases[] = {
        {"OtherStatus", status, {reply(403)}, none, http(403), false, 0, true},
        {"NotHttp", status, {garbage()}, none, network, false, 0, false},
        {"NoRefreshToken", status, {reply(401)}, none, unauthorized, false, 0, false},
        // The retry's own failures post nothing; a second 401 starts no second refresh.
        {"Retry401", status, {reply(401)}, renewed, http(401), true, 1, false},
        {"Retry500", status, {reply(401), reply(500)}, renewed, http(500), true, 1, false},
        {"RetryNotHttp", status, {reply(401), garbage()}, renewed, http(500), true, 1, false},
        {"RetryNotJson", status, {reply(401), reply(200, "nonsense")}, renewed, network, true, 1, false},
        {"RetryCutShort", status, {reply(401), cutShort()}, renewed, network, true, 1, false},
        // The refresh's own failures reach the caller as the same case. Each of these rows
        // refreshes anew: a failed refresh is not kept for the next 401.
        {"Refresh401", status, {reply(401)}, reply(401), unauthorized, false, 1, false},
        {"Refresh502", status, {reply(401)}, reply(502), http(502), false, 1, false},
        {"RefreshNotHttp", status, {reply(401)}, garbage(), network, false, 1, false},
        // Exchanging a code never refreshes, and posts its failures.
        {"Exchange401", exchange, {reply(401)}, renewed, http(401), false, 0, true},
        {"ExchangeNotHttp", exchange, {garbage()}, none, network, false, 0, false},
        // The speech token posts nothing and, after its one refresh, takes a 401 as final.
        {"SpeechReasonNotText", speechToken, {reply(500, R"({"error": 5})")}, none, http(500), false, 0, false},
        {"SpeechNotHttp", speechToken, {garbage()}, none, network, false, 0, false},
        {"Speech401", speechToken, {reply(401)}, renewed, unauthorized, true, 1, false},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        const QByteArray method = row.call == exchange ? "POST" : "GET";
        const QByteArray path = row.call == status ? statusPath : row.call == exchange ? exchangePath : speechPath;
        if (row.refresh) {
            storeTokens(u"old"_s, u"R1"_s);
            server.setRoute("POST", refreshPath, *row.refresh);
        } else {
            awaitTask(tokens.clearTokens());
            client.setAccessToken(std::nullopt);
        }
        server.setRouteSequence(method, path, row.answers);
        failures.clear();
        const auto requestsBefore = server.requestCount(method, path);
        const auto refreshesBefore = server.requestCount("POST", refreshPath);

        EXPECT_API_ERROR(invoke(client, row.call), row.expected);
        const auto sent = server.requests(method, path).mid(requestsBefore);
        EXPECT_EQ(std::ranges::any_of(sent, [](const auto& r) { return r.header("Authorization") == "Bearer new"; }),
                  row.retried);
        const auto refreshes = server.requestCount("POST", refreshPath) - refreshesBefore;
        // Qt itself sends a request again when the answer is not HTTP.
        if (row.refresh && row.refresh->raw)
            EXPECT_GE(refreshes, 1);
        else
            EXPECT_EQ(refreshes, row.refreshes);
        QList<QVariantMap> posted;
        if (row.posted)
            posted.append({{u"route"_s, QString::fromLatin1(path)}, {u"status"_s, row.answers.first().status}});
        EXPECT_EQ(failures, posted);
        EXPECT_FALSE(client.isRefreshing());
        if (row.refresh) {
            EXPECT_TRUE(tokens.item(AuthTokenStore::refreshTokenKey)) << "the client never clears tokens";
        }
    }
}

TEST_F(APIClientTest, FirstAttemptFailuresReachTheCallerRaw)
{
    server.setRoute("GET", statusPath, cutShort());
    EXPECT_THROW(awaitTask(client.fetchAccountStatus()), TransportError);
    // An empty body too: a typed result needs one.
    for (const QByteArray& body : {QByteArray("not json"), QByteArray(), QByteArray(R"({"speechProvider": 7})")}) {
        server.setRoute("GET", statusPath, reply(200, body));
        EXPECT_THROW(awaitTask(client.fetchAccountStatus()), DecodingError) << body.toStdString();
    }

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
        server.setRoute("PUT", path, reply(200, body));
        EXPECT_NO_THROW(awaitTask(client.completeSession(u"S1"_s, 0))) << body.toStdString();
    }
    server.setRoute("PUT", path, reply(200, "{broken"));
    EXPECT_THROW(awaitTask(client.completeSession(u"S1"_s, 0)), DecodingError);
}

class ExpiredTokenTest : public APIClientTest, public ::testing::WithParamInterface<int> {};

TEST_P(ExpiredTokenTest, ConcurrentCallsShareOneRefreshAndRetryWithTheNewToken)
{
    const int callers = GetParam();
    // Slow enough that every caller has its 401 while the one refresh is in flight.
    auto slow = refreshed("new", "R2");
    slow.delayMs = 300;
    server.setRoute("POST", refreshPath, slow);
    storeTokens(u"old"_s, u"R1"_s);
    server.setHandler("GET", statusPath, [](const FakeBackend::Request& request) {
        return reply(request.header("Authorization") == "Bearer new" ? 200 : 401);
    });
    std::vector<QCoro::Task<APIClient::AccountStatus>> tasks;
    for (int i = 0; i < callers; ++i)
        tasks.push_back(client.fetchAccountStatus());
    for (auto& task : tasks)
        EXPECT_NO_THROW(awaitTask(std::move(task)));

    ASSERT_EQ(server.requestCount("POST", refreshPath), 1);
    const auto refresh = server.requests("POST", refreshPath).first();
    EXPECT_EQ(bodyOf(refresh), (QJsonObject{{u"refreshToken"_s, u"R1"_s}}));
    EXPECT_FALSE(refresh.headers.contains("authorization"));
    EXPECT_EQ(refresh.header("Content-Type"), "application/json");
    EXPECT_EQ(server.requestCount("GET", statusPath), 2 * callers) << "each caller retries once";
    // Every caller received the same new token, not a copy emptied by another caller.
    for (const auto& request : server.requests("GET", statusPath).mid(callers))
        EXPECT_EQ(request.header("Authorization"), "Bearer new");
    EXPECT_EQ(client.accessToken(), u"new"_s);
    EXPECT_EQ(tokens.item(AuthTokenStore::accessTokenKey), u"new"_s);
    EXPECT_EQ(tokens.item(AuthTokenStore::refreshTokenKey), u"R2"_s);
    EXPECT_TRUE(failures.isEmpty());
    EXPECT_FALSE(client.isRefreshing());
}

INSTANTIATE_TEST_SUITE_P(Callers, ExpiredTokenTest, ::testing::Values(1, 2, 20));

TEST_F(APIClientTest, SpeechTokenDecodesAndPassesOnTheVendorsRefusal)
{
    server.setRoute("GET", speechPath, reply(200, R"({"provider":"deepgram","token":"t","endpoint":"wss://eu.example"})"));
    auto token = awaitTask(client.fetchSpeechToken());
    EXPECT_EQ(token.provider, u"deepgram"_s);
    EXPECT_FALSE(token.sttModel);
    EXPECT_EQ(token.endpoint, u"wss://eu.example"_s);

    server.setRoute("GET", speechPath, reply(403, R"({"error":"Vendor unavailable"})"));
    try {
        awaitTask(client.fetchSpeechToken());
        ADD_FAILURE() << "no error";
    } catch (const SpeechTokenError& error) {
        EXPECT_EQ(error.description(), u"Vendor unavailable"_s);
    }
    server.setRoute("GET", speechPath, reply(200, R"({"provider":"deepgram"})"));
    EXPECT_THROW(awaitTask(client.fetchSpeechToken()), DecodingError);
}

// Each call on a server id: its route and its body. "/" and "?" in the id must not lead to
// another route or a query.
TEST_F(APIClientTest, IdsStayOnePathSegmentAndBodiesAreSent)
{
    const QString id = u"a/b?c d"_s;
    const QByteArray encoded = "a%2Fb%3Fc%20d";
    const TranscriptEntry entry{u"E1"_s, TranscriptEntry::Speaker::user, u"hi"_s, 5, std::nullopt, true};
    const std::vector<std::tuple<QByteArray, QByteArray, std::function<QCoro::Task<>()>, QJsonObject>> calls{
        {"PATCH", "/api/v1/chat/log/" + encoded, [&] { return client.saveAnswerLog(id, u"The answer"_s); },
         {{u"answer"_s, u"The answer"_s}}},
        {"PUT", "/api/v1/interview/session/" + encoded, [&] { return client.completeSession(id, 0); },
         {{u"status"_s, u"completed"_s}, {u"sttAudioDurationMs"_s, 0}}},
        {"POST", "/api/v1/interview/session/" + encoded + "/transcript",
         [&] { return client.postTranscript(id, {entry.uploadForm()}); }, {{u"entries"_s, QJsonArray{entry.uploadForm()}}}},
        {"DELETE", "/api/v1/resume/" + encoded, [&] { return client.deleteResume(id); }, {}},
        {"DELETE", "/api/v1/job-description/" + encoded, [&] { return client.deleteJobDescription(id); }, {}},
    };
    for (const auto& [method, path, call, body] : calls) {
        SCOPED_TRACE(path.toStdString());
        server.setRoute(method, path, reply(200, ""));
        EXPECT_NO_THROW(awaitTask(call()));
        ASSERT_EQ(server.requestCount(method, path), 1);
        const auto request = server.requests(method, path).first();
        EXPECT_EQ(bodyOf(request), body);
        if (!body.isEmpty()) {
            EXPECT_EQ(request.header("Content-Type"), "application/json");
        }
    }
}

TEST_F(APIClientTest, ExchangeAndSessionBodiesAndDecodedAnswers)
{
    server.setRoute("POST", exchangePath,
                    reply(200, R"({"accessToken":"A","refreshToken":"R","user":{"id":"u1","email":"a@b.c"}})"));
    const auto auth = awaitTask(client.exchangeCode(u"C2"_s));
    EXPECT_EQ(auth.user.email, u"a@b.c"_s);
    EXPECT_FALSE(auth.user.displayName);
    EXPECT_EQ(bodyOf(server.requests("POST", exchangePath).last()), (QJsonObject{{u"code"_s, u"C2"_s}}));

    const QByteArray sessionPath = "/api/v1/interview/session";
    const QByteArray session = R"({"id":"S1","languageInput":"en-US","languageOutput":"en-US","status":"active",)";
    server.setRoute("POST", sessionPath, reply(200, session + R"("startedAt":"2024-05-01T12:30:00Z"})"));
    EXPECT_EQ(awaitTask(client.createSession(u"en-US"_s, u"fr-FR"_s)).id, u"S1"_s);
    EXPECT_EQ(bodyOf(server.requests("POST", sessionPath).first()),
              (QJsonObject{{u"languageInput"_s, u"en-US"_s}, {u"languageOutput"_s, u"fr-FR"_s}}));
    server.setRoute("POST", sessionPath, reply(200, session + R"("startedAt":"May 1st"})"));
    try {
        awaitTask(client.createSession(u"en-US"_s, u"fr-FR"_s));
        ADD_FAILURE() << "decoded";
    } catch (const DecodingError& error) {
        EXPECT_EQ(error.message(), u"Invalid date: May 1st"_s);
    }
}
