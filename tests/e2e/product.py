"""The whole product on a private desktop, for the whole-product test and the benches that need
the real program: an X display with a tray and a window manager, a D-Bus session with an
unlocked keyring and the accessibility bus, a sound server with a null sink and a virtual
microphone, ravlet-server on SQLite, and the program itself. Nothing here touches the user's
own session; everything lives in one scratch folder and ends with it.

The program is driven as a person would drive it: its buttons through their accessible names
(AT-SPI, as a screen reader sees them), keys through XTEST, speech through the sound
server (espeak-ng played into a sink)."""
import http.cookiejar, json, os, re, shutil, socket, sqlite3, subprocess, tempfile, time, traceback
import urllib.error, urllib.parse, urllib.request

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
SCRIPTS = os.path.join(ROOT, "scripts")
WELCOME, OVERLAY, DASHBOARD = "Welcome to RavletAI", "RavletAI Overlay", "RavletAI"
# What every private session runs besides its display: the keyring, the accessibility bus and
# the sound server, and what speaks into it.
SESSION_TOOLS = ("espeak-ng", "paplay", "secret-tool", "/usr/libexec/at-spi-bus-launcher")
X_TOOLS = ("openbox", "xdotool", "xprop", "scrot")


class Missing(Exception):
    """A tool the run needs is not installed: the caller skips."""


failures = []


def check(condition, message, detail=None):
    """`detail` is printed only on failure: what was seen instead."""
    print(("ok: " if condition else "FAIL: ") + message, flush=True)
    if not condition:
        failures.append(message)
        if detail is not None:
            print(detail() if callable(detail) else detail, flush=True)
    return condition


class Stop(Exception):
    """A step failed that every later step needs."""


def require(condition, message, detail=None):
    if not check(condition, message, detail):
        raise Stop(message)
    return condition


def run_scene(scene, make_desktop=None, scratch=None, logs=("program.log", "server.log"), tail=60,
              keep=False, before_stop=None):
    """Runs scene(desktop) on a private desktop in `scratch` (a new folder by default), which
    goes afterwards unless kept. The exit code: 0 when every check passed, 1 when one failed or
    the set-up broke (the logs' last lines are printed then), 77 when a tool is missing."""
    scratch = scratch or make_scratch()
    desktop = None
    try:
        desktop = (make_desktop or (lambda folder: Desktop(folder, None)))(scratch)
        scene(desktop)
    except Missing as missing:
        print(missing, ": skipped")
        return 77
    except Stop:
        pass
    except Exception as error:  # the set-up broke: report it with the logs below
        traceback.print_exc()
        failures.append(repr(error))
    finally:
        if desktop:
            if before_stop:
                before_stop(desktop)
            desktop.stop()
        for log in logs if failures else ():
            path = os.path.join(scratch, log)
            if os.path.exists(path):
                print(f"--- {log} (last {tail} lines)")
                print("".join(open(path, errors="replace").readlines()[-tail:]))
        if keep:
            print("kept", scratch)
        else:
            shutil.rmtree(scratch, ignore_errors=True)
    print("failures:", len(failures))
    return 1 if failures else 0


