// The server's HTTP routes end to end through curl: tokens, ownership, hostile bodies, the
// streamed answer, the sign-in page, telemetry and updates.
#include "ServerRoutesFixture.h"

#include "HttpServer.h"

#include "LoginPage.h"

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QUrl>
#include <QUrlQuery>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <vector>

using namespace Qt::StringLiterals;

namespace {

// TCP_NODELAY of each connection this process accepted on `port`, found among its descriptors.
std::vector<int> serverSideNoDelay(quint16 port)
{
    std::vector<int> values;
    for (int fd = 0; fd < 1024; ++fd) {
        sockaddr_in local{};
        sockaddr_in peer{};
        socklen_t size = sizeof local;
        if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size) != 0 || local.sin_family != AF_INET
            || ntohs(local.sin_port) != port)
            continue;
        size = sizeof peer;
        if (getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size) != 0)
            continue; // the listening socket
        int value = -1;
        socklen_t length = sizeof value;
        getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &value, &length);
        values.push_back(value ? 1 : 0);
    }
    return values;
}

} // namespace

class ServerTest : public ServerRoutesFixture {
protected:
    // curl posting to the answer route; `flag` is -N to print chunks as they come, -i for headers.
    void startAnswer(QProcess& process, const Account& account, const QByteArray& body,
                     const QString& flag = u"-N"_s)
    {
        process.start(u"curl"_s, {u"-s"_s, flag, u"-X"_s, u"POST"_s, u"-H"_s,
                                  u"Authorization: Bearer "_s + account.accessToken,
                                  u"--data-binary"_s, QString::fromUtf8(body),
                                  server.base() + u"/api/v1/chat/answer"_s});
    }
};

TEST_F(ServerTest, EveryApiRouteRefusesMissingExpiredAndForgedTokens)
{
    const auto account = server.signUp();
    const QStringList routes{
        u"POST /api/v1/interview/session"_s, u"GET /api/v1/interview/session"_s,
        u"GET /api/v1/interview/session/x"_s, u"PUT /api/v1/interview/session/x"_s,
        u"POST /api/v1/interview/session/x/transcript"_s, u"POST /api/v1/chat/answer"_s,
        u"PATCH /api/v1/chat/log/x"_s, u"GET /api/v1/chat/log/x"_s,
        u"GET /api/v1/speech/token"_s, u"GET /api/v1/subscription/status"_s,
        u"GET /api/v1/resume"_s, u"POST /api/v1/resume/upload"_s,
        u"DELETE /api/v1/resume/x"_s, u"GET /api/v1/job-description"_s,
        u"POST /api/v1/job-description"_s, u"DELETE /api/v1/job-description/x"_s,
        u"POST /api/v1/mock-interview/questions"_s, u"GET /api/v1/mock-interview/avatar"_s,
        u"POST /api/v1/mock-interview/avatar/generate"_s, u"GET /api/v1/mock-interview/avatar/image"_s,
        u"POST /api/v1/mock-interview/tts"_s,
    };
    const auto call = [&](const QString& token, const QString& route) {
        return status({{}, {}, token, {}}, route.section(u' ', 0, 0), route.section(u' ', 1), "{}");
    };
    // Same claims, signed with another key; and the real token with its signature cut.
    const auto forged = AccountService(*server.db, server.clock, QByteArray(32, 'x'))
                            .exchange(server.accounts->issueCode(account.id))
                            ->accessToken;
    auto truncated = account.accessToken;
    truncated.chop(2);

    for (const auto& route : routes) {
        SCOPED_TRACE(route.toStdString());
        EXPECT_EQ(call({}, route), 401);
        EXPECT_EQ(call(forged, route), 401);
        EXPECT_EQ(call(truncated, route), 401);
    }
    EXPECT_EQ(call(account.accessToken, u"GET /api/v1/resume"_s), 200);
    server.clock.advance(std::chrono::minutes(15));
    for (const auto& route : routes)
        EXPECT_EQ(call(account.accessToken, route), 401) << route.toStdString();
}

