#!/usr/bin/env bash
# Builds the packages and checks them on this machine, as root: installs both .debs with apt,
# runs the program, starts the server the way its systemd unit does, installs the .tar.gz for
# a user, then purges everything and checks that nothing of ours is left but the server's data
# (which it then removes too, with the service's user); last, the program updates itself from
# one per-user package to a newer one. It changes the machine: run it on a
# disposable one. CI runs it (.ci/run); CTest never does.
#
#   tests/packaging/check-packages.sh        (BUILD_DIR and PACKAGE_DIR as for scripts/package.sh)
set -euo pipefail

root="$(cd "$(dirname "$0")/../.." && pwd)"
build_dir="${BUILD_DIR:-$root/build}"
out="${PACKAGE_DIR:-$build_dir/packages}"
data=/var/lib/ravlet-server
started=$SECONDS

if [ "$(id -u)" -ne 0 ]; then
    echo "check-packages.sh installs packages: run it as root" >&2
    exit 1
fi
for package in ravletai ravlet-server; do
    if dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q installed; then
        echo "check-packages.sh: $package is installed already; purge it first" >&2
        exit 1
    fi
done

failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}
pass() { echo "ok: $*"; }

scratch="$(mktemp -d /tmp/ravlet-packages.XXXXXX)"
server_pid=""
cleanup() {
    if [ -n "$server_pid" ]; then
        kill "$server_pid" 2>/dev/null || true
        wait "$server_pid" 2>/dev/null || true
    fi
    rm -rf "$scratch"
}
trap cleanup EXIT

health() { curl -fs -m 2 -o /dev/null "$1/health"; }

wait_health() {
    for _ in $(seq 1 150); do
        health "$1" && return 0
        sleep 0.1
    done
    return 1
}

