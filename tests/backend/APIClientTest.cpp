// The backend client against a real loopback server: what each failure becomes, the one shared
// refresh on 401, what calls send, the resume upload and the answer's "data: " lines.
#include "APIClient.h"
#include "AuthTokenStore.h"
#include "AwaitTask.h"
#include "FakeBackend.h"
#include "NotificationCenter.h"
#include "PdfTextExtractor.h"
#include "QtPrinters.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>
#include <map>

using namespace Qt::StringLiterals;

namespace {
const QByteArray statusPath = "/api/v1/subscription/status", refreshPath = "/api/v1/auth/refresh",
                 uploadPath = "/api/v1/resume/upload", answerPath = "/api/v1/chat/answer";
const APIClient::AnswerRequest question{u"Q?"_s, {}, {}, {}, {}, {}};

// `cut`: the body's length is announced, half of it sent, and the connection closed.
FakeBackend::Response reply(int status, QByteArray body = "{}", bool cut = false)
{
    auto response = FakeBackend::Response::json(status, std::move(body));
    response.closeMidBody = cut;
    return response;
}

QByteArray event(const QByteArray& content)
{
    return "data: {\"content\":\"" + content + "\"}\n";
}

// What a call ended with, as one text a table can hold.
template<typename T>
std::string outcome(QCoro::Task<T> task)
{
    try {
        awaitTask(std::move(task));
        return "ok";
    } catch (const APIError& error) {
        return error.what();
    } catch (const TransportError&) {
        return "transport";
    } catch (const SpeechTokenError& error) {
        return "refused: " + error.description().toStdString();
    } catch (const FileReadError&) {
        return "unreadable";
    } catch (const DecodingError&) {
        return "decoding";
    }
}

// Reads up to `limit` chunks, or to the end; a failure ends the list with "!".
QCoro::Task<QStringList> drain(std::shared_ptr<AnswerStream> stream, qsizetype limit = -1)
{
    QStringList chunks;
    try {
        while (chunks.size() != limit) {
            auto chunk = co_await stream->next();
            if (!chunk)
                break;
            chunks.append(*chunk);
        }
    } catch (...) {
        chunks.append(u"!"_s);
    }
    co_return chunks;
}

struct ScriptedPdfText final : PdfTextExtractor {
    std::optional<QString> text;
    int calls = 0;
    std::optional<QString> extractText(const QString&) override
    {
        ++calls;
        return text;
    }
};

enum class Call { status, exchange, speechToken, upload, answer };
} // namespace

class APIClientTest : public ::testing::Test {
protected:
    APIClientTest()
    {
        notifications.addObserver(Notifications::apiRequestFailed, nullptr,
                                  [this](const Notification& n) { failures.append(n.userInfo); });
        client.setPdfTextExtractor(&pdfText);
    }

    // Signed in with `access` and the refresh token R1, or signed out.
    void signIn(std::optional<QString> access)
    {
        awaitTask(access ? tokens.saveTokens(*access, u"R1"_s) : tokens.clearTokens());
        client.setAccessToken(access);
    }

    QString file(const QString& name, const QByteArray& bytes)
    {
        QFile f(dir.filePath(name));
        EXPECT_TRUE(f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size());
        return f.fileName();
    }

    FakeBackend server;
    InMemoryTokenStore tokens;
    NotificationCenter notifications;
    APIClient client{server.origin(), tokens, notifications};
    QList<QVariantMap> failures;
    QTemporaryDir dir;
    ScriptedPdfText pdfText;
};

