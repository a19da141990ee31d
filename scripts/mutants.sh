#!/usr/bin/env bash
# Mutation check: puts one small fault at a time into a scratch copy of the source tree, rebuilds
# the copy (release flavour) and runs the suite on it. A fault that no test notices is "missed".
#   scripts/mutants.sh [LIST]      LIST defaults to tests/mutants.txt
# LIST holds one fault a line: path<TAB>old text<TAB>new text. The old text must occur in exactly
# one line of the file, and the fault replaces it there; otherwise the fault "does not apply".
# Lines starting with '#' are comments; the comment right above a fault names it in the report.
# The copy and its build live in build/mutants; the work tree itself is never changed.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
list=$(realpath "${1:-$root/tests/mutants.txt}")
work=$root/build/mutants
src=$work/src build=$work/build logs=$work/logs
export CMAKE_BUILD_PARALLEL_LEVEL=${CMAKE_BUILD_PARALLEL_LEVEL:-2}
# A script test ends at its first failed check: its other checks cannot change the verdict, and
# the live test would otherwise run its full two minutes three times for every fault it catches.
export LYR_FIRST_FAILURE_ENDS=1
"$root/scripts/install-deps.sh" rsync
started=$SECONDS

# Without --times every copied file gets a fresh time, and --checksum copies exactly the files
# whose contents differ, so Ninja rebuilds what changed: also a file that an interrupted run
# left mutated, whatever its time.
mkdir -p "$src" "$logs"
rsync --recursive --links --perms --checksum --delete --exclude '/build*' --exclude '/.git' "$root/" "$src/"

# Builds the copy and runs the suite; the output goes to the log named. Fails when the build or
# a test fails. A test counts as failed only when it fails three times in a row: a test that
# fails now and then on a loaded machine would otherwise pass for one that caught the fault.
# No benchmarks: no test needs them. With "packages", the Debian packages are built and checked
# too (packaging/test-packages.sh), since only they show what their own rules get wrong.
build_and_test() { # log, then "packages" or nothing
    { cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLYR_BUILD_BENCHMARKS=OFF &&
      cmake --build "$build"; } >"$1" 2>&1 &&
      run_tests "$1" &&
      { [ "${2:-}" != packages ] || "$src/packaging/test-packages.sh" >>"$1" 2>&1; }
}

# A fault in code that runs on several threads, which the release suite misses, meets the
# threaded tests under ThreadSanitizer too: a race may crash a release build only now and then,
# where ThreadSanitizer reports it on every run.
threaded() { # path
    case "$1" in
        framework/src/* | toolkit/src/* | plugin/PcapNetInputIf.* | plugin/PcapNetOutputIf.* | plugin/AsymmetricFence.* | \
            plugin/PcapNetFile.* | host/StreamRelay.* | host/FrameReader.*) return 0 ;;
    esac
    return 1
}
tsan_build=$work/tsan
tsan_and_test() { # log
    { cmake -S "$src" -B "$tsan_build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DLYR_SANITIZE=thread -DLYR_BUILD_BENCHMARKS=OFF &&
      cmake --build "$tsan_build"; } >"$1" 2>&1 &&
      TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 run_tests "$1" "$tsan_build" -L threads
}

# The suite, ended as soon as its verdict is known: once a test has failed three times, or has
# timed out once (a test that runs three minutes under a fault has hung, and its other tries,
# or the tests still running beside it, would only cost minutes more).
run_tests() { # log [build directory, ctest arguments]
    local log=$1 directory=${2:-$build}
    shift $(($# < 2 ? $# : 2))
    setsid ctest --test-dir "$directory" --no-tests=error -j2 --timeout 180 --stop-on-failure \
        --repeat until-pass:3 --output-on-failure "$@" >>"$log" 2>&1 &
    local pid=$!
    while kill -0 "$pid" 2>/dev/null; do
        if verdict_known "$log"; then
            kill -TERM -- -"$pid" 2>/dev/null
            wait "$pid"
            return 1
        fi
        sleep 1
    done
    wait "$pid"
}
# The test that decided the verdict, when it is known: failed three times, or timed out.
decided_by() { # log
    awk 'match($0, /Test +#[0-9]+: [^ ]+ [.]*\*\*\*/) {
             test = substr($0, RSTART, RLENGTH); sub(/^Test +#[0-9]+: /, "", test); sub(/ [.]*\*\*\*$/, "", test)
             if ($0 ~ /\*\*\*Timeout/ || ++failures[test] == 3) { print test; exit }
         }' "$1"
}
verdict_known() { [ -n "$(decided_by "$1")" ]; } # log

