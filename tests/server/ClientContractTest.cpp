#include "ServerHarness.h"

#include "APIClient.h"
#include "AuthTokenStore.h"
#include "AuthViewModel.h"
#include "AwaitTask.h"
#include "LogCapture.h"
#include "NotificationCenter.h"
#include "TranscriptUploadService.h"

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

// The program's own client libraries against the server, for what the whole-product test does not
// reach: a refresh after the access token expired, the pending transcript post, a socket that
// outlives its token, and sign-out. Documents and answers go through it there.
class ClientContractTest : public ::testing::Test {
protected:
    ServerHarness server;
    InMemoryTokenStore tokens;
    NotificationCenter notifications;
    APIClient client{server.base(), tokens, notifications};
};

TEST_F(ClientContractTest, RefreshPendingPostSocketAndSignOutThroughTheClient)
{
    const auto user = std::get<UserRecord>(
        server.accounts->createAccount(u"client@example.org"_s, u"long enough"_s));
    const auto auth = awaitTask(client.exchangeCode(server.accounts->issueCode(user.id)));
    client.setAccessToken(auth.accessToken);
    awaitTask(tokens.saveTokens(auth.accessToken, auth.refreshToken));

    // An expired access token is renewed through the refresh route, once, and the call retried.
    server.clock.advance(std::chrono::minutes(16));
    awaitTask(client.fetchAccountStatus());
    EXPECT_NE(client.accessToken(), auth.accessToken);

    const auto session = awaitTask(client.createSession(u"en"_s, u"en"_s));

    // Lines as the pending upload sends them, out of the order they were spoken in.
    using Speaker = TranscriptEntry::Speaker;
    const TranscriptEntry first{
        u"e1"_s, Speaker::interviewer, u"Tell me about a time."_s, 2000, 0.9, true},
        second{u"e2"_s, Speaker::user, u"Sure."_s, 1000, std::nullopt, true};
    awaitTask(client.postTranscript(session.id, {first.uploadForm(), second.uploadForm()}));

    // The transcript socket's own client: an open socket outlives its access token, checked when
    // it opened, and a line that grows after the server stored it is stored with its newest text.
    const auto storedText = [&](const QString& id) {
        auto query =
            server.db->run(u"SELECT content FROM transcript_lines WHERE entry_id = ?"_s, {id});
        return query.next() ? query.value(0).toString() : QString();
    };
    SystemClock clock;
    TranscriptUploadService upload(clock);
    awaitTask(upload.start(server.base(), *client.accessToken(), session.id), 10'000);
    TranscriptEntry growing{u"e3"_s, Speaker::user, u"Sure,"_s, 3000, std::nullopt, true};
    upload.send(growing);
    ASSERT_TRUE(waitUntil([&] { return storedText(u"e3"_s) == u"Sure,"_s; }));
    server.clock.advance(std::chrono::minutes(16));
    growing.content += u" the billing rewrite."_s;
    upload.send(growing);
    EXPECT_TRUE(awaitTask(upload.stop(), 10'000).isEmpty()) << "every line acknowledged";
    awaitTask(client.completeSession(session.id, 0));
    // The lines by time of speech, not by arrival.
    expectRoutes(server, {{}, {}, *client.accessToken(), {}},
                 {{"GET",
                   u"/api/v1/interview/session/"_s + session.id,
                   {},
                   200,
                   R"({"status":"completed","transcript":[{"id":"e2","content":"Sure."},
                       {"id":"e1","content":"Tell me about a time."},
                       {"id":"e3","content":"Sure, the billing rewrite."}]})"}});

    // Sign-out ends the refresh family on the server as well. (That a failed call signs the user
    // out all the same is the delegate's test of a returning user the server refuses.)
    const auto refreshToken = awaitTask(tokens.getRefreshToken());
    ASSERT_TRUE(refreshToken);
    LogCapture logs;
    AuthViewModel signedIn(tokens);
    signedIn.setApiClient(&client);
    signedIn.logout();
    EXPECT_TRUE(waitUntil([&] {
        return AuthStore(*server.db)
            .refresh(tokenHash(*refreshToken))
            .value_or(AuthStore::RefreshRecord{})
            .revoked;
    }));
    // The sign-out's request ends before the test does.
    EXPECT_TRUE(waitUntil(
        [&] { return !logs.lines().filter(u"[Auth] logout: the server ended"_s).isEmpty(); }));
    EXPECT_FALSE(awaitTask(tokens.getRefreshToken()));
}
