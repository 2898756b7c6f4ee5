#include "UpdateService.h"
#include "AwaitTask.h"
#include "Clock.h"
#include "FakeBackend.h"
#include "PackageFixtures.h"
#include "PackageOpener.h"
#include "QtPrinters.h"

#include <QDirIterator>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <gtest/gtest.h>

#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace PackageFixtures;

namespace {
struct NoOpener final : PackageOpener {
    bool open(const QString&) override { return false; }
};

// Every character of a path that a shell could read as code.
const auto hostile = u"a b \"q\" $(touch pwned) `touch pwned` 'x' ;touch pwned"_s;
} // namespace

// The whole path with the real script: paths full of shell syntax, an old process that ends
// after the program asked to quit, the folder replaced, the new version started last, and
// nothing of the paths run as a command.
TEST(UpdateInstallTest, ReplacesAHostilePathAndRunsNothingOfIt)
{
    QTemporaryDir root;
    const auto installFolder = root.filePath(u"opt "_s + hostile + u"/RavletAI"_s);
    const auto workRoot = root.filePath(u"tmp "_s + hostile);
    writeProgram(installFolder, "A");
    writeFile(installFolder + u"/only-in-A"_s, "old");
    QDir().mkpath(workRoot);
    writeProgram(root.filePath(u"B/RavletAI-2.0.0"_s), "B");
    const auto archive = root.filePath(u"B.tar.gz"_s);
    makeArchive(archive, root.filePath(u"B"_s), {u"RavletAI-2.0.0"_s});
    const auto package = readAll(archive);

    FakeBackend server;
    server.setRoute("GET", "/files/RavletAI-2.0.0.tar.gz", FakeBackend::Response::json(200, package));
    server.setRoute("GET", "/download/check-update",
                    FakeBackend::Response::json(
                        200, R"({"hasUpdate":true,"latest":{"version":"2.0.0","changelog":"","downloadURL":")"
                                 + server.origin().toUtf8() + R"(/files/RavletAI-2.0.0.tar.gz","size":")"
                                 + QByteArray::number(package.size()) + R"(","date":"","sha256":")"
                                 + sha256Of(package).toLatin1() + R"("}})"));
    // The "old process": it lives until the test closes its input.
    QProcess old;
    old.start(u"cat"_s, {});
    ASSERT_TRUE(old.waitForStarted());
    Installation installation;
    installation.kind = Installation::Kind::perUser;
    installation.folder = installFolder;
    installation.pid = old.processId();
    ManualClock clock;
    NoOpener opener;
    UpdateService service(server.origin(), u"1.0.0"_s, clock, installation, &opener,
                          {workRoot, root.filePath(u"Downloads"_s)});
    QSignalSpy quit(&service, &UpdateService::terminationRequested);
    awaitTask(service.check());
    awaitTask(service.install());
    ASSERT_EQ(quit.size(), 1);
    EXPECT_TRUE(service.isDownloading()); // the process ends with it still set

    // The script waits for the old process: nothing is replaced while it runs.
    QTest::qWait(300);
    EXPECT_EQ(readAll(installFolder + u"/version"_s), "A");
    old.closeWriteChannel();
    ASSERT_TRUE(old.waitForFinished(5000));

    EXPECT_TRUE(QTest::qWaitFor([&] { return QFile::exists(installFolder + u"/started"_s); }, 15'000));
    EXPECT_EQ(readAll(installFolder + u"/version"_s), "B");
    EXPECT_FALSE(QFile::exists(installFolder + u"/only-in-A"_s));
    // The script removed the package, the unpacked copy and itself, and its folder.
    EXPECT_TRUE(QTest::qWaitFor([&] { return entriesOf(workRoot).isEmpty(); }, 5000))
        << entriesOf(workRoot).join(u", "_s).toStdString();
    QStringList pwned;
    for (QDirIterator it(root.path(), QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden,
                         QDirIterator::Subdirectories);
         it.hasNext();)
        if (it.next().endsWith(u"/pwned"_s))
            pwned.append(it.filePath());
    EXPECT_EQ(pwned, QStringList());
    EXPECT_FALSE(QFile::exists(QDir::tempPath() + u"/pwned"_s));
}

TEST(UpdateInstallTest, ScriptRefusesALineBreakInAnyPath)
{
    const UpdatePackage::ScriptPaths good{42, u"/o"_s, u"/n"_s, u"/u"_s, u"/p"_s, u"/w"_s};
    ASSERT_TRUE(UpdatePackage::replacementScript(good).has_value());
    for (auto member : {&UpdatePackage::ScriptPaths::oldFolder, &UpdatePackage::ScriptPaths::newFolder,
                        &UpdatePackage::ScriptPaths::package}) {
        auto paths = good;
        paths.*member += u"\nrm -rf ~"_s;
        EXPECT_FALSE(UpdatePackage::replacementScript(paths).has_value());
    }
}

// An archive is read whole before anything is written: one entry that leaves the folder
// refuses all of it. Links that stay inside are fine.
TEST(UpdateInstallTest, ArchivesThatEscapeAreRefusedBeforeUnpacking)
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
        return QStringList{u"-P"_s, u"--transform=s,^"_s + QLatin1String(from) + u"$,"_s + QLatin1String(to)
                                        + u","_s + QLatin1String(flags)};
    };
    struct Case {
        const char* name;
        QStringList members;
        QStringList extra;
        bool refused;
    };
    const auto folder = QStringList{u"RavletAI"_s};
    const auto noUp = QStringList{u"--exclude=RavletAI/bin/up"_s};
    const QList<Case> cases{
        {"a folder with links inside it", folder, noUp, false},
        {"an entry that climbs out", folder, noUp + forge("RavletAI/version", "RavletAI/../../version"), true},
        {"an absolute entry", folder, noUp + forge("RavletAI/version", "/tmp/version"), true},
        {"a link to an absolute path", folder + QStringList{u"etc-link"_s}, noUp, true},
        {"a relative link that climbs out", folder, {}, true},
        // Sorted, "hard" is stored first and "version" as a link to it.
        {"a hard link out of the folder", folder,
         noUp + QStringList{u"--sort=name"_s} + forge("RavletAI/hard", "../hard", "R"), true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto archive = root.filePath(u"a.tar.gz"_s);
        QFile::remove(archive);
        makeArchive(archive, source, c.members, c.extra);
        QTemporaryDir target;
        const auto refused = awaitTask(UpdatePackage::extract(archive, target.path()));
        EXPECT_EQ(refused.has_value(), c.refused) << refused.value_or(QString()).toStdString();
        if (c.refused)
            EXPECT_EQ(entriesOf(target.path()), QStringList());
        else
            EXPECT_EQ(UpdatePackage::findInstallFolder(target.path()), target.path() + u"/RavletAI"_s);
    }
}
