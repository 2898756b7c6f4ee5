#!/usr/bin/env python3
"""The shell's layout holds: each screen folder keeps to itself, no two shell files include each
other, and the delegate stays small enough to read as wiring."""
import pathlib
import re
import sys

SCREENS = {"overlay", "dashboard", "welcome", "tray", "models", "practice"}
DELEGATE_LIMIT = 300


def main(shell: pathlib.Path) -> int:
    files = [p for p in shell.rglob("*") if p.suffix in (".h", ".cpp")]
    where = {p.name: p.parent.relative_to(shell).as_posix() for p in files}
    includes = {}  # by file
    uses = {}  # by class: what its header and source include, by stem
    for path in files:
        names = re.findall(r'^#include "([^"]+)"', path.read_text(), re.M)
        includes[path.name] = {pathlib.Path(n).name for n in names if pathlib.Path(n).name in where}
        uses.setdefault(path.stem, set()).update(pathlib.Path(n).stem for n in includes[path.name])
    faults = []
    for name, used in includes.items():
        folder = where[name]
        for header in used:
            other = where[header]
            # A screen folder uses the shell's shared root and the list models, never another
            # screen's code; the root (the delegate and the windows) may use every screen.
            if folder in SCREENS and other in SCREENS and other not in (folder, "models"):
                faults.append(f"{folder}/{name} includes {other}/{header}")
    for stem, used in uses.items():
        for other in used - {stem}:
            if stem in uses.get(other, ()):
                faults.append(" and ".join(sorted((stem, other))) + " include each other")
    lines = len((shell / "AppDelegate.cpp").read_text().splitlines())
    if lines >= DELEGATE_LIMIT:
        faults.append(f"AppDelegate.cpp has {lines} lines, at most {DELEGATE_LIMIT - 1}")
    for fault in sorted(set(faults)):
        print(fault)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))
