#!/usr/bin/env bash
# Cross-builds the libraries, the host tool and the tests for 32-bit ARM hard-float into build/arm
# and runs the suite: the live tests on an emulated ARM board (arm/board.sh), the rest
# under qemu-arm.
#   arm/test.sh [ctest arguments for the qemu-arm run]
# Installs what is missing (arm/setup.sh, arm/setup-board.sh): the cross compiler,
# qemu-user and libpcap for armhf, the last through multiarch or, when the mirror's armhf index is
# out of step with the native one, as packages unpacked into build/arm/sysroot; qemu-system-arm
# and the board's kernel and root file system, in build/arm/board.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/arm
pcap_sysroot=$("$root/arm/setup.sh")

echo "=== arm build"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_TOOLCHAIN_FILE="$root/arm/toolchain-armhf.cmake" -DLYR_ARM_SYSROOT="$pcap_sysroot" \
    -DLYR_SANITIZE=trap -DLYR_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" -j2
echo "=== arm tests (qemu-arm)"
# libpcap cannot open a device under qemu-user: the live tests run on the board.
ctest --test-dir "$build" --no-tests=error --output-on-failure --timeout 300 -j2 -LE live "$@"

echo "=== arm live tests (emulated board)"
"$root/arm/setup-board.sh"
# Each live test as CTest would start it, one board_test line each (see arm/board/run-tests.sh).
# LYR_NO_DEVICES tells a test that it runs under qemu-user; the board has devices.
tests=$build/board/live-tests.sh
{
    echo "#!/bin/bash"
    echo "source /board/run-tests.sh"
    ctest --test-dir "$build" -N -L live --show-only=json-v1 | jq -r '
        .tests[] | (reduce .properties[] as $p ({}; .[$p.name] = $p.value)) as $props |
        ["board_test", .name, ($props.WORKING_DIRECTORY // "/")]
        + [($props.ENVIRONMENT // [])[] | select(startswith("LYR_NO_DEVICES=") | not)]
        + .command | @sh'
} >"$tests"
grep -q "^'board_test'" "$tests" || { echo "no live test found in $build" >&2; exit 1; }
board_status=0
"$root/arm/board.sh" "$tests" || board_status=$?
"$root/arm/board-results.sh" "$build/board/console.log" "$(grep -c "^'board_test'" "$tests")"
exit "$board_status"
