#!/usr/bin/env bash
# Sets everything up, builds and starts RavletAI.
#
# The program starts its own ravlet-server when nothing answers at its (loopback) origin, but
# only the one installed beside it, as a package installs them; in the build folder the two
# live apart. So the build is installed into <build>/run (unchanged files are not copied
# again), and the program runs from there with its server beside it: no server logic here.
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh"
build="${BUILD_DIR:-$root/build}"
prefix="$build/run"

for component in program server; do
    cmake --install "$build" --prefix "$prefix" --component "$component" >/dev/null
done
exec "$prefix/bin/ravletai" "$@"