def wait_until(condition, timeout, step=0.1):
    """The condition's first true value, or None after `timeout` seconds."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            return None
        time.sleep(step)


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def healthy(base):
    """Whether a server answers at `base`/health."""
    try:
        urllib.request.urlopen(base + "/health", timeout=1)
        return True
    except OSError:
        return False


def processes(executable):
    """{pid: parent pid} of the live processes that run `executable`."""
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


def read_state(path):
    values = {}
    with open(path) as f:
        for line in f:
            key, _, value = line.rstrip("\n").partition("=")
            values[key] = value
    if "MISSING" in values:
        raise Missing(values["MISSING"] + " is not installed (scripts/install-deps.sh installs it)")
    return values


class Desktop:
    """The private session. `env` is what every process of the run gets."""

    def __init__(self, scratch, xtest_press, tools=X_TOOLS):
        self.scratch = scratch
        self.xtest_press = xtest_press
        self.daemons = []  # (script, state folder), stopped in reverse order
        self.children = []
        for tool in tools + SESSION_TOOLS:
            if not shutil.which(tool):
                raise Missing(tool + " is not installed (scripts/install-deps.sh installs it)")
        home = os.path.join(scratch, "home")
        self.env = dict(os.environ, HOME=home,
                        XDG_RUNTIME_DIR=os.path.join(scratch, "runtime"),
                        XDG_CONFIG_HOME=os.path.join(scratch, "config"),
                        XDG_DATA_HOME=os.path.join(scratch, "data"),
                        XDG_CACHE_HOME=os.path.join(scratch, "cache"))
        for key in ("XDG_RUNTIME_DIR", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"):
            os.makedirs(self.env[key], mode=0o700, exist_ok=True)
        os.makedirs(home, exist_ok=True)
        for key in ("WAYLAND_DISPLAY", "XDG_CURRENT_DESKTOP", "XDG_SESSION_TYPE", "SESSION_MANAGER"):
            self.env.pop(key, None)

    def _daemon(self, script, name):
        folder = os.path.join(self.scratch, name)
        subprocess.run(["bash", os.path.join(SCRIPTS, script), "start", folder], check=True,
                       stdout=subprocess.DEVNULL)
        self.daemons.append((script, folder))
        return read_state(os.path.join(folder, "state"))

    def spawn(self, arguments, log=None, **kwargs):
        out = subprocess.DEVNULL
        if log:
            with open(os.path.join(self.scratch, log), "w") as out:  # the child keeps its own copy
                return self.spawn(arguments, stdout=out, **kwargs)
        child = subprocess.Popen(arguments, env=kwargs.pop("env", self.env), stdin=subprocess.DEVNULL,
                                 stdout=kwargs.pop("stdout", out), stderr=subprocess.STDOUT, **kwargs)
        self.children.append(child)
        return child

    def start(self):
        # A display that refuses openbox (seldom, and only with other desktops starting at the
        # same time; its Xvfb logs nothing) is replaced once, with what was seen of it printed.
        for attempt in (1, 2):
            display = self._daemon("test-display.sh", "display")
            self.env["DISPLAY"] = display["DISPLAY"]
            wm = self.spawn(["openbox", "--sm-disable"], log="openbox.log")
            # Generous, as for Xvfb: a loaded machine under the sanitizers took more than 10 s.
            if wait_until(lambda: self.xprop_root("_NET_SUPPORTING_WM_CHECK") or wm.poll() is not None, 30) \
                    and wm.poll() is None:
                break
            number = display["DISPLAY"].lstrip(":")
            seen = "openbox: %s; Xvfb %s alive: %s; socket: %s; lock: %s; xvfb.log: %s" % (
                open(os.path.join(self.scratch, "openbox.log"), errors="replace").read().strip(),
                display["XVFB_PID"], os.path.exists("/proc/" + display["XVFB_PID"]),
                os.path.exists("/tmp/.X11-unix/X" + number), os.path.exists(f"/tmp/.X{number}-lock"),
                open(os.path.join(display["SCRATCH"], "xvfb.log"), errors="replace").read().strip())
            print(f"openbox did not start on {display['DISPLAY']} (attempt {attempt}): {seen}", flush=True)
            if wm.poll() is None:
                wm.kill()
            script, folder = self.daemons.pop()
            subprocess.run(["bash", os.path.join(SCRIPTS, script), "stop", folder], stdout=subprocess.DEVNULL)
        else:
            raise RuntimeError("openbox did not start")
        self.start_services()
        self.share_session()

    def start_services(self):
        """The keyring's session bus with the accessibility bus on it, and the sound server."""
        keyring = self._daemon("test-keyring.sh", "keyring")
        self.env["DBUS_SESSION_BUS_ADDRESS"] = keyring["DBUS_SESSION_BUS_ADDRESS"]
        self.spawn(["/usr/libexec/at-spi-bus-launcher", "--launch-immediately"], log="at-spi.log")
        pulse = self._daemon("test-pulse.sh", "pulse")
        self.env["PULSE_SERVER"] = pulse["PULSE_SERVER"]
        self.system_sink, self.mic_sink = pulse["SYSTEM_SINK"], pulse["MIC_SINK"]

    def share_session(self, *more):
        """Once the accessibility bus answers (before a client asks for it), this process talks
        to the session's display, buses and sound server too."""
        wait_until(lambda: subprocess.run(
            ["dbus-send", "--session", "--print-reply", "--dest=org.a11y.Bus", "/org/a11y/bus",
             "org.a11y.Bus.GetAddress"], env=self.env, capture_output=True).returncode == 0, 10)
        for key in ("DISPLAY", "DBUS_SESSION_BUS_ADDRESS", "PULSE_SERVER", *more):
            os.environ[key] = self.env[key]

    def stop(self):
        for child in reversed(self.children):
            if child.poll() is None:
                child.terminate()
                try:
                    child.wait(timeout=10)
                except subprocess.TimeoutExpired:
                    child.kill()
                    child.wait()
        for script, folder in reversed(self.daemons):
            subprocess.run(["bash", os.path.join(SCRIPTS, script), "stop", folder],
                           stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    # X

    def xprop_root(self, atom):
        result = subprocess.run(["xprop", "-root", atom], env=self.env, capture_output=True, text=True)
        return result.returncode == 0 and "not found" not in result.stdout and "no such atom" not in result.stdout

    def active_window(self):
        result = subprocess.run(["xdotool", "getactivewindow"], env=self.env, capture_output=True, text=True)
        return result.stdout.strip()

    def is_viewable(self, title):
        result = subprocess.run(["xdotool", "search", "--onlyvisible", "--name", "^" + title + "$"],
                                env=self.env, capture_output=True, text=True)
        return bool(result.stdout.strip())

    def key(self, name):
        """One press and release through XTEST, as a keyboard would send it."""
        subprocess.run([self.xtest_press, name], env=self.env, check=True)

    def screenshot(self, path):
        os.makedirs(os.path.dirname(path), exist_ok=True)
        subprocess.run(["scrot", "--overwrite", path], env=self.env, check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    # Sound

    def speak(self, text, sink, wait=True):
        """espeak-ng's voice played into a sink of the sound server, as a call would play it."""
        voice = subprocess.Popen(["espeak-ng", "-v", "en-us", "-s", "150", "--stdout", text],
                                 stdout=subprocess.PIPE, env=self.env)
        player = subprocess.Popen(["paplay", "--device=" + sink], stdin=voice.stdout, env=self.env)
        voice.stdout.close()
        if wait:
            player.wait()
            voice.wait()
        return player


class Server:
    """ravlet-server on a free loopback port, its SQLite database in the scratch folder."""

    def __init__(self, desktop, executable, extra=()):
        self.port = free_port()
        self.base = f"http://127.0.0.1:{self.port}"
        self.data = os.path.join(desktop.scratch, "server-data")
        os.makedirs(self.data, exist_ok=True)
        self.database = os.path.join(self.data, "RavletAI", "server.sqlite")
        env = dict(desktop.env, XDG_DATA_HOME=self.data)
        self.process = desktop.spawn([executable, "--listen", f"127.0.0.1:{self.port}", *extra],
                                     log="server.log", env=env)
        if not wait_until(self._healthy, 30):
            raise RuntimeError("ravlet-server did not start")

    def _healthy(self):
        if self.process.poll() is not None:
            raise RuntimeError("ravlet-server ended at start")
        return healthy(self.base)

    def query(self, sql, *parameters):
        # Read-only and shared: the server keeps the database open in WAL mode.
        with sqlite3.connect(f"file:{self.database}?mode=ro", uri=True) as db:
            return db.execute(sql, parameters).fetchall()


class Program:
    """The program as the desktop starts it, pointed at `server`. Its browser records the
    addresses it is given in `opened`."""

    def __init__(self, desktop, executable, server, preferences=None):
        self.desktop, self.executable = desktop, executable
        self.opened = os.path.join(desktop.scratch, "browser-opened")
        browser = os.path.join(desktop.scratch, "browser")
        with open(browser, "w") as f:
            f.write(f'#!/bin/sh\necho "$1" >>"{self.opened}"\n')
        os.chmod(browser, 0o755)
        empty = os.path.join(desktop.scratch, "empty")
        os.makedirs(empty, exist_ok=True)
        self.env = dict(desktop.env, BROWSER=browser, RAVLET_TEST_BACKEND_ORIGIN=server.base,
                        # xdg-open then hands web addresses to $BROWSER: no handler of the machine
                        XDG_DATA_DIRS=empty, XDG_CONFIG_DIRS=empty,
                        QT_LINUX_ACCESSIBILITY_ALWAYS_ON="1")
        if preferences:
            folder = os.path.join(desktop.env["XDG_CONFIG_HOME"], "RavletAI")
            os.makedirs(folder, exist_ok=True)
            values = {key: {"bool" if isinstance(v, bool) else "string": v} for key, v in preferences.items()}
            with open(os.path.join(folder, "preferences.json"), "w") as f:
                json.dump({"version": 1, "values": values}, f)
        self.process = desktop.spawn([executable], log="program.log", env=self.env)

    def login_address(self, timeout=20):
        """The first address the program gave the browser, or None."""
        if not wait_until(lambda: os.path.exists(self.opened), timeout):
            return None
        return open(self.opened).read().split()[0]

    def open_address(self, address):
        """Hands a "ravlet" address to the desktop's own xdg-open, as the browser does; its exit
        code. Outside GNOME, KDE and Xfce xdg-open reads the program's desktop entry itself."""
        return subprocess.run(["xdg-open", address], env=self.env, capture_output=True,
                              timeout=30).returncode

    def run_again(self, *arguments):
        """A second start, as the desktop makes it for a "ravlet" address or an action; its
        exit code."""
        return subprocess.run([self.executable, *arguments], env=self.env, capture_output=True,
                              timeout=30).returncode


def sign_in(desktop, ui, program, email, password, hand_over=None):
    """A new user signs in from the welcome panel through the login page, whose "ravlet" address
    goes back to the program by `hand_over` (the desktop's xdg-open unless given)."""
    require(wait_until(lambda: ui.find(WELCOME, "push button", "Sign In"), 40), "the welcome panel opens")
    ui.press(WELCOME, "OK, got it")
    ui.press(WELCOME, "Sign In")
    login = program.login_address()
    require(login, "Sign In opens the browser")
    callback = sign_in_over_http(login, email, password)
    require((hand_over or program.open_address)(callback) == 0, "the address reaches the running program")
    require(wait_until(lambda: desktop.is_viewable(OVERLAY), 30), "signed in, the overlay shows")


def sign_in_over_http(login_address, email, password):
    """Creates an account on the login page as a browser would, without one, and returns the
    "ravlet" address the page sends the browser to."""
    jar = http.cookiejar.CookieJar()

    class NoRedirect(urllib.request.HTTPRedirectHandler):
        def redirect_request(self, *args):
            return None

    opener = urllib.request.build_opener(urllib.request.HTTPCookieProcessor(jar), NoRedirect)
    page = opener.open(login_address + "&mode=register").read().decode()
    fields = dict(re.findall(r'name="(state|csrf)" value="([^"]*)"', page))
    form = dict(fields, action="register", email=email, password=password, confirm=password)
    base = login_address.split("/auth/login")[0]
    try:
        opener.open(base + "/auth/login", urllib.parse.urlencode(form).encode())
    except urllib.error.HTTPError as redirect:
        return redirect.headers["Location"]
    raise RuntimeError("the login page did not send the browser on")


class Accessible:
    """The program's windows as AT-SPI shows them."""

    def __init__(self, application_name="RavletAI"):
        try:
            import pyatspi  # after the session bus is known
        except ImportError:
            raise Missing("python3-pyatspi is not installed (scripts/install-deps.sh installs it)")
        self.pyatspi = pyatspi
        self.application_name = application_name

    def application(self):
        for app in self.pyatspi.Registry.getDesktop(0):
            if app is not None and app.name == self.application_name:
                return app
        return None

    def frame(self, title):
        """The window of that title, a shown one first: the menu bar's hidden window carries
        the dashboard's title too."""
        frames = [frame for frame in self.application() or [] if frame is not None and frame.name == title]
        shown = [frame for frame in frames if frame.getState().contains(self.pyatspi.STATE_SHOWING)]
        return (shown or frames or [None])[0]

    def _walk(self, node):
        for child in node:
            if child is None:
                continue
            yield child
            yield from self._walk(child)

    def find(self, title, role, name):
        """The first node of that role and name in a window, or None."""
        frame = self.frame(title)
        if frame is None:
            return None
        for node in self._walk(frame):
            try:
                if node.getRoleName() == role and node.name == name:
                    return node
            except Exception:  # a node that went away during the walk
                continue
        return None

    def press(self, title, name, timeout=20, role="push button"):
        button = wait_until(lambda: self.find(title, role, name), timeout)
        if button is None:
            raise AssertionError(f'no {role} "{name}" in "{title}"')
        action = button.queryAction()
        for i in range(action.nActions):
            if action.getName(i) in ("press", "Press", "click"):
                action.doAction(i)
                return
        action.doAction(0)

    def labels(self, title):
        """The names of every label of a window, in the order of the tree."""
        frame = self.frame(title)
        names = []
        for node in self._walk(frame) if frame else []:
            try:
                if node.getRoleName() == "label":
                    names.append(node.name)
            except Exception:
                continue
        return names

    def dump(self, title):
        """The window's tree as text, for a failure's message."""
        lines = []

        def visit(node, depth):
            for child in node:
                if child is None:
                    continue
                try:
                    lines.append("  " * depth + f"{child.getRoleName()} {child.name!r}")
                except Exception:
                    continue
                visit(child, depth + 1)

        frame = self.frame(title)
        if frame is not None:
            visit(frame, 0)
        return "\n".join(lines)

    def selected(self, node):
        return node.getState().contains(self.pyatspi.STATE_SELECTED)

    def shows_label(self, title, name):
        """A label of that name that is on screen: hidden items stay in the tree."""
        node = self.find(title, "label", name)
        return node is not None and node.getState().contains(self.pyatspi.STATE_SHOWING)

    def has_label(self, title, name):
        return name in self.labels(title)


def cpu_seconds(pid):
    """User and system CPU time of a process so far, children excluded."""
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    ticks = os.sysconf("SC_CLK_TCK")
    return (int(fields[11]) + int(fields[12])) / ticks


def resident_mb(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) / 1024
    return 0.0


def make_scratch():
    return tempfile.mkdtemp(prefix="ravlet-e2e.")
