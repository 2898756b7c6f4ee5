#include "QtPrinters.h"
#include "AwaitTask.h"
#include "Clock.h"
#include "CrashChild.h"
#include "CrashReporter.h"
#include "FakeBackend.h"
#include "Helpers.h"
#include "PreferencesStore.h"
#include "TelemetryClient.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>
#include <optional>

using namespace Qt::StringLiterals;

namespace {
const QByteArray crashRoute = "/api/v1/telemetry/crash";
const QStringList sentFromFile{u"exceptionType"_s, u"exceptionMessage"_s, u"stackTrace"_s, u"lastState"_s};

QCoro::Task<> finished(TaskHandle task)
{
    co_await task.finished();
}
} // namespace

class CrashReporterTest : public ::testing::Test {
protected:
    QTemporaryDir dir;
    const QString reportPath = dir.filePath(u"Ravlet/pending_crash.json"_s);
    FakeBackend server;
    PreferencesStore preferences;
    ManualClock clock; // far from the crash's moment, which the child takes from the system
    TelemetryClient telemetry{server.origin(), preferences, clock};
    CrashReporter reporter{reportPath};
};

struct ChildCrash {
    const char* name;
    const char* mode;
    int signal;
    QString exceptionType;
    QString exceptionMessage;
    bool stackFillsTheLimit;
};

class ChildCrashTest : public CrashReporterTest, public ::testing::WithParamInterface<ChildCrash> {};

