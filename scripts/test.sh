#!/usr/bin/env bash
# Builds and runs the test suite.
#   scripts/test.sh          the release build, every test
#   scripts/test.sh --all    also AddressSanitizer with UndefinedBehaviorSanitizer (every test),
#                            ThreadSanitizer (the tests that run threads), the 32-bit ARM
#                            build under qemu-arm (scripts/test-arm.sh) and a minute of the
#                            capture-file fuzz target: what CI runs
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"

run_suite() { # flavour, then ctest arguments
    local flavour=$1; shift
    echo "=== $flavour build"
    "$root/scripts/build.sh" "$flavour"
    echo "=== $flavour tests"
    ctest --test-dir "$root/build/$flavour" --no-tests=error --output-on-failure --timeout 300 -j2 "$@"
}

run_suite release
if [ "${1:-}" = "--all" ]; then
    # halt_on_error: a sanitizer report fails the test instead of scrolling past.
    ASAN_OPTIONS=detect_leaks=1:halt_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 run_suite asan
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 run_suite tsan -L threads
    "$root/scripts/test-arm.sh"
    echo "=== fuzz"
    "$root/scripts/fuzz.sh" 60
fi
