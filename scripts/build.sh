#!/usr/bin/env bash
# Configures and builds one flavour of the project into build/<flavour>.
#   scripts/build.sh [release|asan|tsan|fuzz] [extra cmake arguments]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
flavour=${1:-release}
shift || true
case "$flavour" in
    release) options=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
    asan) options=(-DCMAKE_BUILD_TYPE=Debug -DLYR_SANITIZE=address -DLYR_BUILD_BENCHMARKS=OFF) ;;
    tsan) options=(-DCMAKE_BUILD_TYPE=Debug -DLYR_SANITIZE=thread -DLYR_BUILD_BENCHMARKS=OFF) ;;
    # libFuzzer comes with clang only.
    fuzz) options=(-DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ -DLYR_SANITIZE=fuzzer
                   -DLYR_BUILD_TESTS=OFF -DLYR_BUILD_BENCHMARKS=OFF) ;;
    *) echo "usage: $0 [release|asan|tsan|fuzz] [cmake arguments]" >&2; exit 2 ;;
esac
cmake -S "$root" -B "$root/build/$flavour" -G Ninja "${options[@]}" "$@" >/dev/null
cmake --build "$root/build/$flavour"
