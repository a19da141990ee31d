#!/usr/bin/env bash
# Builds the fuzz flavour (clang, libFuzzer, AddressSanitizer and UndefinedBehaviorSanitizer) and
# runs the capture-file fuzz target for a bounded time, starting from a seed corpus that the
# fixture writer makes afresh.
#   fuzz/fuzz.sh [SECONDS]    default 60
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-60}
build=$root/build/fuzz
"$root/scripts/install-deps.sh" clang libclang-rt-dev
"$root/scripts/build.sh" fuzz
rm -rf "$build/seeds"
"$build/fixtures/make-fixture" corpus "$build/seeds" >/dev/null
mkdir -p "$build/corpus"
# New inputs go into build/fuzz/corpus (kept between runs, never committed); a crash leaves its
# input in build/fuzz as crash-* and fails the run.
cd "$build"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    "$build/fuzz/capture_file_fuzzer" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 "$build/corpus" "$build/seeds"
