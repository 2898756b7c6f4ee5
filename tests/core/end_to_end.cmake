# InterviewEndToEndTest and InterviewChaosTest
