// The overlay's view model and its two lists, against the interview's fakes on the manual
// clock: what the panel shows, derived from a real interview, and its layout rules.

#include "../core/InterviewHarness.h"

#include "AnswersModel.h"
#include "OverlayViewModel.h"
#include "TranscriptRowsModel.h"

#include <QAbstractItemModelTester>

#include <gtest/gtest.h>

#include <array>
#include <stdexcept>

using namespace std::chrono_literals;

namespace {

using Speaker = TranscriptEntry::Speaker;
using AnswerState = OverlayViewModel::AnswerState;

QCoro::Task<qsizetype> resumeCount(qsizetype count, bool fails)
{
    if (fails)
        throw std::runtime_error("503");
    co_return count;
}

class OverlayModelTest : public ::testing::Test {
protected:
    OverlayModelTest() { h.settings.setAutoTriggerAIAnswers(false); }

    // A final line of its own: more than the utterance gap after the speaker's last one.
    void line(Speaker speaker, const QString& text)
    {
        h.passTime(6s);
        h.say(speaker, text);
    }
    QVariant rowValue(int row, int role) const
    {
        return overlay.transcriptRows()->index(row).data(role);
    }

    InterviewHarness h;
    qsizetype resumes = 0;
    bool resumeRequestFails = false;
    OverlayViewModel overlay{
        OverlayViewModel::Services{h.vm, h.settings, h.strings, h.notifications, h.clock,
                                   [this] { return resumeCount(resumes, resumeRequestFails); }}};
    // Attached while both lists are still empty, so every change they make is checked.
    QAbstractItemModelTester rowsTester{overlay.transcriptRows(),
                                        QAbstractItemModelTester::FailureReportingMode::Fatal};
    QAbstractItemModelTester answersTester{overlay.answers(),
                                           QAbstractItemModelTester::FailureReportingMode::Fatal};
};

// What the panel draws from plain values: the rows' shading, the divider's limits and the
// answer area's view of the selected answer.
TEST(OverlayViews, RowsFadeToAFloorTheDividerStopsShortOfTheEndsAndTheAnswerAreaShowsWhatIsSelected)
{
    // Row, rows, opacity. Of six, the second would reach zero by the formula and stays at the
    // floor.
    const std::array<double, 3> rows[] = {{0, 1, 1},    {0, 0, 1},    {0, 2, 0.75},
                                          {0, 6, 0.25}, {1, 6, 0.25}, {2, 6, 0.25},
                                          {3, 6, 0.5},  {4, 6, 0.75}, {5, 6, 1}};
    for (const auto& [row, count, opacity] : rows)
        EXPECT_DOUBLE_EQ(TranscriptRowsModel::rowOpacity(int(row), int(count)), opacity)
            << row << " of " << count;
    // Upper height, drag, total, new upper height. Of 600 the upper area can be 40 to 560 high;
    // too small for both, it keeps its minimum.
    const std::array<double, 4> drags[] = {
        {120, 50, 600, 170}, {120, -500, 600, 40}, {120, 900, 600, 560}, {30, 10, 60, 40}};
    for (const auto& [upper, by, total, expected] : drags)
        EXPECT_DOUBLE_EQ(OverlayViewModel::draggedUpperHeight(upper, by, total), expected)
            << upper << " " << by;

    // Of 600 the answer keeps 120 however far down the divider stands; a panel with less than
    // that for both areas has no upper area.
    const std::array<double, 3> shares[] = {{0.2, 600, 120}, {0.9, 600, 480}, {0.5, 100, 0}};
    for (const auto& [ratio, total, upper] : shares)
        EXPECT_DOUBLE_EQ(OverlayViewModel::upperHeightOf(ratio, total), upper)
            << ratio << " " << total;

    using enum AnswerState;
    // Selected of three, its text, whether it streams, then what shows: only a streaming answer
    // with no text yet shows as generating, and a finished one with no text is still an answer.
    const std::tuple<std::optional<int>, QString, bool, OverlayViewModel::AnswerView> cases[] = {
        {std::nullopt, {}, false, {{}, false, placeholder, u"–/3"_s, false, false}},
        {0, u"one"_s, false, {u"one"_s, false, answer, u"1/3"_s, false, true}},
        {2, u"thr"_s, true, {u"thr"_s, true, answer, u"3/3"_s, true, false}},
        {2, {}, true, {{}, true, generating, u"3/3"_s, true, false}},
        {2, {}, false, {{}, false, answer, u"3/3"_s, true, false}},
        {3, {}, false, {{}, false, placeholder, u"–/3"_s, false, false}},
        {-1, {}, false, {{}, false, placeholder, u"–/3"_s, false, false}},
    };
    const auto fields = [](const OverlayViewModel::AnswerView& v) {
        return std::tuple(v.text, v.isStreaming, int(v.state), v.position, v.hasPrevious,
                          v.hasNext);
    };
    for (const auto& [selected, text, streaming, view] : cases)
        EXPECT_EQ(fields(OverlayViewModel::answerViewOf(selected, 3, text, streaming)),
                  fields(view))
            << selected.value_or(-9) << " " << streaming;
    EXPECT_EQ(OverlayViewModel::answerViewOf(std::nullopt, 0, {}, false).position, u"–/0"_s);
}

// Through one interview: the hint goes with the first row, a partial one (the hint's text runs in
// the Wayland desktops test); a partial row is no final one; a streamed answer grows in place and
// the trigger waits for it. (An answer that ends without a word is OverlayViews' last rows.)
TEST_F(OverlayModelTest, FollowsTheTranscriptAndAStreamedAnswer)
{
    EXPECT_FALSE(overlay.canTrigger()); // not recording
    h.backend->finishAnswers = false;
    h.backend->answerChunks = {};
    h.start();
    EXPECT_TRUE(overlay.canTrigger());
    EXPECT_TRUE(overlay.showsHint());
    h.say(Speaker::interviewer, u"So"_s, false);
    EXPECT_FALSE(overlay.showsHint());

    for (int k = 0; k < 5; ++k)
        line(k % 2 ? Speaker::user : Speaker::interviewer, u"Line "_s + QString::number(k));
    h.say(Speaker::user, u"Probably"_s, false);
    ASSERT_EQ(overlay.transcriptRows()->rowCount(), 6);
    EXPECT_FALSE(rowValue(5, TranscriptRowsModel::IsFinalRole).toBool());
    EXPECT_TRUE(rowValue(4, TranscriptRowsModel::IsInterviewerRole).toBool());

    h.vm.triggerAIAnswer();
    InterviewHarness::settle();
    EXPECT_FALSE(overlay.canTrigger());
    EXPECT_EQ(overlay.answerState(), AnswerState::generating);
    const auto stream = h.backend->answerStreams.last();
    stream->push(u"Calmly, "_s);
    stream->push(u"and early."_s);
    InterviewHarness::settle();
    EXPECT_EQ(overlay.answers()->rowCount(), 1);
    EXPECT_EQ(overlay.selectedAnswerText(), u"Calmly, and early."_s);
    stream->finish();
    InterviewHarness::settle();
    EXPECT_FALSE(overlay.answers()->index(0).data(AnswersModel::IsStreamingRole).toBool());
    EXPECT_TRUE(overlay.canTrigger());
}

// The tip comes a delay after the overlay shows when no resume is on file or the list could not
// be had; the resume button takes it away.
// (That it shows, and goes once a resume is uploaded, the whole-product test sees.)
TEST_F(OverlayModelTest, ResumeTipComesAfterTheDelayWhenNoResumeIsOnFile)
{
    resumeRequestFails = true;
    h.notifications.post(Notifications::overlayVisibilityChanged, false);
    h.passTime(1s);
    EXPECT_FALSE(overlay.showResumeTip()) << "hiding checks nothing";
    for (const auto& [fails, onFile, tip] :
         {std::tuple(true, 0, true), {false, 1, false}, {false, 0, true}}) {
        SCOPED_TRACE(fails ? "request fails" : onFile ? "one on file" : "none on file");
        resumeRequestFails = fails;
        resumes = onFile;
        h.notifications.post(Notifications::overlayVisibilityChanged, true);
        InterviewHarness::settle();
        h.passTime(599ms);
        EXPECT_FALSE(overlay.showResumeTip()) << "before the delay";
        h.passTime(1ms);
        EXPECT_EQ(overlay.showResumeTip(), tip);
        overlay.openResume();
        EXPECT_FALSE(overlay.showResumeTip()) << "the resume button leaves it";
    }
}

} // namespace