TEST_F(ServerTest, CodesAreOneTimeAndShortLivedAndRefreshTokensRotateInFamilies)
{
    const auto user = std::get<UserRecord>(
        server.accounts->createAccount(u"Ann@Example.org"_s, u"long enough"_s));
    const auto exchange = [&](const QString& code) {
        return server.call({}, u"POST"_s, u"/api/v1/auth/exchange"_s,
                           compact({{u"code"_s, code}}));
    };
    const auto refresh = [&](const QString& token) {
        return server.call({}, u"POST"_s, u"/api/v1/auth/refresh"_s,
                           compact({{u"refreshToken"_s, token}}));
    };

    const auto code = server.accounts->issueCode(user.id);
    const auto first = exchange(code);
    ASSERT_EQ(first.status, 200);
    EXPECT_EQ(json(first).value(u"user"_s).toObject().value(u"email"_s).toString(),
              u"ann@example.org"_s);
    EXPECT_EQ(exchange(code).status, 401) << "a code is used once";
    const auto late = server.accounts->issueCode(user.id);
    server.clock.advance(std::chrono::seconds(61));
    EXPECT_EQ(exchange(late).status, 401) << "a code lives 60 s";

    const auto r1 = json(first).value(u"refreshToken"_s).toString();
    const auto second = refresh(r1);
    ASSERT_EQ(second.status, 200);
    const auto r2 = json(second).value(u"refreshToken"_s).toString();
    EXPECT_NE(r1, r2);
    // r1 again: someone replays a spent token. The whole family ends, r2 included.
    EXPECT_EQ(refresh(r1).status, 401);
    EXPECT_EQ(refresh(r2).status, 401);
    // Another sign-in starts a family of its own.
    const auto other = json(exchange(server.accounts->issueCode(user.id)));
    EXPECT_EQ(refresh(other.value(u"refreshToken"_s).toString()).status, 200);
}

TEST_F(ServerTest, AccessTokenPayloadsReadWithPlainBase64)
{
    const auto user = std::get<UserRecord>(
        server.accounts->createAccount(u"o'brien+jobs@example.org"_s, u"long enough"_s));
    for (int i = 0; i < 3000; ++i) {
        const auto token =
            server.accounts->exchange(server.accounts->issueCode(user.id))->accessToken;
        const auto payload = token.split(u'.').value(1);
        ASSERT_FALSE(payload.contains(u'-') || payload.contains(u'_')) << payload.toStdString();
        const auto padded = payload.toLatin1() + QByteArray((4 - payload.size() % 4) % 4, '=');
        const auto claims = QJsonDocument::fromJson(
            QByteArray::fromBase64(padded, QByteArray::AbortOnBase64DecodingErrors)).object();
        ASSERT_EQ(claims.value(u"sub"_s).toString(), user.id);
        ASSERT_EQ(claims.value(u"email"_s).toString(), u"o'brien+jobs@example.org"_s);
        if (i % 500 == 0)
            server.clock.advance(std::chrono::seconds(1)); // other times, other payload lengths
    }
}

