#!/usr/bin/env bash
# A private headless sound server for the tests: a PulseAudio daemon whose socket, home and
# XDG folders live in a scratch folder, so that tests never touch the user's own sound session.
#
#   test-pulse.sh start [STATE_DIR]   start it and write STATE_DIR/state
#   test-pulse.sh stop  [STATE_DIR]   stop what STATE_DIR/state lists, by PID
#
# The server has:
#   - a null sink "speakers", the default sink: what the machine plays (its monitor is the
#     system audio);
#   - a null sink "mic_feed" at 48 kHz, and "virtual_mic", a source remapped from its monitor,
#     the default source: what is played into mic_feed is what the microphone hears.
#
# STATE_DIR defaults to $RAVLET_PULSE_DIR. The state file holds KEY=VALUE lines: PULSE_SERVER,
# PULSE_PID, SCRATCH, SYSTEM_SINK, MIC_SINK, MIC_SOURCE; or only MISSING=<tool> when a tool is
# not installed, which the tests report as skipped. Stopping tolerates a server that is
# already gone (tests may kill it on purpose).
set -euo pipefail

usage() {
    echo "usage: $0 start|stop [STATE_DIR]   (or set RAVLET_PULSE_DIR)" >&2
    exit 2
}

command="${1:-}"
state_dir="${2:-${RAVLET_PULSE_DIR:-}}"
[ -n "$state_dir" ] || usage
state_file="$state_dir/state"

# Waiting for the daemon: generous, for a loaded CI machine.
ready_timeout_tenths=100

system_sink=speakers
mic_sink=mic_feed
mic_source=virtual_mic
mic_rate=48000

. "$(dirname "$0")/lib/daemons.sh"

stop() {
    [ -f "$state_file" ] || return 0
    local scratch
    scratch="$(state_value SCRATCH)"
    stop_pid "$(state_value PULSE_PID)" pulseaudio
    # Only ever a folder this script made.
    case "$(basename "${scratch:-none}")" in
    ravlet-pulse.*) rm -rf "$scratch" ;;
    esac
    rm -f "$state_file"
}

start() {
    stop # leftovers of an interrupted run
    mkdir -p "$state_dir"

    require_tools test-pulse "sound server" pulseaudio pactl || return 0

    make_scratch pulse
    pulse_pid=""
    trap 'start_failed' ERR
    local socket="$scratch/runtime/native"
    local server="unix:$socket"
    # No display and no session bus: without them the daemon looks for neither, and it never
    # sees the user's home. Anonymous access on the private socket spares a cookie.
    local isolated=(env -u DISPLAY -u WAYLAND_DISPLAY -u DBUS_SESSION_BUS_ADDRESS
        -u PULSE_SERVER -u PULSE_COOKIE
        HOME="$scratch/home" XDG_RUNTIME_DIR="$scratch/runtime"
        XDG_CONFIG_HOME="$scratch/config" XDG_DATA_HOME="$scratch/data"
        XDG_CACHE_HOME="$scratch/cache" PULSE_RUNTIME_PATH="$scratch/runtime")

    # -n: none of the system's default modules; the output goes to a file, since CTest waits
    # for whoever holds its pipes.
    "${isolated[@]}" pulseaudio --daemonize=no --exit-idle-time=-1 -n --use-pid-file=no \
        --load="module-null-sink sink_name=$system_sink rate=$mic_rate" \
        --load="module-null-sink sink_name=$mic_sink rate=$mic_rate channels=1" \
        --load="module-remap-source master=$mic_sink.monitor source_name=$mic_source" \
        --load="module-native-protocol-unix auth-anonymous=1 socket=$socket" \
        </dev/null >"$scratch/pulse.log" 2>&1 &
    pulse_pid=$!

    local pactl=("${isolated[@]}" pactl --server="$server")
    local waited=0
    until "${pactl[@]}" info >/dev/null 2>&1; do
        if ! kill -0 "$pulse_pid" 2>/dev/null || [ "$waited" -ge "$ready_timeout_tenths" ]; then
            echo "test-pulse: pulseaudio did not come up" >&2
            cat "$scratch/pulse.log" >&2 || true
            false
        fi
        sleep 0.1
        waited=$((waited + 1))
    done
    "${pactl[@]}" set-default-sink "$system_sink"
    "${pactl[@]}" set-default-source "$mic_source"

    {
        echo "PULSE_SERVER=$server"
        echo "PULSE_PID=$pulse_pid"
        echo "SCRATCH=$scratch"
        echo "SYSTEM_SINK=$system_sink"
        echo "MIC_SINK=$mic_sink"
        echo "MIC_SOURCE=$mic_source"
    } >"$state_file.new"
    mv "$state_file.new" "$state_file"
    trap - ERR
    echo "test-pulse: PulseAudio $pulse_pid on $server"
}

start_failed() {
    stop_pid "$pulse_pid" pulseaudio
    rm -rf "$scratch"
    exit 1
}

case "$command" in
start) start ;;
stop) stop ;;
*) usage ;;
esac