// Every failure of a call, its refresh and its one retry: what the caller gets, whether it was
// retried, how often it refreshed, and whether an apiRequestFailed notification went out.
TEST_F(APIClientTest, FailuresOfTheCallTheRefreshAndTheRetry)
{
    // answers: in order, the last one repeats; refresh: nothing when no tokens are stored;
    // retried: with the refreshed token; posted: with the route and the first answer's status.
    struct Case {
        const char* name;
        Call call;
        QList<FakeBackend::Response> answers;
        std::optional<FakeBackend::Response> refresh;
        std::string expected;
        bool retried;
        int refreshes;
        bool posted;
    };
    using enum Call;
    const auto renewed = reply(200, R"({"accessToken":"new","refreshToken":"R2"})");
    const auto none = std::nullopt;
    FakeBackend::Response garbage;
    garbage.raw = "SSH-2.0-OpenSSH\r\n\r\n";
    const std::string network = "Network connection failed",
                      unauthorized = "Authentication required";
    const auto http = [](int code) { return "Server error (" + std::to_string(code) + ")"; };
    const auto cut = [](const QByteArray& body) { return reply(200, body, true); };
    const auto numericReason = reply(500, R"({"error":5})"),
               cutAnswer = cut(event("a") + event("b"));
    const Case cases[] = {
        {"OtherStatus", status, {reply(403)}, none, http(403), false, 0, true},
        {"NotHttp", status, {garbage}, none, network, false, 0, false},
        // The first attempt's own transport and decoding failures reach the caller as they are.
        {"CutShort", status, {cut(R"({"a":1})")}, none, "transport", false, 0, false},
        {"NotJson", status, {reply(200, "not json")}, none, "decoding", false, 0, false},
        {"NoRefreshToken", status, {reply(401)}, none, unauthorized, false, 0, false},
        // The retry's own failures post nothing; a second 401 starts no second refresh.
        {"Retry401", status, {reply(401)}, renewed, http(401), true, 1, false},
        {"Retry500", status, {reply(401), reply(500)}, renewed, http(500), true, 1, false},
        {"RetryNotHttp", status, {reply(401), garbage}, renewed, http(500), true, 1, false},
        {"RetryNotJson", status, {reply(401), reply(200, "?")}, renewed, network, true, 1, false},
        {"RetryCutShort", status, {reply(401), cut("{}")}, renewed, network, true, 1, false},
        // The refresh's own failures reach the caller as the same case. Each of these rows
        // refreshes anew: a failed refresh is not kept for the next 401.
        {"Refresh401", status, {reply(401)}, reply(401), unauthorized, false, 1, false},
        {"Refresh502", status, {reply(401)}, reply(502), http(502), false, 1, false},
        {"RefreshNotHttp", status, {reply(401)}, garbage, network, false, 1, false},
        // Exchanging a code never refreshes, and posts its failures. (What is not HTTP fails
        // before the refresh is thought of, as for any call.)
        {"Exchange401", exchange, {reply(401)}, renewed, http(401), false, 0, true},
        // The speech token posts nothing and, after its one refresh, takes a 401 as final. (The
        // server's own words in a refusal are the vendor token test's, against the real route.)
        {"SpeechReasonNotText", speechToken, {numericReason}, none, http(500), false, 0, false},
        {"SpeechNotHttp", speechToken, {garbage}, none, network, false, 0, false},
        {"Speech401", speechToken, {reply(401)}, renewed, unauthorized, true, 1, false},
        // Uploads and answers take any status as final, a garbled answer as 500, and post nothing.
        {"Upload401", upload, {reply(401)}, renewed, http(401), false, 0, false},
        {"UploadNotHttp", upload, {garbage}, none, http(500), false, 0, false},
        {"Answer201", answer, {reply(201, "data: [DONE]\n")}, none, http(201), false, 0, false},
        {"Answer401", answer, {reply(401)}, renewed, http(401), false, 0, false},
        {"AnswerNotHttp", answer, {garbage}, none, http(500), false, 0, false},
        // Cut off while the first chunks are held back for the log id.
        {"AnswerCutShort", answer, {cutAnswer}, none, "transport", false, 0, false},
    };
    const auto resume = file(u"cv.md"_s, "# me");
    const std::map<Call, std::tuple<QByteArray, QByteArray, std::function<std::string()>>> calls{
        {status, {"GET", statusPath, [&] { return outcome(client.fetchAccountStatus()); }}},
        {exchange,
         {"POST", "/api/v1/auth/exchange", [&] { return outcome(client.exchangeCode(u"C1"_s)); }}},
        {speechToken,
         {"GET", "/api/v1/speech/token", [&] { return outcome(client.fetchSpeechToken()); }}},
        {upload, {"POST", uploadPath, [&] { return outcome(client.uploadResume(resume)); }}},
        {answer, {"POST", answerPath, [&] { return outcome(client.streamAnswer(question)); }}}};
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        const auto& [method, path, call] = calls.at(row.call);
        signIn(row.refresh ? std::optional(u"old"_s) : std::nullopt);
        if (row.refresh)
            server.setRoute("POST", refreshPath, *row.refresh);
        server.setRouteSequence(method, path, row.answers);
        failures.clear();
        const auto requestsBefore = server.requestCount(method, path);
        const auto refreshesBefore = server.requestCount("POST", refreshPath);

        EXPECT_EQ(call(), row.expected);
        const auto sent = server.requests(method, path).mid(requestsBefore);
        ASSERT_FALSE(sent.isEmpty());
        EXPECT_EQ(sent.first().header("Authorization"), row.refresh ? "Bearer old" : "");
        EXPECT_EQ(
            std::ranges::any_of(
                sent, [](const auto& r) { return r.header("Authorization") == "Bearer new"; }),
            row.retried);
        // Qt itself sends a request again when the answer is not HTTP.
        const auto refreshes = server.requestCount("POST", refreshPath) - refreshesBefore;
        EXPECT_TRUE(row.refresh && row.refresh->raw ? refreshes >= 1 : refreshes == row.refreshes)
            << refreshes;
        EXPECT_EQ(failures,
                  (row.posted ? QList<QVariantMap>{{{u"route"_s, QString::fromLatin1(path)},
                                                    {u"status"_s, row.answers.first().status}}}
                              : QList<QVariantMap>()));
        EXPECT_FALSE(client.isRefreshing());
        EXPECT_TRUE(!row.refresh || tokens.item(AuthTokenStore::refreshTokenKey))
            << "the client never clears tokens";
    }
}

