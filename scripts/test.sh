#!/usr/bin/env bash
# Sets everything up, builds and runs every test with CTest.
# RAVLET_SANITIZE=1 runs the suite under AddressSanitizer and UndefinedBehaviorSanitizer in
# a build folder of its own (build-asan unless BUILD_DIR says otherwise).
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
if [ "${RAVLET_SANITIZE:-0}" = 1 ]; then
    export BUILD_DIR="${BUILD_DIR:-$root/build-asan}"
    export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
    export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
    export LSAN_OPTIONS="${LSAN_OPTIONS:-suppressions=$root/tests/sanitizers/lsan.supp}"
fi
build_dir="${BUILD_DIR:-$root/build}"

"$root/scripts/install-deps.sh"
"$root/scripts/build.sh"
ctest --test-dir "$build_dir" --output-on-failure --parallel "$(nproc)"
