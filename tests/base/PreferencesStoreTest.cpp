#include "QtPrinters.h"
#include "LogCapture.h"
#include "PreferencesStore.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRandomGenerator>
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

TEST(PreferencesStoreTest, EveryTypeRoundTripsAcrossAReopen)
{
    QTemporaryDir dir;
    const auto path = dir.filePath(u"RavletAI/preferences.json"_s);
    const QByteArray blob("\x00\x01{\"not\": json}\xff", 17);
    {
        JsonPreferencesStore store(path);
        store.setString(u"text"_s, u"héllo \"quoted\"\n"_s);
        store.setString(u"numericText"_s, u"5"_s);
        store.setString(u"emptyText"_s, QString());
        store.setDouble(u"double"_s, 0.85);
        store.setDouble(u"wholeDouble"_s, 5.0);
        store.setBool(u"false"_s, false);
        store.setInteger(u"zero"_s, 0);
        store.setInteger(u"big"_s, 9'007'199'254'740'993LL);
        store.setBytes(u"bytes"_s, blob);
        store.setString(u"removed"_s, u"x"_s);
        store.remove(u"removed"_s);
    }
    JsonPreferencesStore reopened(path);
    EXPECT_EQ(reopened.value(u"text"_s), PreferenceValue(u"héllo \"quoted\"\n"_s));
    EXPECT_EQ(reopened.value(u"numericText"_s), PreferenceValue(u"5"_s));
    EXPECT_EQ(reopened.value(u"emptyText"_s), PreferenceValue(QString()));
    EXPECT_EQ(reopened.value(u"double"_s), PreferenceValue(0.85));
    EXPECT_EQ(reopened.value(u"wholeDouble"_s), PreferenceValue(5.0)) << "a double stays a double";
    EXPECT_EQ(reopened.value(u"false"_s), PreferenceValue(false));
    EXPECT_EQ(reopened.value(u"zero"_s), PreferenceValue(qint64(0)));
    EXPECT_EQ(reopened.value(u"big"_s), PreferenceValue(qint64(9'007'199'254'740'993LL)));
    EXPECT_EQ(reopened.value(u"bytes"_s), PreferenceValue(blob));
    EXPECT_FALSE(reopened.contains(u"removed"_s));

    // A missing key is nothing, not false or zero; a text is not a number.
    EXPECT_FALSE(reopened.boolean(u"missing"_s));
    EXPECT_FALSE(reopened.number(u"missing"_s));
    EXPECT_EQ(reopened.boolean(u"false"_s), false);
    EXPECT_EQ(reopened.number(u"zero"_s), 0.0);
    EXPECT_FALSE(reopened.number(u"numericText"_s));
    EXPECT_FALSE(reopened.string(u"double"_s));
    EXPECT_FALSE(reopened.bytes(u"text"_s));
    EXPECT_FALSE(reopened.string(u"bytes"_s));
}

TEST(PreferencesStoreTest, NumericCastsFollowTheStoredKind)
{
    PreferencesStore store;
    store.setBool(u"flag"_s, true);
    store.setInteger(u"one"_s, 1);
    store.setInteger(u"two"_s, 2);
    store.setDouble(u"half"_s, 0.5);
    store.setDouble(u"three"_s, 3.0);
    EXPECT_EQ(store.number(u"flag"_s), 1.0);
    EXPECT_EQ(store.number(u"two"_s), 2.0);
    EXPECT_EQ(store.boolean(u"one"_s), true);
    EXPECT_FALSE(store.boolean(u"two"_s));
    EXPECT_FALSE(store.boolean(u"half"_s));
    EXPECT_EQ(store.integer(u"three"_s), 3);
    EXPECT_FALSE(store.integer(u"half"_s));
    EXPECT_FALSE(store.integer(u"flag"_s));
}

struct CorruptFile {
    const char* name;
    QByteArray data;
};

class CorruptPreferencesFileTest : public ::testing::TestWithParam<CorruptFile> {};

TEST_P(CorruptPreferencesFileTest, GivesEmptyStoreKeepsBadFileAsideAndLogsOneLine)
{
    QTemporaryDir dir;
    const auto path = dir.filePath(u"preferences.json"_s);
    writeFile(path, GetParam().data);

    LogCapture logs;
    JsonPreferencesStore store(path);
    EXPECT_TRUE(store.keys().isEmpty());
    ASSERT_EQ(logs.lines().size(), 1);
    EXPECT_TRUE(logs.lines().first().startsWith(u"[Preferences] "_s));
    EXPECT_FALSE(QFile::exists(path));

    QFile aside(path + u".corrupt"_s);
    ASSERT_TRUE(aside.open(QIODevice::ReadOnly));
    EXPECT_EQ(aside.readAll(), GetParam().data);

    // The store goes on working and writes a good file.
    store.setBool(u"autoTriggerAIAnswers"_s, true);
    EXPECT_EQ(JsonPreferencesStore(path).boolean(u"autoTriggerAIAnswers"_s), true);
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, CorruptPreferencesFileTest,
    ::testing::Values(
        CorruptFile{"NotJson", "not json at all"}, CorruptFile{"Empty", ""},
        CorruptFile{"Truncated", JsonPreferencesStore::serialize({{u"a"_s, u"b"_s}, {u"c"_s, 1.5}}).left(30)},
        CorruptFile{"Array", R"([1, 2])"}, CorruptFile{"NoValues", R"({"version": 1})"},
        CorruptFile{"UnknownKind", R"({"version": 1, "values": {"k": {"colour": "red"}}})"},
        CorruptFile{"KindMismatch", R"({"version": 1, "values": {"k": {"bool": "yes"}}})"},
        CorruptFile{"BadBase64", R"({"version": 1, "values": {"k": {"bytes": "%%%"}}})"},
        CorruptFile{"Binary", QByteArray("\xff\xfe\x00garbage", 10)}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(PreferencesStoreTest, UnwritableLocationKeepsValuesInMemoryAndLogs)
{
    QTemporaryDir dir;
    // A regular file where the folder should be: every write fails.
    writeFile(dir.filePath(u"blocked"_s), "file");
    LogCapture logs;
    JsonPreferencesStore store(dir.filePath(u"blocked/preferences.json"_s));
    store.setString(u"inputLanguage"_s, u"de-DE"_s);
    EXPECT_EQ(store.string(u"inputLanguage"_s), u"de-DE"_s);
    ASSERT_FALSE(logs.lines().isEmpty());
    EXPECT_TRUE(logs.lines().first().startsWith(u"[Preferences] could not save preferences"_s));
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
        EXPECT_TRUE(logs.lines().isEmpty()) << "round " << round << ": " << logs.lines().join(u'\n').toStdString();
        EXPECT_FALSE(QFile::exists(path + u".corrupt"_s));
        const auto counter = store.integer(u"counter"_s);
        const auto payload = store.string(u"payload"_s);
        if (!counter)
            continue; // killed before its first write finished
        ++completedRounds;
        // Whole values only: the long text and the number that the writer appends to it.
        ASSERT_TRUE(payload);
        ASSERT_GT(payload->size(), 20'000);
        EXPECT_EQ(payload->count(u'x'), 20'000);
        bool isNumber = false;
        payload->mid(20'000).toLongLong(&isNumber);
        EXPECT_TRUE(isNumber);
    }
    EXPECT_GT(completedRounds, 0) << "the writer never completed a write";
}
