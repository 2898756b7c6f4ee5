// The server's HTTP routes end to end through curl: tokens, ownership, hostile bodies, the
// streamed answer, the sign-in page, telemetry and updates.
#include "ServerHarness.h"

#include "AwaitTask.h"
#include "ClockWait.h"
#include "LoginPage.h"
#include "SignInLimits.h"
#include "SpeechSynthesizer.h"
#include "Stores.h"

#include <QFile>
#include <QJsonArray>
#include <QProcess>
#include <QRegularExpression>
#include <QTcpSocket>

#include <gtest/gtest.h>

#include <unistd.h>

using namespace Qt::StringLiterals;
using Account = ServerHarness::Account;
using std::chrono::milliseconds;

namespace {

// curl posting to the answer route; `flag` is -N to print chunks as they come, -i for headers.
void startAnswer(QProcess& process, ServerHarness& server, const Account& account,
                 const QByteArray& body, const QString& flag = u"-N"_s)
{
    process.start(u"curl"_s, {u"-s"_s, flag, u"-H"_s,
                              u"Authorization: Bearer "_s + account.accessToken, u"--data-binary"_s,
                              QString::fromUtf8(body), server.base() + u"/api/v1/chat/answer"_s});
}

Account bearer(const QString& token)
{
    return {{}, {}, token, {}};
}

// The form's token against cross-site posts, from the sign-in page.
QString csrfOf(const QByteArray& page)
{
    return QRegularExpression(u"name=\"csrf\" value=\"([^\"]+)\""_s)
        .match(QString::fromUtf8(page))
        .captured(1);
}

} // namespace

class ServerTest : public ::testing::Test {
protected:
    ServerHarness server;
    const Account account = server.signUp();
};

TEST_F(ServerTest, EveryApiRouteRefusesMissingAndForgedTokens)
{
    // clang-format off
    const auto routes = u"POST interview/session|GET interview/session|GET interview/session/x|PUT interview/session/x|"
        u"POST interview/session/x/transcript|POST chat/answer|PATCH chat/log/x|GET chat/log/x|GET speech/token|"
        u"GET subscription/status|GET resume|POST resume/upload|DELETE resume/x|GET job-description|"
        u"POST job-description|DELETE job-description/x|POST mock-interview/questions|GET mock-interview/avatar|"
        u"POST mock-interview/avatar/generate|GET mock-interview/avatar/image|POST mock-interview/tts"_s.split(u'|');
    // clang-format on
    // The same claims signed with another key; the real token with its signature cut. (An
    // expired token is the lifetime test's, to the millisecond.)
    const auto forged = AccountService(*server.db, server.clock, QByteArray(32, 'x'))
                            .exchange(server.accounts->issueCode(account.id))
                            ->accessToken;
    for (const auto& route : routes) {
        for (const auto& token : {QString(), forged, account.accessToken.chopped(2)}) {
            const auto method = route.section(u' ', 0, 0).toLatin1();
            EXPECT_EQ(
                server.call(bearer(token), method, u"/api/v1/"_s + route.section(u' ', 1), "{}")
                    .status,
                401)
                << route.toStdString() << ' ' << token.toStdString();
        }
    }
}

