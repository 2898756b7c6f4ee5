#include "ServerHarness.h"

#include "Helpers.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QFile>
#include <QJsonArray>
#include <QProcess>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

const QByteArray ServerHarness::signingKey = QByteArray(32, 'k');

FakeAnswerEngine::Handle FakeAnswerEngine::answer(const ravlet::server::AnswerRequest& request,
                                                  std::function<void(const QString&)> onChunk,
                                                  std::function<void(const QString&)> onDone)
{
    auto pending =
        std::make_shared<Pending>(Pending{request, std::move(onChunk), std::move(onDone)});
    answers.push_back(pending);
    if (finishAtOnce) {
        QTimer::singleShot(0, [pending] {
            if (pending->cancelled)
                return;
            pending->onChunk(u"Draft."_s);
            pending->onDone({});
        });
    }
    return {[pending] { pending->cancelled = true; }};
}

bool waitUntil(const std::function<bool()>& condition, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(1);
    }
    return true;
}

CurlResult curl(const QStringList& arguments)
{
    QProcess process;
    // "Expect:" off: curl would otherwise wait a second for a 100-continue on large bodies.
    process.start(u"curl"_s, QStringList{u"-s"_s, u"-i"_s, u"-H"_s, u"Expect:"_s} + arguments);
    waitUntil([&] { return process.state() == QProcess::NotRunning; }, 30'000);
    const auto output = process.readAllStandardOutput();
    CurlResult result;
    const auto split = output.indexOf("\r\n\r\n");
    result.headers = output.left(split);
    result.body = split < 0 ? QByteArray() : output.mid(split + 4);
    const auto statusLine = result.headers.left(result.headers.indexOf("\r\n"));
    result.status = statusLine.split(' ').value(1).toInt();
    return result;
}

QString writeFile(const QString& path, const QByteArray& bytes, bool executable)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        ADD_FAILURE() << "cannot write " << path.toStdString();
    file.close();
    if (executable)
        file.setPermissions(file.permissions() | QFileDevice::ExeOwner);
    return path;
}

ServerHarness::ServerHarness(ServerConfig config, ravlet::server::AnswerEngine* answerEngine)
    : clock(wallClockMs())
{
    db = reopen();
    accounts = std::make_unique<AccountService>(*db, clock, signingKey);
    api = std::make_unique<Api>(*db, *accounts, clock, std::move(config),
                                answerEngine ? answerEngine : &engine);
    http = std::make_unique<HttpServer>();
    api->attach(*http);
    port = http->listen(QHostAddress::LocalHost, 0).value_or(0);
}

ServerHarness::~ServerHarness() = default;

std::unique_ptr<Database> ServerHarness::reopen() const
{
    const auto url = qEnvironmentVariable("RAVLET_TEST_DATABASE");
    return Database::open(url.isEmpty() ? dir.filePath(u"server.sqlite"_s) : url);
}

ServerHarness::Account ServerHarness::signUp()
{
    const auto email = u"user-"_s + uuidLower() + u"@example.org"_s;
    const auto created = accounts->createAccount(email, u"correct horse battery"_s);
    const auto& user = std::get<UserRecord>(created);
    const auto pair = accounts->exchange(accounts->issueCode(user.id));
    return {user.id, email, pair->accessToken, pair->refreshToken};
}

CurlResult ServerHarness::call(const Account& account, const QByteArray& method,
                               const QString& path, const QByteArray& body)
{
    QStringList arguments{u"-X"_s, QString::fromLatin1(method)};
    if (!account.accessToken.isEmpty())
        arguments << u"-H"_s << u"Authorization: Bearer "_s + account.accessToken;
    if (!body.isNull()) {
        // Through a file: a command-line argument cannot hold 10 MB or bytes that are not text.
        const auto file = writeFile(dir.filePath(u"body-"_s + uuidLower()), body);
        arguments << u"-H"_s << u"Content-Type: application/json"_s << u"--data-binary"_s
                  << u"@"_s + file;
    }
    return curl(arguments << base() + path);
}

namespace {

bool containsJson(const QJsonValue& actual, const QJsonValue& expected)
{
    if (expected.isObject()) {
        const auto object = actual.toObject();
        const auto wanted = expected.toObject();
        for (auto it = wanted.begin(); it != wanted.end(); ++it) {
            if (!object.contains(it.key()) || !containsJson(object[it.key()], it.value()))
                return false;
        }
        return actual.isObject();
    }
    if (expected.isArray()) {
        const auto array = actual.toArray();
        const auto wanted = expected.toArray();
        for (qsizetype i = 0; i < wanted.size(); ++i) {
            if (!containsJson(array.at(i), wanted.at(i)))
                return false;
        }
        return actual.isArray() && array.size() == wanted.size();
    }
    return actual == expected;
}

} // namespace

void expectRoutes(ServerHarness& server, const ServerHarness::Account& account,
                  const std::vector<RouteCase>& cases)
{
    for (const auto& c : cases) {
        const auto result = server.call(account, c.method, c.path, c.body);
        const auto what = c.method + (' ' + c.path.toStdString()) + ' ' + c.body.left(40).toStdString();
        EXPECT_EQ(result.status, c.status) << what;
        if (!c.json.isEmpty()) {
            EXPECT_TRUE(containsJson(result.json(), QJsonDocument::fromJson(c.json).object()))
                << what << " answered " << result.body.left(300).toStdString();
        }
    }
}
