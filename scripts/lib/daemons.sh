# Shared by the scripts that start private daemons for the tests. Callers set `state_file`
# and `ready_timeout_tenths` before using these.

state_value() {
    sed -n "s/^$1=//p" "$state_file" | head -n 1
}

# Stops a process only while it still runs the program we started: PIDs get reused.
stop_pid() {
    local pid="$1" name="$2"
    [ -n "$pid" ] || return 0
    # /proc/PID/comm holds at most 15 characters of the name.
    if [ "$(cat "/proc/$pid/comm" 2>/dev/null)" != "${name:0:15}" ]; then
        return 0
    fi
    kill "$pid" 2>/dev/null || return 0
    for _ in $(seq "$ready_timeout_tenths"); do
        exited "$pid" && return 0
        sleep 0.1
    done
    kill -9 "$pid" 2>/dev/null || true
}

# Gone, or a zombie: the daemons are not our children, and whoever adopted them may reap late.
exited() {
    local stat
    stat="$(cat "/proc/$1/stat" 2>/dev/null)" || return 0
    [ "$(echo "${stat##*) }" | cut -d ' ' -f 1)" = Z ]
}

# Records MISSING=<tool> in the state file and fails when one of the tools is absent, so that
# the tests skip with a clear message. Usage: require_tools <script> <what> <tool>...
require_tools() {
    local script="$1" what="$2" tool
    shift 2
    for tool in "$@"; do
        if ! command -v "$tool" >/dev/null 2>&1; then
            echo "MISSING=$tool" >"$state_file"
            echo "$script: $tool is not installed (scripts/install-deps.sh installs it);" \
                "the $what tests will be skipped" >&2
            return 1
        fi
    done
}

# Sets `scratch` to a new private folder with its own home, XDG folders and runtime folder, so
# that no daemon ever sees the user's own.
make_scratch() {
    scratch="$(mktemp -d "${TMPDIR:-/tmp}/ravlet-$1.XXXXXX")"
    mkdir -p "$scratch/home" "$scratch/config" "$scratch/data" "$scratch/cache"
    mkdir -m 0700 "$scratch/runtime"
}
