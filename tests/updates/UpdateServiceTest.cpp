#include "UpdateService.h"
#include "AwaitTask.h"
#include "Clock.h"
#include "FakeBackend.h"
#include "PackageFixtures.h"
#include "PackageOpener.h"
#include "PreferencesStore.h"
#include "QtPrinters.h"
#include "TelemetryClient.h"

#include <QTemporaryDir>
#include <QSignalSpy>
#include <QTest>

#include <gtest/gtest.h>

#include <functional>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using namespace PackageFixtures;

namespace {

struct RecordingOpener final : PackageOpener {
    QStringList opened;
    bool open(const QString& path) override
    {
        opened.append(path);
        return true;
    }
};

// One service against a fake backend on the manual clock, with its folders in a private
// temporary folder: the install folder (version A), the work root and the downloads folder.
struct Harness {
    explicit Harness(Installation::Kind kind)
    {
        writeProgram(installFolder(), "A");
        QDir().mkpath(workRoot());
        Installation installation;
        installation.kind = kind;
        installation.folder = installFolder();
        installation.pid = 1;
        service = std::make_unique<UpdateService>(server.origin(), u"1.0.0"_s, clock, installation, &opener,
                                                  UpdateService::Paths{workRoot(), downloads()});
        service->setTelemetry(&telemetry);
    }

    QString installFolder() const { return root.filePath(u"opt/RavletAI"_s); }
    QString workRoot() const { return root.filePath(u"tmp"_s); }
    QString downloads() const { return root.filePath(u"Downloads"_s); }

    void answerCheck(int status, QByteArray body)
    {
        body.replace("{origin}", server.origin().toUtf8());
        server.setRoute("GET", "/download/check-update", FakeBackend::Response::json(status, body));
    }
    // Serves `bytes` as the package, announced with `sha256` (by default its own).
    QByteArray offer(const QByteArray& bytes, const QString& sha256 = {}, bool force = false)
    {
        server.setRoute("GET", "/files/pkg", FakeBackend::Response::json(200, bytes));
        return R"({"hasUpdate":true,"forceUpdate":)" + QByteArray(force ? "true" : "false")
               + R"(,"latest":{"version":"2.0.0","changelog":"c","downloadURL":"{origin}/files/pkg","size":")"
               + QByteArray::number(bytes.size()) + R"(","date":"d","sha256":")"
               + (sha256.isEmpty() ? sha256Of(bytes) : sha256).toLatin1() + R"("}})";
    }
    QByteArray packageWith(const QStringList& members)
    {
        const auto archive = root.filePath(u"made.tar.gz"_s);
        makeArchive(archive, root.filePath(u"B"_s), members);
        return readAll(archive);
    }

    QStringList events() const
    {
        QStringList events;
        for (const auto& event : telemetry.buffer()) {
            if (event.name != u"self_update"_s || !event.props)
                continue;
            const auto phase = std::get<QString>(event.props->value(0).second);
            events.append(phase + (std::get<bool>(event.props->value(1).second) ? u":ok"_s : u":fail"_s));
        }
        return events;
    }
    QByteArrayList downloadTargets() const
    {
        QByteArrayList targets;
        for (const auto& request : server.requests("GET", "/files/pkg"))
            targets.append(request.target);
        return targets;
    }

    QTemporaryDir root;
    FakeBackend server;
    ManualClock clock;
    PreferencesStore preferences;
    TelemetryClient telemetry{server.origin(), preferences, clock,
                              TelemetryClient::Environment{u"1.0.0"_s, u"6.1.0"_s, u"x64"_s, u"en_US"_s}};
    RecordingOpener opener;
    std::unique_ptr<UpdateService> service;
};

struct EdgeCase {
    const char* name;
    Installation::Kind kind;
    // Sets the fake's answers and returns the check's body.
    std::function<QByteArray(Harness&)> answer;
    int status;
    // What happens after the first check.
    std::function<void(Harness&)> then;
    std::optional<QString> offered; // the version offered at the end
    bool forced;
    QStringList events;
    QByteArrayList downloadTargets; // of the package, with the query
    QStringList downloaded;         // left in the downloads folder for the user
};

const auto programB = [](Harness& h) { writeProgram(h.root.filePath(u"B/RavletAI-2.0.0"_s), "B"); };

} // namespace

