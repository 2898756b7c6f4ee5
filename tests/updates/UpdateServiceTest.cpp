#include "ClockWait.h"
#include "UpdateHarness.h"

#include <QSignalSpy>
#include <QTest>

#include <unistd.h>

#include <functional>

using namespace std::chrono_literals;

namespace {
struct EdgeCase {
    const char* name;
    Installation::Kind kind;
    std::function<void(UpdateHarness&)> answer; // sets the fake's answers to the first check
    std::function<void(UpdateHarness&)> then;   // what happens after it
    // The version offered at the end ("!": forced) | self_update events | requests for the
    // package, with their query | what is left in the downloads folder for the user.
    const char* outcome;
};

void install(UpdateHarness& h)
{
    awaitTask(h.service->install());
}
void nothing(UpdateHarness&) {}
void packageB(UpdateHarness& h)
{
    writeProgram(h.root.filePath(u"B/RavletAI-2.0.0"_s), "B");
}
} // namespace

// Each case checks once against the fake on the manual clock, then takes its step. (A package
// that escapes its folder, refused and left for the user, is the self-update test's.)
TEST(UpdateServiceTest, EdgeCases)
{
    using enum Installation::Kind;
    // clang-format off
    const QList<EdgeCase> cases{
        {"an update without latest offers nothing, and the check succeeded", perUser,
         [](auto& h) { h.answerCheck(R"({"hasUpdate":true})"); }, nothing, " | check:ok |  | "},
        {"an absent forceUpdate is false, and an update not forced can be dismissed", perUser,
         [](auto& h) { h.offer("x"); },
         [](auto& h) { EXPECT_FALSE(h.service->isForceUpdate()); h.service->dismiss(); },
         " | check:ok |  | "},
        {"a 500 that is not JSON fails the check, dates it and keeps the offer", perUser,
         [](auto& h) { h.offer("x"); },
         [](auto& h) {
             h.answerCheck("<html>Internal Server Error</html>", 500);
             h.clock.advance(1min);
             awaitTask(h.service->check());
             EXPECT_EQ(h.service->lastCheckDate().toMSecsSinceEpoch(), h.clock.nowMs());
         },
         "2.0.0 | check:ok check:fail |  | "},
        {"a check during a check returns at once and changes nothing", perUser,
         [](auto& h) { h.offer("x"); },
         [](auto& h) {
             auto slow = FakeBackend::Response::json(200, R"({"hasUpdate":false})");
             slow.delayMs = 100;
             h.server.setRoute("GET", "/download/check-update", slow);
             auto first = h.service->check();
             awaitTask(h.service->check(), 50);
             EXPECT_EQ(h.service->availableVersion(), u"2.0.0"_s);
             awaitTask(std::move(first));
             EXPECT_EQ(h.server.requestCount("GET", "/download/check-update"), 2);
         },
         " | check:ok check:ok |  | "},
        {"an install from /usr gets the .deb by hand; a query gets &source=app, no uid without a user", system,
         [](auto& h) { h.answerCheck(h.offer("deb").replace("/files/pkg", "/files/pkg?channel=x")); },
         install, "2.0.0 | check:ok download:ok | /files/pkg?channel=x&source=app | RavletAI-2.0.0.deb"},
        {"a package without the program is cleaned up, with no fallback", perUser,
         [](auto& h) {
             writeFile(h.root.filePath(u"B/README"_s), "no program here");
             h.offer(h.package({u"README"_s}));
         },
         install, "2.0.0 | check:ok download:ok | /files/pkg?source=app | "},
        {"a wrong SHA-256 installs nothing and leaves nothing for the user; ?source=app and the uid", perUser,
         [](auto& h) {
             packageB(h);
             h.service->setUserId(u"u-7"_s);
             h.offer(h.package({u"RavletAI-2.0.0"_s}), QString(64, u'0'));
         },
         install, "2.0.0 | check:ok download:ok install:fail | /files/pkg?source=app&uid=u-7 | "},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        UpdateHarness h(c.kind);
        c.answer(h);
        QSignalSpy quit(h.service.get(), &UpdateService::terminationRequested);
        awaitTask(h.service->check());
        EXPECT_EQ(h.service->lastCheckDate().toMSecsSinceEpoch(), h.clock.nowMs());
        const auto platform =
            h.server.requests("GET", "/download/check-update").value(0).target.split('=').last();
        EXPECT_EQ(platform, c.kind == system ? "linux-deb" : "linux");
        c.then(h);
        QStringList downloads;
        for (const auto& request : h.server.requests("GET", "/files/pkg"))
            downloads.append(QString::fromUtf8(request.target));
        const auto left = entriesOf(h.downloads);
        EXPECT_EQ(QStringList({h.service->availableVersion()
                                   + (h.service->isForceUpdate() ? u"!"_s : u""_s),
                               h.events().join(u' '), downloads.join(u' '), left.join(u' ')})
                      .join(u" | "_s),
                  QLatin1String(c.outcome));
        EXPECT_FALSE(h.service->isChecking() || h.service->isDownloading());
        // A .deb goes to the system's installer; a per-user package is shown in its folder.
        const auto shown = c.kind == system ? h.downloads + u'/' + left.value(0) : h.downloads;
        EXPECT_EQ(h.opener.opened, left.isEmpty() ? QStringList() : QStringList{shown});
        // Whatever happened: nothing left behind, nothing replaced, nobody asked to quit.
        EXPECT_EQ(entriesOf(h.workRoot), QStringList());
        EXPECT_EQ(readAll(h.installFolder + u"/version"_s), "A");
        EXPECT_FALSE(QFile::exists(h.root.filePath(u"version"_s)));
        EXPECT_EQ(quit.size(), 0);
    }
}

