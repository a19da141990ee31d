#!/usr/bin/env bash
# What a recording loses when it is killed outright: lyrcap capture -w and tcpdump -w record the
# same traffic side by side on one end of a veth pair, lyrcap send puts SECONDS of frames at each
# RATE through the other end, and both recorders get SIGKILL the moment the sender is done. Prints,
# per rate, the frames sent and how many of them each file is missing.
#   benchmarks/bench-kill.sh [SECONDS]     (default 30; RATES="100 10"; as root)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
seconds=${1:-30}
if [ "${LYR_IN_SANDBOX:-}" != 1 ]; then
    "$root/scripts/install-deps.sh"
    "$root/scripts/build.sh" release >/dev/null
    LYR_IN_SANDBOX=1 exec unshare -n "$0" "$@"
fi
build=$root/build/release
ip link add lyrkill0 type veth peer name lyrkill1
sysctl -qw net.ipv6.conf.lyrkill0.disable_ipv6=1 net.ipv6.conf.lyrkill1.disable_ipv6=1
ip link set lyrkill0 up && ip link set lyrkill1 up
dir=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; rm -rf "$dir"' EXIT
count() { tcpdump -r "$1" 2>/dev/null | wc -l; }

echo "killed after ${seconds} s of frames: frames sent, missing from lyrcap's file, missing from tcpdump's"
for rate in ${RATES:-100 10}; do
    frames=$((seconds * rate))
    "$build/fixtures/make-fixture" bench "$dir/traffic.pcap" --packets "$frames" --size 200 --gap-us $((1000000 / rate)) >/dev/null
    "$build/host/lyrcap" capture lyrkill0 -w "$dir/lyrcap.pcap" 2>/dev/null & ours=$!
    tcpdump -i lyrkill0 -w "$dir/tcpdump.pcap" 2>/dev/null & theirs=$!
    sleep 3 # both open their devices on their own time
    "$build/host/lyrcap" send "$dir/traffic.pcap" lyrkill1 >"$dir/send.out" 2>/dev/null
    kill -KILL "$ours" "$theirs"
    wait "$ours" "$theirs" 2>/dev/null || true
    sent=$(sed -n 's/^frames sent: //p' "$dir/send.out")
    echo "$rate frames/s: $sent sent, lyrcap missing $((sent - $(count "$dir/lyrcap.pcap"))), tcpdump missing $((sent - $(count "$dir/tcpdump.pcap")))"
done
