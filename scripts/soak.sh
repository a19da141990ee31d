#!/usr/bin/env bash
# A long capture into a ring of files, as a board records for days: lyrcap capture on one end of
# a veth pair while lyrcap send loops a one-second capture through the other end at a steady
# rate. Samples the capture's memory every 10 s, and at the end checks that every frame sent is
# accounted for, captured or counted as dropped, and lists the ring's files.
#   scripts/soak.sh [MINUTES]      (default 10; as root)
# RATE (frames/s, default 20000), SIZE (bytes, default 64), FILE_MB (default 20) and FILES
# (default 5) shape the traffic and the ring.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
minutes=${1:-10}
rate=${RATE:-20000} size=${SIZE:-64} file_mb=${FILE_MB:-20} files=${FILES:-5}
if [ "${LYR_IN_SANDBOX:-}" != 1 ]; then
    "$root/scripts/build.sh" release >/dev/null
    # A network namespace of its own, which vanishes with the script with its devices.
    LYR_IN_SANDBOX=1 exec unshare -n "$0" "$@"
fi
build=$root/build/release
lyrcap=$build/host/lyrcap
ip link add lyrsoak0 type veth peer name lyrsoak1
sysctl -qw net.ipv6.conf.lyrsoak0.disable_ipv6=1 net.ipv6.conf.lyrsoak1.disable_ipv6=1
ip link set lyrsoak0 up && ip link set lyrsoak1 up
dir=$(mktemp -d)
pids=()
trap 'kill "${pids[@]}" 2>/dev/null; rm -rf "$dir"' EXIT

"$build/fixtures/make-fixture" bench "$dir/second.pcap" --packets "$rate" --size "$size" --gap-us $((1000000 / rate)) >/dev/null
"$lyrcap" capture lyrsoak0 -w "$dir/ring.pcap" --file-size "$file_mb" --files "$files" 2>"$dir/capture.err" &
capture=$!
pids+=("$capture")
until grep -q "^capturing on" "$dir/capture.err"; do sleep 0.1; done
sleep 2 # the capture thread opens the device on its own time
rss() { awk '/^VmRSS/ {printf "%.1f", $2 / 1024}' "/proc/$capture/status"; }
echo "soak: $minutes min at $rate frames/s of $size bytes into a ring of $files files of $file_mb MB"
start_rss=$(rss)
echo "  0 s: capture memory $start_rss MB"
"$lyrcap" send "$dir/second.pcap" lyrsoak1 --loop $((minutes * 60)) >"$dir/send.out" 2>"$dir/send.err" &
sender=$!
pids+=("$sender")
elapsed=0
while kill -0 "$sender" 2>/dev/null; do
    sleep 10
    elapsed=$((elapsed + 10))
    kill -0 "$sender" 2>/dev/null && echo "$(printf %3d $elapsed) s: capture memory $(rss) MB"
done
wait "$sender"
end_rss=$(rss)
sleep 2 # the last frames reach the capture
kill -INT "$capture"
wait "$capture" || true

sent=$(sed -n 's/^frames sent: //p' "$dir/send.out")
summary=$(tail -n 1 "$dir/capture.err")
captured=$(sed -n 's/^\([0-9]*\) frames, .*/\1/p' <<<"$summary")
dropped=$(sed -n 's/.* \([0-9]*\) dropped.*/\1/p' <<<"$summary")
echo "capture memory: $start_rss MB at the start, $end_rss MB at the end"
echo "frames sent $sent = captured $captured + dropped $dropped: $([ "$sent" = $((captured + dropped)) ] && echo yes || echo NO)"
echo "ring: $(grep -o 'recorded to .*' <<<"$summary")"
for file in "$dir"/ring_*.pcap; do
    echo "  $(basename "$file"): $(stat -c %s "$file") bytes, $(capinfos -c -M "$file" | sed -n 's/^Number of packets: *//p') frames"
done
[ "$sent" = $((captured + dropped)) ]
