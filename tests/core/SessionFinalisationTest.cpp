#include "InterviewHarness.h"

#include "APIError.h"

#include <QSignalSpy>

#include <gtest/gtest.h>

namespace {

using Speaker = TranscriptEntry::Speaker;
using State = InterviewViewModel::PipelineState;

QStringList idsOf(const QList<QJsonObject>& entries)
{
    QStringList ids;
    for (const auto& entry : entries)
        ids.append(entry.value(u"id"_s).toString());
    return ids;
}

class SessionFinalisationTest : public ::testing::Test {
protected:
    // Starts an interview in which the interviewer and the user each say `lines` final lines,
    // more than 5 s apart so that each is an entry of its own.
    void runInterview(int lines)
    {
        h.start();
        ASSERT_TRUE(h.vm.isRecording());
        for (int k = 0; k < lines; ++k) {
            h.clock.advance(std::chrono::seconds(6));
            h.recognizerOf(Speaker::interviewer)->say(u"Question "_s + QString::number(k), true, h.clock.nowMs());
            h.recognizerOf(Speaker::user)->say(u"Answer "_s + QString::number(k), true, h.clock.nowMs());
            h.recognizerOf(Speaker::user)->say(u"and more"_s, false, h.clock.nowMs());
        }
        InterviewHarness::settle();
    }

    QStringList transcriptIds() const
    {
        QStringList ids;
        for (const auto& entry : h.vm.transcriptManager().entries())
            ids.append(entry.id);
        return ids;
    }

