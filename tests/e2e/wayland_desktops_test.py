#!/usr/bin/python3
"""The program on real Wayland compositors, headless: a native Wayland window holds the focus
while the trigger reaches the program the way that desktop allows, and an answer starts.

  sway: no shortcut portal. The test's sway configuration binds chords to `ravletai --trigger`
        and `--previous-answer`; wtype presses them into the focused native window.

  kwin: KWin with the desktop's real shortcut portal (xdg-desktop-portal-kde). The program
        registers its chords there; KWin's fake-input protocol presses them into the focused
        native window, and the overlay stays above without ever taking the focus, also when
        clicked.

The program runs through XWayland as on a user's desktop, signed in to a real ravlet-server,
with an interview heard through a private sound server. Screenshots of the whole output go to
--screenshots. Exits 77 when the compositor or a tool is not installed."""
import argparse, json, os, re, shutil, subprocess, sys, time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import product  # noqa: E402
from product import DASHBOARD, OVERLAY, check, require, wait_until  # noqa: E402
from whole_product_test import QUESTIONS, counter, shows_draft, transcript_rows  # noqa: E402

# sway will not run as root; the whole run then goes to this user (nobody).
UNPRIVILEGED = 65534
CHORDS = {"--trigger": ("ctrl", "alt", "backslash"), "--previous-answer": ("ctrl", "alt", "bracketleft")}


class SwayDesktop(product.Desktop):
    """sway on its headless backend with XWayland, the test's keyring, accessibility bus and
    sound server, a keyboard seat fed by wtype, and foot as the focused native window."""

    name, session = "sway", "sway"

    def __init__(self, scratch, program):
        super().__init__(scratch, None, ("sway", "swaymsg", "wtype", "grim", "foot", "Xwayland", "xdotool"))
        self.program = program

    def start(self):
        self.start_services()
        display_file = os.path.join(self.scratch, "xwayland-display")
        config = os.path.join(self.scratch, "sway.config")
        with open(config, "w") as f:
            f.write("xwayland enable\noutput HEADLESS-1 resolution 1280x800\n"
                    # Without it sway tiles the overlay beside the focused window.
                    "for_window [shell=\"xwayland\"] floating enable\n"
                    f"exec sh -c 'echo \"$DISPLAY\" >{display_file}'\n")
            for option, chord in CHORDS.items():
                f.write(f"bindsym {'+'.join(chord[:-1]).title()}+{chord[-1]} exec {self.program} {option}\n")
        self.env.update(WLR_BACKENDS="headless", WLR_LIBINPUT_NO_DEVICES="1", WLR_RENDERER="pixman",
                        XDG_SESSION_TYPE="wayland", XDG_CURRENT_DESKTOP="sway")
        self.spawn(["sway", "--config", config], log="sway.log")
        runtime = self.env["XDG_RUNTIME_DIR"]
        socket = wait_until(lambda: next((n for n in os.listdir(runtime) if n.startswith("wayland-")
                                          and not n.endswith(".lock")), None), 30)
        if not socket:
            raise RuntimeError("sway did not start")
        self.env["WAYLAND_DISPLAY"] = socket
        self.env["SWAYSOCK"] = wait_until(lambda: next((os.path.join(runtime, n) for n in os.listdir(runtime)
                                                        if n.startswith("sway-ipc.")), None), 10)
        if not wait_until(lambda: os.path.exists(display_file) and open(display_file).read().strip(), 30):
            raise RuntimeError("sway gave no X display")
        self.env["DISPLAY"] = open(display_file).read().strip()
        # The seat has a keyboard only once a virtual one exists; clients that open before it
        # never get key events.
        self.spawn(["wtype", "-s", "86400000"])
        self.share_session("WAYLAND_DISPLAY")

    def tree(self):
        result = subprocess.run(["swaymsg", "-t", "get_tree", "-r"], env=self.env, capture_output=True, text=True)
        return json.loads(result.stdout) if result.returncode == 0 else {}

    def signed_in(self, log):
        pass

    def trigger_name(self, log, program):
        return command_trigger(program)

    def keybinds_page(self, ui, program, chord, shots):
        pass

    def open_call(self):
        self.spawn(["foot", "--app-id", "video-call", "sleep", "3600"], log="foot.log")
        require(wait_until(self.call_focused, 15), "the native Wayland window has the focus", self.focus)

    def call_focused(self):
        return self.focus() == ("xdg_shell", "video-call")

    def answered(self, shots):
        self.screenshot(os.path.join(shots, "sway-02-answers.png"))

    def focus(self):
        """The focused window: (its shell, its app id or X11 class), or None."""
        stack = [self.tree()]
        while stack:
            node = stack.pop()
            if node.get("focused") and node.get("type") in ("con", "floating_con"):
                return node.get("shell"), node.get("app_id") or (node.get("window_properties") or {}).get("class")
            stack.extend(node.get("nodes", []) + node.get("floating_nodes", []))
        return None

    def press_chord(self, chord):
        *modifiers, key = chord
        arguments = ["wtype"]
        for modifier in modifiers:
            arguments += ["-M", modifier]
        arguments += ["-k", key]
        for modifier in reversed(modifiers):
            arguments += ["-m", modifier]
        subprocess.run(arguments, env=self.env, check=True)

    def screenshot(self, path):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        subprocess.run(["grim", path], env=self.env, check=True)


