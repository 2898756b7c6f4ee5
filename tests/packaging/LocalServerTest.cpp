// What the installed pair of programs (local_server_test.py) cannot show: which origins the
// program serves itself, and how long it waits for a server that never answers.

#include "LocalServer.h"
#include "AwaitTask.h"
#include "Clock.h"
#include "QtPrinters.h"

#include <QFile>
#include <QNetworkAccessManager>
#include <QTemporaryDir>
#include <QTimer>

#include <gtest/gtest.h>

TEST(LocalServerTest, ServesOnlyPlainHttpOnALoopbackAddress)
{
    // The origin, then the server's --listen for it; none where the server is not ours to start.
    // (Another computer's address is the installed layout's, end to end.)
    const std::pair<QStringView, QStringView> rows[] = {
        {u"http://127.0.0.1:8787", u"127.0.0.1:8787"},
        {u"http://127.3.4.5", u"127.3.4.5:80"},
        {u"http://[::1]:8787", u"[::1]:8787"},
        {u"http://LocalHost:8787", u"127.0.0.1:8787"},
        {u"http://ravlet.example.org", {}},
        {u"https://127.0.0.1", {}}};
    for (const auto& [url, listen] : rows)
        EXPECT_EQ(LocalServer::listenAddressFor(QUrl(url.toString())).value_or(QString()),
                  listen.toString());
}

TEST(LocalServerTest, GivesUpOnASilentServerAtTheLimitAndNotBefore)
{
    QTemporaryDir bin;
    QFile::link(QStringLiteral(STAND_IN_SERVER), bin.filePath(LocalServer::programName));
    ManualClock clock(0);
    QNetworkAccessManager network;
    // Port 0: nothing can listen there.
    LocalServer server(QUrl(QStringLiteral("http://127.0.0.1:0")), bin.path(), clock, network);
    // The probes are real requests; only the pauses between them pass on the clock, at once.
    QTimer pauses;
    pauses.callOnTimeout([&clock] { clock.advanceToNextTimer(); });
    pauses.start(1);
    EXPECT_FALSE(awaitTask(server.ensureRunning(), 10'000));
    EXPECT_GE(clock.nowMs(), LocalServer::readyTimeoutMs);
    EXPECT_LE(clock.nowMs(), LocalServer::readyTimeoutMs + LocalServer::probeIntervalMs);
}
