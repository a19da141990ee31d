#!/usr/bin/env bash
# From a fresh Debian machine to the host tool reading the shipped sample.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" release
lyrcap="$root/build/release/host/lyrcap"
set -x
"$lyrcap" info "$root/samples/ethernet.pcap"
"$lyrcap" replay "$root/samples/ethernet.pcap"
"$lyrcap" replay "$root/samples/raw-multicast.pcap"
