#!/usr/bin/python3
# The program installed from its .deb, started as a user starts it: through its desktop entry
# (gio launch, the desktop's own launcher), on a private desktop, with nothing at its built-in
# origin. It must start the installed server as its child, show the welcome panel, and take the
# server with it at --quit. Run by check-packages.sh after `apt-get install`.
# Argument: the folder for the screenshot. Exit code 77 means skipped.
import os, subprocess, sys, tempfile, time
sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e"))
from product import Accessible, check, healthy, processes, run_scene, wait_until  # noqa

PROGRAM, SERVER = "/usr/bin/ravletai", "/usr/bin/ravlet-server"
ENTRY, ORIGIN = "/usr/share/applications/ravletai.desktop", "http://127.0.0.1:8787"


def scene(desktop, screenshots):
    desktop.start()
    check(not healthy(ORIGIN), f"nothing answers at {ORIGIN} before the start")
    # The program inherits gio's output: a file, not a pipe this script would wait on to close.
    log = os.path.join(desktop.scratch, "program.log")
    env = dict(desktop.env, QT_LINUX_ACCESSIBILITY_ALWAYS_ON="1")
    with open(log, "w") as out:
        launched = subprocess.run(["gio", "launch", ENTRY], env=env, stdout=out, stderr=out, timeout=30)
    check(launched.returncode == 0, f"gio launch {ENTRY}")
    program = wait_until(lambda: list(processes(PROGRAM)), 30)
    check(bool(program), "the program runs")
    check(wait_until(lambda: healthy(ORIGIN), 30), f"its own server answers at {ORIGIN}")
    check(list(processes(SERVER).values()) == program, "the server is the program's child")
    data = os.path.join(desktop.env["XDG_DATA_HOME"], "RavletAI", "server.sqlite")
    check(os.path.exists(data), f"the server keeps its data in {data}")
    check(wait_until(lambda: desktop.is_viewable("Welcome to RavletAI"), 30), "the welcome panel opens")
    # The window maps before its first frame: the picture waits for the panel's content.
    seen = wait_until(lambda: Accessible().find("Welcome to RavletAI", "push button", "OK, got it"), 30)
    check(seen, "the panel shows its content (the telemetry notice's OK, got it)")
    time.sleep(1)
    desktop.screenshot(os.path.join(screenshots, "installed-welcome.png"))
    quit_code = subprocess.run([PROGRAM, "--quit"], env=desktop.env, capture_output=True, timeout=30).returncode
    check(quit_code == 0, "ravletai --quit")
    check(wait_until(lambda: not processes(PROGRAM) and not processes(SERVER), 15), "program and server end")
    check(not healthy(ORIGIN), "nothing answers after --quit")


def main(screenshots):
    if not (os.access(PROGRAM, os.X_OK) and os.path.exists(ENTRY)):
        return print(f"{PROGRAM} is not installed: skipped") or 77
    return run_scene(lambda desktop: scene(desktop, screenshots), scratch=tempfile.mkdtemp(prefix="installed."),
                     logs=("program.log",), before_stop=lambda desktop: [os.kill(pid, 9) for pid in processes(PROGRAM)])


sys.exit(main(*sys.argv[1:]))
