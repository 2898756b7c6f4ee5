// The practice routes against a real loopback server: the answers a whole session against the
// real server does not meet, which failures post "apiRequestFailed", and that nothing is sent
// without a signed-in user.

#include "MockInterviewAPI.h"
#include "APIClient.h"
#include "AuthTokenStore.h"
#include "AwaitTask.h"
#include "FakeBackend.h"
#include "NotificationCenter.h"
#include "QtPrinters.h"

#include <QJsonDocument>
#include <QNetworkAccessManager>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

using Call = QCoro::Task<QString> (*)(MockInterviewAPI*);

// Each operation's result as one line of text.
QString text(const std::optional<AvatarResponse>& a)
{
    return a ? u"avatar "_s + a->key : u"nothing"_s;
}
QString text(const std::optional<QByteArray>& b)
{
    return b ? u"bytes "_s + QString::fromLatin1(b->toHex()) : u"nothing"_s;
}
QCoro::Task<QString> questions(MockInterviewAPI* api)
{
    const auto response = co_await api->fetchQuestions(u"r1"_s, u"j1"_s, u"en"_s, 8);
    co_return u"questions %1 %2"_s.arg(response.sessionId).arg(response.questions.size());
}
QCoro::Task<QString> avatar(MockInterviewAPI* api)
{
    co_return text(co_await api->fetchAvatar());
}
QCoro::Task<QString> generate(MockInterviewAPI* api)
{
    co_return text(co_await api->generateAvatar());
}
QCoro::Task<QString> image(MockInterviewAPI* api)
{
    co_return text(co_await api->fetchAvatarImage());
}
QCoro::Task<QString> speech(MockInterviewAPI* api)
{
    co_return text(co_await api->synthesizeSpeech(u"Hi"_s));
}

const QByteArray questionsPath = "/api/v1/mock-interview/questions",
                 avatarPath = "/api/v1/mock-interview/avatar",
                 generatePath = "/api/v1/mock-interview/avatar/generate",
                 imagePath = "/api/v1/mock-interview/avatar/image",
                 speechPath = "/api/v1/mock-interview/tts";

struct Row {
    const char* name;
    QByteArray method;
    QByteArray path;
    FakeBackend::Response response;
    Call call;
    QString expected;
    std::optional<int> notifiedStatus; // "apiRequestFailed" with this status, or none at all
};

FakeBackend::Response answer(int status, QByteArray body)
{
    return FakeBackend::Response::json(status, std::move(body));
}
FakeBackend::Response notHttp()
{
    FakeBackend::Response response;
    response.raw = "garbage\r\n\r\n";
    return response;
}

struct Harness {
    FakeBackend server;
    InMemoryTokenStore tokens;
    NotificationCenter notifications;
    QNetworkAccessManager network;
    APIClient client{server.origin(), tokens, notifications, &network};
    MockInterviewAPI api{client, network, notifications};
    QList<QVariantMap> failures;

    Harness()
    {
        client.setAccessToken(u"tok"_s);
        notifications.addObserver(Notifications::apiRequestFailed, nullptr,
                                  [this](const Notification& n) { failures.append(n.userInfo); });
    }
    QString run(Call call)
    {
        try {
            return awaitTask(call(&api), 10'000);
        } catch (const MockInterviewError& error) {
            return error.description();
        }
    }
};

} // namespace

TEST(MockInterviewAPITest, AnswersFailuresAndNotifications)
{
    // One row a line, as the table it is.
    // clang-format off
    const Row rows[] = {
        {"questions undecodable", "POST", questionsPath, answer(200, R"({"sessionId":"s1"})"), questions,
         u"Decoding error: Missing key: questions"_s, {}},
        {"avatar 204: nothing, no error", "GET", avatarPath, answer(204, ""), avatar, u"nothing"_s, {}},
        {"avatar 404: nothing", "GET", avatarPath, answer(404, "missing"), avatar, u"nothing"_s, {}},
        {"image 204 is empty bytes", "GET", imagePath, answer(204, ""), image, u"bytes "_s, {}},
        {"image 404: nothing", "GET", imagePath, answer(404, ""), image, u"nothing"_s, {}},
        {"500 with an empty body", "POST", speechPath, answer(500, ""), speech, u"HTTP 500: "_s, 500},
        {"401 on POST posts", "POST", questionsPath, answer(401, "expired"), questions, u"HTTP 401: expired"_s, 401},
        {"401 on GET does not", "GET", avatarPath, answer(401, "expired"), avatar, u"HTTP 401: expired"_s, {}},
        {"body not UTF-8", "GET", imagePath, answer(503, "\xff\xfe"), image, u"HTTP 503"_s, {}},
        {"not HTTP", "GET", avatarPath, notHttp(), avatar, u"Network error: No HTTP response"_s, {}},
    };
    // clang-format on
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Harness harness;
        harness.server.setRoute(row.method, row.path, row.response);
        const auto outcome = harness.run(row.call);
        EXPECT_EQ(outcome, row.expected);
        // Qt itself sends a GET again on a connection closed without an answer; we never do.
        ASSERT_GE(harness.server.requestCount(row.method, row.path), 1);
        const auto request = harness.server.requests(row.method, row.path).first();
        EXPECT_EQ(request.header("authorization"), "Bearer tok");
        if (row.method == "POST") {
            EXPECT_EQ(request.header("content-type"), "application/json");
        }
        if (row.notifiedStatus) {
            ASSERT_EQ(harness.failures.size(), 1);
            EXPECT_EQ(harness.failures.first().value(u"status"_s).toInt(), *row.notifiedStatus);
            EXPECT_EQ(harness.failures.first().value(u"route"_s).toString(),
                      QString::fromLatin1(row.path));
        } else {
            EXPECT_TRUE(harness.failures.isEmpty());
        }
    }
}

// Asked for in full by the whole-product test; here the body without documents.
TEST(MockInterviewAPITest, QuestionsWithoutDocumentsLeaveTheirKeysOut)
{
    Harness harness;
    harness.server.setRoute("POST", questionsPath,
                            answer(200, R"({"sessionId":"s","questions":[]})"));
    awaitTask(harness.api.fetchQuestions(std::nullopt, std::nullopt, u"de"_s, 8), 10'000);
    EXPECT_EQ(QJsonDocument::fromJson(harness.server.requests("POST", questionsPath).first().body)
                  .object(),
              (QJsonObject{{u"language"_s, u"de"_s}, {u"count"_s, 8}}));
}

TEST(MockInterviewAPITest, NoTokenSendsNothing)
{
    Harness harness;
    harness.client.setAccessToken(std::nullopt);
    for (const Call call : {questions, avatar, generate, image, speech})
        EXPECT_EQ(harness.run(call), u"Not signed in"_s);
    EXPECT_EQ(harness.server.totalRequests(), 0);
    EXPECT_TRUE(harness.failures.isEmpty());
}
