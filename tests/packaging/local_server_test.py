#!/usr/bin/env python3
"""The program as installed, with ravlet-server beside it in bin/, run on the test display:

- with nothing at its loopback origin, it starts that server for the user (data under
  $XDG_DATA_HOME/RavletAI), which answers /health, and stops it when the program quits;
- with an origin on another computer, it starts nothing.

The program is the test build (ravletai_under_test), which takes its origin from
RAVLET_TEST_BACKEND_ORIGIN; the product keeps its origin a constant of the build. Exit code 77
means skipped (no display)."""
import argparse, os, shutil, signal, socket, subprocess, sys, tempfile, time, urllib.request

SKIP = 77
WELCOME = "Welcome to RavletAI"


def wait_until(condition, timeout, step=0.1):
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value or time.monotonic() > deadline:
            return value
        time.sleep(step)


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


def processes_of(executable):
    """PIDs of the live processes running `executable`, with their parent PIDs."""
    found = {}
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            if os.readlink(f"/proc/{pid}/exe") != executable:
                continue
            with open(f"/proc/{pid}/stat") as f:
                fields = f.read().rsplit(")", 1)[1].split()
        except OSError:
            continue
        if fields[0] != "Z":
            found[int(pid)] = int(fields[1])
    return found


def display_from(state_path):
    values = {}
    with open(state_path) as f:
        for line in f:
            key, _, value = line.rstrip("\n").partition("=")
            values[key] = value
    if "MISSING" in values:
        print(f"skipped: {values['MISSING']} is not installed (scripts/install-deps.sh installs it)")
        sys.exit(SKIP)
    return values["DISPLAY"]


class Installed:
    """bin/ravletai and bin/ravlet-server in a folder of their own, as a package lays them out,
    and a private home for one run."""

    def __init__(self, root, program, server):
        self.root = root
        self.bin = os.path.join(root, "bin")
        os.makedirs(self.bin)
        self.program = os.path.join(self.bin, "ravletai")
        self.server = os.path.join(self.bin, "ravlet-server")
        link_or_copy(program, self.program)
        if server:
            link_or_copy(server, self.server)
        self.home = os.path.join(root, "home")
        self.env = dict(os.environ, HOME=self.home,
                        XDG_RUNTIME_DIR=os.path.join(self.home, "runtime"),
                        XDG_CONFIG_HOME=os.path.join(self.home, "config"),
                        XDG_DATA_HOME=os.path.join(self.home, "data"),
                        XDG_CACHE_HOME=os.path.join(self.home, "cache"),
                        # No secret store and no sound server: the launch goes on signed out.
                        DBUS_SESSION_BUS_ADDRESS="unix:path=/nonexistent/ravlet-no-bus",
                        PULSE_SERVER="unix:/nonexistent/ravlet-no-server",
                        QT_QUICK_BACKEND="software")
        for key in ("XDG_RUNTIME_DIR", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"):
            os.makedirs(self.env[key], mode=0o700)
        for key in ("WAYLAND_DISPLAY", "XDG_CURRENT_DESKTOP", "SESSION_MANAGER"):
            self.env.pop(key, None)
        self.log_path = os.path.join(root, "program.log")
        self.process = None

    def start(self, origin, display):
        self.env.update(DISPLAY=display, RAVLET_TEST_BACKEND_ORIGIN=origin)
        with open(self.log_path, "ab") as log:
            self.process = subprocess.Popen([self.program], env=self.env, stdout=log,
                                            stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL)

    def welcome_shown(self):
        found = subprocess.run(["xdotool", "search", "--onlyvisible", "--name", WELCOME],
                               env=self.env, capture_output=True)
        return found.returncode == 0

    def quit(self):
        """Quit as the desktop entry's action does: a second start with --quit. The exit code
        of the first program, or None if it did not end."""
        subprocess.run([self.program, "--quit"], env=self.env, timeout=30,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            return self.process.wait(timeout=15)
        except subprocess.TimeoutExpired:
            return None

    def kill(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()

    def log(self):
        with open(self.log_path, errors="replace") as f:
            return f.read()


def link_or_copy(source, target):
    try:
        os.link(source, target)
    except OSError:
        shutil.copy2(source, target)


class Failure(Exception):
    pass


def check(condition, message):
    if not condition:
        raise Failure(message)


def loopback_origin_starts_the_server_beside(work, program, server, display):
    installed = Installed(os.path.join(work, "loopback"), program, server)
    origin = f"http://127.0.0.1:{free_port()}"
    try:
        installed.start(origin, display)
        check(wait_until(lambda: answers(origin), 30),
              f"nothing answered {origin}/health within 30 s")
        servers = processes_of(installed.server)
        check(list(servers.values()) == [installed.process.pid],
              f"expected one ravlet-server, the program's child; found {servers}")
        database = os.path.join(installed.env["XDG_DATA_HOME"], "RavletAI", "server.sqlite")
        check(os.path.exists(database), f"the server keeps no data in {database}")
        check(wait_until(installed.welcome_shown, 30), "the launch did not go on to the welcome panel")

        check(installed.quit() == 0, "the program did not end with status 0 after --quit")
        check(wait_until(lambda: not processes_of(installed.server), 10),
              "ravlet-server still runs after the program quit")
        check(not answers(origin), f"{origin} still answers after the program quit")
    except Failure:
        print(installed.log(), file=sys.stderr)
        raise
    finally:
        installed.kill()
        for pid in processes_of(installed.server):
            os.kill(pid, signal.SIGKILL)


def remote_origin_starts_nothing(work, program, display):
    installed = Installed(os.path.join(work, "remote"), program, None)
    # A server beside the program that records any start, however short-lived.
    marker = os.path.join(installed.root, "server-started")
    with open(installed.server, "w") as f:
        f.write(f'#!/bin/sh\necho "$@" >>"{marker}"\nexec sleep 60\n')
    os.chmod(installed.server, 0o755)
    # TEST-NET-1: an address of another computer that nothing ever answers on.
    origin = f"http://192.0.2.1:{free_port()}"
    try:
        installed.start(origin, display)
        check(wait_until(installed.welcome_shown, 30), "the program did not reach its welcome panel")
        time.sleep(1)
        check(not os.path.exists(marker), f"a server was started for {origin}")
        check(installed.quit() == 0, "the program did not end with status 0 after --quit")
    except Failure:
        print(installed.log(), file=sys.stderr)
        raise
    finally:
        installed.kill()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--program", required=True)
    parser.add_argument("--server", required=True)
    parser.add_argument("--work", required=True, help="a folder on the build's file system")
    args = parser.parse_args()

    state = os.environ.get("RAVLET_DISPLAY_STATE")
    if not state:
        print("RAVLET_DISPLAY_STATE is not set: run through CTest")
        return SKIP
    display = display_from(state)
    if not shutil.which("xdotool"):
        print("skipped: xdotool is not installed (scripts/install-deps.sh installs it)")
        return SKIP

    os.makedirs(args.work, exist_ok=True)
    # Hard links need the build's file system: the scratch folder lives beside the binaries.
    work = tempfile.mkdtemp(prefix="layout.", dir=args.work)
    failed = 0
    for name, case in (("loopback origin", lambda: loopback_origin_starts_the_server_beside(
                            work, args.program, args.server, display)),
                       ("remote origin", lambda: remote_origin_starts_nothing(work, args.program, display))):
        try:
            case()
            print(f"ok: {name}")
        except Failure as failure:
            print(f"FAILED: {name}: {failure}", file=sys.stderr)
            failed += 1
    if not failed:
        shutil.rmtree(work, ignore_errors=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
