#pragma once

#include "AccountService.h"
#include "AnswerEngine.h"
#include "Api.h"
#include "Clock.h"
#include "Database.h"
#include "HttpServer.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>
#include <vector>

// An answer engine driven by the test: each answer waits until the test emits its chunks.
class FakeAnswerEngine final : public ravlet::server::AnswerEngine {
public:
    struct Pending {
        ravlet::server::AnswerRequest request;
        std::function<void(const QString&)> onChunk, onDone;
        bool cancelled = false;
    };

    Handle answer(const ravlet::server::AnswerRequest& request,
                  std::function<void(const QString&)> onChunk,
                  std::function<void(const QString&)> onDone) override;

    std::vector<std::shared_ptr<Pending>> answers;
    // When set, each answer is one chunk "Draft." and a normal end, right after the call.
    bool finishAtOnce = false;
};

struct CurlResult {
    int status = 0;
    QByteArray headers, body;
    // Const, so that a value taken from it by [] is a copy, not a reference into the temporary.
    const QJsonObject json() const { return QJsonDocument::fromJson(body).object(); }
};

inline QByteArray compact(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// Runs curl against the server of this process, turning the event loop while it runs.
CurlResult curl(const QStringList& arguments);
// Writes `bytes` to `path` (made executable when asked) and returns the path.
QString writeFile(const QString& path, const QByteArray& bytes, bool executable = false);

// A whole server in this process, on a port the system picks, on the manual clock. The
// database is a fresh SQLite file, or the PostgreSQL database named by RAVLET_TEST_DATABASE.
class ServerHarness {
public:
    explicit ServerHarness(ServerConfig config = {});
    ~ServerHarness();

    struct Account {
        QString id, email, accessToken, refreshToken;
    };
    // A new account with a unique address, signed in through a code exchange.
    Account signUp();

    QString base() const { return QStringLiteral("http://127.0.0.1:%1").arg(port); }
    // curl with the account's bearer token (if any) and, with a body, the JSON content type.
    CurlResult call(const Account& account, const QByteArray& method, const QString& path,
                    const QByteArray& body = {});
    // A second connection to this server's database, as after a restart.
    std::unique_ptr<Database> reopen() const;

    static const QByteArray signingKey;
    QTemporaryDir dir;
    ManualClock clock;
    std::unique_ptr<Database> db;
    std::unique_ptr<AccountService> accounts;
    FakeAnswerEngine engine;
    std::unique_ptr<Api> api;
    std::unique_ptr<HttpServer> http;
    quint16 port = 0;
};

// One request, the status it must get and, if given, JSON its answer must contain: every name
// of an object with a matching value ("~words": a text containing them), arrays of the same
// length element by element.
struct RouteCase {
    const char* method;
    QString path;
    QByteArray body;
    int status;
    QByteArray json = {};
};
void expectRoutes(ServerHarness& server, const ServerHarness::Account& account,
                  const std::vector<RouteCase>& cases);

// Turns the event loop until `condition` holds or `timeoutMs` passes; returns the condition.
bool waitUntil(const std::function<bool()>& condition, int timeoutMs = 10'000);
