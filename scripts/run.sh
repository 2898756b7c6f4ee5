#!/usr/bin/env bash
# Sets everything up, builds and starts RavletAI. When nothing answers at the backend origin,
# it starts ravlet-server first and stops it when the program ends.
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh"
build="${BUILD_DIR:-$root/build}"

origin="$(sed -n 's/.*backendOrigin\[\] = u"\(.*\)";.*/\1/p' "$build/generated/BuildConfig.h" 2>/dev/null || true)"
origin="${origin:-http://127.0.0.1:8787}"
listen="${origin#http://}"

server_pid=""
stop_server() {
    if [ -n "$server_pid" ]; then
        kill "$server_pid" 2>/dev/null || true
        wait "$server_pid" 2>/dev/null || true
    fi
}
trap stop_server EXIT INT TERM

if ! curl -s -o /dev/null -m 2 "$origin/health"; then
    if [ "${origin#http://}" = "$origin" ]; then
        echo "Nothing answers at $origin, and only an http:// origin can be started here." >&2
    else
        "$build/server/app/ravlet-server" --listen "$listen" &
        server_pid=$!
        for _ in $(seq 1 100); do
            curl -s -o /dev/null -m 1 "$origin/health" && break
            kill -0 "$server_pid" 2>/dev/null || { echo "ravlet-server did not start" >&2; exit 1; }
            sleep 0.1
        done
    fi
fi

"$build/src/app/ravletai" "$@"
