ravlet_add_test(transcript_upload_tests
    SOURCES TranscriptUploadServiceTest.cpp ${CMAKE_SOURCE_DIR}/tests/support/FakeTranscriptChannel.cpp
    LIBRARIES speech Qt6::Test Qt6::WebSockets)
