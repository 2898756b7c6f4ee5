#!/usr/bin/env bash
# Plants each fault of scripts/mutants/ in turn and checks that the tests named for it fail.
#
#   scripts/mutants.sh [--build-dir DIR] [--sample N] [--list] [NAME...]
#
# NAME is a patch's file name with or without ".patch" (e.g. 03-auto-answer-late); without
# names every patch runs, or N of them picked at random with --sample. Each patch opens with
#   # fault: what a user would suffer
#   # targets: the CMake targets to rebuild
#   # tests: a ctest -R regex of the tests that must catch it
# The build folder (default build/) must be configured and built already, as scripts/test.sh
# leaves it. One line per mutant: "caught", "SURVIVED" or "ERROR"; the exit status is non-zero
# unless every mutant was caught. Build and test output go to DIR/mutants/<name>.log only: a
# mutant's run is meant to fail, and CI reads the closing lines of the real test run.
set -euo pipefail

root="$(cd "$(dirname "$0")/.." && pwd)"
patch_dir="$root/scripts/mutants"
build_dir="$root/build"
sample=""
list_only=0
names=()

while [ $# -gt 0 ]; do
    case "$1" in
        --build-dir) build_dir="$(cd "$2" && pwd)"; shift 2 ;;
        --sample) sample="$2"; shift 2 ;;
        --list) list_only=1; shift ;;
        -h|--help) sed -n '2,15p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        -*) echo "mutants.sh: unknown option $1" >&2; exit 2 ;;
        *) names+=("${1%.patch}"); shift ;;
    esac
done

cd "$root"

header() { # header FIELD PATCH: the value of "# FIELD: ..." in the patch's opening lines
    sed -n "s/^# $1: *//p" "$2" | head -n 1
}

patches=()
if [ ${#names[@]} -gt 0 ]; then
    for name in "${names[@]}"; do
        [ -f "$patch_dir/$name.patch" ] || { echo "mutants.sh: no patch $name" >&2; exit 2; }
        patches+=("$patch_dir/$name.patch")
    done
else
    mapfile -t patches < <(find "$patch_dir" -name '*.patch' | sort)
    if [ -n "$sample" ] && [ "$sample" -lt ${#patches[@]} ]; then
        mapfile -t patches < <(printf '%s\n' "${patches[@]}" | shuf -n "$sample" | sort)
    fi
fi

if [ "$list_only" = 1 ]; then
    for patch in "${patches[@]}"; do
        printf '%-40s %s\n' "$(basename "$patch" .patch)" "$(header fault "$patch")"
    done
    exit 0
fi

if [ ! -f "$build_dir/CMakeCache.txt" ]; then
    echo "mutants.sh: $build_dir is not a configured build folder; run scripts/test.sh first" >&2
    exit 2
fi
log_dir="$build_dir/mutants"
mkdir -p "$log_dir"

# Whatever patch is in the tree when the script ends, however it ends, is taken out again:
# a planted fault must never outlive the run.
applied=""
revert() {
    if [ -n "$applied" ]; then
        git apply -R "$applied" || echo "mutants.sh: could not take out $applied; check git status" >&2
        applied=""
    fi
}
trap revert EXIT
trap 'revert; exit 130' INT
trap 'revert; exit 143' TERM

caught=0
survived=0
errors=0
touched=()
started=$SECONDS

for patch in "${patches[@]}"; do
    name="$(basename "$patch" .patch)"
    log="$log_dir/$name.log"
    read -r -a targets <<<"$(header targets "$patch")"
    regex="$(header tests "$patch")"
    if [ ${#targets[@]} -eq 0 ] || [ -z "$regex" ]; then
        echo "ERROR $name: no targets or tests header"
        errors=$((errors + 1))
        continue
    fi
    mapfile -t files < <(sed -n 's|^diff --git a/\(.*\) b/.*|\1|p' "$patch")
    # A local change to one of these files would be mixed into the mutant, or lost at revert.
    if ! git diff --quiet HEAD -- "${files[@]}"; then
        echo "ERROR $name: uncommitted changes in ${files[*]}"
        errors=$((errors + 1))
        continue
    fi
    if ! git apply "$patch" 2>"$log"; then
        echo "ERROR $name: does not apply (see $log)"
        errors=$((errors + 1))
        continue
    fi
    applied="$patch"
    touched+=("${targets[@]}")

    if ! cmake --build "$build_dir" --target "${targets[@]}" >>"$log" 2>&1; then
        revert
        echo "ERROR $name: does not build (see $log)"
        errors=$((errors + 1))
        continue
    fi
    # A regex that selects nothing would pass and look like a survivor; say so instead. The
    # listing is read whole: a grep that stops early would break ctest's pipe.
    listing="$(ctest --test-dir "$build_dir" -N -R "$regex" 2>>"$log" || true)"
    if ! grep -q '^Total Tests: [1-9]' <<<"$listing"; then
        revert
        echo "ERROR $name: no test matches '$regex'"
        errors=$((errors + 1))
        continue
    fi
    if ctest --test-dir "$build_dir" -R "$regex" --timeout 180 --output-on-failure \
        --parallel "${MUTANTS_JOBS:-$(nproc)}" >>"$log" 2>&1; then
        echo "SURVIVED $name"
        survived=$((survived + 1))
    else
        echo "caught  $name"
        caught=$((caught + 1))
    fi
    revert
done

# The build folder holds the last mutant's objects until the touched targets are rebuilt from
# the clean tree.
if [ ${#touched[@]} -gt 0 ]; then
    mapfile -t touched < <(printf '%s\n' "${touched[@]}" | sort -u)
    if ! cmake --build "$build_dir" --target "${touched[@]}" >"$log_dir/rebuild.log" 2>&1; then
        echo "mutants.sh: rebuilding the clean tree failed (see $log_dir/rebuild.log)" >&2
        errors=$((errors + 1))
    fi
fi

echo "time: $((SECONDS - started)) s"
echo "mutants: $caught caught, $survived survived, $errors errors"
[ "$survived" -eq 0 ] && [ "$errors" -eq 0 ]
