#include "InterviewHarness.h"

#include "APIError.h"
#include "AudioCaptureService.h"
#include "LogCapture.h"

#include <gtest/gtest.h>

namespace {

using Speaker = TranscriptEntry::Speaker;
using State = InterviewViewModel::PipelineState;

class InterviewPipelineTest : public ::testing::Test {
protected:
    InterviewHarness h;
};

TEST_F(InterviewPipelineTest, StartBuildsBothChannelsInOrderAndGoesLive)
{
    LogCapture log;
    h.start();
    EXPECT_TRUE(h.vm.isRecording());
    EXPECT_EQ(h.vm.pipelineState(), State::recording);
    EXPECT_EQ(h.vm.statusMessage(), u"Recording live"_s);
    EXPECT_EQ(h.backend->calls, (QStringList{u"fetchAccountStatus"_s, u"createSession en-US en"_s,
                                             u"fetchSpeechToken"_s, u"fetchSpeechToken"_s}));
    ASSERT_TRUE(h.vm.currentSession());
    EXPECT_EQ(h.vm.currentSession()->id, u"session-1"_s);
    EXPECT_TRUE(h.vm.currentSessionUsesBackend());
    EXPECT_EQ(h.vm.speechProvider(), SpeechProvider::deepgram);
    const auto interviewer = h.recognizerOf(Speaker::interviewer);
    const auto user = h.recognizerOf(Speaker::user);
    ASSERT_TRUE(interviewer && user);
    EXPECT_EQ(interviewer->vendor, SpeechProvider::deepgram);
    ASSERT_EQ(interviewer->starts.size(), 1);
    EXPECT_EQ(interviewer->starts[0].token, u"speech-token-1"_s);
    EXPECT_EQ(interviewer->starts[0].language, u"en-US"_s);
    EXPECT_EQ(interviewer->starts[0].model, u"nova-3"_s);
    EXPECT_EQ(interviewer->starts[0].audio, h.systemAudio.audioStream());
    ASSERT_EQ(user->starts.size(), 1);
    EXPECT_EQ(user->starts[0].token, u"speech-token-2"_s);
    EXPECT_EQ(user->starts[0].audio, h.microphone.audioStream());
    ASSERT_TRUE(h.channel());
    EXPECT_EQ(h.channel()->startedWith, (QStringList{u"http://backend.test"_s, u"access-token"_s, u"session-1"_s}));
    EXPECT_EQ(h.vm.runningTaskCount(), 4);
    EXPECT_TRUE(h.vm.sttStartTimeMs());
    EXPECT_FALSE(h.vm.lastNotice());
    EXPECT_EQ(h.telemetry->events, QStringList{u"first_interview_started"_s});
    EXPECT_EQ(log.lines(), (QStringList{u"[Mic] Permission: true"_s, u"[Mic] Capture started"_s,
                                        u"[Mic] Fetching speech token..."_s,
                                        u"[Mic] Token received, starting recognition (provider: deepgram)"_s,
                                        u"[Mic] Recognition started successfully"_s}));

    h.stop();
    EXPECT_EQ(h.vm.pipelineState(), State::idle);
    EXPECT_EQ(h.vm.statusMessage(), u"Ready"_s);
    EXPECT_FALSE(h.vm.isRecording());
    EXPECT_FALSE(interviewer->isRunning);
    EXPECT_FALSE(user->isRunning);
    EXPECT_FALSE(h.systemAudio.isRunning);
    EXPECT_FALSE(h.microphone.isRunning);
    EXPECT_EQ(h.vm.runningTaskCount(), 0);
    EXPECT_EQ(h.backend->callsOf(u"completeSession"_s), QStringList{u"completeSession session-1 0"_s});
}

} // namespace