TEST_F(APIClientTest, ConcurrentCallsShareOneRefreshAndRetryWithTheNewToken)
{
    constexpr int callers = 20;
    // Slow enough that every caller has its 401 while the one refresh is in flight.
    auto slow = reply(200, R"({"accessToken":"new","refreshToken":"R2"})");
    slow.delayMs = 300;
    server.setRoute("POST", refreshPath, slow);
    signIn(u"old"_s);
    server.setHandler("GET", statusPath, [](const FakeBackend::Request& request) {
        return reply(request.header("Authorization") == "Bearer new" ? 200 : 401);
    });
    std::vector<QCoro::Task<APIClient::AccountStatus>> tasks;
    for (int i = 0; i < callers; ++i)
        tasks.push_back(client.fetchAccountStatus());
    for (auto& task : tasks)
        EXPECT_EQ(outcome(std::move(task)), "ok");

    ASSERT_EQ(server.requestCount("POST", refreshPath), 1);
    // The refresh carries no access token; what it sends is the contract test's, against the real
    // route.
    EXPECT_FALSE(server.requests("POST", refreshPath).first().headers.contains("authorization"));
    EXPECT_EQ(server.requestCount("GET", statusPath), 2 * callers) << "each caller retries once";
    // Every caller received the same new token, not a copy emptied by another caller.
    for (const auto& request : server.requests("GET", statusPath).mid(callers))
        EXPECT_EQ(request.header("Authorization"), "Bearer new");
    EXPECT_EQ(client.accessToken(), u"new"_s);
    EXPECT_EQ(tokens.item(AuthTokenStore::accessTokenKey), u"new"_s);
    EXPECT_EQ(tokens.item(AuthTokenStore::refreshTokenKey), u"R2"_s);
    EXPECT_TRUE(failures.isEmpty());
}