# Linux input key codes, for KWin's fake input.
KEY_CODES = {"ctrl": 29, "alt": 56, "backslash": 43, "bracketleft": 26, "bracketright": 27}
# What KWin's scripting prints about its windows, into its own log.
KWIN_SCRIPT = """
var active = workspace.activeClient;
print("RAVLET ACTIVE " + (active ? active.resourceClass + "|" + active.caption : "none"));
var clients = workspace.clientList();
for (var i = 0; i < clients.length; ++i)
    print("RAVLET WINDOW " + clients[i].caption + "|above=" + clients[i].keepAbove);
"""


def started_by_bus(address):
    """The processes the bus at `address` started on demand (it names itself in their
    environment as DBUS_STARTER_ADDRESS)."""
    found = []
    # The bus adds its guid to the address it hands out.
    marker = ("DBUS_STARTER_ADDRESS=" + address.split(",guid=")[0]).encode()
    for pid in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{pid}/environ", "rb") as f:
                if any(entry.startswith(marker) for entry in f.read().split(b"\0")):
                    found.append(int(pid))
        except OSError:
            continue
    return found


class KWinDesktop(product.Desktop):
    """KWin on its virtual backend with XWayland, on the keyring's session bus, where D-Bus
    starts xdg-desktop-portal and its KDE backend on demand."""

    name, session = "KWin", "KDE"

    def __init__(self, scratch, fake_keys, screenshot):
        super().__init__(scratch, None, ("kwin_wayland", "chromium", "xdotool", "gdbus",
                                         "dbus-update-activation-environment", "/usr/libexec/xdg-desktop-portal"))
        if not os.path.exists("/usr/share/xdg-desktop-portal/portals/kde.portal"):
            raise product.Missing("xdg-desktop-portal-kde is not installed")
        if not (fake_keys and screenshot):
            raise product.Missing("the KWin helpers were not built (libwayland-dev, plasma-wayland-protocols)")
        self.fake_keys, self.kwin_screenshot = fake_keys, screenshot
        self.scripts = 0

    def start(self):
        self.start_services()
        # On KDE xdg-open hands web addresses to kfmclient: the test's one records them where
        # the stand-in browser does. (KDE_SESSION_VERSION stays unset: with it the keyring
        # library would look for KWallet instead of the test's Secret Service.)
        shims = os.path.join(self.scratch, "bin")
        os.makedirs(shims, exist_ok=True)
        with open(os.path.join(shims, "kfmclient"), "w") as f:
            f.write(f'#!/bin/sh\necho "$2" >>"{os.path.join(self.scratch, "browser-opened")}"\n')
        os.chmod(os.path.join(shims, "kfmclient"), 0o755)
        self.env["PATH"] = shims + os.pathsep + self.env["PATH"]
        # The installed binary carries a file capability outside this machine's bounding set;
        # a plain copy runs.
        kwin = os.path.join(self.scratch, "kwin_wayland")
        shutil.copy(shutil.which("kwin_wayland"), kwin)
        display_file = os.path.join(self.scratch, "xwayland-display")
        self.env.update(XDG_SESSION_TYPE="wayland", XDG_CURRENT_DESKTOP="KDE")
        kwin_env = dict(self.env, KWIN_WAYLAND_NO_PERMISSION_CHECKS="1", KWIN_SCREENSHOT_NO_PERMISSION_CHECKS="1",
                        QT_LOGGING_RULES="kwin_scripting=true")
        # KWin starts this once XWayland is up, with its DISPLAY (it takes no arguments for it).
        tell_display = os.path.join(self.scratch, "tell-display")
        with open(tell_display, "w") as f:
            f.write(f'#!/bin/sh\necho "$DISPLAY" >{display_file}\nexec sleep 86400\n')
        os.chmod(tell_display, 0o755)
        socket = "wayland-ravlet"
        self.kwin = self.spawn([kwin, "--virtual", "--xwayland", "--socket", socket, "--width", "1280",
                                "--height", "800", "--no-lockscreen", tell_display], log="kwin.log", env=kwin_env)
        if not wait_until(lambda: os.path.exists(display_file) and open(display_file).read().strip(), 60):
            raise RuntimeError("KWin gave no X display")
        self.env["WAYLAND_DISPLAY"] = socket
        self.env["DISPLAY"] = open(display_file).read().strip()
        # Services the bus starts (the portal, its KDE backend) get the session's environment.
        names = ["WAYLAND_DISPLAY", "DISPLAY", "XDG_CURRENT_DESKTOP", "XDG_SESSION_TYPE", "XDG_RUNTIME_DIR", "HOME",
                 "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"]
        subprocess.run(["dbus-update-activation-environment", *[f"{n}={self.env[n]}" for n in names],
                        "QT_QPA_PLATFORM=wayland"], env=self.env, check=True)
        # Started now, so that the program's own short question finds it up, as on a desktop
        # where the portal runs from login.
        version = wait_until(lambda: subprocess.run(
            ["gdbus", "call", "--session", "--dest", "org.freedesktop.portal.Desktop", "--object-path",
             "/org/freedesktop/portal/desktop", "--method", "org.freedesktop.DBus.Properties.Get",
             "org.freedesktop.portal.GlobalShortcuts", "version"], env=self.env, capture_output=True,
            text=True).stdout.strip(), 40)
        if not version:
            raise RuntimeError("the desktop portal offers no global shortcuts")
        self.share_session("WAYLAND_DISPLAY")

    def stop(self):
        # The services the bus started for us (the portal and its backends) end by PID, before
        # the bus; the document portal's mount goes with them.
        for pid in started_by_bus(self.env.get("DBUS_SESSION_BUS_ADDRESS", "none")):
            try:
                os.kill(pid, 15)
            except ProcessLookupError:
                pass
        # Read from the mount table: a stat of a FUSE mount whose daemon is gone would hang.
        doc = os.path.join(self.env["XDG_RUNTIME_DIR"], "doc")
        if wait_until(lambda: f" {doc} " not in open("/proc/mounts").read(), 5) is None:
            subprocess.run(["fusermount3", "-u", "-z", doc], capture_output=True)
        super().stop()

    def signed_in(self, log):
        check(wait_until(lambda: "desktop shortcut trigger is" in log(), 20),
              "the portal binds the trigger", lambda: log()[-1500:])
        print([line for line in log().splitlines() if "shortcut" in line])

    def trigger_name(self, log, program):
        return bound_trigger(log())

    def keybinds_page(self, ui, program, chord, shots):
        keybinds_page_names(self, ui, program, chord, os.path.join(shots, "kwin-04-keybinds.png"))

    def open_call(self):
        # The call in a browser, as a native Wayland window (foot, the terminal, dies on KWin's
        # virtual output, which has no physical size).
        # (--test-type drops the bar that warns of --no-sandbox, which running as root needs.)
        self.spawn(["chromium", "--ozone-platform=wayland", "--no-sandbox", "--test-type", "--no-first-run",
                    "--user-data-dir=" + os.path.join(self.scratch, "chromium"),
                    "--app=data:text/html,<title>Video call</title><body style='background:%23246'><h1>Call</h1>"],
                   log="chromium.log")
        require(wait_until(self.call_focused, 30), "the native Wayland window has the focus", self.focus)
        check(self.windows()[1].get(OVERLAY) is True, "KWin keeps the overlay above", self.windows)

    def call_focused(self):
        return (self.focus() or "").endswith("|Video call")

    def focus(self):
        return self.windows()[0]

    def answered(self, shots):
        # What a screen share shows: the whole screen holds the overlay; the call's window alone
        # (a share of one window) does not.
        self.screenshot(os.path.join(shots, "kwin-02-answers-whole-screen.png"))
        self.screenshot(os.path.join(shots, "kwin-03-answers-call-window.png"), active_window=True)
        # A click on the overlay reaches it, but the focus stays with the call.
        geometry = subprocess.run(["xdotool", "search", "--name", "^" + OVERLAY + "$", "getwindowgeometry",
                                   "--shell"], env=self.env, capture_output=True, text=True).stdout
        values = dict(line.split("=", 1) for line in geometry.split() if "=" in line)
        if check({"X", "Y", "WIDTH"} <= set(values), "the overlay's place is known", geometry):
            self.click(int(values["X"]) + int(values["WIDTH"]) // 2, int(values["Y"]) + 12)
            time.sleep(1)
        check(self.windows()[1].get(OVERLAY) is True, "the overlay is still above, also after a click",
              self.windows)

    def windows(self):
        """(the active window's "class|caption" or "none", {caption: kept above}) as KWin sees them."""
        self.scripts += 1
        path = os.path.join(self.scratch, f"query{self.scripts}.js")
        with open(path, "w") as f:
            f.write(KWIN_SCRIPT)
        log = os.path.join(self.scratch, "kwin.log")
        seen = len(open(log, errors="replace").read())
        loaded = subprocess.run(["gdbus", "call", "--session", "--dest", "org.kde.KWin", "--object-path", "/Scripting",
                                 "--method", "org.kde.kwin.Scripting.loadScript", path, f"query{self.scripts}"],
                                env=self.env, capture_output=True, text=True)
        if loaded.returncode != 0:
            return None, {}
        subprocess.run(["gdbus", "call", "--session", "--dest", "org.kde.KWin", "--object-path", "/Scripting",
                        "--method", "org.kde.kwin.Scripting.start"], env=self.env, capture_output=True)
        printed = lambda: open(log, errors="replace").read()[seen:]  # noqa: E731
        text = wait_until(lambda: "RAVLET ACTIVE" in printed() and printed(), 5) or ""
        active = re.search(r"RAVLET ACTIVE (.*)", text)
        above = {caption: flag == "true" for caption, flag in re.findall(r"RAVLET WINDOW (.*)\|above=(\w+)", text)}
        return (active.group(1).strip() if active else None), above

    def press_chord(self, chord):
        subprocess.run([self.fake_keys, *[str(KEY_CODES[k]) for k in chord]], env=self.env, check=True)

    def click(self, x, y):
        subprocess.run([self.fake_keys, "--click", str(x), str(y)], env=self.env, check=True)

    def screenshot(self, path, active_window=False):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        subprocess.run([self.kwin_screenshot, *(["--active-window"] if active_window else []), path], env=self.env,
                       check=True)


def asked(desktop, ui, server, question):
    """Plays the interviewer's question and waits until its words are in."""
    before = transcript_rows(ui)
    desktop.speak(question, desktop.system_sink)
    require(wait_until(lambda: transcript_rows(ui) != before, 15), "the question reaches the overlay",
            lambda: ui.dump(OVERLAY))
    # The recogniser's last words come about a second after the voice ends.
    wait_until(lambda: server.query("SELECT count(*) FROM transcript_lines WHERE speaker = 'interviewer'")[0][0], 5)
    time.sleep(1.5)


def run(args, desktop):
    """Signed in to a fresh account with an interview running, while a native Wayland window
    holds the focus: the trigger chord starts two answers and the move chord pages back to the
    first, the focus never moves, and no second process stays."""
    name, shots = desktop.name, args.screenshots
    desktop.start()
    ui = product.Accessible()
    server = product.Server(desktop, args.server)
    program = product.Program(desktop, args.program, server)
    product.sign_in(desktop, ui, program, "candidate@example.org", "a long enough password", program.run_again)
    ui.press(OVERLAY, "Start")
    require(wait_until(lambda: ui.has_label(OVERLAY, "Recording live"), 30), "the interview starts",
            lambda: ui.labels(OVERLAY))
    log = lambda: open(os.path.join(desktop.scratch, "program.log")).read()  # noqa: E731
    check(f"Wayland session ({desktop.session}); windows through XWayland" in log(),
          "it logs the Wayland session it found")
    desktop.signed_in(log)
    chord = desktop.trigger_name(log, program)
    hint_names(ui, name, chord)

    desktop.open_call()
    desktop.screenshot(os.path.join(shots, f"{name.lower()}-01-recording.png"))

    asked(desktop, ui, server, QUESTIONS[0])
    for expected in ("1/1", "2/2"):
        started = time.monotonic()
        desktop.press_chord(CHORDS["--trigger"])
        check(wait_until(lambda: counter(ui) == expected, 10) is not None,
              f"{name}: the trigger chord starts answer {expected}", lambda: counter(ui))
        print("%s chord to the answer on screen: %.2f s" % (name, time.monotonic() - started))
        # The second answer waits for the first to end.
        wait_until(lambda: shows_draft(ui), 10)
        time.sleep(1)
    desktop.press_chord(CHORDS["--previous-answer"])
    check(wait_until(lambda: counter(ui) == "1/2", 10) is not None,
          f"{name}: the previous-answer chord pages back", lambda: counter(ui))

    button_names(ui, name, chord)
    desktop.answered(shots)
    check(desktop.call_focused(), "the native window kept the focus", desktop.focus)
    executable = os.path.realpath(program.executable)
    check(list(product.processes(executable)) == [program.process.pid], "no second process stays",
          lambda: product.processes(executable))
    desktop.keybinds_page(ui, program, chord, shots)


# What the overlay and the Keybinds page call the trigger in a session whose keys other programs
# keep: the chord the desktop bound, or the user's key for our command; never the key of the
# settings, which works only in our own windows there.

def bound_trigger(log):
    """The chord the desktop's portal reports for the trigger, from the program's log."""
    marker = "desktop shortcut trigger is "
    lines = [line.split(marker, 1)[1].strip() for line in log.splitlines() if marker in line]
    return lines[-1] if lines else None


def command_trigger(program):
    return "your key for \u201c%s --trigger\u201d" % os.path.basename(os.path.realpath(program.executable))


def hint_names(ui, compositor, name):
    """Before the first line, the overlay's hint names `name`."""
    hint = f"Press {name} to trigger AI after interviewer speaks"
    check(wait_until(lambda: ui.has_label(OVERLAY, hint), 10) is not None,
          f"{compositor}: the overlay's hint names {name}", lambda: ui.labels(OVERLAY))
    check(not any("Right Shift" in label for label in ui.labels(OVERLAY)),
          f"{compositor}: the overlay does not name Right Shift", lambda: ui.labels(OVERLAY))


def button_names(ui, compositor, name):
    """With a question in, the label beside the AI button names `name` too."""
    check(wait_until(lambda: ui.has_label(OVERLAY, name), 15) is not None,
          f"{compositor}: the AI button's key label names {name}", lambda: ui.labels(OVERLAY))


def keybinds_page_names(desktop, ui, program, chord, shot):
    """The dashboard's Keybinds page, opened by accessible names, names the bound chord."""
    check(program.run_again() == 0 and wait_until(lambda: desktop.is_viewable(DASHBOARD), 15),
          "KWin: a start with no address brings the dashboard")
    ui.press(DASHBOARD, "Keybinds", role="list item")
    bound = f"Bound by your desktop: {chord}"
    check(wait_until(lambda: ui.find(DASHBOARD, "label", bound), 10) is not None,
          f"KWin: the Keybinds page says {bound!r}", lambda: ui.dump(DASHBOARD))
    time.sleep(0.5)  # the page's entrance, for the picture
    desktop.screenshot(shot)


def run_as_unprivileged(args):
    """sway refuses root: the same run again as an unprivileged user, in a folder of its own."""
    scratch = product.make_scratch()
    shots = os.path.abspath(args.screenshots)
    os.makedirs(shots, exist_ok=True)
    for folder in (scratch, shots):
        os.chown(folder, UNPRIVILEGED, UNPRIVILEGED)
    for name in os.listdir(shots):  # an earlier run's pictures are written over
        os.chown(os.path.join(shots, name), UNPRIVILEGED, UNPRIVILEGED)
    try:
        command = ["setpriv", f"--reuid={UNPRIVILEGED}", f"--regid={UNPRIVILEGED}", "--clear-groups",
                   sys.executable, os.path.abspath(__file__), "--program", args.program, "--server", args.server,
                   "--screenshots", shots, "--compositor", args.compositor, "--scratch", scratch]
        return subprocess.run(command + (["--keep"] if args.keep else []), env=dict(os.environ, HOME=scratch)).returncode
    finally:
        for top, folders, files in os.walk(shots):
            for name in folders + files:
                os.chown(os.path.join(top, name), 0, 0)
        os.chown(shots, 0, 0)
        if not args.keep:
            shutil.rmtree(scratch, ignore_errors=True)


def main():
    parser = argparse.ArgumentParser()
    for option in ("--program", "--server", "--screenshots"):
        parser.add_argument(option, required=True)
    parser.add_argument("--compositor", choices=("sway", "kwin"), required=True)
    parser.add_argument("--fake-keys", help="the KWin fake-input helper")
    parser.add_argument("--kwin-screenshot", help="the KWin screenshot helper")
    parser.add_argument("--scratch", help="the folder to run in (made by the privileged half)")
    parser.add_argument("--keep", action="store_true", help="keep the scratch folder, for a look at its logs")
    args = parser.parse_args()
    executable = {"sway": "sway", "kwin": "kwin_wayland"}[args.compositor]
    if not shutil.which(executable):
        print(executable, "is not installed (scripts/install-deps.sh installs it): skipped")
        return 77
    if os.getuid() == 0 and args.compositor == "sway":
        return run_as_unprivileged(args)

    if args.compositor == "sway":
        make = lambda scratch: SwayDesktop(scratch, os.path.abspath(args.program))  # noqa: E731
    else:
        make = lambda scratch: KWinDesktop(scratch, args.fake_keys, args.kwin_screenshot)  # noqa: E731
    return product.run_scene(lambda desktop: run(args, desktop), make, args.scratch, tail=40, keep=args.keep,
                             logs=("program.log", "server.log", args.compositor + ".log"))

if __name__ == "__main__":
    sys.exit(main())
