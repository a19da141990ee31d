#!/usr/bin/env bash
# Figures from the emulated ARM board (arm/board.sh), reported and never judged:
# packet_path_bench, then lyrcap send and lyrcap capture on a veth pair of the board. Under
# full-system emulation every instruction is translated, so the figures say how the ARM build's
# packet path compares with the bare copy in the same run, and that frames go out and come back
# complete and counted; not how fast a real board is.
#   arm/bench-board.sh      (after arm/test.sh has made build/arm)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/arm
[ -e "$build/CMakeCache.txt" ] || { echo "no ARM build: run arm/test.sh first" >&2; exit 1; }
cmake -B "$build" -DLYR_BUILD_BENCHMARKS=ON >/dev/null
cmake --build "$build" -j2 --target packet_path_bench lyrcap make-fixture lyrpcap

script=$build/board/bench.sh
cat >"$script" <<EOF
#!/bin/bash
set -u
# The board's 1 GiB holds no in-memory capture of a million 1500-byte packets.
echo "--- packet_path_bench --packets 200000"
"$build/benchmarks/packet_path_bench" --packets 200000
echo "--- lyrcap send and capture, 20000 frames of 200 bytes on a veth pair"
unshare -n bash -s <<'SANDBOX'
ip link add lyrveth0 type veth peer name lyrveth1
# IPv6 off, so that the recording holds the frames sent and nothing else.
sysctl -qw net.ipv6.conf.lyrveth0.disable_ipv6=1 net.ipv6.conf.lyrveth1.disable_ipv6=1
ip link set lyrveth0 up && ip link set lyrveth1 up
cd /tmp
TIMEFORMAT="wall time %R s"
"$build/fixtures/make-fixture" bench traffic.pcap --packets 20000 --size 200 --gap-us 100 >/dev/null
"$build/host/lyrcap" capture lyrveth0 --seconds 60 -w captured.pcap 2>capture.err & capture=\$!
until grep -qx LYR-PcapInIf /proc/\$capture/task/*/comm 2>/dev/null; do sleep 0.1; done
sleep 1 # the thread exists; give its handle time to open
echo "send at the file's times (2 s of frames, 100 us apart):"
time "$build/host/lyrcap" send traffic.pcap lyrveth1
echo "send --topspeed:"
time "$build/host/lyrcap" send traffic.pcap lyrveth1 --topspeed
kill -INT \$capture; wait \$capture
echo "capture: \$(tail -n 1 capture.err)"
echo "frames in the recording: \$(tcpdump -r captured.pcap 2>/dev/null | wc -l)"
SANDBOX
EOF
"$root/arm/board.sh" "$script"
sed -n '/^@@board: up/,/^@@board: end/p' "$build/board/console.log"