TEST_F(ServerTest, UsersNeverReachEachOthersData)
{
    const auto owner = server.signUp();
    const auto other = server.signUp();
    const auto session = u"/api/v1/interview/session/"_s
                         + create(owner, u"/api/v1/interview/session"_s,
                                  R"({"languageInput":"en","languageOutput":"de"})");
    ASSERT_EQ(
        status(owner, u"POST"_s, session + u"/transcript"_s,
               R"({"entries":[{"id":"l1","speaker":"interviewer","content":"Secret","timestampMs":1,"confidence":0.5}]})"),
        200);
    const auto job = create(owner, u"/api/v1/job-description"_s, R"({"title":"T","content":"C"})");
    QFile cv(server.dir.filePath(u"cv.txt"_s));
    ASSERT_TRUE(cv.open(QIODevice::WriteOnly));
    cv.write("Led the migration of 40 services.");
    cv.close();
    const auto resume = json(curl({u"-H"_s, u"Authorization: Bearer "_s + owner.accessToken,
                                   u"-F"_s, u"file=@"_s + cv.fileName() + u";type=text/plain"_s,
                                   server.base() + u"/api/v1/resume/upload"_s}))
                            .value(u"id"_s)
                            .toString();
    ASSERT_FALSE(job.isEmpty());
    ASSERT_FALSE(resume.isEmpty());
    server.engine.finishAtOnce = true;
    EXPECT_EQ(status(owner, u"POST"_s, u"/api/v1/chat/answer"_s, R"({"question":"q"})"), 200);
    auto logs = server.db->run(u"SELECT id FROM answer_logs WHERE user_id = ?"_s, {owner.id});
    ASSERT_TRUE(logs.next());
    const auto log = u"/api/v1/chat/log/"_s + logs.value(0).toString();

    const QList<std::tuple<QString, QString, QByteArray>> probes{
        {u"GET"_s, session, {}},
        {u"PUT"_s, session, R"({"status":"completed","sttAudioDurationMs":1})"},
        {u"POST"_s, session + u"/transcript"_s,
         R"({"entries":[{"id":"l1","speaker":"user","content":"overwritten","timestampMs":1,"revision":9}]})"},
        {u"DELETE"_s, u"/api/v1/resume/"_s + resume, {}},
        {u"DELETE"_s, u"/api/v1/job-description/"_s + job, {}},
        {u"GET"_s, log, {}},
        {u"PATCH"_s, log, R"({"answer":"changed"})"},
    };
    for (const auto& [method, path, body] : probes)
        EXPECT_EQ(status(other, method, path, body), 404) << path.toStdString();
    for (const auto& [path, key] : {std::pair{u"/api/v1/interview/session"_s, u"sessions"_s},
                                    std::pair{u"/api/v1/resume"_s, u"resumes"_s},
                                    std::pair{u"/api/v1/job-description"_s, u"jobDescriptions"_s}}) {
        EXPECT_EQ(get(other, path).value(key).toArray().size(), 0) << path.toStdString();
        EXPECT_EQ(get(owner, path).value(key).toArray().size(), 1) << path.toStdString();
    }

    // An answer for the other user never sees the owner's documents.
    server.engine.answers.clear();
    server.call(
        other, u"POST"_s, u"/api/v1/chat/answer"_s,
        compact({{u"question"_s, u"q"_s}, {u"resumeId"_s, resume}, {u"jobDescriptionId"_s, job}}));
    ASSERT_EQ(server.engine.answers.size(), 1u);
    EXPECT_TRUE(server.engine.answers[0]->request.resumeText.isEmpty());
    EXPECT_TRUE(server.engine.answers[0]->request.jobDescriptionText.isEmpty());

    // The owner's session and answer are unchanged.
    const auto kept = get(owner, session);
    EXPECT_EQ(kept.value(u"status"_s).toString(), u"active"_s);
    EXPECT_EQ(kept.value(u"transcript"_s).toArray().at(0).toObject().value(u"content"_s).toString(),
              u"Secret"_s);
    EXPECT_EQ(get(owner, log).value(u"question"_s).toString(), u"q"_s);
}

