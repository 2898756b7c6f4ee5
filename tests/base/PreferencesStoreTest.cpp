#include "PreferencesStore.h"
#include "LogCapture.h"
#include "QtPrinters.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {
void writeFile(const QString& path, const QByteArray& data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(data);
}
} // namespace

// Every kind survives a reopen as itself, and typed reads keep a missing key distinct from false
// or zero and a text distinct from a number; only the documented numeric casts cross kinds.
TEST(PreferencesStoreTest, EveryKindRoundTripsAndReadsOnlyAsItself)
{
    using Reads = std::tuple<std::optional<QString>, std::optional<double>, std::optional<bool>,
                             std::optional<qint64>, std::optional<QByteArray>>;
    const auto no = std::nullopt;
    const QByteArray blob("\x00\x01{\"not\": json}\xff", 17);
    const qint64 big = 9'007'199'254'740'993LL; // more than a double holds
    const std::tuple<QString, PreferenceValue, Reads> rows[] = {
        {u"text"_s, u"héllo \"quoted\"\n"_s, {u"héllo \"quoted\"\n"_s, no, no, no, no}},
        {u"numericText"_s, u"5"_s, {u"5"_s, no, no, no, no}},
        {u"emptyText"_s, QString(), {QString(), no, no, no, no}},
        {u"half"_s, 0.5, {no, 0.5, no, no, no}},
        {u"wholeDouble"_s, 3.0, {no, 3.0, no, 3, no}}, // a double stays a double
        {u"false"_s, false, {no, 0.0, false, no, no}},
        {u"zero"_s, qint64(0), {no, 0.0, false, 0, no}},
        {u"one"_s, qint64(1), {no, 1.0, true, 1, no}},
        {u"two"_s, qint64(2), {no, 2.0, no, 2, no}},
        {u"big"_s, big, {no, double(big), no, big, no}},
        {u"bytes"_s, blob, {no, no, no, no, blob}},
    };
    QTemporaryDir dir;
    const auto path = dir.filePath(u"RavletAI/preferences.json"_s);
    {
        JsonPreferencesStore store(path);
        for (const auto& [key, value, reads] : rows)
            store.setValue(key, value);
        store.setString(u"removed"_s, u"x"_s);
        store.remove(u"removed"_s);
    }
    const JsonPreferencesStore reopened(path);
    const auto reads = [&](const QString& key) {
        return Reads{reopened.string(key), reopened.number(key), reopened.boolean(key),
                     reopened.integer(key), reopened.bytes(key)};
    };
    for (const auto& [key, value, expected] : rows) {
        EXPECT_EQ(reopened.value(key), value) << key.toStdString();
        EXPECT_EQ(reads(key), expected) << key.toStdString();
    }
    EXPECT_EQ(reads(u"removed"_s), Reads());
}

// Whatever cannot be read is kept aside, logged once, and the store starts empty and writes a good
// file. (The fuzz target throws every other shape of file at the reader.)
TEST(PreferencesStoreTest, CorruptFileGivesAnEmptyStoreAndIsKeptAside)
{
    for (const QByteArray& data :
         {QByteArray(), JsonPreferencesStore::serialize({{u"a"_s, u"b"_s}}).left(20),
          QByteArray(R"({"version": 1, "values": {"k": {"bool": "yes"}}})")}) {
        SCOPED_TRACE(data.toStdString());
        QTemporaryDir dir;
        const auto path = dir.filePath(u"preferences.json"_s);
        writeFile(path, data);
        LogCapture logs;
        JsonPreferencesStore store(path);
        EXPECT_TRUE(store.keys().isEmpty());
        EXPECT_EQ(logs.lines().size(), 1);
        EXPECT_TRUE(logs.lines().join(u'|').startsWith(u"[Preferences] "_s));
        QFile aside(path + u".corrupt"_s);
        EXPECT_TRUE(aside.open(QIODevice::ReadOnly) && aside.readAll() == data);
        store.setBool(u"autoTriggerAIAnswers"_s, true);
        EXPECT_EQ(JsonPreferencesStore(path).boolean(u"autoTriggerAIAnswers"_s), true);
    }
}

TEST(PreferencesStoreTest, UnwritableLocationKeepsValuesInMemoryAndLogs)
{
    QTemporaryDir dir;
    // A regular file where the folder should be: every write fails.
    writeFile(dir.filePath(u"blocked"_s), "file");
    LogCapture logs;
    JsonPreferencesStore store(dir.filePath(u"blocked/preferences.json"_s));
    store.setString(u"inputLanguage"_s, u"de-DE"_s);
    EXPECT_EQ(store.string(u"inputLanguage"_s), u"de-DE"_s);
    EXPECT_TRUE(logs.lines().join(u'|').startsWith(u"[Preferences] could not save preferences"_s));
}

TEST(PreferencesStoreTest, KilledWriterNeverLeavesPartialFile)
{
    QTemporaryDir dir;
    const auto path = dir.filePath(u"preferences.json"_s);
    int completedRounds = 0;
    for (int round = 0; round < 12; ++round) {
        QProcess writer;
        writer.start(QStringLiteral(PREFERENCES_WRITER), {path});
        ASSERT_TRUE(writer.waitForStarted(10'000));
        // Let it get into its write loop, then kill it at an arbitrary point of a write.
        QThread::msleep(30 + QRandomGenerator::global()->bounded(40));
        writer.kill();
        writer.waitForFinished(10'000);

        LogCapture logs;
        JsonPreferencesStore store(path);
        EXPECT_TRUE(logs.lines().isEmpty() && !QFile::exists(path + u".corrupt"_s))
            << "round " << round << ": " << logs.lines().join(u'\n').toStdString();
        if (!store.integer(u"counter"_s))
            continue; // killed before its first write finished
        ++completedRounds;
        // Whole values only: the long text and the number that the writer appends to it.
        static const QRegularExpression whole(u"^x{20000}[0-9]+$"_s);
        EXPECT_TRUE(whole.match(store.string(u"payload"_s).value_or(QString())).hasMatch())
            << "round " << round;
    }
    EXPECT_GT(completedRounds, 0) << "the writer never completed a write";
}
