#!/usr/bin/python3
"""CPU and memory of the program during a live interview in real time: the real program and
ravlet-server (its offline recogniser and answers) on a private desktop (tests/e2e/product.py),
the overlay shown, another window holding the focus, and speech played in real time into both
the system audio and the microphone for the whole measured minute, with an answer triggered by
the key after each question. Prints the program's share of one core over the minute (goal: at
most 3 %), its resident memory, and the server's share for comparison.

    bench/live_interview_bench.py --program build/tests/shell/ravletai_under_test \\
        --server build/server/app/ravlet-server --video-call build/tests/e2e/e2e_video_call \\
        --press build/tests/e2e/e2e_xtest_press [--seconds 60]

(`cmake --build build --target live_interview_bench` runs it with these.) The program is the
copy the end-to-end tests build, which takes its backend origin from the environment; it is
otherwise the product."""
import argparse, os, shutil, sys, threading, time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.dirname(os.path.abspath(__file__))), "tests", "e2e"))
import product  # noqa: E402
from product import wait_until  # noqa: E402

OVERLAY = "RavletAI Overlay"
WELCOME = "Welcome to RavletAI"
QUESTIONS = ["Tell me about a time when you solved a difficult problem at work.",
             "Why do you want to work for our company?",
             "What is your greatest strength as an engineer?",
             "Describe a project you are proud of and your part in it.",
             "How do you handle a disagreement with a colleague?"]
ANSWERS = ["I rebuilt the billing service and the number of failed payments went down.",
           "Your team builds tools that I use every day and I want to make them better.",
           "I find the cause of a fault quickly and I write it down for the next person.",
           "I led the move of our servers to a new region without any downtime.",
           "I ask for the facts first and then we agree on a small experiment."]


def converse(desktop, stop):
    """Question, pause, answer, pause, for as long as the measurement runs."""
    turn = 0
    while not stop.is_set():
        desktop.speak(QUESTIONS[turn % len(QUESTIONS)], desktop.system_sink)
        if stop.wait(1.5):
            break
        desktop.key("Shift_R")  # the user asks for an answer while the interviewer waits
        desktop.speak(ANSWERS[turn % len(ANSWERS)], desktop.mic_sink)
        if stop.wait(1.5):
            break
        turn += 1


def main():
    parser = argparse.ArgumentParser()
    for option in ("--program", "--server", "--video-call", "--press"):
        parser.add_argument(option, required=True)
    parser.add_argument("--seconds", type=float, default=60)
    args = parser.parse_args()

    scratch = product.make_scratch()
    desktop = product.Desktop(scratch, args.press)
    try:
        desktop.start()
        server = product.Server(desktop, args.server)
        ui = product.Accessible()
        program = product.Program(desktop, args.program, server)
        if not wait_until(lambda: ui.find(WELCOME, "push button", "Sign In"), 30):
            raise RuntimeError("no welcome panel")
        ui.press(WELCOME, "OK, got it")
        ui.press(WELCOME, "Sign In")
        login = program.login_address()
        if not login:
            raise RuntimeError("Sign In did not open the browser")
        program.run_again(product.sign_in_over_http(login, "bench@example.org", "bench-password-1"))
        if not wait_until(lambda: desktop.is_viewable(OVERLAY), 20):
            raise RuntimeError("no overlay after signing in")
        desktop.spawn([args.video_call])
        wait_until(lambda: desktop.active_window() not in ("", None), 10)
        ui.press(OVERLAY, "Start")
        if not wait_until(lambda: ui.has_label(OVERLAY, "Recording live"), 30):
            raise RuntimeError("the interview did not start")

        stop = threading.Event()
        talk = threading.Thread(target=converse, args=(desktop, stop), daemon=True)
        talk.start()
        time.sleep(5)  # both recognisers under way, the first line on screen

        pid, server_pid = program.process.pid, server.process.pid
        begin, cpu0, server_cpu0 = time.monotonic(), product.cpu_seconds(pid), product.cpu_seconds(server_pid)
        peak = 0.0
        while time.monotonic() - begin < args.seconds:
            time.sleep(1)
            peak = max(peak, product.resident_mb(pid))
        elapsed = time.monotonic() - begin
        cpu = product.cpu_seconds(pid) - cpu0
        server_cpu = product.cpu_seconds(server_pid) - server_cpu0
        stop.set()
        talk.join(timeout=20)
        answers = ui.labels(OVERLAY)
        counter = next((name for name in answers if "/" in name and name.split("/")[-1].isdigit()), "?")

        share = 100 * cpu / elapsed
        print(f"measured: {elapsed:.1f} s of a live interview, both channels, overlay shown; answers {counter}")
        print(f"program CPU: {cpu:.2f} s = {share:.2f} % of one core (goal: at most 3 %) "
              f"{'met' if share <= 3 else 'MISSED'}")
        print(f"program resident memory: {product.resident_mb(pid):.1f} MB now, {peak:.1f} MB peak")
        print(f"ravlet-server CPU (offline recogniser on two sockets, answers): {100 * server_cpu / elapsed:.1f} % "
              "of one core")
        program.run_again("--quit")
        program.process.wait(timeout=20)
        return 0
    finally:
        desktop.stop()
        shutil.rmtree(scratch, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
