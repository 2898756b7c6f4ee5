#!/usr/bin/python3
# The program updates itself, as a user sees it: version A, installed for one user from its
# .tar.gz in a private home, finds version B offered by the real ravlet-server (--updates-dir) on
# its built-in origin; the user signs in, opens the dashboard, and presses Download & Install on
# the banner (by its accessible name, as a screen reader would). A ends, its folder is replaced,
# B starts by itself and shows its version in Help Center. Before that, a package with an entry
# that climbs out of the folder is offered and refused: nothing lands outside, A stays as it was,
# and the package is left in the user's downloads folder, as for any failed install.
#
# The built-in origin is http://127.0.0.1:8787, so the run takes a network namespace of its own
# (as root, with unshare) where nothing else listens there; elsewhere it runs only when that port
# is free. Exit code 77 means skipped.
#
#     self_update_test.py PACKAGES A ravlet-server screenshot-folder
# PACKAGES holds version A's RavletAI-A-linux-<arch>.tar.gz and one newer package, B's.
import glob, io, os, re, shutil, subprocess, sys, tarfile, tempfile, time, types

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e"))
from product import (DASHBOARD, OVERLAY, Accessible, Program, healthy, processes, require,  # noqa: E402
                     run_scene, sign_in, wait_until)

ORIGIN, PORT = "http://127.0.0.1:8787", 8787
INSTALL = "Download & Install"
ESCAPE_NAME = "escaped-by-update"


def version_of(package):
    match = re.match(r"RavletAI-(.+)-linux-[^-]+\.tar\.gz$", os.path.basename(package))
    return match.group(1) if match else sys.exit(f"{package} is not named RavletAI-<version>-linux-<arch>.tar.gz")


def hostile_package(folder, version, marker):
    # A package shaped like ours whose one extra entry climbs three folders up: out of the
    # unpacked folder, out of the update's private folder, out of the temporary folder.
    path = os.path.join(folder, f"RavletAI-{version}-linux-x86_64.tar.gz")
    top = f"RavletAI-{version}-linux-x86_64"
    with tarfile.open(path, "w:gz") as archive:
        for name, data, mode in ((f"{top}/bin/ravletai", f"#!/bin/sh\ntouch '{marker}'\n".encode(), 0o755),
                                 (f"{top}/../../../{ESCAPE_NAME}", b"outside\n", 0o644)):
            entry = tarfile.TarInfo(name)
            entry.size, entry.mode, entry.mtime = len(data), mode, time.time()
            archive.addfile(entry, io.BytesIO(data))
    return path


def installed_version(program):
    try:
        return subprocess.run([program, "--version"], capture_output=True, text=True, timeout=30).stdout.strip()
    except (OSError, subprocess.TimeoutExpired):
        return ""


