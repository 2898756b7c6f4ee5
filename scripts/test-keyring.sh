#!/usr/bin/env bash
# A private Secret Service for the tests: a D-Bus session bus of its own and a
# gnome-keyring-daemon with an unlocked login keyring, both living in a scratch folder, so that
# tests never touch the user's session bus or real keyring.
#
#   test-keyring.sh start [STATE_DIR]   start both and write STATE_DIR/state
#   test-keyring.sh stop  [STATE_DIR]   stop what STATE_DIR/state lists, by PID
#
# STATE_DIR defaults to $RAVLET_KEYRING_DIR. The state file holds KEY=VALUE lines:
# DBUS_SESSION_BUS_ADDRESS, DBUS_PID, KEYRING_PID and SCRATCH; or only MISSING=<tool> when a
# tool is not installed, which the tests report as skipped.
set -euo pipefail

usage() {
    echo "usage: $0 start|stop [STATE_DIR]   (or set RAVLET_KEYRING_DIR)" >&2
    exit 2
}

command="${1:-}"
state_dir="${2:-${RAVLET_KEYRING_DIR:-}}"
[ -n "$state_dir" ] || usage
state_file="$state_dir/state"

# Waiting for the daemons: generous, for a loaded CI machine.
ready_timeout_tenths=100

. "$(dirname "$0")/lib/daemons.sh"

stop() {
    [ -f "$state_file" ] || return 0
    local scratch
    scratch="$(state_value SCRATCH)"
    stop_pid "$(state_value KEYRING_PID)" gnome-keyring-daemon
    stop_pid "$(state_value DBUS_PID)" dbus-daemon
    # Only ever a folder this script made.
    case "$(basename "${scratch:-none}")" in
    ravlet-keyring.*) rm -rf "$scratch" ;;
    esac
    rm -f "$state_file"
}

secrets_owned() {
    dbus-send --session --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
        org.freedesktop.DBus.NameHasOwner string:org.freedesktop.secrets 2>/dev/null |
        grep -q 'boolean true'
}

start() {
    stop # leftovers of an interrupted run
    mkdir -p "$state_dir"

    require_tools test-keyring keyring dbus-daemon dbus-send gnome-keyring-daemon || return 0

    make_scratch keyring
    dbus_pid=""
    keyring_pid=""
    trap 'start_failed' ERR
    # Neither daemon sees the user's home, session bus or display. With a display the keyring
    # would prompt for a password, and without a bus address libdbus would start its own.
    local isolated=(env -u DISPLAY -u WAYLAND_DISPLAY
        HOME="$scratch/home" XDG_RUNTIME_DIR="$scratch/runtime"
        XDG_CONFIG_HOME="$scratch/config" XDG_DATA_HOME="$scratch/data"
        XDG_CACHE_HOME="$scratch/cache")

    "${isolated[@]}" dbus-daemon --session --address="unix:path=$scratch/bus" --fork \
        --print-address=3 --print-pid=4 3>"$scratch/address" 4>"$scratch/dbus.pid" \
        </dev/null >/dev/null 2>"$scratch/dbus.log"
    local address
    address="$(head -n 1 "$scratch/address")"
    dbus_pid="$(head -n 1 "$scratch/dbus.pid")"
    [ -n "$address" ] && [ -n "$dbus_pid" ]
    export DBUS_SESSION_BUS_ADDRESS="$address"

    # --unlock reads the new login keyring's password from standard input: an empty one, given
    # as a line of its own. The daemon's output goes to files: CTest waits for whoever holds its
    # pipes.
    printf '\n' | "${isolated[@]}" DBUS_SESSION_BUS_ADDRESS="$address" \
        gnome-keyring-daemon --foreground --unlock --components=secrets \
        >"$scratch/keyring.out" 2>"$scratch/keyring.log" &
    keyring_pid=$!

    local waited=0
    until secrets_owned; do
        if ! kill -0 "$keyring_pid" 2>/dev/null || [ "$waited" -ge "$ready_timeout_tenths" ]; then
            echo "test-keyring: gnome-keyring-daemon did not take org.freedesktop.secrets" >&2
            cat "$scratch/keyring.log" >&2 || true
            false
        fi
        sleep 0.1
        waited=$((waited + 1))
    done

    {
        echo "DBUS_SESSION_BUS_ADDRESS=$address"
        echo "DBUS_PID=$dbus_pid"
        echo "KEYRING_PID=$keyring_pid"
        echo "SCRATCH=$scratch"
    } >"$state_file.new"
    mv "$state_file.new" "$state_file"
    trap - ERR
    echo "test-keyring: Secret Service on $address (dbus-daemon $dbus_pid," \
        "gnome-keyring-daemon $keyring_pid)"
}

start_failed() {
    stop_pid "$keyring_pid" gnome-keyring-daemon
    stop_pid "$dbus_pid" dbus-daemon
    rm -rf "$scratch"
    exit 1
}

case "$command" in
start) start ;;
stop) stop ;;
*) usage ;;
esac
