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

enum Op { questions, avatar, image, speech };
const std::pair<QByteArray, QByteArray> routes[] = {{"POST", "/api/v1/mock-interview/questions"},
                                                    {"GET", "/api/v1/mock-interview/avatar"},
                                                    {"GET", "/api/v1/mock-interview/avatar/image"},
                                                    {"POST", "/api/v1/mock-interview/tts"}};

// The operation's result as one line of text.
QCoro::Task<QString> call(MockInterviewAPI* api, Op op)
{
    std::optional<QByteArray> bytes;
    std::optional<AvatarResponse> portrait;
    switch (op) {
    case questions: {
        const auto response = co_await api->fetchQuestions(u"r1"_s, u"j1"_s, u"en"_s, 8);
        co_return u"questions %1 %2"_s.arg(response.sessionId).arg(response.questions.size());
    }
    case avatar:
        portrait = co_await api->fetchAvatar();
        break;
    case image:
        bytes = co_await api->fetchAvatarImage();
        break;
    case speech:
        bytes = co_await api->synthesizeSpeech(u"Hi"_s);
        break;
    }
    if (portrait)
        co_return u"avatar "_s + portrait->key;
    co_return bytes ? u"bytes "_s + QString::fromLatin1(bytes->toHex()) : u"nothing"_s;
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
    QString run(Op op)
    {
        try {
            return awaitTask(call(&api, op), 10'000);
        } catch (const MockInterviewError& error) {
            return error.description();
        }
    }
};

} // namespace

TEST(MockInterviewAPITest, AnswersFailuresAndNotifications)
{
    FakeBackend::Response notHttp;
    notHttp.raw = "garbage\r\n\r\n";
    const auto answer = [](int status, QByteArray body) {
        return FakeBackend::Response::json(status, std::move(body));
    };
    // The operation, the server's answer, the outcome, the status "apiRequestFailed" carries.
    const std::tuple<Op, FakeBackend::Response, QString, std::optional<int>> rows[] = {
        {questions,
         answer(200, R"({"sessionId":"s1"})"),
         u"Decoding error: Missing key: questions"_s,
         {}},
        {avatar, answer(204, ""), u"nothing"_s, {}},
        {image, answer(204, ""), u"bytes "_s, {}}, // a 204 is no image, only a 404 is none
        {image, answer(404, ""), u"nothing"_s, {}},
        {speech, answer(500, ""), u"HTTP 500: "_s, 500},
        {questions, answer(401, "expired"), u"HTTP 401: expired"_s, 401},
        {avatar, answer(401, "expired"), u"HTTP 401: expired"_s, {}}, // a GET posts nothing
        {image, answer(503, "\xff\xfe"), u"HTTP 503"_s, {}},          // a body not UTF-8
        {avatar, notHttp, u"Network error: No HTTP response"_s, {}},
    };
    for (const auto& [op, response, expected, notifiedStatus] : rows) {
        SCOPED_TRACE(expected.toStdString());
        const auto& [method, path] = routes[op];
        Harness harness;
        harness.server.setRoute(method, path, response);
        EXPECT_EQ(harness.run(op), expected);
        // Qt itself sends a GET again on a connection closed without an answer; we never do.
        ASSERT_GE(harness.server.requestCount(method, path), 1);
        const auto request = harness.server.requests(method, path).first();
        EXPECT_EQ(request.header("authorization"), "Bearer tok");
        if (method == "POST") {
            EXPECT_EQ(request.header("content-type"), "application/json");
        }
        ASSERT_EQ(harness.failures.size(), notifiedStatus ? 1 : 0);
        if (notifiedStatus) {
            EXPECT_EQ(harness.failures.first().value(u"status"_s).toInt(), *notifiedStatus);
            EXPECT_EQ(harness.failures.first().value(u"route"_s).toString(),
                      QString::fromLatin1(path));
        }
    }
}

// Asked for in full by the whole-product test; here the body without documents. With no token
// nothing is sent at all.
TEST(MockInterviewAPITest, QuestionsWithoutDocumentsLeaveTheirKeysOutAndNoTokenSendsNothing)
{
    Harness harness;
    const auto& [method, path] = routes[questions];
    harness.server.setRoute(
        method, path, FakeBackend::Response::json(200, R"({"sessionId":"s","questions":[]})"));
    awaitTask(harness.api.fetchQuestions(std::nullopt, std::nullopt, u"de"_s, 8), 10'000);
    EXPECT_EQ(QJsonDocument::fromJson(harness.server.requests(method, path).first().body).object(),
              (QJsonObject{{u"language"_s, u"de"_s}, {u"count"_s, 8}}));

    harness.client.setAccessToken(std::nullopt);
    for (const Op op : {questions, avatar, image, speech})
        EXPECT_EQ(harness.run(op), u"Not signed in"_s);
    EXPECT_EQ(harness.server.totalRequests(), 1);
    EXPECT_TRUE(harness.failures.isEmpty());
}
