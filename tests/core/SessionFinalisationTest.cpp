#include "InterviewHarness.h"

#include "APIError.h"

#include <gtest/gtest.h>

#include <vector>

using namespace std::chrono_literals;

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

QStringList transcriptIds(const InterviewHarness& h)
{
    QStringList ids;
    for (const auto& entry : h.vm.transcriptManager().entries())
        ids.append(entry.id);
    return ids;
}

// Starts an interview in which the interviewer and the user each say `lines` final lines,
// more than 5 s apart so that each is an entry of its own.
void runInterview(InterviewHarness& h, int lines)
{
    h.start();
    ASSERT_TRUE(h.vm.isRecording());
    for (int k = 0; k < lines; ++k) {
        h.clock.advance(6s);
        h.say(Speaker::interviewer, u"Question "_s + QString::number(k));
        h.say(Speaker::user, u"Answer "_s + QString::number(k));
        h.say(Speaker::user, u"and more"_s, false);
    }
}

qsizetype posts(const InterviewHarness& h)
{
    return h.backend->callsOf(u"postTranscript"_s).size();
}

class SessionFinalisationTest : public ::testing::Test {
protected:
    InterviewHarness h;
};

TEST_F(SessionFinalisationTest, ClosesArchivesAndPostsOnlyWhatTheChannelDidNotAcknowledge)
{
    // Everything acknowledged: the session is closed and archived, and nothing is posted.
    runInterview(h, 2);
    h.channel()->acknowledgeAll();
    h.clock.advance(1500ms);
    const qint64 endedAt = h.clock.nowMs();
    h.stop();
    EXPECT_EQ(h.backend->calls.mid(4), QStringList{u"completeSession session-1 13500"_s});
    EXPECT_EQ(h.vm.pipelineState(), State::idle);
    EXPECT_FALSE(h.vm.sttStartTimeMs());
    EXPECT_FALSE(h.vm.currentSessionUsesBackend());
    EXPECT_FALSE(h.vm.hasActivePipeline());
    ASSERT_EQ(h.vm.pastSessions().size(), 1);
    const auto archived = h.vm.pastSessions().first();
    EXPECT_EQ(archived.id, u"session-1"_s);
    EXPECT_EQ(archived.status, InterviewSession::SessionStatus::completed);
    EXPECT_EQ(archived.endedAt->toMSecsSinceEpoch(), endedAt);
    EXPECT_FALSE(archived.durationSeconds);
    EXPECT_EQ(h.vm.currentSession(), archived);
    // Whole seconds from the session's start: 13.5 s is 13, not 14.
    EXPECT_EQ(h.telemetry->events.last(), u"session_completed 13 0"_s);

    // Some lines unacknowledged: those go up, in the channel's order, after the close.
    h.backend->calls.clear();
    runInterview(h, 3);
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
    ASSERT_EQ(h.vm.pastSessions().size(), 2);
    EXPECT_EQ(h.vm.pastSessions().first().id, u"session-2"_s);
}

TEST_F(SessionFinalisationTest, WithoutAChannelTheWholeTranscriptGoesUpEvenIfTheCloseFails)
{
    h.failNextChannel = true;
    runInterview(h, 2);
    ASSERT_EQ(h.vm.transcriptUploadService(), nullptr);
    h.backend->completeSessionFailures.add(failureOf(APIError::serverError(500)));
    h.stop();
    EXPECT_EQ(h.backend->callsOf(u"completeSession"_s).size(), 1); // no retry
    EXPECT_EQ(h.backend->callsOf(u"postTranscript"_s), QStringList{u"postTranscript session-1 4"_s});
    EXPECT_EQ(idsOf(h.backend->delivered), transcriptIds(h));
    EXPECT_EQ(h.vm.lastNotice(), u"Failed to mark interview complete on server. Data is still saved locally."_s);
    EXPECT_EQ(h.vm.lastRecoverableError(), u"Session finalize failed: "_s + APIError::serverError(500).description());
    EXPECT_EQ(h.vm.pipelineState(), State::idle);

    // A backend interview with no final line closes the session only.
    h.backend->calls.clear();
    h.failNextChannel = true;
    h.start();
    h.say(Speaker::interviewer, u"Hel"_s, false);
    h.stop();
    EXPECT_EQ(h.backend->calls.mid(4), QStringList{u"completeSession session-2 0"_s});
}

TEST_F(SessionFinalisationTest, ALocalInterviewSendsNothingButIsArchived)
{
    h.backend->createSessionFailures.add(failureOf(APIError::serverError(503)));
    runInterview(h, 1);
    h.backend->calls.clear();
    h.clock.advance(4s);
    h.stop();
    EXPECT_TRUE(h.backend->calls.isEmpty());
    EXPECT_EQ(h.vm.pipelineState(), State::idle);
    ASSERT_EQ(h.vm.pastSessions().size(), 1);
    EXPECT_EQ(h.vm.pastSessions().first().status, InterviewSession::SessionStatus::completed);
    EXPECT_EQ(h.telemetry->events.last(), u"session_completed 10 0"_s);
    // A local interview leaves no duration behind for the next one.
    EXPECT_FALSE(h.vm.sttStartTimeMs());
}

