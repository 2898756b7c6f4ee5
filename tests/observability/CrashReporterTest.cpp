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
const QStringList reportKeys{u"clientTs"_s, u"exceptionMessage"_s, u"exceptionType"_s,
                             u"lastState"_s, u"stackTrace"_s};
const QStringList sentFromFile{u"exceptionType"_s, u"exceptionMessage"_s, u"stackTrace"_s,
                               u"lastState"_s};

QJsonObject parseObject(const QByteArray& bytes)
{
    QJsonParseError error{};
    const auto document = QJsonDocument::fromJson(bytes, &error);
    EXPECT_EQ(error.error, QJsonParseError::NoError) << error.errorString().toStdString();
    EXPECT_TRUE(document.isObject());
    return document.object();
}

QCoro::Task<> finished(TaskHandle task)
{
    co_await task.finished();
}
} // namespace

class CrashReporterTest : public ::testing::Test {
protected:
    CrashReporterTest()
    {
        server.setRoute("POST", crashRoute, FakeBackend::Response::json(200, "{}"));
    }

    // The next launch: install, then wait for the upload it starts.
    void launch(TelemetryClient* client)
    {
        reporter.install(client, [] { return u"idle"_s; });
        awaitTask(finished(reporter.uploadTask()), 30'000);
    }

    void writePendingReport(const QByteArray& contents)
    {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(reportPath).absolutePath()));
        QFile file(reportPath);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(contents);
    }

    QList<QJsonObject> sentReports() const
    {
        QList<QJsonObject> sent;
        for (const auto& request : server.requests("POST", crashRoute))
            sent.append(parseObject(request.body));
        return sent;
    }

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

class ChildCrashTest : public CrashReporterTest,
                       public ::testing::WithParamInterface<ChildCrash> {};

TEST_P(ChildCrashTest, LeavesOneReportThatTheNextLaunchSendsOnce)
{
    const auto& crash = GetParam();
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
    EXPECT_EQ(QDir(QFileInfo(reportPath).absolutePath()).entryList(QDir::Files),
              QStringList{u"pending_crash.json"_s});
    QFile file(reportPath);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const auto report = parseObject(file.readAll());
    EXPECT_EQ(report.keys(), reportKeys);
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
    EXPECT_EQ(crashTs.size(), qsizetype(CrashReporter::timestampLength));
    EXPECT_GE(crashedAt->toMSecsSinceEpoch(), started);
    EXPECT_LE(crashedAt->toMSecsSinceEpoch(), ended);

    launch(&telemetry);
    const auto sent = sentReports();
    ASSERT_EQ(sent.size(), 1);
    for (const auto& key : sentFromFile)
        EXPECT_EQ(sent[0].value(key), report.value(key)) << key.toStdString();
    EXPECT_EQ(sent[0].value(u"deviceId"_s).toString(), telemetry.deviceId());
    // The moment of the upload, not the crash's.
    EXPECT_EQ(sent[0].value(u"clientTs"_s).toString(),
              formatIso8601(clock.nowMs(), Iso8601::withFractionalSeconds));
    EXPECT_FALSE(QFile::exists(reportPath));
}

ChildCrash signalCrash(const char* name, const char* mode, int signal, bool fillsTheLimit = false)
{
    const auto number = QString::number(signal);
    return {name, mode, signal, u"Signal("_s + number + u')',
            u"Process received signal "_s + number, fillsTheLimit};
}

INSTANTIATE_TEST_SUITE_P(
    CrashReporterTest, ChildCrashTest,
    ::testing::Values(
        signalCrash("NullPointer", "segv", SIGSEGV), signalCrash("Abort", "abort", SIGABRT),
        // The exception's report must survive the abort() that follows it.
        ChildCrash{"RuntimeError", "throw", SIGABRT, u"std::runtime_error"_s,
                   QString::fromUtf8(CrashChild::longReason()).first(512), false},
        ChildCrash{"NotAStdException", "throw-int", SIGABRT, u"int"_s, QString(), false},
        signalCrash("DeepStack", "deep", SIGSEGV, true),
        // Reported from the alternate signal stack.
        signalCrash("StackOverflow", "overflow", SIGSEGV, true)),
    ::testing::PrintToStringParamName());

struct PendingFile {
    const char* name;
    QByteArray contents;
    bool withTelemetry = true;
    bool optedOut = false;
    int status = 200;
    // What is sent of exceptionType, exceptionMessage, stackTrace and lastState.
    std::optional<QStringList> sent = std::nullopt;
};

class PendingFileTest : public CrashReporterTest,
                        public ::testing::WithParamInterface<PendingFile> {};

