#include "UpdateHarness.h"

#include <QDirIterator>
#include <QSignalSpy>
#include <QTest>

#include <unistd.h>

// The whole path with the real script, in folders named with shell syntax: the old process
// ends after the program asked to quit, the folder is replaced, the new version starts last,
// and nothing of the paths ran as a command.
TEST(UpdateInstallTest, ReplacesAHostilePathAndRunsNothingOfIt)
{
    QProcess old; // lives until the test closes its input
    old.start(u"cat"_s, {});
    ASSERT_TRUE(old.waitForStarted());
    UpdateHarness h(Installation::Kind::perUser,
                    u" a \"q\" $(touch pwned) `touch pwned` 'x' ;touch pwned"_s, old.processId());
    writeFile(h.installFolder + u"/only-in-A"_s, "old");
    writeProgram(h.root.filePath(u"B/RavletAI-2.0.0"_s), "B");
    h.offer(h.package({u"RavletAI-2.0.0"_s}));
    QSignalSpy quit(h.service.get(), &UpdateService::terminationRequested);
    awaitTask(h.service->check());
    awaitTask(h.service->install());
    ASSERT_EQ(quit.size(), 1);
    EXPECT_EQ(h.events(), (QStringList{u"check:ok"_s, u"download:ok"_s, u"install:ok"_s}));

    QTest::qWait(300); // the script waits for the old process
    EXPECT_EQ(readAll(h.installFolder + u"/version"_s), "A");
    old.closeWriteChannel();
    ASSERT_TRUE(old.waitForFinished(5000));
    EXPECT_TRUE(
        QTest::qWaitFor([&] { return QFile::exists(h.installFolder + u"/started"_s); }, 15'000));
    EXPECT_EQ(readAll(h.installFolder + u"/version"_s), "B");
    EXPECT_FALSE(QFile::exists(h.installFolder + u"/only-in-A"_s));
    QStringList pwned;
    for (QDirIterator it(h.root.path(), QDir::AllEntries | QDir::NoDotAndDotDot,
                         QDirIterator::Subdirectories);
         it.hasNext();)
        if (it.next().endsWith(u"/pwned"_s))
            pwned.append(it.filePath());
    EXPECT_EQ(pwned, QStringList());
    UpdatePackage::ScriptPaths paths{42, u"/o"_s, u"/n"_s, u"/u"_s, u"/p\n"_s, u"/w"_s};
    EXPECT_FALSE(UpdatePackage::replacementScript(paths).has_value()) << "a line break is refused";
}

// An archive is read whole before anything is written: one entry that leaves the folder
// refuses all of it. Links that stay inside are fine. (An entry that climbs out with "../" is
// the self-update test's.)
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
}
