#!/usr/bin/env bash
# Builds the fuzz flavour (clang, libFuzzer, AddressSanitizer and UndefinedBehaviorSanitizer) and
# runs each fuzz target for a bounded time, starting from seeds made afresh: capture files from
# the fixture writer, and command lines.
#   fuzz/fuzz.sh [SECONDS]    per target; default 60
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-60}
build=$root/build/fuzz
"$root/scripts/install-deps.sh" clang libclang-rt-dev
"$root/scripts/build.sh" fuzz
rm -rf "$build/seeds"
mkdir -p "$build/seeds/command_line"
"$build/fixtures/make-fixture" corpus "$build/seeds/capture_file" >/dev/null
# Command lines: words separated by NUL bytes, as the kernel hands them over.
seed=0
for line in "--count 5" "--count= -1" "--count +5" "--speed 0.5" "--speed=1e3" "-Z nobody --spin" "-w out.pcap --count 0x10" "--speed 2..5 x"; do
    tr ' ' '\0' <<<"$line" | head -c -1 >"$build/seeds/command_line/$((seed += 1))"
done
# New inputs go into build/fuzz/corpus/TARGET (kept between runs, never committed); a crash
# leaves its input in build/fuzz as crash-* and fails the run.
cd "$build"
for target in capture_file command_line; do
    echo "=== fuzz: ${target}_fuzzer, $seconds s"
    mkdir -p "$build/corpus/$target"
    ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
        "$build/fuzz/${target}_fuzzer" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
        -print_final_stats=1 "$build/corpus/$target" "$build/seeds/$target"
done
