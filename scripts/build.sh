#!/usr/bin/env bash
# Configures and builds one flavour of the project into build/<flavour>.
#   scripts/build.sh [release|asan|tsan] [extra cmake arguments]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
flavour=${1:-release}
shift || true
case "$flavour" in
    release) options=(-DCMAKE_BUILD_TYPE=RelWithDebInfo) ;;
    asan) options=(-DCMAKE_BUILD_TYPE=Debug -DLYR_SANITIZE=address -DLYR_BUILD_BENCHMARKS=OFF) ;;
    tsan) options=(-DCMAKE_BUILD_TYPE=Debug -DLYR_SANITIZE=thread -DLYR_BUILD_BENCHMARKS=OFF) ;;
    *) echo "usage: $0 [release|asan|tsan] [cmake arguments]" >&2; exit 2 ;;
esac
cmake -S "$root" -B "$root/build/$flavour" -G Ninja "${options[@]}" "$@" >/dev/null
cmake --build "$root/build/$flavour"
