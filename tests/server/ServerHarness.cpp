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
            if (!pending->cancelled) {
                pending->onChunk(u"Draft."_s);
                pending->onDone({});
            }
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
    const auto split = output.indexOf("\r\n\r\n");
    const auto headers = output.left(split);
    return {headers.left(headers.indexOf("\r\n")).split(' ').value(1).toInt(), headers,
            split < 0 ? QByteArray() : output.mid(split + 4)};
}

QString writeFile(const QString& path, const QByteArray& bytes, bool executable)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size())
        << "cannot write " << path.toStdString();
    file.close();
    EXPECT_TRUE(!executable || file.setPermissions(file.permissions() | QFileDevice::ExeOwner));
    return path;
}

ServerHarness::ServerHarness(ServerConfig config)
    : clock(wallClockMs())
{
    db = reopen();
    accounts = std::make_unique<AccountService>(*db, clock, signingKey);
    api = std::make_unique<Api>(*db, *accounts, clock, std::move(config), &engine);
    http = std::make_unique<HttpServer>(clock);
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
    const auto user =
        std::get<UserRecord>(accounts->createAccount(email, u"correct horse battery"_s));
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
    const auto object = actual.toObject(), wanted = expected.toObject();
    const auto array = actual.toArray(), wantedArray = expected.toArray();
    const auto keys = wanted.keys();
    if (expected.isObject())
        return actual.isObject() && std::all_of(keys.begin(), keys.end(), [&](const QString& key) {
                   return object.contains(key) && containsJson(object[key], wanted[key]);
               });
    if (expected.isArray())
        return actual.isArray() && array.size() == wantedArray.size()
               && std::equal(wantedArray.begin(), wantedArray.end(), array.begin(),
                             [](const auto& w, const auto& a) { return containsJson(a, w); });
    // "~words": a text that contains them.
    const auto wantedText = expected.toString();
    if (wantedText.startsWith(u'~'))
        return actual.toString().contains(wantedText.mid(1));
    return actual == expected;
}

} // namespace

void expectRoutes(ServerHarness& server, const ServerHarness::Account& account,
                  const std::vector<RouteCase>& cases)
{
    for (const auto& c : cases) {
        const auto result = server.call(account, c.method, c.path, c.body);
        const auto what =
            c.method + (' ' + c.path.toStdString()) + ' ' + c.body.left(40).toStdString();
        EXPECT_EQ(result.status, c.status) << what;
        if (!c.json.isEmpty()) {
            EXPECT_TRUE(containsJson(result.json(), QJsonDocument::fromJson(c.json).object()))
                << what << " answered " << result.body.left(300).toStdString();
        }
    }
}
