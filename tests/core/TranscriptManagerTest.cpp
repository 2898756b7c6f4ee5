#include "QtPrinters.h"
#include "Clock.h"
#include "TranscriptManager.h"

#include <QRegularExpression>
#include <QSignalSpy>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using Speaker = TranscriptEntry::Speaker;

class TranscriptManagerTest : public ::testing::Test {
protected:
    std::optional<TranscriptEntry> commit(Speaker speaker, const QString& text,
                                         std::optional<double> confidence = std::nullopt)
    {
        return manager.processSegment({text, true, speaker, ++vendorTimestamp, confidence});
    }
    void partial(Speaker speaker, const QString& text)
    {
        EXPECT_FALSE(manager.processSegment({text, false, speaker, ++vendorTimestamp, std::nullopt}));
    }
    QStringList contents() const
    {
        QStringList result;
        for (const auto& entry : manager.entries())
            result.append(entry.content);
        return result;
    }
    QStringList displayedIds() const
    {
        QStringList result;
        for (const auto& entry : manager.displayedEntries())
            result.append(entry.isFinal ? entry.content : entry.id + u":"_s + entry.content);
        return result;
    }

    ManualClock clock;
    TranscriptManager manager{clock};
    qint64 vendorTimestamp = 1'000;
};

TEST_F(TranscriptManagerTest, GapOfExactly5000MergesAnd5001Splits)
{
    const auto first = commit(Speaker::interviewer, u"Tell me"_s, 0.5);
    ASSERT_TRUE(first);
    EXPECT_TRUE(QRegularExpression(u"^[0-9A-F-]{36}$"_s).match(first->id).hasMatch()) << first->id.toStdString();
    EXPECT_EQ(first->timestampMs, 1'001);

    clock.advance(5000ms);
    const auto merged = commit(Speaker::interviewer, u"about yourself."_s);
    EXPECT_EQ(merged->id, first->id);
    EXPECT_EQ(merged->content, u"Tell me about yourself."_s);
    EXPECT_EQ(merged->timestampMs, 1'001) << "an entry keeps the time of its first piece";
    EXPECT_FALSE(merged->confidence) << "the latest piece's confidence, absent included";

    clock.advance(5001ms);
    const auto next = commit(Speaker::interviewer, u"Next question."_s, 0.9);
    EXPECT_NE(next->id, first->id);
    EXPECT_EQ(contents(), (QStringList{u"Tell me about yourself."_s, u"Next question."_s}));
    EXPECT_EQ(manager.entries().last().confidence, 0.9);
}

TEST_F(TranscriptManagerTest, FirstFinalOpensAnEntryAfterAnyGapAndPartialsDoNotResetTheGap)
{
    clock.advance(3'600'000ms);
    commit(Speaker::user, u"Hello"_s);
    clock.advance(3000ms);
    partial(Speaker::user, u"I am"_s);
    clock.advance(2001ms); // 5001 ms since the last final piece; the partial does not count
    commit(Speaker::user, u"I am Ada."_s);
    EXPECT_EQ(contents(), (QStringList{u"Hello"_s, u"I am Ada."_s}));
    EXPECT_FALSE(manager.currentPartialText(Speaker::user)) << "the final piece replaces the partial";
    EXPECT_FALSE(manager.partialUpdatedAtMs(Speaker::user));
}

TEST_F(TranscriptManagerTest, SpeakersInterleaveByFirstFinalAndKeepTheirOwnPartials)
{
    commit(Speaker::interviewer, u"Q1"_s);
    partial(Speaker::user, u"ans"_s);
    commit(Speaker::user, u"A1"_s);
    partial(Speaker::user, u"more"_s);
    commit(Speaker::interviewer, u"continued"_s);
    EXPECT_EQ(contents(), (QStringList{u"Q1 continued"_s, u"A1"_s}));
    EXPECT_EQ(manager.currentPartialText(Speaker::user), u"more"_s) << "the other speaker's final leaves it";
    EXPECT_EQ(manager.entries().at(0).speaker, Speaker::interviewer);
    EXPECT_EQ(manager.entries().at(1).speaker, Speaker::user);
}

TEST_F(TranscriptManagerTest, ClosingStartsNewEntriesWithinTheGapAndStaleIdsOpenNewOnes)
{
    commit(Speaker::interviewer, u"a"_s);
    commit(Speaker::user, u"b"_s);
    manager.closeAllActiveEntries();
    EXPECT_FALSE(manager.activeEntryId(Speaker::interviewer));
    commit(Speaker::interviewer, u"c"_s);
    commit(Speaker::user, u"d"_s);
    manager.closeActiveEntry(Speaker::user);
    commit(Speaker::interviewer, u"e"_s);
    commit(Speaker::user, u"f"_s);
    EXPECT_EQ(contents(), (QStringList{u"a"_s, u"b"_s, u"c e"_s, u"d"_s, u"f"_s}));

    // After a reset the active ids are gone too; a reset also forgets the last final time,
    // so the first piece after it behaves as the very first.
    commit(Speaker::user, u"g"_s);
    manager.reset();
    EXPECT_TRUE(manager.entries().isEmpty());
    EXPECT_TRUE(manager.displayedEntries().isEmpty());
    EXPECT_FALSE(manager.lastCommitTimestampMs(Speaker::user));
    clock.advance(60s);
    commit(Speaker::user, u"h"_s);
    clock.advance(5000ms);
    commit(Speaker::user, u"i"_s);
    EXPECT_EQ(contents(), QStringList{u"h i"_s});
}

TEST_F(TranscriptManagerTest, DisplayedEntriesShowLastFiveThenNewestPartialFirst)
{
    for (int i = 1; i <= 6; ++i) {
        commit(i % 2 ? Speaker::interviewer : Speaker::user, u"e%1"_s.arg(i));
        manager.closeAllActiveEntries();
    }
    partial(Speaker::user, u"older"_s);
    clock.advance(10ms);
    partial(Speaker::interviewer, u"newer"_s);
    EXPECT_EQ(displayedIds(), (QStringList{u"e2"_s, u"e3"_s, u"e4"_s, u"e5"_s, u"e6"_s,
                                           u"partial-interviewer:newer"_s, u"partial-user:older"_s}));
    const auto rows = manager.displayedEntries();
    EXPECT_EQ(rows.at(5).timestampMs, clock.nowMs());
    EXPECT_FALSE(rows.at(5).confidence);
    EXPECT_EQ(manager.partialSummary(), u"[Interviewer] newer\n[You] older"_s);

    clock.advance(10ms);
    partial(Speaker::user, u"newest"_s);
    EXPECT_EQ(manager.partialSummary(), u"[You] newest\n[Interviewer] newer"_s);

    // Same arrival time: the interviewer comes first.
    partial(Speaker::interviewer, u"tie"_s);
    EXPECT_EQ(manager.partialSummary(), u"[Interviewer] tie\n[You] newest"_s);
}

TEST_F(TranscriptManagerTest, EmptyPartialIsKeptButNeverShown)
{
    commit(Speaker::user, u"only"_s);
    partial(Speaker::interviewer, QString());
    EXPECT_EQ(manager.currentPartialText(Speaker::interviewer), QString());
    EXPECT_TRUE(manager.partialUpdatedAtMs(Speaker::interviewer));
    EXPECT_EQ(displayedIds(), QStringList{u"only"_s});
    EXPECT_EQ(manager.partialSummary(), QString());
}

TEST_F(TranscriptManagerTest, LatestInterviewerTextIgnoresPartialsAndTheUser)
{
    EXPECT_FALSE(manager.latestInterviewerText());
    commit(Speaker::user, u"hello"_s);
    partial(Speaker::interviewer, u"So what"_s);
    EXPECT_FALSE(manager.latestInterviewerText());

    commit(Speaker::interviewer, u"Why us?"_s);
    commit(Speaker::user, u"Because"_s);
    EXPECT_EQ(manager.latestInterviewerText(), u"Why us?"_s);
    commit(Speaker::interviewer, u"Be brief."_s);
    EXPECT_EQ(manager.latestInterviewerText(), u"Why us? Be brief."_s) << "the entry may still be growing";
}

TEST_F(TranscriptManagerTest, UploadFormsFollowTranscriptOrder)
{
    EXPECT_TRUE(manager.finalEntriesForUpload().isEmpty());
    commit(Speaker::interviewer, u"q"_s, 0.75);
    commit(Speaker::user, u"a"_s);
    partial(Speaker::user, u"not sent"_s);
    const auto forms = manager.finalEntriesForUpload();
    ASSERT_EQ(forms.size(), 2);
    EXPECT_EQ(forms.at(0).value(u"content"_s).toString(), u"q"_s);
    EXPECT_EQ(forms.at(0).value(u"confidence"_s).toDouble(), 0.75);
    EXPECT_EQ(forms.at(1).value(u"speaker"_s).toString(), u"user"_s);
    EXPECT_EQ(forms.at(1).value(u"confidence"_s).toDouble(), 0.0);
    EXPECT_EQ(forms.at(1).value(u"id"_s).toString(), manager.entries().at(1).id);
}

TEST_F(TranscriptManagerTest, NotifiesObserversOfEachChangedField)
{
    QSignalSpy entries(&manager, &TranscriptManager::entriesChanged);
    QSignalSpy partials(&manager, &TranscriptManager::currentPartialTextsChanged);
    partial(Speaker::user, u"x"_s);
    EXPECT_EQ(entries.count(), 0);
    EXPECT_EQ(partials.count(), 1);
    commit(Speaker::user, u"y"_s);
    EXPECT_EQ(entries.count(), 1);
    EXPECT_EQ(partials.count(), 2);
    manager.reset();
    EXPECT_EQ(entries.count(), 2);
}