// Whatever the file held and however the upload went, the next launch deletes it.
TEST_P(PendingFileTest, IsSentAtMostOnceAndDeleted)
{
    const auto& pending = GetParam();
    writePendingReport(pending.contents);
    if (pending.optedOut)
        preferences.setBool(u"sendAnonymousTelemetry"_s, false);
    server.setRoute("POST", crashRoute, FakeBackend::Response::json(pending.status, "{}"));

    launch(pending.withTelemetry ? &telemetry : nullptr);

    const auto sent = sentReports();
    ASSERT_EQ(sent.size(), pending.sent ? 1 : 0);
    if (pending.sent) {
        for (qsizetype i = 0; i < sentFromFile.size(); ++i) {
            EXPECT_EQ(sent[0].value(sentFromFile[i]).toString(), pending.sent->at(i))
                << sentFromFile[i].toStdString();
        }
    }
    EXPECT_FALSE(QFile::exists(reportPath));
}

const QByteArray wholeReport = R"json({"exceptionType":"Signal(6)","exceptionMessage":"m",
    "stackTrace":"s","lastState":"unknown","clientTs":"2026-01-02T03:04:05.678Z"})json";

INSTANTIATE_TEST_SUITE_P(
    CrashReporterTest, PendingFileTest,
    ::testing::Values(
        PendingFile{.name = "InvalidJson", .contents = R"json({"exceptionType":"Signal(11)")json"},
        PendingFile{.name = "NotAnObject", .contents = R"json(["Signal(11)"])json"},
        PendingFile{.name = "NonTextValue",
                    .contents = R"json({"exceptionType":"Signal(11)","exceptionMessage":7})json"},
        PendingFile{.name = "NoTelemetry", .contents = wholeReport, .withTelemetry = false},
        PendingFile{.name = "OptedOut", .contents = wholeReport, .optedOut = true},
        PendingFile{.name = "MissingKeys",
                    .contents = R"json({"stackTrace":"frame"})json",
                    .sent = QStringList{u"unknown"_s, QString(), u"frame"_s, u"unknown"_s}},
        // A "\ud800" escape alone is half a character, which the server refuses in a body.
        PendingFile{.name = "HalfCharacters",
                    .contents = R"json({"exceptionType":")\ud800","exceptionMessage":"11",
                        "stackTrace":"rav2\udc00]","lastState":"unknown"})json",
                    .sent = QStringList{u")\uFFFD"_s, u"11"_s, u"rav2\uFFFD]"_s, u"unknown"_s}},
        PendingFile{.name = "UploadFails",
                    .contents = wholeReport,
                    .status = 500,
                    .sent = QStringList{u"Signal(6)"_s, u"m"_s, u"s"_s, u"unknown"_s}}),
    ::testing::PrintToStringParamName());

// The handler's own date arithmetic against Qt's, over every day from 1970 to 2100 at drifting
// times of day, plus the far ends of the format.
TEST_F(CrashReporterTest, TimestampMatchesTheIsoFormatter)
{
    const auto check = [](qint64 ms) {
        char text[CrashReporter::timestampLength];
        CrashReporter::formatTimestamp(ms / 1000, ms % 1000 * 1'000'000 + 999'999, text);
        const auto formatted = QString::fromLatin1(text, sizeof text);
        const auto expected = formatIso8601(ms, Iso8601::withFractionalSeconds);
        EXPECT_EQ(formatted, expected);
        return formatted == expected;
    };
    for (qint64 ms = 0; ms < 4'102'444'800'000; ms += 86'400'000 + 3'723'457) {
        if (!check(ms))
            break;
    }
    check(951'782'400'000);     // 2000-02-29, a leap day of a century year
    check(253'402'300'799'999); // 9999-12-31T23:59:59.999Z
}

// What the handlers write, read as the next launch reads it: bytes that are not UTF-8 become
// U+FFFD, and the message is cut to its limit without splitting a character.
TEST_F(CrashReporterTest, AWrittenReportReadsBackWithinTheLimits)
{
    QTemporaryDir dir;
    QFile file(dir.filePath(u"report.json"_s));
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    // 511 units, then a character of two units that no longer fits.
    const QByteArray message = QByteArray(511, 'm') + "\xf0\x9f\x98\x80" + "tail";
    const QByteArray stack = "rav\xfflet(+0x1a)\n\"quoted\"\t\x01\xed\xa0\x80";
    ASSERT_TRUE(CrashReporter::writeReport(file.handle(), "std::runtime_error", message.toStdString(),
                                           stack.toStdString(), 1'795'000'000, 5'000'000));
    file.seek(0);
    const auto report = CrashReporter::readPendingReport(file.readAll());
    ASSERT_TRUE(report);
    EXPECT_EQ(report->exceptionType, u"std::runtime_error"_s);
    EXPECT_EQ(report->exceptionMessage, QString(511, u'm'));
    EXPECT_EQ(report->stackTrace,
              u"rav\uFFFDlet(+0x1a)\n\"quoted\"\t\u0001\uFFFD\uFFFD\uFFFD"_s);
    EXPECT_EQ(report->lastState, u"unknown"_s);
}
