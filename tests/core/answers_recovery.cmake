# AIAnswersTest and SpeechRecoveryTest
