#!/usr/bin/env bash
# Builds the libFuzzer targets with clang in build-fuzz/ and runs one target or all of them.
#
#   scripts/fuzz.sh [TARGET|all] [SECONDS]      (default: all, 20 seconds each)
#   scripts/fuzz.sh list                         names the targets
#   scripts/fuzz.sh check-harness [SECONDS]      a target with a planted fault must fail in time
#
# Each run starts from the seed corpus in tests/fuzz/corpus/<target>/ (read only; what the
# fuzzer learns goes to build-fuzz/corpus/<target>/) with tests/fuzz/<target>.dict when there is
# one. A fault stops the run with a non-zero exit; its input is left in build-fuzz/artifacts/.
# FUZZ_RUNS=N runs N inputs instead of a time limit.
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
build_dir="${FUZZ_BUILD_DIR:-$root/build-fuzz}"
target="${1:-all}"
seconds="${2:-20}"

"$root/scripts/install-deps.sh"

configure() {
    CC=clang-14 CXX=clang++-14 cmake -S "$root" -B "$build_dir" -G Ninja \
        -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRAVLET_FUZZ=ON >/dev/null
}

targets() {
    sed -n 's/^ravlet_add_fuzzer(\([a-z0-9_]*\).*/\1/p' "$root/tests/fuzz/CMakeLists.txt"
}

if [ "$target" = list ]; then
    targets
    exit 0
fi

if [ "$target" = check-harness ]; then
    configure
    cmake --build "$build_dir" --parallel "$(nproc)" --target fuzz_planted_fault
    rm -rf "$build_dir/planted" && mkdir -p "$build_dir/planted/corpus"
    if ASAN_OPTIONS=detect_leaks=0 "$build_dir/tests/fuzz/fuzz_planted_fault" -max_total_time="$seconds" \
        -artifact_prefix="$build_dir/planted/" "$build_dir/planted/corpus" "$root/tests/fuzz/corpus/fuzz_planted_fault" \
        >"$build_dir/planted.log" 2>&1; then
        echo "fuzz: the planted fault was not found in ${seconds} s: the harness is broken" >&2
        exit 1
    fi
    if ! grep -q 'heap-buffer-overflow' "$build_dir/planted.log"; then
        tail -n 30 "$build_dir/planted.log"
        echo "fuzz: the planted target failed, but not on its planted fault" >&2
        exit 1
    fi
    echo "fuzz: the planted fault was found after $(grep -c -E '^#[0-9]+' "$build_dir/planted.log") progress lines"
    exit 0
fi

if [ "$target" = all ]; then
    mapfile -t selected < <(targets)
else
    selected=("$target")
fi

configure
cmake --build "$build_dir" --parallel "$(nproc)" --target "${selected[@]}"

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
export QT_QPA_PLATFORM=offscreen
mkdir -p "$build_dir/artifacts"
for name in "${selected[@]}"; do
    work="$build_dir/corpus/$name"
    mkdir -p "$work"
    args=(-artifact_prefix="$build_dir/artifacts/$name-" -print_final_stats=1 -timeout=10 -rss_limit_mb=4096)
    if [ -n "${FUZZ_RUNS:-}" ]; then
        args+=(-runs="$FUZZ_RUNS")
    else
        args+=(-max_total_time="$seconds")
    fi
    dict="$root/tests/fuzz/$name.dict"
    [ -f "$dict" ] && args+=(-dict="$dict")
    echo "== $name"
    "$build_dir/tests/fuzz/$name" "${args[@]}" "$work" "$root/tests/fuzz/corpus/$name" 2>"$build_dir/$name.log" || {
        tail -n 60 "$build_dir/$name.log"
        echo "fuzz: $name found a fault; its input is in $build_dir/artifacts/" >&2
        exit 1
    }
    grep -E '^(#[0-9]+.*DONE|stat::number_of_executed_units|stat::peak_rss_mb)' "$build_dir/$name.log" || true
done