// A retryable failure is posted once more, half a second later; a transcript still not
// delivered after that is kept for the next start.
TEST_F(SessionFinalisationTest, FailedPostIsRetriedOnceWhenRetryableElseKept)
{
    struct Case {
        const char* name;
        std::vector<std::exception_ptr> failures;
        qsizetype posts;
        std::optional<QString> error; // none: delivered by the retry
    };
    const std::vector<Case> cases{
        {"RetryableOnce", {failureOf(APIError::serverError(503))}, 2, std::nullopt},
        {"Refused", {failureOf(APIError::serverError(413))}, 1, APIError::serverError(413).description()},
        {"Unauthorized", {failureOf(APIError::unauthorized())}, 1, APIError::unauthorized().description()},
        {"ServerErrorTwice", {failureOf(APIError::serverError(502)), failureOf(APIError::serverError(504))}, 2,
         APIError::serverError(504).description()},
        {"LostConnectionTwice",
         {failureOf(APIError::networkError()),
          failureOf(TransportError(QNetworkReply::HostNotFoundError, u"Host not found"_s))},
         2, u"Host not found"_s},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        InterviewHarness row;
        row.failNextChannel = true;
        runInterview(row, 1);
        for (const auto& failure : c.failures)
            row.backend->postTranscriptFailures.add(failure);
        auto stop = row.vm.stopInterview();
        row.clock.advance(499ms);
        EXPECT_EQ(posts(row), 1);
        row.clock.advance(1ms);
        awaitTask(std::move(stop));
        EXPECT_EQ(posts(row), c.posts);
        EXPECT_EQ(row.vm.pipelineState(), State::idle);
        if (!c.error) {
            EXPECT_EQ(idsOf(row.backend->delivered), transcriptIds(row));
            EXPECT_FALSE(row.vm.pendingTranscriptUpload());
            EXPECT_FALSE(row.vm.lastNotice());
            continue;
        }
        ASSERT_TRUE(row.vm.pendingTranscriptUpload());
        const auto& pending = *row.vm.pendingTranscriptUpload();
        EXPECT_EQ(pending.sessionId, u"session-1"_s);
        EXPECT_EQ(pending.entries, row.vm.transcriptManager().finalEntriesForUpload());
        EXPECT_EQ(row.vm.lastNotice(), u"Transcript upload failed. RavletAI will retry next time."_s);
        EXPECT_EQ(row.vm.lastRecoverableError(), u"Transcript upload failed: "_s + *c.error);
    }
}

// Leaves an interview whose transcript could not be delivered, `ago` before now.
void leaveUndelivered(InterviewHarness& h, std::chrono::seconds ago)
{
    h.failNextChannel = true;
    h.start();
    h.say(Speaker::interviewer, u"Lost line"_s);
    h.backend->postTranscriptFailures.add(failureOf(APIError::serverError(400)));
    h.stop();
    ASSERT_TRUE(h.vm.pendingTranscriptUpload());
    h.clock.advance(ago);
    h.backend->calls.clear();
}

TEST_F(SessionFinalisationTest, PendingUploadIsDeliveredAtTheNextSignedInStartBeforeTheNewSession)
{
    leaveUndelivered(h, 42s);
    h.vm.setLoggedIn(false);
    h.start();
    EXPECT_TRUE(h.backend->calls.isEmpty());
    ASSERT_TRUE(h.vm.pendingTranscriptUpload());

    h.vm.setLoggedIn(true);
    const auto pending = *h.vm.pendingTranscriptUpload();
    QStringList notices;
    const auto connection = QObject::connect(&h.vm, &InterviewViewModel::lastNoticeChanged, &h.vm,
                                             [&] { notices.append(h.vm.lastNotice().value_or(u"-"_s)); });
    h.start();
    QObject::disconnect(connection);
    EXPECT_EQ(notices, (QStringList{u"Recovered previous transcript upload."_s, u"-"_s}));
    EXPECT_EQ(h.backend->calls.mid(0, 3), (QStringList{u"postTranscript session-1 1"_s, u"fetchAccountStatus"_s,
                                                       u"createSession en-US en"_s}));
    EXPECT_EQ(h.backend->delivered, pending.entries);
    EXPECT_FALSE(h.vm.pendingTranscriptUpload());
    // The old session is not completed again.
    EXPECT_TRUE(h.backend->callsOf(u"completeSession session-1"_s).isEmpty());
}

TEST_F(SessionFinalisationTest, PendingUploadThatFailsAgainIsKeptAndNamedWithItsAge)
{
    leaveUndelivered(h, 42s);
    h.backend->postTranscriptFailures.add(failureOf(APIError::serverError(503)), 2);
    // The retry inside the start waits on the clock.
    h.gates.hold(u"fetchAccountStatus"_s);
    h.failNextChannel = true;
    auto start = h.vm.startInterview();
    h.clock.advance(500ms);
    ASSERT_TRUE(h.gates.isWaiting(u"fetchAccountStatus"_s));
    EXPECT_EQ(h.vm.lastNotice(), u"Previous transcript still pending upload (42s ago)."_s);
    h.gates.release(u"fetchAccountStatus"_s);
    awaitTask(std::move(start));
    EXPECT_EQ(posts(h), 2);
    EXPECT_TRUE(h.vm.pendingTranscriptUpload());
    // Shown only while the start runs.
    EXPECT_FALSE(h.vm.lastNotice());
    EXPECT_EQ(h.vm.pipelineState(), State::recording);

    // Its own delivery failing too, the newer transcript replaces the older one.
    h.say(Speaker::interviewer, u"Second lost"_s);
    h.backend->postTranscriptFailures.add(failureOf(APIError::serverError(400)));
    h.stop();
    ASSERT_TRUE(h.vm.pendingTranscriptUpload());
    EXPECT_EQ(h.vm.pendingTranscriptUpload()->sessionId, u"session-2"_s);
    ASSERT_EQ(h.vm.pendingTranscriptUpload()->entries.size(), 1);
    EXPECT_EQ(h.vm.pendingTranscriptUpload()->entries.first().value(u"content"_s).toString(), u"Second lost"_s);
}

} // namespace