TEST_F(ServerTest, HostileBodiesGetClearRefusalsAndTheServerKeepsServing)
{
    const auto account = server.signUp();
    const auto jobs = u"/api/v1/job-description"_s;
    struct Case {
        const char* what;
        QString method;
        QString path;
        QByteArray body;
        int status;
    };
    const Case cases[]{
        {"cut-off JSON", u"POST"_s, jobs, "{\"title\": ", 400},
        {"an array", u"POST"_s, jobs, "[1,2]", 400},
        {"bytes that are not UTF-8", u"POST"_s, jobs, "{\"title\":\"\xff\xfe\",\"content\":\"x\"}", 400},
        {"a number for a text", u"POST"_s, jobs, R"({"title":5,"content":"x"})", 400},
        // Valid JSON, but half a character that would be stored as something else.
        {"half a character in a value", u"POST"_s, jobs, R"({"title":"Eng\udfff","content":"x"})", 400},
        {"half a character in a name", u"POST"_s, jobs, R"({"title":"E","content":"x","\ud800":1})", 400},
        {"10 MB", u"POST"_s, jobs, QByteArray(10 * 1024 * 1024, ' ') + "{}", 413},
        {"a transcript entry of the wrong shape", u"POST"_s,
         u"/api/v1/interview/session/x/transcript"_s, R"({"entries":[{"id":1}]})", 400},
        {"no such route", u"GET"_s, u"/api/v1/nothing-here"_s, {}, 404},
        {"no such method", u"DELETE"_s, u"/api/v1/resume"_s, {}, 405},
    };
    for (const auto& c : cases)
        EXPECT_EQ(status(account, c.method, c.path, c.body), c.status) << c.what;

    // A multipart upload cut off in the middle of its file.
    QFile file(server.dir.filePath(u"truncated"_s));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("--B\r\nContent-Disposition: form-data; name=\"file\"; filename=\"cv.txt\"\r\n"
               "Content-Type: text/plain\r\n\r\nI led a team of");
    file.close();
    const auto upload =
        curl({u"-H"_s, u"Authorization: Bearer "_s + account.accessToken, u"-H"_s,
              u"Content-Type: multipart/form-data; boundary=B"_s, u"--data-binary"_s,
              u"@"_s + file.fileName(), server.base() + u"/api/v1/resume/upload"_s});
    EXPECT_EQ(upload.status, 400);
    EXPECT_TRUE(get(account, u"/api/v1/resume"_s).value(u"resumes"_s).toArray().isEmpty());

    // A body announced at a gigabyte and sent without end: refused once past the limit, with
    // the connection closed, before the server holds more than that.
    QTcpSocket flood;
    flood.connectToHost(QHostAddress::LocalHost, server.port);
    ASSERT_TRUE(waitUntil([&] { return flood.state() == QAbstractSocket::ConnectedState; }));
    flood.write("POST /api/v1/telemetry/events HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000000\r\n\r\n");
    const QByteArray megabyte(1024 * 1024, '0');
    qint64 sent = 0;
    QByteArray answer;
    ASSERT_TRUE(waitUntil([&] {
        answer += flood.readAll();
        if (flood.state() != QAbstractSocket::ConnectedState)
            return true;
        if (flood.bytesToWrite() < megabyte.size() && sent < 4 * HttpServer::maxRequestBytes)
            sent += flood.write(megabyte);
        return false;
    }, 60'000)) << "the server never closed the connection";
    EXPECT_TRUE(answer.startsWith("HTTP/1.1 413 ")) << answer.left(80).constData();
    EXPECT_LT(sent, 2 * HttpServer::maxRequestBytes);

    const auto created =
        server.call(account, u"POST"_s, jobs, R"({"title":"Engineer","content":"Build things"})");
    EXPECT_EQ(created.status, 200);
    EXPECT_EQ(json(created).value(u"company"_s), QJsonValue(u""_s)) << "company is always there";
}

TEST_F(ServerTest, AnswerLinesReachCurlAsTheyAreProduced)
{
    const auto account = server.signUp();
    const auto job = create(account, u"/api/v1/job-description"_s,
                            R"({"title":"SRE","content":"Keep services up"})");
    QProcess curlProcess;
    startAnswer(curlProcess, account,
                compact({{u"question"_s, u"Why this role?"_s},
                         {u"context"_s, QJsonArray{QJsonObject{{u"speaker"_s, u"interviewer"_s},
                                                               {u"content"_s, u"Hello"_s}},
                                                   QJsonObject{{u"speaker"_s, u"user"_s},
                                                               {u"content"_s, u"Hi"_s}}}},
                         {u"language"_s, u"German"_s},
                         {u"jobDescriptionId"_s, job}}));
    ASSERT_TRUE(waitUntil([&] { return server.engine.answers.size() == 1; }));
    const auto pending = server.engine.answers[0];
    EXPECT_EQ(pending->request.question, u"Why this role?"_s);
    EXPECT_EQ(pending->request.recentTranscript,
              (QStringList{u"Interviewer: Hello"_s, u"You: Hi"_s}));
    EXPECT_EQ(pending->request.jobDescriptionText, u"Keep services up"_s);
    EXPECT_EQ(pending->request.outputLanguage, u"German"_s);

    QByteArray seen;
    pending->onChunk(u"First part."_s);
    // The last chunk is produced only after curl has printed the first one.
    ASSERT_TRUE(waitUntil([&] {
        seen += curlProcess.readAllStandardOutput();
        return seen.contains("data: {\"content\":\"First part.\"}");
    }));
    EXPECT_TRUE(seen.startsWith("data: {\"logId\":\"")) << seen.constData();
    // Lines go one by one: with Nagle's algorithm each would wait for the client's delayed ACK
    // of the one before, 40 ms on a connection kept open between answers.
    EXPECT_EQ(serverSideNoDelay(server.port), std::vector<int>{1});
    pending->onChunk(u" Second."_s);
    pending->onDone({});
    ASSERT_TRUE(waitUntil([&] { return curlProcess.state() == QProcess::NotRunning; }));
    seen += curlProcess.readAllStandardOutput();
    EXPECT_TRUE(seen.endsWith("data: {\"content\":\" Second.\"}\n\ndata: [DONE]\n\n"))
        << seen.constData();

    const auto log = u"/api/v1/chat/log/"_s
                     + QJsonDocument::fromJson(seen.mid(6, seen.indexOf('\n') - 6))
                           .object()
                           .value(u"logId"_s)
                           .toString();
    ASSERT_TRUE(waitUntil(
        [&] { return get(account, log).value(u"answer"_s).toString() == u"First part. Second."_s; }));
    EXPECT_EQ(status(account, u"PATCH"_s, log, R"({"answer":"edited"})"), 200);
    EXPECT_EQ(get(account, log).value(u"answer"_s).toString(), u"edited"_s);
}

TEST_F(ServerTest, AnEngineFailureBeforeAnyTextIsAStatusAndAGoneClientCancelsTheEngine)
{
    const auto account = server.signUp();
    QProcess failing;
    startAnswer(failing, account, R"({"question":"q"})", u"-i"_s);
    ASSERT_TRUE(waitUntil([&] { return server.engine.answers.size() == 1; }));
    server.engine.answers[0]->onDone(u"The model server is unreachable"_s);
    ASSERT_TRUE(waitUntil([&] { return failing.state() == QProcess::NotRunning; }));
    const auto output = failing.readAllStandardOutput();
    EXPECT_TRUE(output.startsWith("HTTP/1.1 502")) << output.constData();
    EXPECT_TRUE(output.contains("The model server is unreachable"));

    QProcess leaving;
    startAnswer(leaving, account, R"({"question":"q"})");
    ASSERT_TRUE(waitUntil([&] { return server.engine.answers.size() == 2; }));
    server.engine.answers[1]->onChunk(u"Partial"_s);
    ASSERT_TRUE(waitUntil([&] { return leaving.readAllStandardOutput().contains("Partial"); }));
    leaving.kill();
    EXPECT_TRUE(waitUntil([&] { return server.engine.answers[1]->cancelled; }));
}

TEST_F(ServerTest, SignInPageCreatesAnAccountAndRedirectsWithACodeBehindCsrfProtection)
{
    const auto jar = server.dir.filePath(u"cookies"_s);
    const auto page =
        curl({u"-c"_s, jar, server.base() + u"/auth/login?state=S-1.x&mode=register"_s});
    ASSERT_EQ(page.status, 200);
    EXPECT_TRUE(page.body.contains("Continue on this computer"));
    EXPECT_TRUE(page.headers.contains("SameSite=Strict"));
    const auto csrf = QRegularExpression(u"name=\"csrf\" value=\"([^\"]+)\""_s)
                          .match(QString::fromUtf8(page.body))
                          .captured(1);
    ASSERT_FALSE(csrf.isEmpty());
    const auto form =
        u"state=S-1.x&action=register&email=new%40example.org&password=pa55word!&confirm=pa55word!&csrf="_s;
    const QStringList withCookie{u"-b"_s, jar};
    const auto submit = [&](const QString& fields, QStringList options) {
        return curl(options << u"--data"_s << fields << server.base() + u"/auth/login"_s);
    };

    // A form posted from another site carries no cookie of ours, or a token it could not read.
    EXPECT_EQ(submit(form + csrf, {}).status, 403);
    EXPECT_EQ(submit(form + u"guess"_s, withCookie).status, 403);
    EXPECT_EQ(submit(form + csrf, withCookie + QStringList{u"-H"_s, u"Origin: https://evil.example"_s})
                  .status,
              403);

    const auto created = submit(form + csrf, withCookie);
    ASSERT_EQ(created.status, 303);
    const QUrl callback(QRegularExpression(u"Location: (\\S+)"_s)
                            .match(QString::fromUtf8(created.headers))
                            .captured(1));
    EXPECT_EQ(callback.scheme(), u"ravlet"_s);
    EXPECT_EQ(callback.host(), u"auth-callback"_s);
    const QUrlQuery query(callback);
    EXPECT_EQ(query.queryItemValue(u"state"_s, QUrl::FullyDecoded), u"S-1.x"_s);
    const auto pair =
        server.accounts->exchange(query.queryItemValue(u"code"_s, QUrl::FullyDecoded));
    ASSERT_TRUE(pair);
    EXPECT_EQ(pair->user.email, u"new@example.org"_s);

    // The same address again is refused; the right password signs in; a wrong one does not.
    const auto again = submit(form + csrf, withCookie);
    EXPECT_EQ(again.status, 400);
    EXPECT_TRUE(again.body.contains("already exists"));
    const auto signIn = u"state=S&action=signin&email=NEW%40example.org&csrf="_s + csrf;
    EXPECT_EQ(submit(signIn + u"&password=pa55word!"_s, withCookie).status, 303);
    EXPECT_EQ(submit(signIn + u"&password=nope"_s, withCookie).status, 401);
    EXPECT_EQ(curl({server.base() + u"/auth/login?state=%3Cscript%3E"_s}).status, 400);
}

TEST_F(ServerTest, ContinueOnThisComputerIsForLoopbackPeersOnly)
{
    LoginPage page(*server.accounts, true);
    HttpRequest request;
    request.method = "POST";
    request.path = u"/auth/login"_s;
    request.headers = {{"Cookie", "ravlet_csrf=T"}, {"Host", "server.example:8787"}};
    request.body = "state=S&action=local&csrf=T";

    request.peer = QHostAddress(u"192.0.2.10"_s);
    EXPECT_EQ(page.submit(request).status, 403);
    request.peer = QHostAddress(u"::ffff:192.0.2.10"_s);
    EXPECT_EQ(page.submit(request).status, 403);
    // A reverse proxy on this machine is loopback too, but speaks for someone else.
    request.peer = QHostAddress::LocalHost;
    request.headers.append(std::pair{QByteArray("X-Forwarded-For"), QByteArray("192.0.2.10")});
    EXPECT_EQ(page.submit(request).status, 403);
    request.headers.removeLast();
    EXPECT_EQ(page.submit(request).status, 303);
    request.peer = QHostAddress::LocalHostIPv6;
    EXPECT_EQ(page.submit(request).status, 303);
    EXPECT_EQ(LoginPage(*server.accounts, false).submit(request).status, 403)
        << "switched off for shared servers";
}

TEST(ServerConfigTest, TelemetryIsStoredAndCanBeTurnedOffForEveryone)
{
    const QByteArray batch = R"({"deviceId":"d1","appVersion":"0.1.0","platform":"linux","events":[
        {"name":"app_launched","category":"funnel","clientTs":"2026-01-01T00:00:00.000Z"},
        {"name":"api_failed","category":"error","clientTs":"2026-01-01T00:00:01.000Z","props":{"status":500}}]})";
    const QByteArray crash = R"({"deviceId":"d1","exceptionType":"SIGSEGV","lastState":"unknown"})";
    const auto config = [](ServerHarness& server) {
        return json(server.call({}, u"GET"_s, u"/api/v1/telemetry/config"_s));
    };
    const auto send = [](ServerHarness& server, const QString& what, const QByteArray& body) {
        return server.call({}, u"POST"_s, u"/api/v1/telemetry/"_s + what, body).status;
    };
    ServerHarness on;
    // Counted as differences: on PostgreSQL every harness of the run shares one database.
    TelemetryStore stored(*on.db);
    const auto events = stored.eventCount();
    const auto crashes = stored.crashCount();
    EXPECT_EQ(config(on), (QJsonObject{{u"enabled"_s, true}, {u"sampleRate"_s, 1.0}}));
    EXPECT_EQ(send(on, u"events"_s, batch), 200);
    EXPECT_EQ(send(on, u"crash"_s, crash), 200);
    EXPECT_EQ(send(on, u"events"_s, R"({"deviceId":"d1","events":[{}]})"), 400);
    EXPECT_EQ(stored.eventCount(), events + 2);
    EXPECT_EQ(stored.crashCount(), crashes + 1);

    ServerConfig off;
    off.telemetryEnabled = false;
    ServerHarness server(off);
    TelemetryStore untouched(*server.db);
    const auto before = untouched.eventCount() + untouched.crashCount();
    EXPECT_FALSE(config(server).value(u"enabled"_s).toBool());
    // 204 is the client's signal to drop what it holds.
    EXPECT_EQ(send(server, u"events"_s, batch), 204);
    EXPECT_EQ(send(server, u"crash"_s, crash), 204);
    EXPECT_EQ(untouched.eventCount() + untouched.crashCount(), before);
}

