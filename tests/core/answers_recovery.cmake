# AIAnswersTest and SpeechRecoveryTest
ravlet_add_test(interview_answers_tests SOURCES AIAnswersTest.cpp InterviewHarness.h LIBRARIES core Qt6::Test)
ravlet_add_test(speech_recovery_tests SOURCES SpeechRecoveryTest.cpp InterviewHarness.h LIBRARIES core Qt6::Test)