// What calls send: JSON with absent values left out, never null, and an id kept in one path
// segment, so "/" and "?" lead to no other route or query. (A transcript post's body is read by
// the real server in the client contract test.)
TEST_F(APIClientTest, CallsSendTheirBodiesAndKeepAnIdInOnePathSegment)
{
    signIn(u"A1"_s);
    const QString id = u"a/b?c d"_s;
    const QByteArray encoded = "a%2Fb%3Fc%20d";
    const TranscriptEntry entry{u"E1"_s, TranscriptEntry::Speaker::interviewer, u"Hi"_s, 5, 0.5,
                                true};
    // clang-format off
    const std::tuple<QByteArray, QByteArray, std::function<std::string()>, QJsonObject> rows[] = {
        {"PATCH", "/api/v1/chat/log/" + encoded,
         [&] { return outcome(client.saveAnswerLog(id, u"A"_s)); }, {{u"answer"_s, u"A"_s}}},
        {"PUT", "/api/v1/interview/session/" + encoded,
         [&] { return outcome(client.completeSession(id, 0)); },
         {{u"status"_s, u"completed"_s}, {u"sttAudioDurationMs"_s, 0}}},
        {"POST", "/api/v1/interview/session/" + encoded + "/transcript",
         [&] { return outcome(client.postTranscript(id, {})); }, {}},
        {"DELETE", "/api/v1/resume/" + encoded, [&] { return outcome(client.deleteResume(id)); },
         {}},
        {"DELETE", "/api/v1/job-description/" + encoded,
         [&] { return outcome(client.deleteJobDescription(id)); }, {}},
        {"POST", answerPath,
         [&] {
             return outcome(
                 client.streamAnswer({u"Q?"_s, {entry.contextForm()}, u"S1"_s, {}, u"R9"_s, {}}));
         },
         {{u"question"_s, u"Q?"_s},
          {u"sessionId"_s, u"S1"_s},
          {u"resumeId"_s, u"R9"_s},
          {u"context"_s,
           QJsonArray{QJsonObject{{u"speaker"_s, u"interviewer"_s}, {u"content"_s, u"Hi"_s}}}}}},
    };
    // clang-format on
    for (const auto& [method, path, call, body] : rows) {
        SCOPED_TRACE(path.toStdString());
        server.setRoute(method, path, reply(200, ""));
        EXPECT_EQ(call(), "ok");
        ASSERT_EQ(server.requestCount(method, path), 1);
        const auto request = server.requests(method, path).first();
        if (!body.isEmpty()) {
            EXPECT_EQ(QJsonDocument::fromJson(request.body).object(), body);
            EXPECT_EQ(request.header("Content-Type"), "application/json");
        }
    }
}

TEST_F(APIClientTest, ResumeUploadIsMultipartWithAPdfsTextByteForByte)
{
    server.setRoute(
        "POST", uploadPath,
        reply(200, R"({"id":"r1","filename":"f","extractedText":"t","createdAt":"y"})"));
    // name, content, what the PDF reader finds, the file's type, the text part sent
    const std::tuple<QString, QByteArray, std::optional<QString>, QByteArray, QByteArray> rows[] = {
        {u"CV.PDF"_s, QByteArray("%PDF-1.4\r\n\x00\x01binary", 18), u"Page one\nZoë\n"_s,
         "application/pdf", "Page one\nZo\xc3\xab\n"},
        {u"scan.pdf"_s, "%PDF", std::nullopt, "application/pdf", {}}, // images only
        {u"README"_s, "x", std::nullopt, "application/octet-stream", {}},
    };
    for (const auto& [name, content, text, type, textPart] : rows) {
        SCOPED_TRACE(name.toStdString());
        pdfText.text = text;
        EXPECT_EQ(outcome(client.uploadResume(file(name, content))), "ok");
        const auto request = server.requests("POST", uploadPath).last();
        const auto contentType = request.header("Content-Type");
        const auto boundary = contentType.mid(contentType.indexOf("boundary=") + 9);
        EXPECT_EQ(contentType, "multipart/form-data; boundary=" + boundary);
        QByteArray expected =
            "--" + boundary + "\r\nContent-Disposition: form-data; name=\"file\"; filename=\""
            + name.toUtf8() + "\"\r\nContent-Type: " + type + "\r\n\r\n" + content + "\r\n";
        if (!textPart.isEmpty())
            expected += "--" + boundary
                        + "\r\nContent-Disposition: form-data; name=\"extracted_text\"\r\n\r\n"
                        + textPart + "\r\n";
        EXPECT_EQ(request.body, expected + "--" + boundary + "--\r\n");
    }
    EXPECT_EQ(pdfText.calls, 2) << "only PDFs are read for their text";

    const auto before = server.totalRequests();
    EXPECT_EQ(outcome(client.uploadResume(dir.filePath(u"missing.pdf"_s))), "unreadable");
    EXPECT_EQ(server.totalRequests(), before) << "nothing is sent for an unreadable file";
}