TEST_P(ChildCrashTest, LeavesOneReportThatTheNextLaunchSendsOnce)
{
    const auto& crash = GetParam();
    server.setRoute("POST", crashRoute, FakeBackend::Response::json(200, "{}"));
    QProcess child;
    // Under AddressSanitizer the child's own handlers must see the signals.
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert(u"ASAN_OPTIONS"_s, environment.value(u"ASAN_OPTIONS"_s)
                                              + u":handle_segv=0:handle_sigbus=0:handle_sigfpe=0"
                                                u":handle_abort=0:handle_sigill=0"_s);
    child.setProcessEnvironment(environment);
    const qint64 started = wallClockMs();
    child.start(QStringLiteral(CRASH_CHILD), {QString::fromLatin1(crash.mode), reportPath});
    ASSERT_TRUE(child.waitForFinished(30'000));
    const qint64 ended = wallClockMs();
    EXPECT_EQ(child.exitStatus(), QProcess::CrashExit);
    EXPECT_EQ(child.exitCode(), crash.signal) << child.readAllStandardError().toStdString();

    // Written whole and renamed into place: no temporary file is left beside it.
    EXPECT_EQ(QDir(QFileInfo(reportPath).absolutePath()).entryList(QDir::Files), QStringList{u"pending_crash.json"_s});
    QFile file(reportPath);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const auto report = QJsonDocument::fromJson(file.readAll()).object();
    EXPECT_EQ(report.keys(), (QStringList{u"clientTs"_s, u"exceptionMessage"_s, u"exceptionType"_s, u"lastState"_s,
                                          u"stackTrace"_s}));
    EXPECT_EQ(report.value(u"exceptionType"_s).toString(), crash.exceptionType);
    EXPECT_EQ(report.value(u"exceptionMessage"_s).toString(), crash.exceptionMessage);
    EXPECT_EQ(report.value(u"lastState"_s).toString(), u"unknown"_s);

    const auto stack = report.value(u"stackTrace"_s).toString();
    EXPECT_TRUE(stack.contains(u"crash_child("_s)) << stack.toStdString();
    // A frame names its object by file name: an install under a home folder names no person.
    EXPECT_FALSE(stack.contains(u'/')) << stack.toStdString();
    EXPECT_GT(stack.count(u'\n'), 2);
    EXPECT_FALSE(stack.endsWith(u'\n'));
    if (crash.stackFillsTheLimit) {
        EXPECT_EQ(stack.size(), CrashReporter::maxStackLength);
    }

    const auto crashTs = report.value(u"clientTs"_s).toString();
    const auto crashedAt = parseIso8601(crashTs, Iso8601::withFractionalSeconds);
    ASSERT_TRUE(crashedAt) << crashTs.toStdString();
    EXPECT_GE(crashedAt->toMSecsSinceEpoch(), started);
    EXPECT_LE(crashedAt->toMSecsSinceEpoch(), ended);

    // The next launch.
    reporter.install(&telemetry, [] { return u"idle"_s; });
    awaitTask(finished(reporter.uploadTask()), 30'000);
    ASSERT_EQ(server.requestCount("POST", crashRoute), 1);
    const auto sent = QJsonDocument::fromJson(server.requests("POST", crashRoute).first().body).object();
    for (const auto& key : sentFromFile)
        EXPECT_EQ(sent.value(key), report.value(key)) << key.toStdString();
    EXPECT_EQ(sent.value(u"deviceId"_s).toString(), telemetry.deviceId());
    // The moment of the upload, not the crash's.
    EXPECT_EQ(sent.value(u"clientTs"_s).toString(), formatIso8601(clock.nowMs(), Iso8601::withFractionalSeconds));
    EXPECT_FALSE(QFile::exists(reportPath));
}

ChildCrash signalCrash(const char* name, const char* mode, int signal, bool fillsTheLimit = false)
{
    const auto number = QString::number(signal);
    return {name, mode, signal, u"Signal("_s + number + u')', u"Process received signal "_s + number, fillsTheLimit};
}

INSTANTIATE_TEST_SUITE_P(
    CrashReporterTest, ChildCrashTest,
    ::testing::Values(
        signalCrash("NullPointer", "segv", SIGSEGV), signalCrash("Abort", "abort", SIGABRT),
        // The exception's report must survive the abort() that follows it. Its reason is cut to
        // the limit without splitting a character, and a byte that is not UTF-8 becomes U+FFFD.
        ChildCrash{"RuntimeError", "throw", SIGABRT, u"std::runtime_error"_s,
                   QString::fromUtf8(CrashChild::longReason()).first(512), false},
        ChildCrash{"NotAStdException", "throw-int", SIGABRT, u"int"_s, QString(), false},
        // Reported from the alternate signal stack, with the stack cut at its limit.
        signalCrash("StackOverflow", "overflow", SIGSEGV, true)),
    ::testing::PrintToStringParamName());

// Whatever the file held and however the upload went, the next launch deletes it and sends it at
// most once. (What the reader makes of any bytes is the fuzz target's.)
TEST_F(CrashReporterTest, APendingFileIsSentAtMostOnceAndDeleted)
{
    const QByteArray whole = R"json({"exceptionType":"Signal(6)","exceptionMessage":"m","stackTrace":"s",
                                 "lastState":"unknown","clientTs":"2026-01-02T03:04:05.678Z"})json";
    const QStringList wholeSent{u"Signal(6)"_s, u"m"_s, u"s"_s, u"unknown"_s};
    const struct {
        const char* name;
        QByteArray contents;
        bool withTelemetry, optedOut;
        int status;
        std::optional<QStringList> sent; // exceptionType, exceptionMessage, stackTrace, lastState
    } rows[] = {
        {"InvalidJson", R"json({"exceptionType":"Signal(11)")json", true, false, 200, std::nullopt},
        {"NoTelemetry", whole, false, false, 200, std::nullopt},
        {"OptedOut", whole, true, true, 200, std::nullopt},
        {"MissingKeys", R"({"stackTrace":"frame"})", true, false, 200,
         QStringList{u"unknown"_s, QString(), u"frame"_s, u"unknown"_s}},
        {"UploadFails", whole, true, false, 500, wholeSent},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        FakeBackend fresh;
        fresh.setRoute("POST", crashRoute, FakeBackend::Response::json(row.status, "{}"));
        PreferencesStore preferences;
        preferences.setBool(u"sendAnonymousTelemetry"_s, !row.optedOut);
        TelemetryClient client(fresh.origin(), preferences, clock);
        ASSERT_TRUE(QDir().mkpath(QFileInfo(reportPath).absolutePath()));
        QFile file(reportPath);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(row.contents);
        file.close();

        CrashReporter next(reportPath);
        next.install(row.withTelemetry ? &client : nullptr, [] { return u"idle"_s; });
        awaitTask(finished(next.uploadTask()), 30'000);
        const auto requests = fresh.requests("POST", crashRoute);
        ASSERT_EQ(requests.size(), row.sent ? 1 : 0);
        for (qsizetype i = 0; row.sent && i < sentFromFile.size(); ++i) {
            EXPECT_EQ(QJsonDocument::fromJson(requests[0].body).object().value(sentFromFile[i]).toString(),
                      row.sent->at(i)) << sentFromFile[i].toStdString();
        }
        EXPECT_FALSE(QFile::exists(reportPath));
    }
}

// The handler's own date arithmetic against Qt's, over every day from 1970 to 2100 at drifting
// times of day, plus the far ends of the format.
TEST(CrashTimestampTest, MatchesTheIsoFormatter)
{
    const auto check = [](qint64 ms) {
        char text[CrashReporter::timestampLength];
        CrashReporter::formatTimestamp(ms / 1000, ms % 1000 * 1'000'000 + 999'999, text);
        const auto formatted = QString::fromLatin1(text, sizeof text);
        EXPECT_EQ(formatted, formatIso8601(ms, Iso8601::withFractionalSeconds));
        return formatted == formatIso8601(ms, Iso8601::withFractionalSeconds);
    };
    for (qint64 ms = 0; ms < 4'102'444'800'000 && check(ms); ms += 86'400'000 + 3'723'457) {
    }
    check(951'782'400'000);     // 2000-02-29, a leap day of a century year
    check(253'402'300'799'999); // 9999-12-31T23:59:59.999Z
}
