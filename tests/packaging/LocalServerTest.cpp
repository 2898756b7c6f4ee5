// LocalServer: which origins it may serve, and what it does with the program beside it, here a
// small script that records its start. The real pair of programs runs in local_server_test.py.

#include "LocalServer.h"

#include "Clock.h"
#include "FakeBackend.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QNetworkAccessManager>
#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

#include <csignal>
#include <ostream>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

struct OriginCase {
    const char* origin;
    const char* listen; // nullptr: not ours to start
};

// The origin names the case in test listings.
void PrintTo(const OriginCase& row, std::ostream* out)
{
    *out << '"' << row.origin << '"';
}

class LocalServerOriginTest : public ::testing::TestWithParam<OriginCase> {};

TEST_P(LocalServerOriginTest, ListensWhereTheOriginPoints)
{
    const auto& row = GetParam();
    const auto listen = LocalServer::listenAddressFor(QUrl(QString::fromLatin1(row.origin)));
    if (row.listen)
        EXPECT_EQ(listen, std::optional(QString::fromLatin1(row.listen)));
    else
        EXPECT_EQ(listen, std::nullopt);
}

INSTANTIATE_TEST_SUITE_P(Origins, LocalServerOriginTest,
                         ::testing::Values(OriginCase{"http://127.0.0.1:8787", "127.0.0.1:8787"},
                                           OriginCase{"http://127.0.0.2:9000", "127.0.0.2:9000"},
                                           OriginCase{"http://localhost:8787", "127.0.0.1:8787"},
                                           OriginCase{"http://LOCALHOST:8787", "127.0.0.1:8787"},
                                           OriginCase{"http://[::1]:8787", "[::1]:8787"},
                                           OriginCase{"http://127.0.0.1", "127.0.0.1:80"},
                                           // A TLS proxy in front is not ours to start.
                                           OriginCase{"https://127.0.0.1:8787", nullptr},
                                           OriginCase{"http://192.0.2.1:8787", nullptr},
                                           OriginCase{"http://localhost.example.org:8787", nullptr},
                                           OriginCase{"http://0.0.0.0:8787", nullptr},
                                           OriginCase{"", nullptr}));

// A free loopback port with nothing on it.
int freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

class LocalServerTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(folder.isValid()); }

    // A "ravlet-server" beside the program that writes its PID and arguments, then runs `body`.
    void placeServer(const QByteArray& body)
    {
        QFile script(folder.filePath(LocalServer::programName));
        ASSERT_TRUE(script.open(QIODevice::WriteOnly));
        script.write("#!/bin/sh\necho \"$$ $*\" >\"" + startedPath().toUtf8() + "\"\n" + body + "\n");
        script.close();
        script.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    QString startedPath() const { return folder.filePath(u"started"_s); }

    // The recorded start, "PID arguments…", once the script has written it.
    QString started() const
    {
        QFile file(startedPath());
        if (!file.open(QIODevice::ReadOnly))
            return {};
        return QString::fromUtf8(file.readAll()).trimmed();
    }

    // Runs ensureRunning to its end, advancing the manual clock while it waits, and returns its
    // result with the virtual time that passed.
    std::pair<bool, qint64> run(LocalServer& server)
    {
        std::optional<bool> result;
        auto task = [](LocalServer* server, std::optional<bool>* result) -> QCoro::Task<> {
            *result = co_await server->ensureRunning();
        }(&server, &result);
        const qint64 start = clock.nowMs();
        const qint64 limit = start + 2 * LocalServer::readyTimeoutMs;
        while (!result && clock.nowMs() < limit) {
            // Lets the probe's connection and the process's signals arrive, in real time.
            QTest::qWait(5);
            if (!result)
                clock.advance(50ms);
        }
        EXPECT_TRUE(result.has_value()) << "ensureRunning did not finish";
        return {result.value_or(false), clock.nowMs() - start};
    }

    static bool alive(qint64 pid) { return pid > 0 && ::kill(pid_t(pid), 0) == 0; }

    QTemporaryDir folder;
    ManualClock clock;
    QNetworkAccessManager network;
};

TEST_F(LocalServerTest, StartsNothingWhereSomethingAnswersOrTheOriginIsElsewhere)
{
    placeServer("exec sleep 30");
    FakeBackend answering; // answers every path, /health with 404: the port is taken either way
    for (const auto& origin : {answering.origin(), u"http://192.0.2.1:8787"_s}) {
        LocalServer server(QUrl(origin), folder.path(), clock, network);
        EXPECT_EQ(run(server).first, origin == answering.origin()) << origin.toStdString();
        EXPECT_FALSE(server.isRunning());
        EXPECT_EQ(started(), QString()) << origin.toStdString();
    }
    // A program with no server beside it (in its build folder) starts nothing either.
    LocalServer alone(QUrl(u"http://127.0.0.1:"_s + QString::number(freePort())),
                      folder.filePath(u"elsewhere"_s), clock, network);
    EXPECT_FALSE(run(alone).first);
    EXPECT_FALSE(alone.isRunning());
}

TEST_F(LocalServerTest, AServerThatNeverAnswersIsWaitedForBoundedlyAndStoppedWithTheProgram)
{
    placeServer("exec sleep 30");
    const int port = freePort();
    qint64 pid = 0;
    {
        LocalServer server(QUrl(u"http://127.0.0.1:"_s + QString::number(port)), folder.path(), clock,
                           network);
        const auto [answered, waited] = run(server);
        EXPECT_FALSE(answered);
        EXPECT_GE(waited, LocalServer::readyTimeoutMs);
        EXPECT_LT(waited, LocalServer::readyTimeoutMs + 1000);
        const auto record = started().split(u' ');
        ASSERT_EQ(record.size(), 3) << started().toStdString();
        EXPECT_EQ(record[1], u"--listen"_s);
        EXPECT_EQ(record[2], u"127.0.0.1:"_s + QString::number(port));
        pid = record[0].toLongLong();
        EXPECT_TRUE(server.isRunning());
        EXPECT_TRUE(alive(pid));
    }
    EXPECT_FALSE(alive(pid)) << "the server outlived its LocalServer";
}

TEST_F(LocalServerTest, AServerThatEndsAtStartIsNotWaitedFor)
{
    placeServer("exit 1");
    LocalServer server(QUrl(u"http://localhost:"_s + QString::number(freePort())), folder.path(), clock,
                       network);
    const auto [answered, waited] = run(server);
    EXPECT_FALSE(answered);
    EXPECT_LT(waited, 2000);
    EXPECT_NE(started(), QString());
}

} // namespace
