#include "CrashReporter.h"
#include "AwaitTask.h"
#include "Clock.h"
#include "FakeBackend.h"
#include "Helpers.h"
#include "PreferencesStore.h"
#include "QtPrinters.h"
#include "TelemetryClient.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>

using namespace Qt::StringLiterals;

class CrashReporterTest : public ::testing::Test {
protected:
    // Starts the next launch's reporter and waits for its upload; returns the bodies sent.
    QList<QByteArray> nextLaunch(TelemetryClient* client)
    {
        const auto before = server.requestCount("POST", "/api/v1/telemetry/crash");
        CrashReporter next(reportPath);
        next.install(client, [] { return u"idle"_s; });
        awaitTask(
            [](TaskHandle task) -> QCoro::Task<> { co_await task.finished(); }(next.uploadTask()),
            30'000);
        QList<QByteArray> bodies;
        for (const auto& request : server.requests("POST", "/api/v1/telemetry/crash").mid(before))
            bodies.append(request.body);
        return bodies;
    }

    // What the upload carries from the file: exceptionType, exceptionMessage, stackTrace,
    // lastState.
    static QStringList carried(const QByteArray& json)
    {
        const auto object = QJsonDocument::fromJson(json).object();
        QStringList values;
        for (const auto& key :
             {u"exceptionType"_s, u"exceptionMessage"_s, u"stackTrace"_s, u"lastState"_s})
            values.append(object.value(key).toString());
        return values;
    }

    QTemporaryDir dir;
    const QString reportPath = dir.filePath(u"Ravlet/pending_crash.json"_s);
    FakeBackend server;
    PreferencesStore preferences;
    ManualClock clock; // far from the crash's moment, which the child takes from the system
    TelemetryClient telemetry{server.origin(), preferences, clock};
};

// A crashing child leaves one whole report, which the next launch sends once and deletes.
TEST_F(CrashReporterTest, ACrashLeavesOneReportThatTheNextLaunchSendsOnce)
{
    const auto signalled = [](int signal) {
        return QStringList{u"Signal(%1)"_s.arg(signal),
                           u"Process received signal %1"_s.arg(signal)};
    };
    // mode, signal, exception type and message, whether the stack fills the limit
    const std::tuple<const char*, int, QStringList, bool> crashes[] = {
        {"segv", SIGSEGV, signalled(SIGSEGV), false},
        {"abort", SIGABRT, signalled(SIGABRT), false},
        // The exception's report must survive the abort() that follows it. (How a reason is cut
        // and escaped is the fuzz target's.)
        {"throw", SIGABRT, {u"std::runtime_error"_s, u"no room left"_s}, false},
        {"throw-int", SIGABRT, {u"int"_s, QString()}, false},
        // Reported from the alternate signal stack, with the stack cut at its limit.
        {"overflow", SIGSEGV, signalled(SIGSEGV), true},
    };
    server.setRoute("POST", "/api/v1/telemetry/crash", FakeBackend::Response::json(200, "{}"));
    // Under AddressSanitizer the child's own handlers must see the signals.
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert(
        u"ASAN_OPTIONS"_s,
        environment.value(u"ASAN_OPTIONS"_s)
            + u":handle_segv=0:handle_sigbus=0:handle_sigfpe=0:handle_abort=0:handle_sigill=0"_s);
    for (const auto& [mode, signal, exception, fillsTheLimit] : crashes) {
        SCOPED_TRACE(mode);
        QProcess child;
        child.setProcessEnvironment(environment);
        const qint64 started = wallClockMs();
        child.start(QStringLiteral(CRASH_CHILD), {QString::fromLatin1(mode), reportPath});
        ASSERT_TRUE(child.waitForFinished(30'000));
        const qint64 ended = wallClockMs();
        EXPECT_EQ(child.exitStatus(), QProcess::CrashExit);
        EXPECT_EQ(child.exitCode(), signal) << child.readAllStandardError().toStdString();

        // Written whole and renamed into place: no temporary file is left beside it.
        EXPECT_EQ(QDir(QFileInfo(reportPath).absolutePath()).entryList(QDir::Files),
                  QStringList{u"pending_crash.json"_s});
        QFile file(reportPath);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        const auto bytes = file.readAll();
        const auto report = QJsonDocument::fromJson(bytes).object();
        const auto values = carried(bytes);
        EXPECT_EQ(values, (exception + QStringList{values[2], u"unknown"_s}));
        const auto& stack = values[2];
        // A frame names its object by file name: an install under a home folder names no person.
        EXPECT_TRUE(stack.contains(u"crash_child("_s) && !stack.contains(u'/'))
            << stack.toStdString();
        EXPECT_GT(stack.count(u'\n'), 2);
        EXPECT_FALSE(stack.endsWith(u'\n'));
        EXPECT_TRUE(!fillsTheLimit || stack.size() == CrashReporter::maxStackLength)
            << stack.size();
        const auto crashedAt =
            parseIso8601(report.value(u"clientTs"_s).toString(), Iso8601::withFractionalSeconds);
        ASSERT_TRUE(crashedAt);
        EXPECT_TRUE(crashedAt->toMSecsSinceEpoch() >= started
                    && crashedAt->toMSecsSinceEpoch() <= ended);

        const auto sent = nextLaunch(&telemetry);
        ASSERT_EQ(sent.size(), 1);
        EXPECT_EQ(carried(sent[0]), values);
        const auto body = QJsonDocument::fromJson(sent[0]).object();
        EXPECT_EQ(body.value(u"deviceId"_s).toString(), telemetry.deviceId());
        // The moment of the upload, not the crash's.
        EXPECT_EQ(body.value(u"clientTs"_s).toString(),
                  formatIso8601(clock.nowMs(), Iso8601::withFractionalSeconds));
        EXPECT_FALSE(QFile::exists(reportPath));
    }
}

// Whatever the file held and however the upload went, the next launch deletes it and sends it at
// most once. (What the reader makes of any bytes is the fuzz target's.)
TEST_F(CrashReporterTest, APendingFileIsSentAtMostOnceAndDeleted)
{
    const QByteArray whole =
        R"json({"exceptionType":"Signal(6)","exceptionMessage":"m","stackTrace":"s",
                                 "lastState":"unknown","clientTs":"2026-01-02T03:04:05.678Z"})json";
    const QStringList wholeSent{u"Signal(6)"_s, u"m"_s, u"s"_s, u"unknown"_s}, nothing;
    // contents, with telemetry, opted out, upload status, what is sent
    const std::tuple<const char*, QByteArray, bool, bool, int, QStringList> rows[] = {
        {"InvalidJson", R"json({"exceptionType":"Signal(11)")json", true, false, 200, nothing},
        {"NoTelemetry", whole, false, false, 200, nothing},
        {"OptedOut", whole, true, true, 200, nothing},
        {"UploadFails", whole, true, false, 500, wholeSent},
    };
    ASSERT_TRUE(QDir().mkpath(QFileInfo(reportPath).absolutePath()));
    for (const auto& [name, contents, withTelemetry, optedOut, status, expected] : rows) {
        SCOPED_TRACE(name);
        server.setRoute("POST", "/api/v1/telemetry/crash",
                        FakeBackend::Response::json(status, "{}"));
        preferences.setBool(u"sendAnonymousTelemetry"_s, !optedOut);
        QFile file(reportPath);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size());
        file.close();
        const auto sent = nextLaunch(withTelemetry ? &telemetry : nullptr);
        ASSERT_EQ(sent.size(), expected.isEmpty() ? 0 : 1);
        EXPECT_EQ(sent.isEmpty() ? QStringList() : carried(sent[0]), expected);
        EXPECT_FALSE(QFile::exists(reportPath));
    }
}

// The handler's own date arithmetic against Qt's, over every day from 1970 to 2100 at drifting
// times of day, plus the far ends of the format.
TEST(CrashTimestampTest, MatchesTheIsoFormatter)
{
    const auto agrees = [](qint64 ms) {
        char text[CrashReporter::timestampLength];
        CrashReporter::formatTimestamp(ms / 1000, ms % 1000 * 1'000'000 + 999'999, text);
        return QString::fromLatin1(text, sizeof text)
               == formatIso8601(ms, Iso8601::withFractionalSeconds);
    };
    qint64 ms = 0;
    while (ms < 4'102'444'800'000 && agrees(ms))
        ms += 86'400'000 + 3'723'457;
    EXPECT_GE(ms, 4'102'444'800'000) << "first wrong at " << ms;
    EXPECT_TRUE(agrees(951'782'400'000));     // 2000-02-29, a leap day of a century year
    EXPECT_TRUE(agrees(253'402'300'799'999)); // 9999-12-31T23:59:59.999Z
}