    InterviewHarness h;
};

TEST_F(SessionFinalisationTest, OnlyWhatTheChannelDidNotAcknowledgeIsPosted)
{
    // Everything acknowledged: the session is closed and nothing is posted.
    runInterview(2);
    h.channel()->acknowledgeAll();
    h.clock.advance(std::chrono::milliseconds(1500));
    h.stop();
    EXPECT_EQ(h.backend->calls.mid(4), QStringList{u"completeSession session-1 13500"_s});
    EXPECT_EQ(h.vm.pipelineState(), State::idle);
    EXPECT_FALSE(h.vm.sttStartTimeMs());

    // Some lines unacknowledged: those go up, in the channel's order, after the close.
    h.backend->calls.clear();
    runInterview(3);
    const auto sent = h.channel()->sent;
    ASSERT_EQ(sent.size(), 6);
    h.channel()->acknowledgedIds = {sent[0].id, sent[2].id, sent[3].id};
    h.stop();
    EXPECT_EQ(h.backend->calls.mid(4),
              (QStringList{u"completeSession session-2 18000"_s, u"postTranscript session-2 3"_s}));
    EXPECT_EQ(idsOf(h.backend->delivered), (QStringList{sent[1].id, sent[4].id, sent[5].id}));
    const auto& first = h.backend->delivered.first();
    EXPECT_EQ(first.value(u"speaker"_s).toString(), u"user"_s);
    EXPECT_EQ(first.value(u"content"_s).toString(), u"Answer 0"_s);
    EXPECT_EQ(first.keys().size(), 5);
    EXPECT_FALSE(h.vm.pendingTranscriptUpload());
}

TEST_F(SessionFinalisationTest, WithoutAChannelTheWholeTranscriptGoesUp)
{
    h.failNextChannel = true;
    runInterview(2);
    ASSERT_EQ(h.vm.transcriptUploadService(), nullptr);
    h.stop();
    EXPECT_EQ(h.backend->callsOf(u"postTranscript"_s), QStringList{u"postTranscript session-1 4"_s});
    EXPECT_EQ(idsOf(h.backend->delivered), transcriptIds());

    // A backend interview with no final line closes the session only.
    h.backend->calls.clear();
    h.failNextChannel = true;
    h.start();
    h.recognizerOf(Speaker::interviewer)->say(u"Hel"_s, false, h.clock.nowMs());
    InterviewHarness::settle();
    h.stop();
    EXPECT_EQ(h.backend->calls.mid(4), QStringList{u"completeSession session-2 0"_s});
}

TEST_F(SessionFinalisationTest, ALocalInterviewSendsNothingButIsArchived)
{
    h.backend->createSessionFailures.add(failureOf(APIError::serverError(503)));
    runInterview(1);
    h.backend->calls.clear();
    h.clock.advance(std::chrono::seconds(4));
    h.stop();
    EXPECT_TRUE(h.backend->calls.isEmpty());
    EXPECT_EQ(h.vm.pipelineState(), State::idle);
    ASSERT_EQ(h.vm.pastSessions().size(), 1);
    EXPECT_EQ(h.vm.pastSessions().first().status, InterviewSession::SessionStatus::completed);
    EXPECT_EQ(h.telemetry->events.last(), u"session_completed 10 0"_s);
    // A local interview leaves no duration behind for the next one.
    EXPECT_FALSE(h.vm.sttStartTimeMs());
}

TEST_F(SessionFinalisationTest, ClosingRecordsTheSessionAndReportsIt)
{
    InterviewHarness fresh;
    EXPECT_TRUE(fresh.vm.pastSessions().isEmpty());

    runInterview(1);
    h.channel()->acknowledgeAll();
    h.clock.advance(std::chrono::milliseconds(2900));
    const qint64 endedAt = h.clock.nowMs();
    h.stop();
    ASSERT_EQ(h.vm.pastSessions().size(), 1);
    const auto& archived = h.vm.pastSessions().first();
    EXPECT_EQ(archived.id, u"session-1"_s);
    EXPECT_EQ(archived.status, InterviewSession::SessionStatus::completed);
    EXPECT_EQ(archived.endedAt->toMSecsSinceEpoch(), endedAt);
    EXPECT_FALSE(archived.durationSeconds);
    EXPECT_EQ(h.vm.currentSession(), archived);
    EXPECT_FALSE(h.vm.currentSessionUsesBackend());
    EXPECT_FALSE(h.vm.hasActivePipeline());
    // Whole seconds from the session's start.
    EXPECT_EQ(h.telemetry->events.last(), u"session_completed 8 0"_s);

    runInterview(0);
    h.stop();
    ASSERT_EQ(h.vm.pastSessions().size(), 2);
    EXPECT_EQ(h.vm.pastSessions().first().id, u"session-2"_s);
}

TEST_F(SessionFinalisationTest, AFailedCloseIsReportedAndTheTranscriptStillGoesUp)
{
    h.failNextChannel = true;
    runInterview(1);
    h.backend->completeSessionFailures.add(failureOf(APIError::serverError(500)));
    h.stop();
    EXPECT_EQ(h.backend->callsOf(u"completeSession"_s).size(), 1); // no retry
    EXPECT_EQ(h.backend->callsOf(u"postTranscript"_s).size(), 1);
    EXPECT_EQ(h.vm.lastNotice(), u"Failed to mark interview complete on server. Data is still saved locally."_s);
    EXPECT_EQ(h.vm.lastRecoverableError(), u"Session finalize failed: "_s + APIError::serverError(500).description());
    EXPECT_EQ(h.vm.pipelineState(), State::idle);
}

TEST_F(SessionFinalisationTest, ARetryableFailedPostIsRepeatedOnceAfterHalfASecond)
{
    h.failNextChannel = true;
    runInterview(1);
    h.backend->postTranscriptFailures.add(failureOf(APIError::serverError(503)));
    auto stop = h.vm.stopInterview();
    h.clock.advance(std::chrono::milliseconds(499));
    EXPECT_EQ(h.backend->callsOf(u"postTranscript"_s).size(), 1);
    h.clock.advance(std::chrono::milliseconds(1));
    awaitTask(std::move(stop));
    ASSERT_EQ(h.backend->callsOf(u"postTranscript"_s).size(), 2);
    EXPECT_EQ(h.backend->callTimesMs.last() - h.backend->callTimesMs.at(h.backend->callTimesMs.size() - 2), 500);
    EXPECT_EQ(idsOf(h.backend->delivered), transcriptIds());
    EXPECT_FALSE(h.vm.pendingTranscriptUpload());
    EXPECT_FALSE(h.vm.lastNotice());
}

struct PostFailureCase {
    const char* name;
    std::exception_ptr first;
    std::exception_ptr second;
    int posts;
    QString description;
};

class UndeliveredTranscriptTest : public ::testing::TestWithParam<PostFailureCase> {};

TEST_P(UndeliveredTranscriptTest, IsKeptForTheNextStart)
{
    const auto& c = GetParam();
    InterviewHarness h;
    h.failNextChannel = true;
    h.start();
    h.recognizerOf(Speaker::interviewer)->say(u"Why us?"_s, true, h.clock.nowMs());
    InterviewHarness::settle();
    h.backend->postTranscriptFailures.add(c.first);
    if (c.second)
        h.backend->postTranscriptFailures.add(c.second);
    auto stop = h.vm.stopInterview();
    h.clock.advance(std::chrono::seconds(1));
    awaitTask(std::move(stop));

    EXPECT_EQ(h.backend->callsOf(u"postTranscript"_s).size(), c.posts);
    ASSERT_TRUE(h.vm.pendingTranscriptUpload());
    const auto& pending = *h.vm.pendingTranscriptUpload();
    EXPECT_EQ(pending.sessionId, u"session-1"_s);
    EXPECT_EQ(pending.entries, h.vm.transcriptManager().finalEntriesForUpload());
    EXPECT_EQ(h.vm.lastNotice(), u"Transcript upload failed. RavletAI will retry next time."_s);
    EXPECT_EQ(h.vm.lastRecoverableError(), u"Transcript upload failed: "_s + c.description);
    EXPECT_EQ(h.vm.pipelineState(), State::idle);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, UndeliveredTranscriptTest,
    ::testing::Values(
        PostFailureCase{"refusedOnce", failureOf(APIError::serverError(413)), nullptr, 1,
                        APIError::serverError(413).description()},
        PostFailureCase{"unauthorizedOnce", failureOf(APIError::unauthorized()), nullptr, 1,
                        APIError::unauthorized().description()},
        PostFailureCase{"serverErrorTwice", failureOf(APIError::serverError(502)),
                        failureOf(APIError::serverError(504)), 2, APIError::serverError(504).description()},
        PostFailureCase{"lostConnectionTwice", failureOf(APIError::networkError()),
                        failureOf(TransportError(QNetworkReply::HostNotFoundError, u"Host not found"_s)), 2,
                        u"Host not found"_s}),
    [](const auto& info) { return std::string(info.param.name); });

class PendingUploadTest : public SessionFinalisationTest {
protected:
    // An interview whose transcript could not be delivered, `ago` before now.
    void leaveUndelivered(const QString& line, std::chrono::seconds ago)
    {
        h.failNextChannel = true;
        h.start();
        h.recognizerOf(Speaker::interviewer)->say(line, true, h.clock.nowMs());
        InterviewHarness::settle();
        h.backend->postTranscriptFailures.add(failureOf(APIError::serverError(400)));
        h.stop();
        ASSERT_TRUE(h.vm.pendingTranscriptUpload());
        h.clock.advance(ago);
        h.backend->calls.clear();
    }

