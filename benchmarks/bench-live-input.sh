#!/usr/bin/env bash
# The live input under load, against tcpdump: on a veth pair in a network namespace of this
# script's own, tcpreplay sends 64-byte and 1500-byte frames at rising rates for a fixed time,
# while either `lyrcap capture -w` or `tcpdump -w` records them into a file under /tmp. A run
# counts as zero-drop when the file holds every frame sent and the kernel reports no drop.
# A third contender, bare_live_capture, only counts in a bare pcap_loop opened with the live
# input's fixed settings: it tells what those settings allow, whatever the packet path costs.
# lyrcap is `lyrcap capture -w` as it starts by default, its capture thread at realtime
# priority 10; lyrcap-ord is the same with `--priority 0`, and tcpdump-rt is tcpdump under
# `chrt -f 10`, so that each priority is compared with its like.
# Prints, per frame size, the highest zero-drop rate of each, and the packet-path benchmark.
#
#   benchmarks/bench-live-input.sh                 (build/release must exist: scripts/build.sh)
#   SECONDS_PER_RUN=10 RATES_64="..." RATES_1500="..." benchmarks/bench-live-input.sh
#   LOAD=2 benchmarks/bench-live-input.sh          (a busy machine: 2 busy loops at ordinary priority)
set -u
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$root/build/release}
if [ "${LYR_IN_SANDBOX:-}" != 1 ]; then
    "$build/benchmarks/packet_path_bench" || exit 1
    echo
    exec env LYR_IN_SANDBOX=1 unshare -n "$0" "$@"
fi
seconds=${SECONDS_PER_RUN:-10}
rates_64=${RATES_64:-"2500 5000 10000 25000 50000 100000 200000 300000"}
rates_1500=${RATES_1500:-"2500 5000 10000 25000 50000 75000"}
for tool in tcpreplay tcpdump capinfos; do
    command -v $tool >/dev/null || { echo "$tool is missing (scripts/install-deps.sh)"; exit 1; }
done
ip link add lyrveth0 type veth peer name lyrveth1 || exit 1
sysctl -qw net.ipv6.conf.lyrveth0.disable_ipv6=1 net.ipv6.conf.lyrveth1.disable_ipv6=1
ip link set lyrveth0 up && ip link set lyrveth1 up
dir=$(mktemp -d /tmp/lyr-bench.XXXXXX)
load_pids=()
for ((i = 0; i < ${LOAD:-0}; i++)); do
    sh -c 'while :; do :; done' & load_pids+=($!)
done
trap 'kill ${load_pids[*]} 2>/dev/null; rm -rf "$dir"' EXIT

# One run: $1 tool, $2 traffic file, $3 rate. Prints "sent recorded drops achieved-pps".
run() {
    local tool=$1 traffic=$2 rate=$3 out="$dir/out.pcap" pid
    rm -f "$out"
    if [ "$tool" = lyrcap ]; then
        "$build/host/lyrcap" capture lyrveth0 -w "$out" 2>"$dir/err" & pid=$!
    elif [ "$tool" = lyrcap-ord ]; then
        "$build/host/lyrcap" capture lyrveth0 -w "$out" --priority 0 2>"$dir/err" & pid=$!
    elif [ "$tool" = tcpdump-rt ]; then
        chrt -f 10 tcpdump -i lyrveth0 -w "$out" 2>"$dir/err" & pid=$!
    elif [ "$tool" = bare ]; then
        "$build/benchmarks/bare_live_capture" lyrveth0 2>"$dir/err" & pid=$!
    else
        tcpdump -i lyrveth0 -w "$out" 2>"$dir/err" & pid=$!
    fi
    sleep 2 # both open the device on their own time
    tcpreplay -i lyrveth1 -K --pps="$rate" --loop=0 --limit=$((rate * seconds)) "$traffic" >"$dir/replay" 2>&1
    sleep 1.5 # tcpdump hands a kernel block over after its 1 s timeout at the latest
    kill -INT $pid
    wait $pid
    local sent achieved recorded drops
    sent=$(sed -n 's/^Actual: \([0-9]*\) packets.*/\1/p' "$dir/replay")
    achieved=$(sed -n 's/^Rated: .* \([0-9.]*\) pps.*/\1/p' "$dir/replay")
    recorded=$(capinfos -c -M "$out" 2>/dev/null | awk '/Number of packets/ {print $NF}')
    if [ "$tool" = lyrcap ] || [ "$tool" = lyrcap-ord ]; then
        drops=$(sed -n 's/.* captured in .*, \([0-9]*\) dropped.*/\1/p' "$dir/err")
    elif [ "$tool" = bare ]; then
        recorded=$(sed -n 's/^\([0-9]*\) packets captured, .*/\1/p' "$dir/err")
        drops=$(sed -n 's/.* captured, \([0-9]*\) dropped.*/\1/p' "$dir/err")
    else
        drops=$(sed -n 's/^\([0-9]*\) packets dropped by kernel.*/\1/p' "$dir/err")
    fi
    echo "${sent:-0} ${recorded:-0} ${drops:-?} ${achieved:-0}"
}

printf "%-6s %-10s %10s %10s %10s %8s %12s\n" frame tool "rate/s" sent recorded drops "achieved/s"
for size in 64 1500; do
    "$build/fixtures/make-fixture" bench "$dir/traffic$size.pcap" --packets 1000 --size $size >/dev/null || exit 1
    rates=$rates_64
    [ $size = 1500 ] && rates=$rates_1500
    tools="tcpdump tcpdump-rt bare lyrcap lyrcap-ord"
    declare -A best=() failed=()
    for tool in $tools; do best[$tool]=0; failed[$tool]=0; done
    for rate in $rates; do
        for tool in $tools; do
            [ "${failed[$tool]}" = 1 ] && continue # rates rise: once lost, no higher rate is tried
            read -r sent recorded drops achieved < <(run $tool "$dir/traffic$size.pcap" "$rate")
            printf "%-6s %-10s %10s %10s %10s %8s %12s\n" $size $tool $rate $sent $recorded $drops $achieved
            if [ "$sent" -gt 0 ] && [ "$recorded" = "$sent" ] && [ "$drops" = 0 ]; then
                best[$tool]=$achieved
            else
                failed[$tool]=1
            fi
        done
    done
    echo "$size-byte frames, highest zero-drop rate: tcpdump -w ${best[tcpdump]}/s," \
        "under chrt -f 10 ${best[tcpdump-rt]}/s; bare pcap_loop with the input's settings ${best[bare]}/s;" \
        "lyrcap capture -w ${best[lyrcap]}/s, with --priority 0 ${best[lyrcap-ord]}/s"
done
