#!/usr/bin/env bash
# Builds the two per-user packages the self-update test needs, from one build tree where only
# the version differs: version A (the tree's own) and B (A with its last number raised by one). Only the few files that hold the version (and the install prefix) are compiled
# again for B, and once more when the tree is put back as it was at the end.
#
#   tests/packaging/build-update-packages.sh OUT      (BUILD_DIR as for scripts/package.sh)
# Prints the two packages' paths, A first. OUT holds no other package afterwards.
set -euo pipefail

root="$(cd "$(dirname "$0")/../.." && pwd)"
build_dir="${BUILD_DIR:-$root/build}"
out="${1:?usage: build-update-packages.sh OUT}"
jobs="${RAVLET_BUILD_JOBS:-2}"

old="$(sed -n 's/^RAVLET_VERSION:STRING=//p' "$build_dir/CMakeCache.txt")"
prefix="$(sed -n 's/^CMAKE_INSTALL_PREFIX:PATH=//p' "$build_dir/CMakeCache.txt")"
[ -n "$old" ] || { echo "no RAVLET_VERSION in $build_dir/CMakeCache.txt" >&2; exit 1; }
new="${old%.*}.$((${old##*.} + 1))"
mkdir -p "$out"
out="$(cd "$out" && pwd)" # cpack runs in the build folder
rm -f "$out"/RavletAI-*.tar.gz

# The packages are installed under /usr, which the programs compile in (as scripts/package.sh).
package() {
    cmake -S "$root" -B "$build_dir" -DCMAKE_INSTALL_PREFIX=/usr -DRAVLET_VERSION="$1" >/dev/null
    cmake --build "$build_dir" --parallel "$jobs" --target ravletai ravlet-server >/dev/null
    (cd "$build_dir" && cpack -G TGZ --config CPackConfig.cmake -B "$out") >"$out/cpack-$1.log" 2>&1 || {
        cat "$out/cpack-$1.log" >&2
        return 1
    }
    rm -rf "$out/_CPack_Packages"
}
restore() {
    cmake -S "$root" -B "$build_dir" -DCMAKE_INSTALL_PREFIX="$prefix" -DRAVLET_VERSION="$old" >/dev/null
    cmake --build "$build_dir" --parallel "$jobs" --target ravletai ravlet-server >/dev/null
}
trap restore EXIT

package "$new"
package "$old"
ls "$out"/RavletAI-"$old"-linux-*.tar.gz "$out"/RavletAI-"$new"-linux-*.tar.gz
