#!/usr/bin/env bash
# Builds the release flavour and runs the capture-file benchmark: replay, scan, seek and
# recording through the plug-in against bare libpcap, side by side. The generated captures
# (about 700 MB) stay in /tmp/lyrbench for the next run.
#   benchmarks/bench-capture-file.sh [benchmark options, e.g. --runs 9]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" release >/dev/null
exec "$root/build/release/benchmarks/capture_file_bench" "$@"
