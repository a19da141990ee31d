#!/usr/bin/env bash
# Builds and runs the test suite.
#   scripts/test.sh          the release build, every test
#   scripts/test.sh --all    also AddressSanitizer with UndefinedBehaviorSanitizer (every test),
#                            ThreadSanitizer (the tests that run threads), a build with CMake's
#                            default generator installed to a prefix and run, the 32-bit ARM
#                            build under qemu-arm and its live tests on an emulated ARM board
#                            (arm/test.sh), the Debian packages
#                            (packaging/test-packages.sh) and a minute of the capture-file fuzz
#                            target: what CI runs
#   scripts/test.sh --load   the release and ThreadSanitizer suites with busy loops on every
#                            core beside them (LOAD_LOOPS, default 2): the tests judge behaviour,
#                            never the machine's speed, so they must pass on a busy machine too
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
mode=${1:-}
case "$mode" in
    "" | --all | --load) ;;
    *) echo "usage: $0 [--all | --load]" >&2; exit 2 ;;
esac
"$root/scripts/install-deps.sh"

run_suite() { # flavour, then ctest arguments
    local flavour=$1; shift
    echo "=== $flavour build"
    "$root/scripts/build.sh" "$flavour"
    echo "=== $flavour tests"
    ctest --test-dir "$root/build/$flavour" --no-tests=error --output-on-failure --timeout 300 -j2 "$@"
}
# The build most people type first: CMake's default generator, out of tree, configured for a
# prefix of its own and installed there, whose lyrcap must read the shipped sample with the
# installed plug-in.
default_generator_build() {
    echo "=== default generator build, install and run"
    local build=$root/build/default prefix
    prefix=$(mktemp -d)
    env -u CMAKE_GENERATOR cmake -S "$root" -B "$build" -DCMAKE_INSTALL_PREFIX="$prefix" >/dev/null &&
        cmake --build "$build" -j2 >/dev/null &&
        cmake --install "$build" >/dev/null &&
        "$prefix/bin/lyrcap" info | grep "^packets: *20$" >/dev/null
    local status=$?
    rm -rf "$prefix"
    [ $status = 0 ] || { echo "the default generator's build, install or run failed" >&2; return 1; }
}
tsan_suite() {
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 run_suite tsan -L threads
}

if [ "$mode" = --load ]; then
    # Built first, so that the load meets the tests and not the compiler.
    "$root/scripts/build.sh" release >/dev/null
    "$root/scripts/build.sh" tsan >/dev/null
    loops=()
    trap 'kill "${loops[@]}" 2>/dev/null' EXIT
    for _ in $(seq 1 "${LOAD_LOOPS:-2}"); do
        (while :; do :; done) &
        loops+=($!)
    done
    echo "=== ${#loops[@]} busy loops beside the tests"
    run_suite release
    tsan_suite
    exit
fi

run_suite release
if [ "$mode" = --all ]; then
    # halt_on_error: a sanitizer report fails the test instead of scrolling past.
    ASAN_OPTIONS=detect_leaks=1:halt_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 run_suite asan
    tsan_suite
    default_generator_build
    "$root/arm/test.sh"
    "$root/packaging/test-packages.sh"
    echo "=== fuzz"
    "$root/fuzz/fuzz.sh" 60
fi
