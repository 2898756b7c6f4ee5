# InterviewChaosTest: the interview against loopback servers of the backend, a speech vendor and
# the transcript channel.
find_package(Qt6 REQUIRED COMPONENTS Test WebSockets)

add_library(transcript_channel_server STATIC
    ${PROJECT_SOURCE_DIR}/tests/support/FakeTranscriptChannel.cpp
    ${PROJECT_SOURCE_DIR}/tests/support/FakeTranscriptChannel.h
)
target_link_libraries(transcript_channel_server PUBLIC test_support Qt6::WebSockets)

ravlet_add_test(interview_chaos_tests
    SOURCES InterviewChaosTest.cpp InterviewHarness.h
    LIBRARIES core speech_test_support transcript_channel_server Qt6::Test
    LABELS chaos)
