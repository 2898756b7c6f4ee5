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