// Each case checks at least once against the fake on the manual clock, then does its step.
TEST(UpdateServiceTest, EdgeCases)
{
    const auto install = [](Harness& h) { awaitTask(h.service->install()); };
    const auto noop = [](Harness&) {};
    const QList<EdgeCase> cases{
        {"an update without latest offers nothing and counts as a good check", Installation::Kind::perUser,
         [](Harness&) { return QByteArray(R"({"hasUpdate":true})"); }, 200, noop, std::nullopt, false,
         {u"check:ok"_s}, {}, {}},
        {"an absent forceUpdate is false", Installation::Kind::perUser,
         [](Harness&) {
             return QByteArray(R"({"hasUpdate":true,"latest":{"version":"2.0.0","changelog":"c",)"
                               R"("downloadURL":"{origin}/files/pkg","size":"1","date":"d"}})");
         },
         200, noop, u"2.0.0"_s, false, {u"check:ok"_s}, {}, {}},
        {"a 500 that is not JSON fails the check and keeps the offer", Installation::Kind::perUser,
         [](Harness& h) { return h.offer("x"); }, 200,
         [](Harness& h) {
             h.answerCheck(500, "<html>Internal Server Error</html>");
             h.clock.advance(1min);
             awaitTask(h.service->check());
             EXPECT_EQ(h.service->lastCheckDate().toMSecsSinceEpoch(), h.clock.nowMs());
         },
         u"2.0.0"_s, false, {u"check:ok"_s, u"check:fail"_s}, {}, {}},
        {"a broken connection fails the check and leaves the date", Installation::Kind::perUser,
         [](Harness& h) { return h.offer("x"); }, 200,
         [](Harness& h) {
             const auto before = h.service->lastCheckDate();
             FakeBackend::Response garbage;
             garbage.raw = QByteArray("garbage");
             h.server.setRoute("GET", "/download/check-update", garbage);
             h.clock.advance(1min);
             awaitTask(h.service->check());
             EXPECT_EQ(h.service->lastCheckDate(), before);
         },
         u"2.0.0"_s, false, {u"check:ok"_s, u"check:fail"_s}, {}, {}},
        {"a check during a check returns at once and changes nothing", Installation::Kind::perUser,
         [](Harness& h) { return h.offer("x"); }, 200,
         [](Harness& h) {
             auto slow = FakeBackend::Response::json(200, R"({"hasUpdate":false})");
             slow.delayMs = 100;
             h.server.setRoute("GET", "/download/check-update", slow);
             auto first = h.service->check();
             awaitTask(h.service->check(), 50);
             EXPECT_EQ(h.service->availableVersion(), u"2.0.0"_s);
             awaitTask(std::move(first));
             EXPECT_EQ(h.server.requestCount("GET", "/download/check-update"), 2);
         },
         std::nullopt, false, {u"check:ok"_s, u"check:ok"_s}, {}, {}},
        {"a forced update cannot be dismissed", Installation::Kind::perUser,
         [](Harness& h) { return h.offer("x", {}, true); }, 200,
         [](Harness& h) { h.service->dismiss(); }, u"2.0.0"_s, true, {u"check:ok"_s}, {}, {}},
        {"an update that is not forced can be dismissed", Installation::Kind::perUser,
         [](Harness& h) { return h.offer("x"); }, 200, [](Harness& h) { h.service->dismiss(); },
         std::nullopt, false, {u"check:ok"_s}, {}, {}},
        {"a query in the address gets &source=app, and no uid without a user", Installation::Kind::system,
         [](Harness& h) { return h.offer("deb").replace("/files/pkg", "/files/pkg?channel=x"); }, 200,
         install, u"2.0.0"_s, false, {u"check:ok"_s, u"download:ok"_s}, {"/files/pkg?channel=x&source=app"},
         {u"RavletAI-2.0.0.deb"_s}},
        {"an address without a query gets ?source=app, and the user's uid", Installation::Kind::system,
         [](Harness& h) { return h.offer("deb"); }, 200,
         [](Harness& h) {
             h.service->setUserId(u"u-7"_s);
             awaitTask(h.service->install());
         },
         u"2.0.0"_s, false, {u"check:ok"_s, u"download:ok"_s}, {"/files/pkg?source=app&uid=u-7"},
         {u"RavletAI-2.0.0.deb"_s}},
        {"a package without the program is cleaned up, with no fallback", Installation::Kind::perUser,
         [](Harness& h) {
             writeFile(h.root.filePath(u"B/README"_s), "no program here");
             return h.offer(h.packageWith({u"README"_s}));
         },
         200, install, u"2.0.0"_s, false, {u"check:ok"_s, u"download:ok"_s}, {"/files/pkg?source=app"}, {}},
        {"a wrong SHA-256 installs nothing and offers nothing by hand", Installation::Kind::perUser,
         [](Harness& h) {
             programB(h);
             return h.offer(h.packageWith({u"RavletAI-2.0.0"_s}), QString(64, u'0'));
         },
         200, install, u"2.0.0"_s, false, {u"check:ok"_s, u"download:ok"_s, u"install:fail"_s},
         {"/files/pkg?source=app"}, {}},
        {"a package that escapes its folder is refused and left for the user", Installation::Kind::perUser,
         [](Harness& h) {
             programB(h);
             const auto archive = h.root.filePath(u"made.tar.gz"_s);
             makeArchive(archive, h.root.filePath(u"B"_s), {u"RavletAI-2.0.0"_s},
                         {u"-P"_s, u"--transform=s,^RavletAI-2.0.0/version$,../../version,"_s});
             return h.offer(readAll(archive));
         },
         200, install, u"2.0.0"_s, false, {u"check:ok"_s, u"download:ok"_s, u"install:fail"_s},
         {"/files/pkg?source=app", "/files/pkg?source=app"}, {u"RavletAI-2.0.0.tar.gz"_s}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Harness h(c.kind);
        h.answerCheck(c.status, c.answer(h));
        QSignalSpy ended(h.service.get(), &UpdateService::terminationRequested);
        awaitTask(h.service->check());
        EXPECT_EQ(h.service->lastCheckDate().toMSecsSinceEpoch(), h.clock.nowMs());
        c.then(h);
        EXPECT_EQ(h.service->availableUpdate().has_value(), c.offered.has_value());
        EXPECT_EQ(h.service->availableVersion(), c.offered.value_or(QString()));
        EXPECT_EQ(h.service->isForceUpdate(), c.forced);
        EXPECT_FALSE(h.service->isChecking());
        EXPECT_FALSE(h.service->isDownloading());
        EXPECT_EQ(h.events(), c.events);
        EXPECT_EQ(h.downloadTargets(), c.downloadTargets);
        EXPECT_EQ(entriesOf(h.downloads()), c.downloaded);
        // Whatever happened, nothing is left behind, nothing was replaced and nobody quit.
        EXPECT_EQ(entriesOf(h.workRoot()), QStringList());
        EXPECT_EQ(readAll(h.installFolder() + u"/version"_s), "A");
        EXPECT_FALSE(QFile::exists(h.root.filePath(u"version"_s)));
        EXPECT_EQ(ended.size(), 0);
        const auto& downloaded = c.downloaded;
        EXPECT_EQ(h.opener.opened.size(), downloaded.size());
        if (!downloaded.isEmpty()) {
            EXPECT_EQ(h.opener.opened.value(0), c.kind == Installation::Kind::system
                                                     ? h.downloads() + u'/' + downloaded.first()
                                                     : h.downloads());
        }
    }
}

// The address names the platform of the install; the check repeats every four hours of the clock.
TEST(UpdateServiceTest, ChecksAtStartAndEveryFourHours)
{
    for (const auto kind : {Installation::Kind::perUser, Installation::Kind::system}) {
        Harness h(kind);
        h.answerCheck(200, R"({"hasUpdate":false})");
        const auto checks = [&] { return h.server.requests("GET", "/download/check-update"); };
        h.service->startPeriodicCheck();
        ASSERT_TRUE(QTest::qWaitFor([&] { return !h.service->isChecking() && checks().size() == 1; }, 5000));
        EXPECT_EQ(checks().value(0).target, "/download/check-update?v=1.0.0&platform="
                                                + QByteArray(kind == Installation::Kind::system ? "linux-deb"
                                                                                                  : "linux"));
        h.clock.advance(UpdateService::checkInterval - 1ms);
        QTest::qWait(50);
        EXPECT_EQ(checks().size(), 1);
        h.clock.advance(1ms);
        ASSERT_TRUE(QTest::qWaitFor([&] { return checks().size() == 2; }, 5000));
        ASSERT_TRUE(QTest::qWaitFor([&] { return !h.service->isChecking(); }, 5000));
        h.clock.advance(UpdateService::checkInterval);
        EXPECT_TRUE(QTest::qWaitFor([&] { return checks().size() == 3; }, 5000));
    }
}