TEST_F(ServerTest, TokensAndSignInCodesLastTheirTimeAndRefreshTokensRotateInFamilies)
{
    const auto post = [&](const QString& route, const QString& field, const QString& value) {
        return server.call({}, "POST", u"/api/v1/auth/"_s + route, compact({{field, value}}));
    };
    const auto exchange = [&](const QString& code) { return post(u"exchange"_s, u"code"_s, code); };
    const auto refresh = [&](const QString& token) {
        return post(u"refresh"_s, u"refreshToken"_s, token);
    };
    // To the millisecond: an access token on a route, and a sign-in code.
    const struct {
        bool code;
        qint64 afterMs;
        int status;
    } rows[] = {{false, AccountService::accessLifetimeMs - 1000, 200},
                {false, AccountService::accessLifetimeMs, 401},
                {true, AccountService::codeLifetimeMs - 1, 200},
                {true, AccountService::codeLifetimeMs, 401}};
    for (const auto& row : rows) {
        SCOPED_TRACE(testing::Message() << row.code << ' ' << row.afterMs);
        const auto code = server.accounts->issueCode(account.id);
        const auto access = bearer(
            exchange(server.accounts->issueCode(account.id)).json()[u"accessToken"_s].toString());
        server.clock.advance(milliseconds(row.afterMs));
        EXPECT_EQ(row.code ? exchange(code).status
                           : server.call(access, "GET", u"/api/v1/resume"_s).status,
                  row.status);
    }

    const auto user = std::get<UserRecord>(
        server.accounts->createAccount(u"Ann@Example.org"_s, u"long enough"_s));
    const auto code = server.accounts->issueCode(user.id);
    const auto first = exchange(code);
    ASSERT_EQ(first.json()[u"user"_s][u"email"_s].toString(), u"ann@example.org"_s);
    EXPECT_EQ(exchange(code).status, 401) << "a code is used once";
    const auto r1 = first.json()[u"refreshToken"_s].toString();
    const auto r2 = refresh(r1).json()[u"refreshToken"_s].toString();
    ASSERT_FALSE(r2.isEmpty() || r2 == r1);
    // r1 again at once: the answer to the first use was lost on its way. The same answer, and
    // the family lives on.
    server.clock.advance(milliseconds(1'999));
    const auto replay = refresh(r1).json();
    EXPECT_TRUE(replay[u"refreshToken"_s] == r2 && !replay[u"accessToken"_s].toString().isEmpty());
    // r1 later: someone replays a spent token. The whole family ends, r2 included; another
    // sign-in is its own family.
    server.clock.advance(milliseconds(2));
    EXPECT_EQ(refresh(r1).status, 401);
    EXPECT_EQ(refresh(r2).status, 401);
    const auto newFamily = exchange(server.accounts->issueCode(user.id)).json()[u"refreshToken"_s];
    EXPECT_EQ(refresh(newFamily.toString()).status, 200);
    // Sign-out ends the family (the client contract test, through the program's own client);
    // an unknown token tells a caller nothing.
    EXPECT_EQ(post(u"logout"_s, u"refreshToken"_s, u"unknown"_s).status, 204);

    // However often it rotates, a family ends 90 days after its sign-in.
    auto token = exchange(server.accounts->issueCode(user.id)).json()[u"refreshToken"_s].toString();
    for (int day = 20; day < 90; day += 20) {
        server.clock.advance(std::chrono::hours(24 * 20));
        const auto rotated = refresh(token);
        ASSERT_EQ(rotated.status, 200) << day;
        token = rotated.json()[u"refreshToken"_s].toString();
    }
    server.clock.advance(std::chrono::hours(24 * 10));
    EXPECT_EQ(refresh(token).status, 401);

    // Speech tokens are checked by recognisers outside this server: one signed with the key of
    // access tokens is no speech token, and a speech token opens no API route. (The token route's
    // own rules are its suite's.)
    EXPECT_FALSE(server.accounts->verifySpeechToken(
        TokenSigner(ServerHarness::signingKey)
            .sign({{u"sub"_s, user.id},
                   {u"typ"_s, u"speech"_s},
                   {u"exp"_s, server.clock.nowMs() / 1000 + 600}})));
    const auto speech = bearer(server.accounts->issueSpeechToken(user.id));
    EXPECT_EQ(server.call(speech, "GET", u"/api/v1/subscription/status"_s).status, 401);
}

TEST_F(ServerTest, UsersNeverReachEachOthersData)
{
    const auto& owner = account;
    const auto other = server.signUp();
    const auto create = [&](const QString& path, const QByteArray& body) {
        return server.call(owner, "POST", path, body).json()[u"id"_s].toString();
    };
    const auto session =
        u"/api/v1/interview/session/"_s
        + create(u"/api/v1/interview/session"_s, R"({"languageInput":"en","languageOutput":"de"})");
    const QByteArray line =
        R"({"entries":[{"id":"l1","speaker":"interviewer","content":"Secret","timestampMs":1}]})";
    ASSERT_EQ(server.call(owner, "POST", session + u"/transcript"_s, line).status, 200);
    const auto job = create(u"/api/v1/job-description"_s, R"({"title":"T","content":"C"})");
    const auto cv = writeFile(server.dir.filePath(u"cv.txt"_s), "Led 40.");
    const auto resume =
        curl({u"-H"_s, u"Authorization: Bearer "_s + owner.accessToken, u"-F"_s,
              u"file=@"_s + cv + u";type=text/plain"_s, server.base() + u"/api/v1/resume/upload"_s})
            .json()[u"id"_s]
            .toString();
    ASSERT_FALSE(job.isEmpty() || resume.isEmpty());
    server.engine.finishAtOnce = true;
    expectRoutes(server, owner, {{"POST", u"/api/v1/chat/answer"_s, R"({"question":"q"})", 200}});
    auto logs = server.db->run(u"SELECT id FROM answer_logs WHERE user_id = ?"_s, {owner.id});
    ASSERT_TRUE(logs.next());
    const auto log = u"/api/v1/chat/log/"_s + logs.value(0).toString();

    // Each probe is the other user's token on the owner's id.
    // clang-format off
    expectRoutes(server, other, {
        {"GET", session, {}, 404},
        {"PUT", session, R"({"status":"completed","sttAudioDurationMs":1})", 404},
        {"POST", session + u"/transcript"_s, R"({"entries":[{"id":"l1","speaker":"user","content":"overwritten","timestampMs":1,"revision":9}]})", 404},
        {"DELETE", u"/api/v1/resume/"_s + resume, {}, 404},
        {"DELETE", u"/api/v1/job-description/"_s + job, {}, 404},
        {"GET", log, {}, 404},
        {"PATCH", log, R"({"answer":"changed"})", 404},
        {"GET", u"/api/v1/interview/session"_s, {}, 200, R"({"sessions":[]})"},
        {"GET", u"/api/v1/resume"_s, {}, 200, R"({"resumes":[]})"},
        {"GET", u"/api/v1/job-description"_s, {}, 200, R"({"jobDescriptions":[]})"}});
    // clang-format on
    // An answer for the other user never sees the owner's documents.
    server.engine.answers.clear();
    const QJsonObject withOwnersDocuments{
        {u"question"_s, u"q"_s}, {u"resumeId"_s, resume}, {u"jobDescriptionId"_s, job}};
    server.call(other, "POST", u"/api/v1/chat/answer"_s, compact(withOwnersDocuments));
    ASSERT_EQ(server.engine.answers.size(), 1u);
    const auto& asked = server.engine.answers[0]->request;
    EXPECT_EQ(asked.resumeText + asked.jobDescriptionText, QString());
    expectRoutes(
        server, owner,
        {{"GET", session, {}, 200, R"({"status":"active","transcript":[{"content":"Secret"}]})"},
         {"GET", log, {}, 200, R"({"question":"q"})"},
         {"GET", u"/api/v1/interview/session"_s, {}, 200, R"({"sessions":[{}]})"}});
}

TEST_F(ServerTest, HostileBodiesGetClearRefusalsAndTheServerKeepsServing)
{
    const auto jobs = u"/api/v1/job-description"_s;
    expectRoutes(
        server, account,
        {
            // Malformed JSON is the JSON routes fuzz target's, which cannot tell bytes that are
            // not UTF-8 from the replacement characters both sides would read them as.
            {"POST", jobs, "{\"title\":\"\xff\xfe\",\"content\":\"x\"}", 400},
            {"POST", jobs, QByteArray(10 * 1024 * 1024, ' ') + "{}", 413},
            {"POST", u"/api/v1/mock-interview/tts"_s,
             compact({{u"text"_s, QString(SpeechSynthesizer::maxTextLength + 1, u'a')}}), 413},
            {"POST", u"/api/v1/mock-interview/questions"_s, R"({"count":21})", 400},
            {"POST", u"/api/v1/mock-interview/avatar/generate"_s, "nope", 400},
        });

    // A body announced at a gigabyte and sent without end: refused once past the limit, with
    // the connection closed, before the server holds more than that.
    QTcpSocket flood;
    flood.connectToHost(QHostAddress::LocalHost, server.port);
    ASSERT_TRUE(waitUntil([&] { return flood.state() == QAbstractSocket::ConnectedState; }));
    flood.write(
        "POST /api/v1/telemetry/events HTTP/1.1\r\nHost: x\r\nContent-Length: 1000000000\r\n\r\n");
    const QByteArray megabyte(1024 * 1024, '0');
    qint64 sent = 0;
    QByteArray answer;
    ASSERT_TRUE(waitUntil(
        [&] {
            answer += flood.readAll();
            if (flood.state() == QAbstractSocket::ConnectedState
                && flood.bytesToWrite() < megabyte.size() && sent < 4 * HttpServer::maxRequestBytes)
                sent += flood.write(megabyte);
            return flood.state() != QAbstractSocket::ConnectedState;
        },
        60'000))
        << "the server never closed the connection";
    EXPECT_TRUE(answer.startsWith("HTTP/1.1 413 ")) << answer.left(80).constData();
    EXPECT_LT(sent, 2 * HttpServer::maxRequestBytes);
    // Still serving; a company is always there.
    expectRoutes(
        server, account,
        {{"POST", jobs, R"({"title":"Engineer","content":"Build"})", 200, R"({"company":""})"}});
}

// A connection that sends half a request, claims an upgrade it does not make, or idles, is
// closed on the server's clock; past the connection caps newcomers get 503.
TEST_F(ServerTest, ConnectionsThatHoldTheServerAreClosedOnTimeAndCapped)
{
    struct Raw {
        std::unique_ptr<QTcpSocket> socket = std::make_unique<QTcpSocket>();
        QByteArray received;
        bool closed()
        {
            received += socket->readAll();
            return socket->state() == QAbstractSocket::UnconnectedState;
        }
    };
    const auto open = [&](const QByteArray& bytes) {
        Raw raw;
        raw.socket->connectToHost(QHostAddress::LocalHost, server.port);
        // A refused connection may be closed again before this sees it connected.
        EXPECT_TRUE(waitUntil([&] {
            return raw.socket->state() == QAbstractSocket::ConnectedState
                   || raw.socket->bytesAvailable() > 0;
        }));
        raw.socket->write(bytes);
        raw.socket->flush();
        // Long enough for the server to read what was sent.
        waitUntil([&] { return raw.closed(); }, 200);
        return raw;
    };
    using namespace std::chrono_literals;
    const QByteArray health = "GET /health HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";

    // An upgrade the parser does not see gets an answer and loses its connection, so that its
    // next request cannot run without the size limit.
    auto fake = open("GET /api/v1/interview/ws HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                     "Upgrade: websocket\r\n\r\n");
    EXPECT_TRUE(waitUntil([&] { return fake.closed(); }, 3'000));
    EXPECT_TRUE(fake.received.startsWith("HTTP/1.1 400 ")) << fake.received.constData();

    // A head must be complete within 10 s, its body within 60 s of the head; an idle
    // connection goes after 60 s.
    const struct {
        const char* what;
        QByteArray sent;
        std::chrono::milliseconds allowed;
        QByteArray answer;
    } slow[] = {
        {"half a head", "GET /health HTTP/1.1\r\nHost: 127.", 10s, "HTTP/1.1 408 "},
        {"half a body",
         "POST /api/v1/telemetry/events HTTP/1.1\r\nHost: 127.0.0.1\r\n"
         "Content-Length: 100\r\n\r\n{\"deviceId\"",
         60s, "HTTP/1.1 408 "},
        {"idle after an answer", health, 60s, "HTTP/1.1 200 "},
    };
    for (const auto& c : slow) {
        auto raw = open(c.sent);
        EXPECT_TRUE(happensExactlyAfter(server.clock, c.allowed, [&] { return raw.closed(); }))
            << c.what;
        EXPECT_TRUE(raw.received.startsWith(c.answer))
            << c.what << ": " << raw.received.constData();
    }

    // Caps per address and in all: the fourth connection gets 503, and a closed one frees its
    // place, cut or answered and closed (behind a proxy every request comes from one address,
    // and a place kept would lock everyone out).
    for (const auto& [perAddress, total] : {std::pair{3, 1024}, {1024, 3}}) {
        auto limits = server.http->limits();
        limits.maxConnectionsPerAddress = perAddress;
        limits.maxConnections = total;
        server.http->setLimits(limits);
        std::vector<Raw> held;
        for (int i = 0; i < 3; ++i)
            held.push_back(open({}));
        auto refused = open(health);
        EXPECT_TRUE(waitUntil([&] { return refused.closed(); }, 3'000));
        EXPECT_TRUE(refused.received.startsWith("HTTP/1.1 503 ")) << refused.received.constData();
        held.front().socket->abort();
        for (int i = 0; i < 4; ++i) {
            waitUntil([] { return false; }, 100); // the server notices the close
            auto answered = open(health);
            EXPECT_TRUE(waitUntil([&] { return answered.received.contains("\"ok\""); }, 3'000))
                << perAddress << " request " << i << ": " << answered.received.constData();
            answered.socket->disconnectFromHost();
        }
        held.clear();
        waitUntil([] { return false; }, 200);
    }
}

// A page whose DNS name was rebound to this server may not read it; addresses always work.
TEST_F(ServerTest, OnlyAllowedHostNamesAreAnswered)
{
    const auto port = QString::number(server.port);
    const std::pair<QString, int> hosts[] = {
        {u"localhost:"_s + port, 200},
        {u"LOCALHOST."_s, 200},
        {u"127.0.0.1:"_s + port, 200},
        {u"[::1]:"_s + port, 200},
        {u"rebound.example:"_s + port, 421},
        {u"localhost.rebound.example"_s, 421},
        {u"[::1"_s, 421},
    };
    for (const auto& [host, status] : hosts)
        EXPECT_EQ(curl({u"-H"_s, u"Host: "_s + host, server.base() + u"/health"_s}).status, status)
            << host.toStdString();
}

TEST_F(ServerTest, AWriteOnACutDatabaseConnectionIsNeverStoredTwice)
{
    if (server.db->driver() != Database::Driver::postgresql)
        GTEST_SKIP() << "a connection to cut from outside needs PostgreSQL";
    const auto jobs = u"/api/v1/job-description"_s;
    // The server's connection is cut from outside, as by a fail-over. (That reads and the
    // transcript go on is the socket test's, which restarts the cluster.) A write that is not safe
    // to repeat may fail once, when it is the first statement on the cut connection, never twice,
    // and is never stored twice.
    server.reopen()->run(u"SELECT pg_terminate_backend(pid) FROM pg_stat_activity "
                         u"WHERE datname = current_database() AND pid <> pg_backend_pid()"_s);
    const auto first = server.call(account, "POST", jobs, R"({"title":"U","content":"x"})");
    ASSERT_TRUE(first.status == 200 || first.status == 500) << first.status;
    EXPECT_EQ(server.call(account, "POST", jobs, R"({"title":"V","content":"x"})").status, 200);
    const auto kept = server.call(account, "GET", jobs).json()[u"jobDescriptions"_s].toArray();
    EXPECT_EQ(kept.size(), first.status == 200 ? 2 : 1);
}

TEST_F(ServerTest, AnswerLinesReachCurlAsTheyAreProducedAndAGoneClientCancelsTheEngine)
{
    QProcess streaming;
    startAnswer(streaming, server, account, R"({"question":"Why this role?"})");
    ASSERT_TRUE(waitUntil([&] { return server.engine.answers.size() == 1; }));
    const auto pending = server.engine.answers[0];
    QByteArray seen;
    pending->onChunk(u"First part."_s);
    // The last chunk is produced only after curl has printed the first one.
    ASSERT_TRUE(waitUntil([&] {
        return (seen += streaming.readAllStandardOutput())
            .contains("data: {\"content\":\"First part.\"}");
    }));
    EXPECT_TRUE(seen.startsWith("data: {\"logId\":\"")) << seen.constData();
    pending->onChunk(u" Second."_s);
    pending->onDone({});
    ASSERT_TRUE(waitUntil([&] { return streaming.state() == QProcess::NotRunning; }));
    seen += streaming.readAllStandardOutput();
    EXPECT_TRUE(seen.endsWith("data: {\"content\":\" Second.\"}\n\ndata: [DONE]\n\n"))
        << seen.constData();

    // An engine failure before any text is a status; a client gone mid-answer cancels the engine.
    QProcess failing, leaving;
    startAnswer(failing, server, account, R"({"question":"q"})", u"-i"_s);
    ASSERT_TRUE(waitUntil([&] { return server.engine.answers.size() == 2; }));
    server.engine.answers[1]->onDone(u"The model server is unreachable"_s);
    ASSERT_TRUE(waitUntil([&] { return failing.state() == QProcess::NotRunning; }));
    const auto output = failing.readAllStandardOutput();
    EXPECT_TRUE(output.startsWith("HTTP/1.1 502")
                && output.contains("The model server is unreachable"))
        << output.constData();
    startAnswer(leaving, server, account, R"({"question":"q"})");
    ASSERT_TRUE(waitUntil([&] { return server.engine.answers.size() == 3; }));
    server.engine.answers[2]->onChunk(u"Partial"_s);
    ASSERT_TRUE(waitUntil([&] { return leaving.readAllStandardOutput().contains("Partial"); }));
    leaving.kill();
    EXPECT_TRUE(waitUntil([&] { return server.engine.answers[2]->cancelled; }));
}

// The page's happy path (create an account, follow the redirect, exchange the code) is the
// whole-product test's, in a real browser; here, what it must refuse.
TEST_F(ServerTest, SignInPageRefusesForgedFormsWrongPasswordsAndRemotePeers)
{
    const auto jar = server.dir.filePath(u"cookies"_s);
    const auto page =
        curl({u"-c"_s, jar, server.base() + u"/auth/login?state=S-1.x&mode=register"_s});
    EXPECT_TRUE(page.status == 200 && page.body.contains("Continue on this computer")
                && page.headers.contains("SameSite=Strict"));
    const auto csrf = csrfOf(page.body);
    ASSERT_FALSE(csrf.isEmpty());
    const auto form =
        u"state=S-1.x&action=register&email=new%40example.org&password=pa55word!&confirm=pa55word!&csrf="_s;
    const QStringList cookie{u"-b"_s, jar};
    // A form posted from another site carries no cookie of ours, or a token it could not read.
    const std::pair<QStringList, int> posts[] = {
        {{form + csrf}, 403},
        {cookie + QStringList{form + u"guess"_s}, 403},
        {cookie + QStringList{u"-H"_s, u"Origin: https://evil.example"_s, form + csrf}, 403},
        {cookie + QStringList{u"-H"_s, u"Origin: null"_s, form + csrf}, 403}, // a sandboxed frame
        {cookie + QStringList{form + csrf}, 303},
    };
    for (const auto& [arguments, status] : posts) {
        auto options = arguments;
        options.insert(options.size() - 1, u"--data"_s);
        EXPECT_EQ(curl(options << server.base() + u"/auth/login"_s).status, status)
            << options.join(u' ').toStdString();
    }
    EXPECT_EQ(curl({server.base() + u"/auth/login?state=%3Cscript%3E"_s}).status, 400);

    // "Continue on this computer" from this process's own user is how the socket test signs in.
    // Refused: remote peers, anything a proxy or forwarder adds, a request whose connection
    // cannot be found, and the switch.
    HttpRequest request;
    request.method = "POST";
    request.path = u"/auth/login"_s;
    request.body = "state=S&action=local&csrf=T";
    struct Case {
        QHostAddress peer;
        HttpHeaders extra;
        bool localSignIn = true;
    };
    std::vector<Case> refused{{QHostAddress(u"192.0.2.10"_s), {}},
                              {QHostAddress(u"::ffff:192.0.2.10"_s), {}},
                              {QHostAddress::LocalHost, {}}, // no connection of ours has its ports
                              {QHostAddress::LocalHostIPv6, {}, false}};
    for (const char* header :
         {"X-Forwarded-For", "x-real-ip", "Via", "Forwarded", "X-Forwarded-Host", "True-Client-IP"})
        refused.push_back({QHostAddress::LocalHost, {{header, "192.0.2.10"}}});
    for (const auto& c : refused) {
        request.peer = c.peer;
        request.headers =
            HttpHeaders{{"Cookie", "ravlet_csrf=T"}, {"Host", "server.example:8787"}} + c.extra;
        LoginPage page(*server.accounts, server.clock, {c.localSignIn, true});
        EXPECT_EQ(awaitTask(page.submit(request)).status, 403)
            << c.peer.toString().toStdString() << ' ' << c.localSignIn << ' '
            << (c.extra.isEmpty() ? "" : c.extra.first().first.constData());
    }

    // The kernel's table for IPv6, which the IPv4 harness never reaches: the server's end and the
    // client end of ::1 port 41394 -> ::1 port 8080, and an IPv4-mapped connection.
    QTemporaryDir proc;
    writeFile(proc.filePath(u"tcp6"_s),
              "  sl  local_address                         remote_address                        "
              "st tx_queue rx_queue tr tm->when retrnsmt   uid  timeout inode\n"
              "   0: 00000000000000000000000001000000:1F90 00000000000000000000000001000000:A1B2 "
              "01 00000000:00000000 00:00000000 00000000     0        0 1 1\n"
              "   1: 00000000000000000000000001000000:A1B2 00000000000000000000000001000000:1F90 "
              "01 00000000:00000000 00:00000000 00000000  1234        0 2 1\n"
              "   2: 0000000000000000FFFF00000100007F:A1B3 0000000000000000FFFF00000100007F:1F90 "
              "01 00000000:00000000 00:00000000 00000000  4321        0 3 1\n");
    const auto owner = [&](const QHostAddress& peer, quint16 peerPort) {
        HttpRequest connection;
        connection.peer = peer;
        connection.peerPort = peerPort;
        connection.localPort = 0x1F90;
        return loopbackConnectionOwner(connection, proc.path()).value_or(~0u);
    };
    EXPECT_EQ(owner(QHostAddress::LocalHostIPv6, 0xA1B2), 1234u);
    EXPECT_EQ(owner(QHostAddress(u"::ffff:127.0.0.1"_s), 0xA1B3), 4321u);
    EXPECT_EQ(owner(QHostAddress::LocalHost, 0xA1B3), 4321u);

    // The same form from another local user of this machine: the connection is theirs.
    if (::geteuid() != 0 || !QFile::exists(u"/usr/bin/setpriv"_s))
        GTEST_SKIP() << "another user's connection needs root and setpriv to be tested";
    {
        QProcess other;
        other.start(u"/usr/bin/setpriv"_s,
                    {u"--reuid=65534"_s, u"--regid=65534"_s, u"--clear-groups"_s, u"curl"_s,
                     u"-s"_s, u"-o"_s, u"/dev/null"_s, u"-w"_s, u"%{http_code}"_s, u"-b"_s,
                     u"ravlet_csrf="_s + csrf, u"--data"_s, u"state=S&action=local&csrf="_s + csrf,
                     server.base() + u"/auth/login"_s});
        ASSERT_TRUE(waitUntil([&] { return other.state() == QProcess::NotRunning; }, 30'000));
        EXPECT_EQ(other.readAllStandardOutput(), "403");
    }
}

// Failed sign-ins are counted per e-mail address and per client address; past either limit
// a guess is refused before it costs a password hash, until the oldest failure is 15 minutes old.
TEST_F(ServerTest, PasswordGuessesAreLimitedPerEmailAndPerAddress)
{
    server.accounts->createAccount(u"victim@example.org"_s, u"correct horse"_s);
    const auto jar = server.dir.filePath(u"guesser"_s);
    const auto csrf = csrfOf(curl({u"-c"_s, jar, server.base() + u"/auth/login?state=S"_s}).body);
    const auto attempt = [&](const QString& email, const QString& password) {
        return curl({u"-b"_s, jar, u"--data"_s,
                     u"state=S&action=signin&email="_s + email + u"&password="_s + password
                         + u"&csrf="_s + csrf,
                     server.base() + u"/auth/login"_s});
    };
    for (int i = 0; i < 10; ++i)
        ASSERT_EQ(attempt(u"victim%40example.org"_s, u"guess"_s + QString::number(i)).status, 401);
    // The right password too: whoever tries now may be the guesser.
    const auto refused = attempt(u"VICTIM%40example.org"_s, u"correct+horse"_s);
    EXPECT_EQ(refused.status, 429);
    EXPECT_TRUE(refused.headers.contains("Retry-After: 900")) << refused.headers.constData();
    EXPECT_EQ(refused.json()[u"error"_s].toString(),
              u"Too many failed sign-ins. Try again in 15 minutes."_s);

    // Other addresses from the same client: their own tries, up to the client's limit.
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(attempt(u"nobody"_s + QString::number(i) + u"%40example.org"_s, u"x"_s).status,
                  401);
    EXPECT_EQ(attempt(u"someone-else%40example.org"_s, u"x"_s).status, 429);

    EXPECT_TRUE(happensExactlyAfter(server.clock, std::chrono::minutes(15), [&] {
        return attempt(u"victim%40example.org"_s, u"correct+horse"_s).status == 303;
    }));

    // One IPv6 holder has a whole /64 to rotate through: it counts as one address.
    SignInLimits limits(server.clock);
    for (int i = 0; i < SignInLimits::failuresPerAddress; ++i)
        limits.recordFailure(u"a"_s + QString::number(i),
                             QHostAddress(u"2001:db8:1:2::"_s + QString::number(i + 1, 16)));
    EXPECT_GT(limits.retryAfterMs(u"new"_s, QHostAddress(u"2001:db8:1:2:ffff::1"_s)), 0);
    EXPECT_EQ(limits.retryAfterMs(u"new"_s, QHostAddress(u"2001:db8:1:3::1"_s)), 0);
    EXPECT_EQ(limits.retryAfterMs(u"new"_s, QHostAddress(u"192.0.2.1"_s)), 0);
}

// Turned off for everyone, telemetry is neither stored nor refused: 204 is the client's signal to
// drop what it holds. (Stored batches and their limits are the quota test's.)
TEST(ServerConfigTest, TelemetryTurnedOffStoresNothingAndTellsClientsToDrop)
{
    ServerConfig config;
    config.telemetryEnabled = false;
    ServerHarness server(config);
    TelemetryStore stored(*server.db);
    // Counted as differences: on PostgreSQL every harness of the run shares one database.
    const auto before = std::pair{stored.eventCount(), stored.crashCount()};
    expectRoutes(server, {},
                 {{"GET", u"/api/v1/telemetry/config"_s, {}, 200, R"({"enabled":false})"},
                  {"POST", u"/api/v1/telemetry/events"_s,
                   R"({"deviceId":"d1","events":[{"name":"a","category":"c"}]})", 204},
                  {"POST", u"/api/v1/telemetry/crash"_s, R"({"deviceId":"d1","n":1})", 204}});
    EXPECT_EQ(std::pair(stored.eventCount(), stored.crashCount()), before);
}

// Limits a script meets and a person does not: each refusal is a 429 whose JSON says which.
TEST(ServerConfigTest, QuotasRefuseWith429AndAMessageOnlyPastTheirLimit)
{
    ServerConfig config;
    config.quotas.answerStreamsAtOnce = 1;
    config.quotas.answersPerMinute = 2;
    config.quotas.speechTokensPerMinute = 2;
    config.quotas.documentsKept = 2;
    config.quotas.documentBytes = 100;
    config.quotas.telemetryPerMinute = 2;
    config.quotas.telemetryRowsKept = 3;
    config.quotas.crashReportsKept = 1;
    ServerHarness server(config);
    const auto account = server.signUp();

    // Answers: one streaming at once, two started a minute.
    const auto answer = u"/api/v1/chat/answer"_s;
    const QByteArray question = R"({"question":"Two?"})";
    QProcess first;
    startAnswer(first, server, account, R"({"question":"One?"})");
    ASSERT_TRUE(waitUntil([&] { return server.engine.answers.size() == 1; }));
    expectRoutes(server, account, {{"POST", answer, question, 429, R"({"error":"~at once"})"}});
    server.engine.answers[0]->onDone({});
    ASSERT_TRUE(waitUntil([&] { return first.state() == QProcess::NotRunning; }));
    server.engine.finishAtOnce = true;
    expectRoutes(server, account,
                 {{"POST", answer, question, 200},
                  {"POST", answer, question, 429, R"({"error":"~per minute"})"}});
    server.clock.advance(std::chrono::minutes(1));
    expectRoutes(server, account, {{"POST", answer, question, 200}});

    // Speech tokens: whatever the first two get, the third is refused.
    for (int i = 0; i < 2; ++i)
        EXPECT_NE(server.call(account, "GET", u"/api/v1/speech/token"_s).status, 429);
    expectRoutes(server, account,
                 {{"GET", u"/api/v1/speech/token"_s, {}, 429, R"({"error":"~speech"})"}});

    // Documents: how many are kept and their total size; another user has quotas of their own.
    const auto jobs = u"/api/v1/job-description"_s;
    const QByteArray forty =
                         R"({"title":"T","content":"0123456789012345678901234567890123456789"})",
                     small = R"({"title":"T","content":"x"})";
    const auto kept = server.call(account, "POST", jobs, forty).json()[u"id"_s].toString();
    expectRoutes(server, account,
                 {{"POST", jobs, R"({"title":"T","content":")" + QByteArray(70, 'x') + "\"}", 429,
                   R"({"error":"~size"})"},
                  {"POST", jobs, forty, 200},
                  {"POST", jobs, small, 429, R"({"error":"~documents"})"},
                  {"DELETE", jobs + u'/' + kept, {}, 204},
                  {"POST", jobs, small, 200}});
    expectRoutes(server, server.signUp(), {{"POST", jobs, forty, 200}});

    // Telemetry: requests per address, and rows kept.
    TelemetryStore stored(*server.db);
    const auto events = u"/api/v1/telemetry/events"_s, crash = u"/api/v1/telemetry/crash"_s;
    const QByteArray two =
        R"({"deviceId":"d1","events":[{"name":"a","category":"c"},{"name":"b","category":"c"}]})";
    expectRoutes(server, {},
                 {{"POST", events, two, 200},
                  {"POST", crash, R"({"deviceId":"d1","n":1})", 200},
                  {"POST", events, two, 429, R"({"error":"~Too many"})"}});
    server.clock.advance(std::chrono::minutes(1));
    expectRoutes(server, {},
                 {{"POST", events, two, 200}, {"POST", crash, R"({"deviceId":"d1","n":2})", 200}});
    EXPECT_EQ(std::pair(stored.eventCount(), stored.crashCount()), std::pair(3, 1));
}

// The newest package by version, not by name, for the kind of install asking (a .deb install is
// offered the .deb). Only the newest can be downloaded, nothing outside the folder ever, and the
// link's origin is --public-url when given. (The built-in origin, the SHA-256, the size and the
// download the program checks before it unpacks are the self-update test's.)
TEST(ServerConfigTest, UpdateCheckOffersTheNewestPackageOfItsKindAndNothingElse)
{
    QTemporaryDir updates, elsewhere;
    for (const auto& [name, bytes] : {std::pair{"RavletAI-0.9.0-linux-x86_64.tar.gz", "old"},
                                      {"RavletAI-0.10.0-linux-x86_64.tar.gz", "newest package"},
                                      {"ravletai_0.10.0_amd64.deb", "system package"},
                                      {"ravletai_0.9.5_amd64.deb", "older"},
                                      {"ravletai-dbgsym_0.11.0_amd64.ddeb", "symbols"}})
        writeFile(updates.filePath(QLatin1String(name)), bytes);
    ServerConfig config;
    config.updatesDir = updates.path();
    config.publicOrigin = u"https://updates.example.org"_s;
    ServerHarness server(config);
    const auto check = [](const char* version, const char* platform = "linux") {
        return u"/download/check-update?v="_s + QLatin1String(version) + u"&platform="_s
               + QLatin1String(platform);
    };
    const QByteArray files = "https://updates.example.org/download/files/";
    const QByteArray newest = R"({"hasUpdate":true,"latest":{"downloadURL":")" + files
                              + R"(RavletAI-0.10.0-linux-x86_64.tar.gz"}})",
                     newestDeb = R"({"latest":{"downloadURL":")" + files
                                 + R"(ravletai_0.10.0_amd64.deb"}})";
    expectRoutes(server, {},
                 {{"GET", check("0.9.5"), {}, 200, newest},
                  {"GET", check("0.9.5", "linux-deb"), {}, 200, newestDeb},
                  {"GET", u"/download/files/RavletAI-0.9.0-linux-x86_64.tar.gz"_s, {}, 404},
                  {"GET", u"/download/files/..%2Fserver.sqlite"_s, {}, 404}});
    const auto deb = curl({server.base() + u"/download/files/ravletai_0.10.0_amd64.deb"_s});
    EXPECT_EQ(QByteArray::number(deb.status) + ' ' + deb.body, "200 system package");
    writeFile(updates.filePath(u"minimum-version"_s), "0.9.9\n");
    // A package that is a link out of the folder is not served.
    ASSERT_TRUE(QFile::link(writeFile(elsewhere.filePath(u"secret"_s), "not for download"),
                            updates.filePath(u"RavletAI-0.12.0-linux-x86_64.tar.gz"_s)));
    expectRoutes(server, {},
                 {{"GET", check("0.9.5"), {}, 200, R"({"forceUpdate":true})"},
                  {"GET", u"/download/files/RavletAI-0.12.0-linux-x86_64.tar.gz"_s, {}, 404}});
}