def scene(desktop, old_package, new_package, server, shots):
    old, new = version_of(old_package), version_of(new_package)
    hostile = "99.0.0"
    scratch = desktop.scratch
    # Home and temporary folders that a shell would misread in every way: the install script,
    # the desktop entry that xdg-open reads at sign-in, and the replacement script all get these
    # paths, and nothing of them may run. The update's private folder goes under TMPDIR, so that
    # the hostile entry would land in the scratch folder, where the test looks for it.
    shell_syntax = " it's \"q\" $(touch pwned) `touch pwned` ;touch pwned"
    home = desktop.env["HOME"] = os.path.join(scratch, "home" + shell_syntax)
    desktop.env["TMPDIR"] = os.path.join(scratch, "tmp" + shell_syntax, "inner")
    for folder in (home, desktop.env["TMPDIR"]):
        os.makedirs(folder)
    desktop.start()

    # A, installed as a user installs it.
    unpacked = os.path.join(scratch, "unpacked")
    with tarfile.open(old_package) as archive:
        archive.extractall(unpacked)
    top = os.path.join(unpacked, os.listdir(unpacked)[0])
    result = subprocess.run([os.path.join(top, "install.sh")], env=desktop.env, capture_output=True, text=True)
    folder = os.path.join(home, ".local", "opt", "RavletAI")
    program = os.path.join(folder, "bin", "ravletai")
    require(result.returncode == 0 and installed_version(program) == f"RavletAI {old}",
            f"version {old} installed in {folder} ({result.stderr.strip()[-300:]})")

    # The server offers the hostile package first.
    updates = os.path.join(scratch, "updates")
    os.makedirs(updates)
    marker = os.path.join(scratch, "hostile-ran")
    hostile_path = hostile_package(updates, hostile, marker)
    data = os.path.join(scratch, "server-data")
    os.makedirs(data)
    desktop.spawn([server, "--listen", f"127.0.0.1:{PORT}", "--updates-dir", updates], log="server.log",
                  env=dict(desktop.env, XDG_DATA_HOME=data))
    require(wait_until(lambda: healthy(ORIGIN), 30), f"ravlet-server answers at {ORIGIN}")

    # A starts, and the user signs in.
    app = Program(desktop, program, types.SimpleNamespace(base=ORIGIN))
    ui = Accessible()
    sign_in(desktop, ui, app, "updater@example.org", "correct horse battery")

    # The hostile package: offered on the banner, refused when installed.
    require(app.run_again("--settings") == 0 and wait_until(lambda: desktop.is_viewable(DASHBOARD), 20),
            "the dashboard opens")
    banner = f"RavletAI {hostile} is available"
    require(wait_until(lambda: ui.has_label(DASHBOARD, banner), 30), f'the banner says "{banner}"')
    ui.press(DASHBOARD, INSTALL)
    # The fallback names its copy by the version alone, as it would the package it could not install.
    left = os.path.join(home, "Downloads", f"RavletAI-{hostile}.tar.gz")
    require(wait_until(lambda: os.path.exists(left), 60), f"the refused package is left in {left}")
    escaped = [os.path.join(root, ESCAPE_NAME) for root, _, files in os.walk(scratch) if ESCAPE_NAME in files]
    require(not escaped and not os.path.exists(marker), f"nothing of it escaped or ran: {escaped}")
    require(app.process.poll() is None and installed_version(program) == f"RavletAI {old}",
            f"A runs on, still version {old}")
    log = open(os.path.join(scratch, "program.log"), errors="replace").read()
    require("entry outside the package folder" in log, "the program says why it refused the package")

    # B replaces it on the server; Check for Updates in Help Center finds it.
    os.remove(hostile_path)
    shutil.copy(new_package, updates)
    ui.press(DASHBOARD, "Help Center", role="list item")
    ui.press(DASHBOARD, "Check for Updates")
    banner = f"RavletAI {new} is available"
    require(wait_until(lambda: ui.has_label(DASHBOARD, banner), 30), f'the banner says "{banner}"')
    desktop.screenshot(os.path.join(shots, "update-banner-installed.png"))

    # Download & Install: A ends, its folder is replaced, B starts.
    old_pid = app.process.pid
    ui.press(DASHBOARD, INSTALL)
    require(wait_until(lambda: app.process.poll() is not None, 90) and app.process.returncode == 0, "A ends by itself")
    require(wait_until(lambda: installed_version(program) == f"RavletAI {new}", 60),
            f"{folder} now holds version {new}")
    running = wait_until(lambda: [pid for pid in processes(program) if pid != old_pid], 60)
    require(bool(running), "B starts by itself")
    leftovers = os.listdir(desktop.env["TMPDIR"])
    require(wait_until(lambda: not os.listdir(desktop.env["TMPDIR"]), 20),
            f"the update's private folder is gone ({leftovers})")
    pwned = [root for root, _, files in os.walk(scratch) if "pwned" in files]
    require(not pwned and not os.path.exists("pwned"),
            f"nothing of the paths ran as a command: {pwned}")

    # B, signed in again from the keyring, shows its version in Help Center.
    require(wait_until(lambda: desktop.is_viewable(OVERLAY), 60), "B restores the session")
    require(app.run_again("--settings") == 0 and wait_until(lambda: desktop.is_viewable(DASHBOARD), 20),
            "B opens the dashboard")
    ui.press(DASHBOARD, "Help Center", role="list item")
    require(wait_until(lambda: ui.find(DASHBOARD, "label", f"Version {new}"), 30), f"Help Center says Version {new}")
    require(wait_until(lambda: ui.has_label(DASHBOARD, "Software Update RavletAI is up to date."), 30),
            "and that nothing newer is offered")
    time.sleep(0.5)
    desktop.screenshot(os.path.join(shots, "helpCenter-after-update-en.png"))
    require(app.run_again("--quit") == 0 and wait_until(lambda: not processes(program), 20), "B quits")


def isolate():
    # Re-runs this script in a network namespace of its own, where 127.0.0.1:8787 is free.
    if os.environ.get("RAVLET_PRIVATE_NETWORK") or os.geteuid() != 0 or not shutil.which("unshare"):
        return None
    command = ["unshare", "--net", "sh", "-c", 'ip link set lo up && exec "$0" "$@"', sys.executable, *sys.argv]
    return subprocess.run(command, env=dict(os.environ, RAVLET_PRIVATE_NETWORK="1")).returncode


def main(packages, old, server, shots):
    found = glob.glob(os.path.join(packages, "RavletAI-*-linux-*.tar.gz"))
    olds = [p for p in found if version_of(p) == old]
    if len(found) != 2 or len(olds) != 1:
        return print(f"{packages} does not hold version {old}'s package and one newer "
                     "(tests/packaging/build-update-packages.sh makes them): skipped") or 77
    (old_package,), (new_package,) = olds, set(found) - set(olds)
    if (code := isolate()) is not None:
        return code
    # Checked here, in the private network too: nothing but the test's server may answer there.
    if healthy(ORIGIN):
        return print(f"something answers at {ORIGIN} already and no private network is possible: skipped") or 77
    os.makedirs(shots, exist_ok=True)
    installed = lambda desktop: os.path.join(desktop.env["HOME"], ".local/opt/RavletAI/bin/ravletai")  # noqa: E731
    return run_scene(lambda desktop: scene(desktop, old_package, new_package, server, shots),
                     scratch=tempfile.mkdtemp(prefix="self-update."), tail=50,
                     before_stop=lambda desktop: [os.kill(pid, 9) for pid in processes(installed(desktop))])


if __name__ == "__main__":
    if len(sys.argv) != 5:
        sys.exit("usage: self_update_test.py PACKAGES A ravlet-server screenshot-folder")
    sys.exit(main(*sys.argv[1:]))