# The test that failed, the first package check that failed, or "build failed".
what_failed() {
    local test
    test=$(decided_by "$1")
    [ -n "$test" ] || test=$(sed -n 's/^.*Test *#[0-9]*: \([^ ]*\) [.]*\*\*\*.*/\1/p' "$1" | head -1)
    [ -n "$test" ] || test=$(sed -n 's/^FAILED: \(.*\)/packages: \1/p' "$1" | head -1)
    if [ -n "$test" ]; then echo "$test"; else echo "build failed"; fi
}

echo "building and testing the unmutated copy"
if ! build_and_test "$logs/unmutated.log"; then
    echo "error: the unmutated copy fails ($(what_failed "$logs/unmutated.log")); see $logs/unmutated.log" >&2
    echo "a test that fails without any fault would make every fault look caught: fix it first" >&2
    exit 1
fi
retried=$(sed -n 's/.*Test *#[0-9]*: \([^ ]*\) .*\*\*\*.*/\1/p' "$logs/unmutated.log" | sort -u | tr '\n' ' ')
[ -z "$retried" ] || echo "warning: these tests passed only when tried again: $retried"

# The ThreadSanitizer suite of the unmutated copy, run once, when a fault first needs it.
tsan_state=""
tsan_ready() {
    if [ -z "$tsan_state" ]; then
        tsan_state=bad
        restore_for_tsan
        if tsan_and_test "$logs/unmutated.tsan.log"; then tsan_state=good; else
            echo "warning: the unmutated copy fails under ThreadSanitizer ($(what_failed "$logs/unmutated.tsan.log")): no fault runs there" >&2
        fi
        reapply_for_tsan
    fi
    [ "$tsan_state" = good ]
}
# The fault is taken out while the unmutated copy is checked, and put back after.
restore_for_tsan() { [ -z "$mutated" ] || { cp "$mutated" "$work/mutated" && cp "$saved" "$mutated"; }; }
reapply_for_tsan() { [ -z "$mutated" ] || cp "$work/mutated" "$mutated"; }

# While a fault is in, it is taken out again however the script ends.
mutated="" saved=$work/saved
restore() { if [ -n "$mutated" ]; then cp "$saved" "$mutated"; mutated=""; fi; }
trap restore EXIT

total=0 caught=0 skipped=0 description="" report=()
while IFS=$'\t' read -r -u 3 path old new; do
    case "$path" in
        "") description=""; continue ;;
        "#"*) description=${path#"#"}; description=${description# }; continue ;;
    esac
    total=$((total + 1))
    name="${description:-$old}  ($path)"
    description=""
    file=$src/$path
    lines=$(grep -cF -- "$old" "$file" 2>/dev/null || true)
    if [ "$lines" != 1 ]; then
        result="does not apply (old text in ${lines:-no} lines)"
        skipped=$((skipped + 1))
    else
        cp "$file" "$saved"
        mutated=$file
        OLD=$old NEW=$new awk '{ i = index($0, ENVIRON["OLD"])
            if (i) $0 = substr($0, 1, i - 1) ENVIRON["NEW"] substr($0, i + length(ENVIRON["OLD"]))
            print }' "$saved" >"$file"
        log=$logs/$total.log
        case "$path" in
            packaging/*) suite=packages ;;
            *) suite="" ;;
        esac
        if ! build_and_test "$log" $suite; then
            result="caught by $(what_failed "$log")"
            caught=$((caught + 1))
        elif threaded "$path" && tsan_ready && ! tsan_and_test "$log.tsan"; then
            result="caught under ThreadSanitizer by $(what_failed "$log.tsan")"
            caught=$((caught + 1))
        else
            result="MISSED"
        fi
        restore
    fi
    report+=("$(printf '%3d %s: %s' "$total" "$name" "$result")")
    echo "${report[-1]}  [$((SECONDS - started)) s]"
done 3<"$list"

echo
printf '%s\n' "${report[@]}"
echo "caught $caught of $total ($skipped did not apply) in $(((SECONDS - started) / 60)) min; logs in $logs"