TEST(ServerConfigTest, UpdateCheckOffersTheNewestPackageOfTheFolder)
{
    QTemporaryDir updates;
    const auto write = [&](const QString& name, const QByteArray& bytes) {
        QFile file(updates.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
    };
    write(u"RavletAI-0.9.0-linux-x86_64.tar.gz"_s, "old");
    write(u"RavletAI-0.10.0-linux-x86_64.tar.gz"_s, "newest package");
    write(u"RavletAI-0.10.0-linux-x86_64.changelog.txt"_s, "Faster answers.\n");
    write(u"notes.tar.gz"_s, "not a package");
    ServerConfig config;
    config.updatesDir = updates.path();
    ServerHarness server(config);
    const auto check = [&](const QString& version) {
        return json(server.call(
            {}, u"GET"_s, u"/download/check-update?v="_s + version + u"&platform=linux"_s));
    };

    const auto offer = check(u"0.9.5"_s);
    EXPECT_TRUE(offer.value(u"hasUpdate"_s).toBool());
    EXPECT_FALSE(offer.value(u"forceUpdate"_s).toBool());
    const auto latest = offer.value(u"latest"_s).toObject();
    EXPECT_EQ(latest.value(u"version"_s).toString(), u"0.10.0"_s); // by version, not by name
    EXPECT_EQ(latest.value(u"changelog"_s).toString(), u"Faster answers."_s);
    EXPECT_EQ(latest.value(u"size"_s).toString(), u"14"_s);
    const auto download = curl({latest.value(u"downloadURL"_s).toString()});
    EXPECT_EQ(download.status, 200);
    EXPECT_EQ(download.body, "newest package");
    const auto files = server.base() + u"/download/files/"_s;
    EXPECT_EQ(curl({files + u"RavletAI-0.9.0-linux-x86_64.tar.gz"_s}).status, 404);
    EXPECT_EQ(curl({files + u"..%2Fserver.sqlite"_s}).status, 404);

    EXPECT_FALSE(check(u"0.10.0"_s).value(u"hasUpdate"_s).toBool());
    write(u"minimum-version"_s, "0.9.9\n");
    EXPECT_TRUE(check(u"0.9.5"_s).value(u"forceUpdate"_s).toBool());
}
