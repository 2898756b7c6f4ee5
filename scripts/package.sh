#!/usr/bin/env bash
# Builds the packages of this version into $PACKAGE_DIR (default: <build>/packages):
#   ravletai_<version>_amd64.deb        the program, its desktop entry and icons
#   ravlet-server_<version>_amd64.deb   the server and its systemd service
#   *-dbgsym_<version>_amd64.ddeb       the debug symbols of both, by build id
#   RavletAI-<version>-linux-x86_64.tar.gz  the relocatable folder for a per-user install
# It uses the build folder of the tests (BUILD_DIR, default build/), configured to install
# under /usr, and builds only what the packages hold.
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
build_dir="${BUILD_DIR:-$root/build}"
out="${PACKAGE_DIR:-$build_dir/packages}"

"$root/scripts/install-deps.sh"

if grep -qs '^RAVLET_SANITIZE:BOOL=ON' "$build_dir/CMakeCache.txt"; then
    echo "package.sh: $build_dir is a sanitizer build; choose another BUILD_DIR" >&2
    exit 1
fi
# The install prefix is compiled in (the desktop entry, the service's ExecStart, the program's
# test of whether it is installed), so it must be the packages' /usr.
generator=()
[ -f "$build_dir/CMakeCache.txt" ] || generator=(-G Ninja)
cmake -S "$root" -B "$build_dir" "${generator[@]}" \
    -DCMAKE_BUILD_TYPE="${CMAKE_BUILD_TYPE:-RelWithDebInfo}" -DCMAKE_INSTALL_PREFIX=/usr >/dev/null
targets=(ravletai ravlet-server)
grep -qs '^RSVG_CONVERT:FILEPATH=/' "$build_dir/CMakeCache.txt" && targets+=(ravletai_icons)
cmake --build "$build_dir" --parallel "$(nproc)" --target "${targets[@]}"

mkdir -p "$out"
(cd "$build_dir" && cpack --config CPackConfig.cmake -B "$out") >"$out/cpack.log" 2>&1 || {
    cat "$out/cpack.log" >&2
    exit 1
}
rm -rf "$out/_CPack_Packages"

echo "Packages in $out:"
(cd "$out" && ls -l --block-size=K -- *.deb *.ddeb *.tar.gz 2>/dev/null | awk '{print "  " $5 "  " $9}')
echo "Installed size of our programs (stripped):"
for deb in "$out"/ravletai_*.deb "$out"/ravlet-server_*.deb; do
    dpkg-deb --fsys-tarfile "$deb" | tar -tvf - ./usr/bin/ |
        awk '$6 ~ /usr\/bin\/./ {printf "  %6.1f MB  %s\n", $3 / 1048576, $6}'
done
