#!/usr/bin/env bash
# Benchmarks of the live output, side by side with their baselines, on a veth pair in a network
# namespace of its own (IPv6 off, no addresses), removed again at the end:
#   throughput  lyrcap send --topspeed against a bare pcap_inject loop and tcpreplay --topspeed,
#               the bare loop split across the scheduler's thread as the back-end must be, and
#               that split with the event, pool buffer and pending count that the back-end's
#               contract prescribes
#   pacing      files with 100 us and 1 ms gaps, captured at the far end, against tcpreplay;
#               lyrcap sleeping to a margin (the default) and spinning (--spin), each at realtime
#               and at ordinary priority
#   idle        the scheduler thread's CPU while it waits 3 s for a frame
#   SendFrame   ns and heap allocations per call against a bare ScheduleEvent
# Needs root. PACING_FRAMES (default 100000) and THROUGHPUT_FRAMES (default 200000) set the
# sizes; generated files go to a temporary folder that is removed afterwards.
#   --load N   runs only the pacing part, with N busy loops at ordinary priority beside it
#              (0: none)
#   --throughput [ROUNDS]  runs only the throughput part, ROUNDS times (default 1), and adds
#              lyrcap with jemalloc preloaded (Debian's libjemalloc2), to judge the allocator
#   --spin [RUNS]  runs only lyrcap send --spin, RUNS times (default 10) on each of 10,000 frames
#              at 1 ms and 20,000 at 100 us, quiet and then beside two busy loops: each run's late
#              drops, longest stall of the scheduler's thread and gaps at the far end
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
load=0 pacing_only="" throughput_only="" spin_only="" rounds=1
if [ "${1:-}" = --load ]; then
    load=${2:?--load needs a count}
    pacing_only=yes
elif [ "${1:-}" = --throughput ]; then
    throughput_only=yes
    rounds=${2:-1}
elif [ "${1:-}" = --spin ]; then
    spin_only=yes pacing_only=yes
    rounds=${2:-10}
fi
build=${BUILD:-$root/build/release}
pacing_frames=${PACING_FRAMES:-100000}
throughput_frames=${THROUGHPUT_FRAMES:-200000}
command -v tcpreplay >/dev/null || "$root/scripts/install-deps.sh" tcpreplay
jemalloc=$(ls /usr/lib/*/libjemalloc.so.2 2>/dev/null | head -1 || true)
[ -z "$throughput_only" ] || [ -n "$jemalloc" ] || { "$root/scripts/install-deps.sh" libjemalloc2; jemalloc=$(ls /usr/lib/*/libjemalloc.so.2 | head -1); }
cmake --build "$build" -j2 --target lyrcap lyrpcap make-fixture bench-inject-loop bench-wire-gaps bench-send-frame >/dev/null

