#include "ServerHarness.h"

#include "APIClient.h"
#include "AuthTokenStore.h"
#include "AwaitTask.h"
#include "DeepgramProvider.h"
#include "ElevenLabsProvider.h"
#include "FakeBackend.h"
#include "FakeVendorServer.h"
#include "OpenAISTTProvider.h"
#include "NotificationCenter.h"
#include "SpeechTokens.h"
#include "TranscriptUploadService.h"

#include <QFile>
#include <QJsonDocument>
#include <QTest>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

// The program's own client libraries against the server: what they send is what the server
// reads, and what the server answers is what they decode.
class ClientContractTest : public ::testing::Test {
protected:
    ServerHarness server;
    InMemoryTokenStore tokens;
    NotificationCenter notifications;
    APIClient client{server.base(), tokens, notifications};
};

TEST_F(ClientContractTest, AFullInterviewThroughTheClient)
{
    const auto user = std::get<UserRecord>(
        server.accounts->createAccount(u"client@example.org"_s, u"long enough"_s));
    const auto auth = awaitTask(client.exchangeCode(server.accounts->issueCode(user.id)));
    EXPECT_EQ(auth.user.email, u"client@example.org"_s);
    client.setAccessToken(auth.accessToken);
    awaitTask(tokens.saveTokens(auth.accessToken, auth.refreshToken));

    // An expired access token is renewed through the refresh route, once, and the call retried.
    server.clock.advance(std::chrono::minutes(16));
    const auto status = awaitTask(client.fetchAccountStatus());
    // No endpoint is configured: the built-in recogniser serves where it is installed.
    EXPECT_EQ(status.speechProvider.has_value(), SpeechTokens::isBuiltInRecognizerInstalled());
    EXPECT_NE(client.accessToken(), auth.accessToken);

    QFile cv(server.dir.filePath(u"CV.txt"_s));
    ASSERT_TRUE(cv.open(QIODevice::WriteOnly));
    cv.write("Reduced build times by half.\n");
    cv.close();
    const auto resume = awaitTask(client.uploadResume(cv.fileName()));
    EXPECT_EQ(resume.filename, u"CV.txt"_s);
    EXPECT_EQ(resume.extractedText, u"Reduced build times by half.\n"_s);
    const auto job =
        awaitTask(client.createJobDescription(u"Build engineer"_s, u"Speed up CI"_s, std::nullopt));
    EXPECT_EQ(job.company, QString());
    EXPECT_EQ(awaitTask(client.fetchResumes()).resumes.size(), 1);
    EXPECT_EQ(awaitTask(client.fetchJobDescriptions()).jobDescriptions.size(), 1);

    const auto session = awaitTask(client.createSession(u"en"_s, u"en"_s));
    EXPECT_EQ(session.status, InterviewSession::SessionStatus::active);

    // Lines over the socket: a line sent twice with growing text keeps its newest text.
    SystemClock clock;
    TranscriptUploadService channel(clock);
    awaitTask(channel.start(server.base(), *client.accessToken(), session.id));
    TranscriptEntry first{u"e1"_s, TranscriptEntry::Speaker::interviewer, u"Tell me"_s, 2000, 0.9,
                          true};
    TranscriptEntry second{u"e2"_s, TranscriptEntry::Speaker::user, u"Sure."_s, 1000, std::nullopt,
                           true};
    channel.send(first);
    channel.send(second);
    first.content = u"Tell me about a time you sped up a build."_s;
    channel.send(first);
    ASSERT_TRUE(waitUntil(
        [&] { return channel.acknowledgedIds().size() == 2 && channel.pendingIds().isEmpty(); }));
    EXPECT_TRUE(awaitTask(channel.stop()).isEmpty());

    // The rest after the session, as the pending upload sends it.
    TranscriptEntry late{u"e3"_s, TranscriptEntry::Speaker::user, u"Thanks"_s, 3000, std::nullopt,
                         true};
    awaitTask(client.postTranscript(session.id, {late.uploadForm()}));

    server.engine.finishAtOnce = true;
    APIClient::AnswerRequest request{
        u"Tell me about a time"_s, {first.contextForm()}, session.id, u"en"_s, resume.id, job.id};
    auto answer = awaitTask(client.streamAnswer(request));
    ASSERT_TRUE(answer.logId);
    EXPECT_EQ(server.engine.answers.back()->request.resumeText,
              u"Reduced build times by half.\n"_s);
    awaitTask(client.saveAnswerLog(*answer.logId, u"Draft, edited"_s));
    awaitTask(client.completeSession(session.id, 0));

    const auto stored =
        QJsonDocument::fromJson(server
                                    .call({{}, {}, *client.accessToken(), {}}, u"GET"_s,
                                          u"/api/v1/interview/session/"_s + session.id)
                                    .body)
            .object();
    EXPECT_EQ(stored.value(u"status"_s).toString(), u"completed"_s);
    QStringList order;
    for (const auto& line : stored.value(u"transcript"_s).toArray())
        order.append(line.toObject().value(u"id"_s).toString() + u'='
                     + line.toObject().value(u"content"_s).toString());
    // By time of speech, not by arrival.
    EXPECT_EQ(order, (QStringList{u"e2=Sure."_s, u"e1=Tell me about a time you sped up a build."_s,
                                  u"e3=Thanks"_s}));

    awaitTask(client.deleteResume(resume.id));
    awaitTask(client.deleteJobDescription(job.id));
    EXPECT_TRUE(awaitTask(client.fetchResumes()).resumes.isEmpty());
}

