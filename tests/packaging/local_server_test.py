#!/usr/bin/env python3
"""The program as installed, with ravlet-server beside it in bin/, run on the test display:
with nothing at its loopback origin it starts that server for the user (data under
$XDG_DATA_HOME/RavletAI) and stops it when it quits; with an origin on another computer it
starts nothing.

The program is the test build (ravletai_under_test), which takes its origin from
RAVLET_TEST_BACKEND_ORIGIN; the product keeps its origin a constant of the build. Exit code 77
means skipped."""
import argparse, os, shutil, socket, subprocess, sys, tempfile, time, urllib.request

SKIP = 77


def wait_until(condition, timeout):
    deadline = time.monotonic() + timeout
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.1)
    return True


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def answers(origin):
    try:
        with urllib.request.urlopen(origin + "/health", timeout=1) as reply:
            return reply.status == 200
    except OSError:
        return False


def running(executable):
    """{pid: parent pid} of the live processes of `executable`."""
    found = {}
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            if os.readlink(f"/proc/{pid}/exe") == executable:
                with open(f"/proc/{pid}/stat") as f:
                    state, parent = f.read().rsplit(")", 1)[1].split()[:2]
                if state != "Z":
                    found[int(pid)] = int(parent)
        except OSError:
            pass
    return found


def place(source, target):
    """The program finds its server by its own path: a hard link, not a symbolic one."""
    try:
        os.link(source, target)
    except OSError:
        shutil.copy2(source, target)


class Installed:
    """bin/ravletai and bin/ravlet-server as a package lays them out, a private home, and the
    program started on the test display."""

    def __init__(self, root, program, display, origin):
        self.root, self.bin = root, os.path.join(root, "bin")
        os.makedirs(self.bin)
        self.program = os.path.join(self.bin, "ravletai")
        self.server = os.path.join(self.bin, "ravlet-server")
        place(program, self.program)
        home = os.path.join(root, "home")
        self.env = dict(os.environ, HOME=home, DISPLAY=display, RAVLET_TEST_BACKEND_ORIGIN=origin,
                        XDG_RUNTIME_DIR=home + "/runtime", XDG_CONFIG_HOME=home + "/config",
                        XDG_DATA_HOME=home + "/data", XDG_CACHE_HOME=home + "/cache",
                        # No secret store and no sound server: the launch goes on signed out.
                        DBUS_SESSION_BUS_ADDRESS="unix:path=/nonexistent/ravlet-no-bus",
                        PULSE_SERVER="unix:/nonexistent/ravlet-no-server", QT_QUICK_BACKEND="software")
        for folder in ("runtime", "config", "data", "cache"):
            os.makedirs(os.path.join(home, folder), mode=0o700)
        for key in ("WAYLAND_DISPLAY", "XDG_CURRENT_DESKTOP", "SESSION_MANAGER"):
            self.env.pop(key, None)
        self.log = os.path.join(root, "program.log")
        self.process = None

    def start(self):
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen([self.program], env=self.env, stdout=log,
                                            stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)

    def welcome_shown(self):
        return subprocess.run(["xdotool", "search", "--onlyvisible", "--name", "Welcome to RavletAI"],
                              env=self.env, capture_output=True).returncode == 0

    def quit(self):
        """Quits as the desktop entry's action does (a second start with --quit); the first
        program's exit code, or None if it did not end."""
        subprocess.run([self.program, "--quit"], env=self.env, timeout=30, capture_output=True)
        try:
            return self.process.wait(timeout=15)
        except subprocess.TimeoutExpired:
            return None

    def end(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()


def loopback_origin(installed, origin, server):
    place(server, installed.server)
    installed.start()
    yield wait_until(lambda: answers(origin), 30), f"nothing answered {origin}/health within 30 s"
    servers = running(installed.server)
    yield list(servers.values()) == [installed.process.pid], f"not one server, the program's child: {servers}"
    database = os.path.join(installed.env["XDG_DATA_HOME"], "RavletAI", "server.sqlite")
    yield os.path.exists(database), f"the server keeps no data in {database}"
    yield wait_until(installed.welcome_shown, 30), "the launch did not go on to the welcome panel"
    yield installed.quit() == 0, "the program did not end with status 0 after --quit"
    yield wait_until(lambda: not running(installed.server), 10), "ravlet-server outlived the program"
    yield not answers(origin), f"{origin} still answers after the program quit"


def remote_origin(installed, origin, server):
    # Beside the program, a server that records any start, however short-lived.
    marker = os.path.join(installed.root, "server-started")
    with open(installed.server, "w") as f:
        f.write(f'#!/bin/sh\necho "$@" >>"{marker}"\nexec sleep 60\n')
    os.chmod(installed.server, 0o755)
    installed.start()
    yield wait_until(installed.welcome_shown, 30), "the program did not reach its welcome panel"
    time.sleep(1)
    yield not os.path.exists(marker), f"a server was started for {origin}"
    yield installed.quit() == 0, "the program did not end with status 0 after --quit"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", required=True)
    parser.add_argument("--server", required=True)
    parser.add_argument("--work", required=True, help="a folder on the build's file system")
    args = parser.parse_args()

    state = {}
    if os.environ.get("RAVLET_DISPLAY_STATE"):
        with open(os.environ["RAVLET_DISPLAY_STATE"]) as f:
            state = dict(line.rstrip("\n").partition("=")[::2] for line in f)
    if "DISPLAY" not in state or not shutil.which("xdotool"):
        print("skipped: needs the test display (run through CTest) and xdotool "
              f"({state.get('MISSING', 'scripts/install-deps.sh installs them')})")
        return SKIP

    os.makedirs(args.work, exist_ok=True)
    work = tempfile.mkdtemp(prefix="layout.", dir=args.work)  # beside the binaries, for hard links
    failed = False
    # TEST-NET-1 (192.0.2.1) is another computer's address that nothing ever answers on.
    for case, host in ((loopback_origin, "127.0.0.1"), (remote_origin, "192.0.2.1")):
        origin = f"http://{host}:{free_port()}"
        installed = Installed(os.path.join(work, case.__name__), args.program, state["DISPLAY"], origin)
        try:
            problem = next((message for ok, message in case(installed, origin, args.server) if not ok), None)
        finally:
            installed.end()
            for pid in running(installed.server):
                os.kill(pid, 9)
        if problem:
            failed = True
            print(f"FAILED: {case.__name__}: {problem}\n{open(installed.log, errors='replace').read()}",
                  file=sys.stderr)
        else:
            print(f"ok: {case.__name__}")
    if not failed:
        shutil.rmtree(work, ignore_errors=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