// Checks repeat every four hours of the clock. (The address is the launch test's, and a forced
// update that stays through a dismissal the dashboard test's.)
TEST(UpdateServiceTest, ChecksAtStartAndEveryFourHours)
{
    UpdateHarness h(Installation::Kind::perUser);
    h.answerCheck(R"({"hasUpdate":false})");
    const auto checks = [&] { return h.server.requests("GET", "/download/check-update"); };
    h.service->startPeriodicCheck();
    ASSERT_TRUE(QTest::qWaitFor([&] { return !h.service->isChecking(); }, 5000));
    EXPECT_EQ(checks().size(), 1);
    ASSERT_TRUE(happensExactlyAfter(h.clock, UpdateService::checkInterval, [&] {
        return checks().size() == 2 && !h.service->isChecking();
    }));
    h.clock.advance(UpdateService::checkInterval);
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return checks().size() == 3 && !h.service->isChecking(); }, 5000));
}

// An archive is read whole before anything is written: one entry that leaves the folder
// refuses all of it. Links that stay inside are fine. (An entry that climbs out with "../" is
// the self-update test's.)
TEST(UpdateServiceTest, ArchivesThatEscapeAreRefusedBeforeUnpacking)
{
    QTemporaryDir root;
    const auto source = root.filePath(u"src"_s);
    writeProgram(source + u"/RavletAI"_s, "B");
    QFile::link(u"ravletai"_s, source + u"/RavletAI/bin/inside"_s);
    QFile::link(u"/etc"_s, source + u"/etc-link"_s);
    QFile::link(u"../../.."_s, source + u"/RavletAI/bin/up"_s);
    ASSERT_EQ(::link(QFile::encodeName(source + u"/RavletAI/version"_s).constData(),
                     QFile::encodeName(source + u"/RavletAI/hard"_s).constData()),
              0);
    const auto forge = [](const char* from, const char* to, const char* flags = "") {
        return QStringList{u"-P"_s,
                           u"--transform=s,^%1$,%2,%3"_s.arg(QLatin1String(from), QLatin1String(to),
                                                             QLatin1String(flags))};
    };
    const auto noUp = QStringList{u"--exclude=RavletAI/bin/up"_s, u"--sort=name"_s};
    const QList<std::tuple<const char*, QStringList, bool>> cases{
        {"a folder with links inside it", noUp, false},
        {"an absolute entry", noUp + forge("RavletAI/version", "/tmp/version"), true},
        {"a link to an absolute path", noUp + QStringList{u"etc-link"_s}, true},
        {"a relative link that climbs out", {}, true},
        // Sorted, "hard" is stored first and "version" as a link to it.
        {"a hard link out of the folder", noUp + forge("RavletAI/hard", "../hard", "R"), true},
    };
    for (const auto& [name, extra, refused] : cases) {
        SCOPED_TRACE(name);
        const auto archive = root.filePath(u"a.tar.gz"_s);
        QFile::remove(archive);
        makeArchive(archive, source, {u"RavletAI"_s}, extra);
        QTemporaryDir target;
        const auto error = awaitTask(UpdatePackage::extract(archive, target.path()));
        EXPECT_EQ(error.has_value(), refused) << error.value_or(QString()).toStdString();
        EXPECT_EQ(UpdatePackage::findInstallFolder(target.path()),
                  refused ? std::nullopt : std::optional(target.path() + u"/RavletAI"_s));
        EXPECT_EQ(entriesOf(target.path()).isEmpty(), refused); // refused: not one byte written
    }
    // Paths a shell would misread are the self-update test's; a line break is refused outright.
    UpdatePackage::ScriptPaths paths{42, u"/o"_s, u"/n"_s, u"/u"_s, u"/p\n"_s, u"/w"_s};
    EXPECT_FALSE(UpdatePackage::replacementScript(paths).has_value());
}