// A server holding a vendor key: the client decodes the token it mints and connects to the
// vendor with it, and a vendor's refusal reaches the client in words that name the vendor.
TEST(VendorTokenContractTest, TheClientConnectsWithTheMintedTokenAndShowsRefusals)
{
    FakeBackend vendorApi;
    vendorApi.setRouteSequence(
        "POST", "/v1/realtime/client_secrets",
        {FakeBackend::Response::json(200, R"({"value":"ek_minted","expires_at":1756310470})"),
         FakeBackend::Response::json(429, R"({"error":{"message":"Rate limit reached"}})")});
    vendorApi.setRoute("POST", "/v1/auth/grant",
                       FakeBackend::Response::json(200, R"({"access_token":"dg.jwt.minted"})"));
    vendorApi.setRoute("POST", "/v1/single-use-token/realtime_scribe",
                       FakeBackend::Response::json(200, R"({"token":"el_minted"})"));

    SystemClock clock;
    for (auto vendor : {SpeechVendor::openai, SpeechVendor::deepgram, SpeechVendor::elevenlabs}) {
        SCOPED_TRACE(vendorName(vendor).toStdString());
        ServerConfig config;
        config.speechVendor =
            SpeechVendorConfig{vendor, u"sk-long-lived"_s, vendorApi.origin(), u"gpt-4o-transcribe"_s};
        ServerHarness server(config);
        InMemoryTokenStore tokens;
        NotificationCenter notifications;
        APIClient client{server.base(), tokens, notifications};
        const auto account = server.signUp();
        client.setAccessToken(account.accessToken);

        const auto status = awaitTask(client.fetchAccountStatus());
        EXPECT_EQ(status.speechProvider, vendorName(vendor));
        const auto token = awaitTask(client.fetchSpeechToken());
        EXPECT_EQ(token.provider, vendorName(vendor));
        EXPECT_FALSE(token.endpoint);

        FakeVendorServer vendorSocket(QStringList{u"realtime"_s});
        std::unique_ptr<SpeechRecognitionProvider> provider;
        switch (vendor) {
        case SpeechVendor::openai:
            EXPECT_EQ(token.sttModel, u"gpt-4o-transcribe"_s);
            provider = std::make_unique<OpenAISTTProvider>(TranscriptEntry::Speaker::interviewer,
                                                           clock, vendorSocket.origin());
            break;
        case SpeechVendor::deepgram:
            provider = std::make_unique<DeepgramProvider>(TranscriptEntry::Speaker::interviewer,
                                                          clock, vendorSocket.origin());
            break;
        case SpeechVendor::elevenlabs:
            provider = std::make_unique<ElevenLabsProvider>(TranscriptEntry::Speaker::interviewer,
                                                            clock, vendorSocket.origin());
            break;
        }
        awaitTask(provider->start(token.token, u"en-US"_s, std::make_shared<AudioStream>(),
                                  token.sttModel));
        ASSERT_TRUE(vendorSocket.waitForConnections(1));
        const auto& connection = vendorSocket.last();
        switch (vendor) {
        case SpeechVendor::openai:
            EXPECT_TRUE(connection.requestedSubprotocols.contains(
                u"openai-insecure-api-key.ek_minted"_s));
            ASSERT_TRUE(vendorSocket.waitForFrames(1));
            EXPECT_TRUE(connection.textFrames().first().contains(u"\"model\":\"gpt-4o-transcribe\""_s));
            break;
        case SpeechVendor::deepgram:
            EXPECT_EQ(connection.header("Authorization"), "Bearer dg.jwt.minted");
            break;
        case SpeechVendor::elevenlabs:
            EXPECT_TRUE(connection.queryItems.contains(std::pair(u"token"_s, u"el_minted"_s)));
            break;
        }
        awaitTask(provider->stop());
        // The provider's farewell closes the socket after stop returns; it must end before the
        // test does.
        EXPECT_TRUE(QTest::qWaitFor([&] { return vendorSocket.openConnectionCount() == 0; }, 5000));
        for (const auto& request : vendorApi.requests("POST", "/v1/auth/grant")
                                       + vendorApi.requests("POST", "/v1/realtime/client_secrets"))
            EXPECT_FALSE(request.body.contains("sk-long-lived")) << "the key travels in a header only";

        if (vendor == SpeechVendor::openai) {
            try {
                awaitTask(client.fetchSpeechToken());
                ADD_FAILURE() << "a rate-limited vendor gave a token";
            } catch (const SpeechTokenError& error) {
                EXPECT_TRUE(error.description().startsWith(u"OpenAI is limiting this server's requests"_s))
                    << error.description().toStdString();
            }
        }
    }
}
