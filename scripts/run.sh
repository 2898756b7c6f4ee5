#!/usr/bin/env bash
# Sets everything up, builds and starts RavletAI.
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh"
exec "${BUILD_DIR:-$root/build}/src/app/ravletai" "$@"