    // The notices shown while the next start runs.
    QStringList noticesDuringStart()
    {
        QStringList notices;
        const auto connection = QObject::connect(&h.vm, &InterviewViewModel::lastNoticeChanged, &h.vm,
                                                 [&] { notices.append(h.vm.lastNotice().value_or(u"-"_s)); });
        h.start();
        QObject::disconnect(connection);
        return notices;
    }
};

TEST_F(PendingUploadTest, IsDeliveredAtTheNextStartBeforeTheNewSession)
{
    leaveUndelivered(u"Lost line"_s, std::chrono::seconds(42));
    const auto pending = *h.vm.pendingTranscriptUpload();
    const auto notices = noticesDuringStart();
    EXPECT_EQ(notices, (QStringList{u"Recovered previous transcript upload."_s, u"-"_s}));
    EXPECT_EQ(h.backend->calls.mid(0, 3), (QStringList{u"postTranscript session-1 1"_s, u"fetchAccountStatus"_s,
                                                       u"createSession en-US en"_s}));
    EXPECT_EQ(h.backend->delivered, pending.entries);
    EXPECT_FALSE(h.vm.pendingTranscriptUpload());
    EXPECT_FALSE(h.vm.lastNotice());
    // The old session is not completed again.
    EXPECT_TRUE(h.backend->callsOf(u"completeSession session-1"_s).isEmpty());
}

TEST_F(PendingUploadTest, ThatFailsAgainIsKeptAndNamedWithItsAge)
{
    leaveUndelivered(u"Lost line"_s, std::chrono::seconds(42));
    h.backend->postTranscriptFailures.add(failureOf(APIError::serverError(503)), 2);
    // The retry inside the start waits on the clock.
    h.gates.hold(u"fetchAccountStatus"_s);
    auto start = h.vm.startInterview();
    h.clock.advance(std::chrono::milliseconds(500));
    ASSERT_TRUE(h.gates.isWaiting(u"fetchAccountStatus"_s));
    EXPECT_EQ(h.vm.lastNotice(), u"Previous transcript still pending upload (42s ago)."_s);
    h.gates.release(u"fetchAccountStatus"_s);
    awaitTask(std::move(start));
    EXPECT_EQ(h.backend->callsOf(u"postTranscript"_s).size(), 2);
    EXPECT_TRUE(h.vm.pendingTranscriptUpload());
    // Shown only while the start runs.
    EXPECT_FALSE(h.vm.lastNotice());
    EXPECT_EQ(h.vm.pipelineState(), State::recording);
}

TEST_F(PendingUploadTest, ANewerFailureReplacesTheOlderRecord)
{
    leaveUndelivered(u"First lost"_s, std::chrono::seconds(1));
    // The next start's retry fails too, and so does its own delivery.
    h.backend->postTranscriptFailures.add(failureOf(APIError::serverError(400)));
    h.failNextChannel = true;
    h.start();
    h.recognizerOf(Speaker::interviewer)->say(u"Second lost"_s, true, h.clock.nowMs());
    InterviewHarness::settle();
    h.backend->postTranscriptFailures.add(failureOf(APIError::serverError(400)));
    h.stop();
    ASSERT_TRUE(h.vm.pendingTranscriptUpload());
    EXPECT_EQ(h.vm.pendingTranscriptUpload()->sessionId, u"session-2"_s);
    ASSERT_EQ(h.vm.pendingTranscriptUpload()->entries.size(), 1);
    EXPECT_EQ(h.vm.pendingTranscriptUpload()->entries.first().value(u"content"_s).toString(), u"Second lost"_s);
}

TEST_F(PendingUploadTest, WaitsForASignedInStart)
{
    leaveUndelivered(u"Lost line"_s, std::chrono::seconds(1));
    h.vm.setLoggedIn(false);
    h.start();
    EXPECT_TRUE(h.backend->calls.isEmpty());
    EXPECT_TRUE(h.vm.pendingTranscriptUpload());
}

} // namespace
