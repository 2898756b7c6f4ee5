#include "TranscriptManager.h"
#include "Clock.h"
#include "QtPrinters.h"

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
        EXPECT_FALSE(
            manager.processSegment({text, false, speaker, ++vendorTimestamp, std::nullopt}));
    }
    QStringList contents() const
    {
        QStringList result;
        for (const auto& entry : manager.entries())
            result.append(entry.content);
        return result;
    }

    ManualClock clock;
    TranscriptManager manager{clock};
    qint64 vendorTimestamp = 1'000;
};

TEST_F(TranscriptManagerTest, FinalPiecesGroupIntoLinesByGapSpeakerAndClosing)
{
    // Steps are separated by "; ". A step may move the clock on first ("+5000 "), then: I and
    // U are final pieces of the interviewer and the user, i and u partials, each followed by its
    // text; C closes every active line.
    const struct {
        const char* name;
        QString steps;
        QStringList lines;
    } cases[] = {
        {"GapOfExactly5000MergesAnd5001Splits",
         u"I Tell me; +5000 I about yourself.; +5001 I Next question."_s,
         {u"Tell me about yourself."_s, u"Next question."_s}},
        // 5001 ms since the last final piece; the partial between does not count.
        {"FirstPieceAfterAnyGapAndPartialsDoNotResetTheGap",
         u"+3600000 U Hello; +3000 u I am; +2001 U I am Ada."_s,
         {u"Hello"_s, u"I am Ada."_s}},
        {"SpeakersInterleaveByFirstPiece",
         u"I Q1; u ans; U A1; u more; I continued"_s,
         {u"Q1 continued"_s, u"A1"_s}},
        {"ClosingStartsNewLinesWithinTheGap",
         u"I a; U b; C; I c; U d"_s,
         {u"a"_s, u"b"_s, u"c"_s, u"d"_s}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        manager.reset();
        for (QString step : c.steps.split(u"; "_s)) {
            if (step.startsWith(u'+')) {
                clock.advance(std::chrono::milliseconds(step.section(u' ', 0, 0).toInt()));
                step = step.section(u' ', 1);
            }
            const QChar op = step.front();
            const QString text = step.mid(2);
            const auto speaker = op.toUpper() == u'I' ? Speaker::interviewer : Speaker::user;
            if (op == u'C')
                manager.closeAllActiveEntries();
            else if (op == u'I' || op == u'U')
                commit(speaker, text);
            else
                partial(speaker, text);
        }
        EXPECT_EQ(contents(), c.lines);
    }
}

// A grown line keeps its id and the time of its first piece and takes the latest piece's
// confidence, an absent one included.
TEST_F(TranscriptManagerTest, AGrownLineKeepsItsIdAndFirstTime)
{
    const auto first = commit(Speaker::user, u"hello"_s, 0.5);
    ASSERT_TRUE(first);
    partial(Speaker::interviewer, u"So what"_s);
    clock.advance(5000ms);
    const auto merged = commit(Speaker::user, u"Because"_s);
    ASSERT_TRUE(merged);
    EXPECT_EQ(std::tuple(merged->id, merged->timestampMs, merged->confidence),
              std::tuple(first->id, qint64(1'001), std::optional<double>()));
    EXPECT_FALSE(manager.latestInterviewerText()) << "a partial is never asked";
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
    QStringList shown;
    for (const auto& entry : manager.displayedEntries())
        shown.append(entry.isFinal ? entry.content : entry.id + u":"_s + entry.content);
    EXPECT_EQ(shown, (QStringList{u"e2"_s, u"e3"_s, u"e4"_s, u"e5"_s, u"e6"_s,
                                  u"partial-interviewer:newer"_s, u"partial-user:older"_s}));
    EXPECT_EQ(manager.partialSummary(), u"[Interviewer] newer\n[You] older"_s);

    clock.advance(10ms);
    partial(Speaker::user, u"newest"_s);
    EXPECT_EQ(manager.partialSummary(), u"[You] newest\n[Interviewer] newer"_s);

    manager.reset();
    EXPECT_TRUE(manager.displayedEntries().isEmpty()) << "lines and partials alike";
    EXPECT_FALSE(manager.lastCommitTimestampMs(Speaker::user)
                 || manager.activeEntryId(Speaker::user));
}
