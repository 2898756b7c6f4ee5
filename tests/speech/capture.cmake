ravlet_add_test(capture_tests
    SOURCES AudioCaptureServiceTest.cpp MicrophoneServiceTest.cpp
    LIBRARIES speech)
