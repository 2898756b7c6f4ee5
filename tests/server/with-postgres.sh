#!/usr/bin/env bash
# Runs a command against a private PostgreSQL cluster in a temporary folder, with
# RAVLET_TEST_DATABASE naming its database. Exits 77 (skipped) when PostgreSQL is not installed.
set -euo pipefail

bin="$(ls -d /usr/lib/postgresql/*/bin 2>/dev/null | sort -V | tail -1 || true)"
if [ -z "$bin" ] || [ ! -x "$bin/initdb" ]; then
    echo "PostgreSQL is not installed (apt-get install postgresql): skipped"
    exit 77
fi
dir="$(mktemp -d /tmp/ravlet-pg.XXXXXX)"
chmod 755 "$dir"
owner=""
# initdb refuses to run as root: the cluster then belongs to the postgres account.
if [ "$(id -u)" = 0 ]; then
    chown postgres "$dir"
    owner="runuser -u postgres --"
fi
port="$(python3 -c 'import socket; s=socket.socket(); s.bind(("127.0.0.1",0)); print(s.getsockname()[1])')"
as_owner() { $owner "$@"; }
cleanup() {
    as_owner "$bin/pg_ctl" -D "$dir/data" -m immediate stop >/dev/null 2>&1 || true
    rm -rf "$dir"
}
trap cleanup EXIT
as_owner "$bin/initdb" -D "$dir/data" -U ravlet --auth=trust >/dev/null
as_owner "$bin/pg_ctl" -D "$dir/data" -l "$dir/log" -w \
    -o "-p $port -k $dir -c listen_addresses=127.0.0.1 -c fsync=off" start >/dev/null
as_owner "$bin/createdb" -h 127.0.0.1 -p "$port" -U ravlet ravlet
export RAVLET_TEST_DATABASE="postgresql://ravlet@127.0.0.1:$port/ravlet"
# For suites that restart the cluster under a running server (every connection is cut).
export RAVLET_TEST_RESTART_DATABASE="$owner $bin/pg_ctl -D $dir/data -l $dir/log -w -m fast restart"
"$@"