// The answer's lines as the server sends them: the log id comes with the stream when it is among
// the first three chunks, lines may be split anywhere, and a body cut later ends with an error.
// (What each single line means is the fuzz target's.)
TEST_F(APIClientTest, AnswerStreams)
{
    const QStringList numbers{u"0"_s, u"1"_s, u"2"_s, u"3"_s, u"4"_s, u"5"_s, u"6"_s, u"7"_s};
    QList<QByteArray> pieces;
    for (const auto& number : numbers)
        pieces.append(event(number.toLatin1()));
    const QByteArray logId = "data: {\"logId\":\"L1\"}\n", huge(1024 * 1024, 'x');
    // The stream, the log id that comes with it, and its chunks ("!": it ends with an error).
    const std::tuple<const char*, FakeBackend::Response, std::optional<QString>, QStringList>
        rows[] = {
            {"LogIdFirst",
             FakeBackend::Response::stream({logId, event("Hi"), "data: [DONE]\n", event("after")}),
             u"L1"_s,
             {u"Hi"_s}},
            {"LogIdAfterThreeChunks",
             FakeBackend::Response::stream({event("a"), event("b"), event("c"), logId, event("d")}),
             std::nullopt,
             {u"a"_s, u"b"_s, u"c"_s, u"d"_s}},
            // No [DONE]: the body's end is the stream's. A last line without a line end still
            // counts.
            {"SplitLines",
             FakeBackend::Response::stream(
                 {"data: {\"con", "tent\":\"one\"}\r", "\ndata: {\"content\":\"two\"}\r\nda",
                  "ta: {\"content\":\"", huge, "\"}\n", "data: {\"content\":\"last\"}"},
                 5),
             std::nullopt,
             {u"one"_s, u"two"_s, QString::fromLatin1(huge), u"last"_s}},
            {"CutAfterTheHeldBackChunks", reply(200, pieces.join() + pieces.join(), true),
             std::nullopt, numbers + QStringList{u"!"_s}},
        };
    for (const auto& [name, response, id, chunks] : rows) {
        SCOPED_TRACE(name);
        server.setRoute("POST", answerPath, response);
        const auto result = awaitTask(client.streamAnswer(question));
        EXPECT_EQ(result.logId, id);
        EXPECT_EQ(awaitTask(drain(result.stream)), chunks);
    }

    // Past the held-back chunks, each is read as its piece arrives, long before the body is whole.
    server.setRoute("POST", answerPath, FakeBackend::Response::stream(pieces, 100));
    const auto piecesBefore = server.piecesSent();
    const auto slow = awaitTask(client.streamAnswer(question));
    EXPECT_EQ(awaitTask(drain(slow.stream, 4)).value(3), u"3"_s);
    EXPECT_LT(server.piecesSent() - piecesBefore, 8);
    EXPECT_EQ(awaitTask(drain(slow.stream)).size(), 4);
}