ns=lyrbench$$
work=$(mktemp -d /tmp/lyrbench.XXXXXX)
loops=()
cleanup() {
    [ ${#loops[@]} -eq 0 ] || kill "${loops[@]}" 2>/dev/null || true
    ip netns del "$ns" 2>/dev/null || true
    rm -rf "$work"
}
trap cleanup EXIT
ip netns add "$ns"
inside() { ip netns exec "$ns" "$@"; }
inside ip link add v0 type veth peer name v1
inside sysctl -qw net.ipv6.conf.v0.disable_ipv6=1 net.ipv6.conf.v1.disable_ipv6=1
inside ip link set v0 up
inside ip link set v1 up

lyrcap="$build/host/lyrcap"
fixture="$build/fixtures/make-fixture"
field() { sed -n "s|.*$1.*|\\1|p" | head -1; } # the first match of a sed group

if [ -z "$pacing_only" ]; then
echo "== throughput: $throughput_frames frames each, frames/s on the sending side, $rounds round(s)"
printf "%-6s %12s %12s %12s %12s %12s %12s %9s %9s %12s\n" size bare-inject lyrcap tcpreplay split \
    prescribed lyrcap+jemal "lyr/bare" "lyr/tcpr" "jemal/lyr"
for size in 64 1500; do
    file="$work/top$size.pcap"
    "$fixture" bench "$file" --packets "$throughput_frames" --size "$size" >/dev/null
    for _ in $(seq 1 "$rounds"); do
        bare=$(inside "$build/benchmarks/bench-inject-loop" "$file" v0 | field ', \([0-9]*\) frames/s')
        ours=$(inside "$lyrcap" send "$file" v0 --topspeed | field '(\([0-9]*\) frames/s')
        theirs=$(inside tcpreplay -i v0 --topspeed "$file" 2>&1 | field 'Bps, .* Mbps, \([0-9.]*\) pps')
        sched=$(inside "$build/benchmarks/bench-inject-loop" "$file" v0 --scheduled | field ', \([0-9]*\) frames/s')
        prescribed=$(inside "$build/benchmarks/bench-inject-loop" "$file" v0 --prescribed | field ', \([0-9]*\) frames/s')
        jemal=0
        [ -z "$jemalloc" ] || jemal=$(inside env LD_PRELOAD="$jemalloc" "$lyrcap" send "$file" v0 --topspeed | field '(\([0-9]*\) frames/s')
        awk -v size="$size" -v bare="$bare" -v ours="$ours" -v theirs="$theirs" -v sched="$sched" -v prescribed="$prescribed" \
            -v jemal="$jemal" 'BEGIN { printf "%-6s %12.0f %12.0f %12.0f %12.0f %12.0f %12.0f %9.2f %9.2f %12.2f\n", size, bare,
                     ours, theirs, sched, prescribed, jemal, ours / bare, ours / theirs, jemal / ours }'
    done
done
[ -z "$throughput_only" ] || exit 0
fi

# Sends a file with `sender` while tcpdump records the far end, and prints the gap figures.
paced() { # file, then the sending command
    local file=$1; shift
    # SIGTERM, not SIGINT: a background job of a script ignores SIGINT.
    ip netns exec "$ns" tcpdump -i v1 -Q in -w "$work/wire.pcap" -s 128 -B 131072 --time-stamp-precision=nano \
        ether proto 0x0800 2>/dev/null &
    local dump=$!
    sleep 1
    inside "$@" >"$work/sender.out" 2>&1
    # tcpdump hands the kernel's last, partly filled block over after its timeout of a second:
    # stopped sooner, it would miss the last frames.
    sleep 1.5
    kill -TERM $dump
    wait $dump || true
    "$build/benchmarks/bench-wire-gaps" "$file" "$work/wire.pcap" || true
}

# What lyrcap send said of its scheduler: late drops, frames it handed over after their time,
# lateness, the longest that the scheduler's thread stood still, CPU share, priority, waiting.
scheduler_figures() {
    local late behind stall cpu thread lateness
    late=$(field 'dropped as late: \([0-9]*\)' <"$work/sender.out")
    behind=$(field 'handed over after their time: \(.*\) (the reading' <"$work/sender.out")
    lateness=$(field 'lateness (us): \(.*\)' <"$work/sender.out")
    stall=$(field 'stood still \([0-9.]* ms\) at the longest' <"$work/sender.out")
    cpu=$(field 'scheduler thread CPU: .*(\([0-9.]*%\) of the run)' <"$work/sender.out")
    thread=$(field 'scheduler thread: \(.*\), slept' <"$work/sender.out")
    echo "    late drops $late, handed over late ${behind:-none}; longest stall $stall; lateness us: $lateness; scheduler thread CPU $cpu, $thread"
}

if [ -n "$spin_only" ]; then
    for load in 0 2; do
        for _ in $(seq 1 "$load"); do
            (while :; do :; done) &
            loops+=($!)
        done
        for case in "10000 1000" "20000 100"; do
            read -r frames gap <<<"$case"
            file="$work/spin$gap.pcap"
            "$fixture" bench "$file" --packets "$frames" --size 100 --gap-us "$gap" >/dev/null
            echo "== send --spin: $frames frames, $gap us gaps, $load busy loops beside it, $rounds runs"
            for run in $(seq 1 "$rounds"); do
                printf "run %2d: " "$run"; paced "$file" "$lyrcap" send "$file" v0 --spin
                scheduler_figures
            done
        done
    done
    exit 0
fi
for _ in $(seq 1 "$load"); do
    (while :; do :; done) &
    loops+=($!)
done
echo "== pacing: $pacing_frames frames, far-end capture against the file, $load busy loops beside it"
for gap in 100 1000; do
    file="$work/gap$gap.pcap"
    "$fixture" bench "$file" --packets "$pacing_frames" --size 100 --gap-us "$gap" >/dev/null
    echo "-- ${gap} us gaps"
    printf "lyrcap:                "; paced "$file" "$lyrcap" send "$file" v0
    scheduler_figures
    printf "lyrcap --priority 0:   "; paced "$file" "$lyrcap" send "$file" v0 --priority 0
    scheduler_figures
    printf "lyrcap --spin:         "; paced "$file" "$lyrcap" send "$file" v0 --spin
    scheduler_figures
    printf "lyrcap --spin --priority 0: "; paced "$file" "$lyrcap" send "$file" v0 --spin --priority 0
    scheduler_figures
    printf "tcpreplay:             "; paced "$file" tcpreplay -i v0 "$file"
    printf "tcpreplay at nice -20: "; paced "$file" nice -n -20 tcpreplay -i v0 "$file"
done
[ -z "$pacing_only" ] || exit 0

echo "== idle: one frame, then 3 s until the next"
file="$work/idle.pcap"
"$fixture" bench "$file" --packets 2 --size 100 --gap-us 3000000 >/dev/null
inside "$lyrcap" send "$file" v0 | grep "scheduler thread CPU"

echo "== SendFrame"
"$build/benchmarks/bench-send-frame"
