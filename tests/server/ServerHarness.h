#pragma once

#include "AccountService.h"
#include "AnswerEngine.h"
#include "Api.h"
#include "Clock.h"
#include "Database.h"
#include "HttpServer.h"

#include <QByteArray>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>
#include <optional>
#include <vector>

// An answer engine driven by the test: each answer waits until the test emits its chunks.
class FakeAnswerEngine final : public ravlet::server::AnswerEngine {
public:
    struct Pending {
        ravlet::server::AnswerRequest request;
        std::function<void(const QString&)> onChunk;
        std::function<void(const QString&)> onDone;
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
    QByteArray headers;
    QByteArray body;
};

// Runs curl against the server of this process, turning the event loop while it runs.
CurlResult curl(const QStringList& arguments);

// A whole server in this process, on a port the system picks, on the manual clock. The
// database is a fresh SQLite file, or the PostgreSQL database named by RAVLET_TEST_DATABASE.
class ServerHarness {
public:
    // `answerEngine`, if given, answers in place of the test-driven `engine` and must outlive the
    // harness.
    explicit ServerHarness(ServerConfig config = {},
                           ravlet::server::AnswerEngine* answerEngine = nullptr);
    ~ServerHarness();

    struct Account {
        QString id;
        QString email;
        QString accessToken;
        QString refreshToken;
    };
    // A new account with a unique address, signed in through a code exchange.
    Account signUp();

    QString base() const { return QStringLiteral("http://127.0.0.1:%1").arg(port); }
    // curl with the account's bearer token and the JSON content type.
    CurlResult call(const Account& account, const QString& method, const QString& path,
                    const QByteArray& body = {});

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

// Turns the event loop until `condition` holds or `timeoutMs` passes; returns the condition.
bool waitUntil(const std::function<bool()>& condition, int timeoutMs = 10'000);
