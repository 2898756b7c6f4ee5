#!/usr/bin/env bash
# A private X display for the tests: Xvfb on the first free display number from 100, and a tray on
# it (trayer) when that is installed, so that tests never touch the user's own session.
#
#   test-display.sh start [STATE_DIR]   start them and write STATE_DIR/state
#   test-display.sh stop  [STATE_DIR]   stop what STATE_DIR/state lists, by PID
#
# STATE_DIR defaults to $RAVLET_DISPLAY_DIR. The state file holds KEY=VALUE lines: DISPLAY,
# XVFB_PID, TRAY_PID (empty without trayer) and SCRATCH; or only MISSING=<tool> when Xvfb is
# not installed, which the tests report as skipped.
set -euo pipefail

usage() {
    echo "usage: $0 start|stop [STATE_DIR]   (or set RAVLET_DISPLAY_DIR)" >&2
    exit 2
}

command="${1:-}"
state_dir="${2:-${RAVLET_DISPLAY_DIR:-}}"
[ -n "$state_dir" ] || usage
state_file="$state_dir/state"

# Waiting for the server: generous, for a loaded CI machine.
ready_timeout_tenths=100

. "$(dirname "$0")/lib/daemons.sh"

stop() {
    [ -f "$state_file" ] || return 0
    local scratch
    scratch="$(state_value SCRATCH)"
    stop_pid "$(state_value TRAY_PID)" trayer
    stop_pid "$(state_value XVFB_PID)" Xvfb
    # Only ever a folder this script made.
    case "$(basename "${scratch:-none}")" in
    ravlet-display.*) rm -rf "$scratch" ;;
    esac
    rm -f "$state_file"
}

start() {
    stop # leftovers of an interrupted run
    mkdir -p "$state_dir"

    require_tools test-display display Xvfb xdpyinfo || return 0

    make_scratch display
    xvfb_pid=""
    tray_pid=""
    trap 'start_failed' ERR
    # Display numbers from 100 up: a compositor's Xwayland probes from 0. An X server binds its
    # socket (removing the file of one already there) before it checks the number's lock, so
    # two starting on one number leave the first without its socket: every checkout on this
    # machine picks its number under one lock, and only a number with neither lock nor socket.
    # -displayfd says when the server is ready.
    exec 9>>/tmp/ravlet-test-display.lock
    flock 9
    local number waited
    for number in $(seq 100 299); do
        if [ -e "/tmp/.X$number-lock" ] || [ -e "/tmp/.X11-unix/X$number" ]; then
            continue
        fi
        : >"$scratch/display"
        Xvfb ":$number" -displayfd 3 -screen 0 1280x800x24 -nolisten tcp 3>"$scratch/display" \
            9>&- </dev/null >"$scratch/xvfb.log" 2>&1 &
        xvfb_pid=$!
        waited=0
        until [ -s "$scratch/display" ] || ! kill -0 "$xvfb_pid" 2>/dev/null \
            || [ "$waited" -ge "$ready_timeout_tenths" ]; do
            sleep 0.1
            waited=$((waited + 1))
        done
        [ -s "$scratch/display" ] && break
        if kill -0 "$xvfb_pid" 2>/dev/null; then
            echo "test-display: Xvfb did not come up" >&2
            cat "$scratch/xvfb.log" >&2 || true
            false
        fi
        wait "$xvfb_pid" 2>/dev/null || true
        xvfb_pid=""
    done
    exec 9>&-
    if [ -z "$xvfb_pid" ]; then
        echo "test-display: no free display number from 100 to 299" >&2
        cat "$scratch/xvfb.log" >&2 || true
        false
    fi
    local display=":$(head -n 1 "$scratch/display")"
    DISPLAY="$display" xdpyinfo >/dev/null

    if command -v trayer >/dev/null 2>&1; then
        env -u DBUS_SESSION_BUS_ADDRESS HOME="$scratch/home" DISPLAY="$display" \
            trayer --edge top --align right --widthtype pixel --width 120 --height 28 \
            </dev/null >"$scratch/trayer.log" 2>&1 &
        tray_pid=$!
    fi

    {
        echo "DISPLAY=$display"
        echo "XVFB_PID=$xvfb_pid"
        echo "TRAY_PID=$tray_pid"
        echo "SCRATCH=$scratch"
    } >"$state_file.new"
    mv "$state_file.new" "$state_file"
    trap - ERR
    echo "test-display: Xvfb $xvfb_pid on $display${tray_pid:+, trayer $tray_pid}"
}

start_failed() {
    stop_pid "$tray_pid" trayer
    stop_pid "$xvfb_pid" Xvfb
    rm -rf "$scratch"
    exit 1
}

case "$command" in
start) start ;;
stop) stop ;;
*) usage ;;
esac