free_port() { python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'; }

# 1. The packages.
"$root/scripts/package.sh"
version="$(sed -n 's/^CPACK_PACKAGE_VERSION:.*=//p; s/^RAVLET_VERSION:STRING=//p' "$build_dir/CMakeCache.txt" | head -n 1)"
program_deb="$(ls "$out"/ravletai_"$version"_*.deb)"
server_deb="$(ls "$out"/ravlet-server_"$version"_*.deb)"
tarball="$(ls "$out"/RavletAI-"$version"-linux-*.tar.gz)"
for file in "$out"/ravletai-dbgsym_*.ddeb "$out"/ravlet-server-dbgsym_*.ddeb; do
    if [ -s "$file" ]; then pass "debug symbols: $(basename "$file")"; else fail "no debug symbols package $file"; fi
done
depends="$(dpkg-deb -f "$program_deb" Depends)"
for needed in libqt6quick6 qml6-module-qtquick-controls fonts-materialdesignicons-webfont; do
    [[ "$depends" == *"$needed"* ]] || fail "ravletai does not depend on $needed: $depends"
done
[[ "$(dpkg-deb -f "$server_deb" Depends)" == *libqt6httpserver6* ]] ||
    fail "ravlet-server's dependencies were not read from its libraries"

# 2. Installed with apt, dependencies and all.
export DEBIAN_FRONTEND=noninteractive
apt-get install -y -qq "$program_deb" "$server_deb" >"$scratch/apt-install.log" 2>&1 || {
    cat "$scratch/apt-install.log" >&2
    exit 1
}
pass "apt-get install of both packages"
mapfile -t owned < <(dpkg -L ravletai ravlet-server | sort -u)

reported="$(/usr/bin/ravletai --version)"
[ "$reported" = "RavletAI $version" ] && pass "ravletai --version: $reported" || fail "ravletai --version said '$reported'"
for program in /usr/bin/ravletai /usr/bin/ravlet-server; do
    if file -b "$program" | grep -q 'not stripped'; then fail "$program is not stripped"; fi
done
entry=/usr/share/applications/ravletai.desktop
grep -qx 'Exec=/usr/bin/ravletai %u' "$entry" && grep -qx 'MimeType=x-scheme-handler/ravlet;' "$entry" &&
    grep -qx 'Exec=/usr/bin/ravletai --quit' "$entry" && pass "desktop entry" || fail "desktop entry: $(cat "$entry")"
if command -v desktop-file-validate >/dev/null; then
    desktop-file-validate "$entry" || fail "desktop-file-validate $entry"
fi
# Every user's xdg-open finds the handler through the desktop database (desktop-file-utils).
if command -v update-desktop-database >/dev/null; then
    mkdir -p "$scratch/nobody"
    handler="$(env -i PATH=/usr/bin:/bin HOME="$scratch/nobody" xdg-mime query default x-scheme-handler/ravlet)"
    [ "$handler" = ravletai.desktop ] && pass "ravlet:// handled system-wide" || fail "xdg-mime names '$handler' for ravlet://"
fi
for size in 16x16 24x24 32x32 48x48 64x64 128x128 256x256; do
    if [ ! -s "/usr/share/icons/hicolor/$size/apps/ravletai.png" ]; then fail "no $size icon"; fi
done
[ -s /usr/share/icons/hicolor/scalable/apps/ravletai.svg ] || fail "no scalable icon"

# The program as a user starts it from the menu, with no server of its own yet.
/usr/bin/python3 "$root/tests/packaging/installed_program.py" "$build_dir/screenshots/packaging" ||
    fail "the installed program, started through its desktop entry (lines above)"

# 3. The server, started as its unit starts it.
unit="$(printf '%s\n' "${owned[@]}" | grep '/ravlet-server\.service$')"
getent passwd ravlet-server >/dev/null && pass "system user ravlet-server" || fail "no user ravlet-server"
[ "$(stat -c %a /etc/default/ravlet-server)" = 600 ] || fail "/etc/default/ravlet-server is not readable by root alone"
if pidof systemd >/dev/null; then
    origin=http://127.0.0.1:8787
    systemctl start ravlet-server
    wait_health "$origin" && pass "the service answers /health" || fail "the service does not answer"
else
    # No systemd here: what the unit asks of it, by hand. The port stands in for a line of
    # /etc/default/ravlet-server, so that a server already on 8787 does not answer for us.
    port="$(free_port)"
    origin="http://127.0.0.1:$port"
    user="$(sed -n 's/^User=//p' "$unit")"
    mapfile -t environment < <(sed -n 's/^Environment=//p' "$unit")
    environment_file="$(sed -n 's/^EnvironmentFile=-\{0,1\}//p' "$unit")"
    [ -r "$environment_file" ] && mapfile -t -O "${#environment[@]}" environment < <(grep -E '^[A-Z_]+=' "$environment_file" || true)
    environment+=("RAVLET_LISTEN=127.0.0.1:$port")
    read -r -a command <<<"$(sed -n 's/^ExecStart=//p' "$unit")"
    for folder in "$data" /run/ravlet-server; do # StateDirectory=, RuntimeDirectory=
        install -d -m 0700 -o "$user" -g "$user" "$folder"
    done
    (cd / && exec setpriv --reuid="$user" --regid="$user" --init-groups --no-new-privs \
        env -i PATH=/usr/bin:/bin "${environment[@]}" "${command[@]}") >"$scratch/server.log" 2>&1 &
    server_pid=$!
    if wait_health "$origin"; then
        pass "ExecStart as $user answers /health ($(head -n 1 "$scratch/server.log"))"
    else
        fail "ExecStart did not answer: $(cat "$scratch/server.log")"
    fi
fi
key="$data/signing.key"
[ "$(stat -c '%U %a' "$key" 2>/dev/null)" = "ravlet-server 600" ] && pass "signing key created, owner only" ||
    fail "signing key $key: $(stat -c '%U %a' "$key" 2>&1)"
[ -s "$data/server.sqlite" ] && pass "database in $data" || fail "no database in $data"
if pidof systemd >/dev/null; then
    systemctl stop ravlet-server
else
    kill "$server_pid"
    wait "$server_pid" && pass "the server ends cleanly on SIGTERM" || fail "the server's exit status $?"
    server_pid=""
    rm -rf /run/ravlet-server
fi

# 4. The per-user install from the .tar.gz, into a scratch home.
home="$scratch/home"
mkdir -p "$home"
tar -xzf "$tarball" -C "$scratch"
folder="$scratch/$(basename "$tarball" .tar.gz)"
user_env=(env -i PATH=/usr/bin:/bin HOME="$home" XDG_DATA_HOME="$home/.local/share" XDG_CONFIG_HOME="$home/.config")
"${user_env[@]}" "$folder/install.sh" >"$scratch/install.log" 2>&1 || fail "install.sh: $(cat "$scratch/install.log")"
installed="$home/.local/opt/RavletAI/bin"
[ "$("$installed/ravletai" --version)" = "RavletAI $version" ] && [ -x "$installed/ravlet-server" ] &&
    pass "per-user install in ~/.local/opt/RavletAI" || fail "per-user install: $(ls -R "$home/.local/opt" 2>&1)"
user_entry="$home/.local/share/applications/ravletai.desktop"
grep -qx "Exec=$installed/ravletai %u" "$user_entry" || fail "user's desktop entry: $(cat "$user_entry" 2>&1)"
[ -s "$home/.local/share/icons/hicolor/48x48/apps/ravletai.png" ] || fail "user's icons"
[ "$("${user_env[@]}" xdg-mime query default x-scheme-handler/ravlet)" = ravletai.desktop ] &&
    pass "ravlet:// registered for the user" || fail "xdg-mime does not name ravletai.desktop"
"${user_env[@]}" "$installed/../install.sh" --uninstall >/dev/null
left="$(find "$home/.local" -name 'ravletai*' | head -n 5)"
[ -z "$left" ] && [ ! -e "$home/.local/opt/RavletAI" ] && pass "install.sh --uninstall" || fail "left after --uninstall: $left"

# 5. Purged: no file of ours remains but the server's data.
apt-get purge -y -qq ravletai ravlet-server >"$scratch/apt-purge.log" 2>&1 || {
    cat "$scratch/apt-purge.log" >&2
    exit 1
}
for path in "${owned[@]}"; do
    if [ -f "$path" ]; then fail "left after purge: $path"; fi
done
left="$(find /usr /etc /opt /var -path "$data" -prune -o -path /var/cache/apt -prune -o \
    -iname '*ravlet*' -print 2>/dev/null | head -n 10)"
[ -z "$left" ] && pass "purge leaves only $data" || fail "left after purge: $left"
[ -d "$data" ] && pass "the data in $data is kept" || fail "purge removed $data"

# This machine is left as it was: the data and the user go too.
rm -rf "$data"
userdel ravlet-server 2>/dev/null || true

# 6. The self-update, end to end: two per-user packages from this build tree, version A and
# a newer B, and the program updating itself from one to the other (too slow for the plain
# suite, which skips it while the packages are missing).
"$root/tests/packaging/build-update-packages.sh" "$build_dir/packages/update" >"$scratch/update-packages.log" 2>&1 ||
    fail "the update packages: $(tail -n 20 "$scratch/update-packages.log")"
ctest --test-dir "$build_dir" -R '^self_update$' --output-on-failure || fail "the self-update (lines above)"

echo "$( [ "$failures" -eq 0 ] && echo PASSED || echo "FAILED ($failures)" ) in $((SECONDS - started)) s"
[ "$failures" -eq 0 ]
