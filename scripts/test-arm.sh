#!/usr/bin/env bash
# Cross-builds the libraries, the host tool and the tests for 32-bit ARM hard-float into build/arm
# and runs the suite there under qemu-arm.
#   scripts/test-arm.sh [ctest arguments]
# Installs what is missing (scripts/setup-arm.sh): the cross compiler, qemu-user and libpcap for
# armhf, the last through multiarch or, when the mirror's armhf index is out of step with the
# native one, as packages unpacked into build/arm/sysroot.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/arm
pcap_sysroot=$("$root/scripts/setup-arm.sh")

echo "=== arm build"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake" -DLYR_ARM_SYSROOT="$pcap_sysroot" \
    -DLYR_SANITIZE=trap -DLYR_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" -j2
echo "=== arm tests (qemu-arm)"
ctest --test-dir "$build" --no-tests=error --output-on-failure --timeout 300 -j2 "$@"
