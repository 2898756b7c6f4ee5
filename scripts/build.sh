#!/usr/bin/env bash
# Configures and builds the project. BUILD_DIR picks the build folder (default: build);
# RAVLET_SANITIZE=1 builds with AddressSanitizer and UndefinedBehaviorSanitizer.
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
build_dir="${BUILD_DIR:-$root/build}"
sanitize="${RAVLET_SANITIZE:-0}"

cmake -S "$root" -B "$build_dir" -G Ninja \
    -DCMAKE_BUILD_TYPE="${CMAKE_BUILD_TYPE:-RelWithDebInfo}" \
    -DRAVLET_SANITIZE="$([ "$sanitize" = 1 ] && echo ON || echo OFF)" >/dev/null
cmake --build "$build_dir" --parallel "$(nproc)"
