#include "InterviewHarness.h"

#include "APIError.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

// The session is closed with its length, then the transcript goes up. A retryable failure is
// posted once more, half a second later; a transcript still not delivered after that is kept
// for the next start. That unacknowledged lines reach the server at all is the chaos test's.
TEST(SessionFinalisationTest, ClosesThenPostsRetryingOnceWhenRetryableElseKeeps)
{
    const auto serverError = [](int status) { return failureOf(APIError::serverError(status)); };
    const auto hostNotFound =
        failureOf(TransportError(QNetworkReply::HostNotFoundError, u"Host"_s));
    const struct {
        const char* name;
        std::vector<std::exception_ptr> failures;
        qsizetype posts;
        std::optional<QString> error; // none: delivered by the retry
    } cases[] = {
        {"RetryableOnce", {serverError(503)}, 2, std::nullopt},
        {"Refused", {serverError(413)}, 1, APIError::serverError(413).description()},
        {"LostConnectionTwice", {failureOf(APIError::networkError()), hostNotFound}, 2, u"Host"_s},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        H h;
        h.start();
        h.clock.advance(6s);
        h.say(Speaker::interviewer, u"Question"_s);
        h.say(Speaker::user, u"Answer"_s);
        h.say(Speaker::user, u"and more"_s, false); // never posted
        for (const auto& failure : c.failures)
            h.backend->postTranscriptFailures.add(failure);
        h.clock.advance(1200ms);
        h.backend->calls.clear();
        auto stop = h.vm.stopInterview();
        h.clock.advance(499ms);
        EXPECT_EQ(h.callCount(u"postTranscript"_s), 1);
        h.clock.advance(1ms);
        awaitTask(std::move(stop));
        EXPECT_EQ(h.callCount(u"postTranscript"_s), c.posts);
        EXPECT_EQ(h.backend->calls.value(0), u"completeSession session-1 7200"_s);
        const auto archived = h.vm.pastSessions().value(0);
        EXPECT_TRUE(archived.status == InterviewSession::SessionStatus::completed
                    && archived.endedAt && !h.vm.currentSessionUsesBackend());
        EXPECT_EQ(h.vm.lastRecoverableError(),
                  c.error ? u"Transcript upload failed: "_s + *c.error : std::optional<QString>());
        const auto entries = h.vm.transcriptManager().finalEntriesForUpload();
        EXPECT_EQ(h.backend->delivered, c.error ? QList<QJsonObject>() : entries);
        const auto pending = h.vm.pendingTranscriptUpload().value_or(PendingTranscriptUpload{});
        EXPECT_EQ(pending.sessionId + QString::number(pending.entries.size()),
                  c.error ? u"session-12"_s : u"0"_s);
        EXPECT_TRUE(!c.error || pending.entries == entries);
    }
}

} // namespace
