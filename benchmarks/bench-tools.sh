#!/usr/bin/env bash
# lyrcap against the tools a user would otherwise pick, side by side in one run on the same
# files: info against capinfos, convert against tcpdump -r -w and editcap, send --topspeed
# against tcpreplay --topspeed on a veth pair; then the file back-end and the live input's packet
# path against bare libpcap (benchmarks/capture_file_bench, benchmarks/packet_path_bench).
#   benchmarks/bench-tools.sh [--runs N]     (default 5)
# Each ratio is their time over ours for the same job in the same round (above 1: lyrcap is
# faster; for send, our frame rate over theirs), as the median [min, max] of the rounds; the
# order of the two turns every round. The captures (2,000,000 x 64 B and 300,000 x 1500 B, about
# 620 MB) are generated once into $BENCH_DIR (default /tmp/lyrbench-tools) and kept. The send part
# needs root (a network namespace of its own) and is skipped with the reason otherwise.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
runs=5
case "${1:-}" in
    --runs) runs=${2:?--runs needs a count} ;;
    "") ;;
    *) echo "usage: $0 [--runs N]" >&2; exit 2 ;;
esac
"$root/scripts/install-deps.sh"
"$root/scripts/build.sh" release >/dev/null
build=$root/build/release
lyrcap=$build/host/lyrcap
dir=${BENCH_DIR:-/tmp/lyrbench-tools}
mkdir -p "$dir"
scratch=$(mktemp -d "$dir/out.XXXXXX")
ns=lyrtools$$
cleanup() {
    ip netns del "$ns" 2>/dev/null || true
    rm -rf "$scratch"
}
trap cleanup EXIT

declare -A packets=([64]=2000000 [1500]=300000)
for size in 64 1500; do
    file=$dir/$size.pcap
    [ -s "$file" ] || "$build/fixtures/make-fixture" bench "$file" --packets "${packets[$size]}" --size "$size" >/dev/null
    cat "$file" >/dev/null # into the page cache before anything is timed
done

seconds() { # runs the command quietly; prints its wall time
    local start=$EPOCHREALTIME
    "$@" >/dev/null 2>&1
    awk -v a="$start" -v b="$EPOCHREALTIME" 'BEGIN { printf "%.6f\n", b - a }'
}
median() { sort -g | awk '{ v[NR] = $1 } END { print NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }
spread() { # median [min, max] of the numbers on standard input
    sort -g | awk '{ v[NR] = $1 } END { m = NR % 2 ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2
                                        printf "%.2f [%.2f, %.2f]", m, v[1], v[NR] }'
}
header() { printf "%-30s %-7s %10s %10s   %s\n" job frames ours theirs "ratio median [min, max]"; }
# One line of the table from the rounds' figures: ours, theirs and the ratios, space-separated.
report() { # job, size, ours, theirs, ratios
    printf "%-30s %-7s %10s %10s   %s\n" "$1" "$2 B" "$(tr ' ' '\n' <<<"$3" | median)" \
        "$(tr ' ' '\n' <<<"$4" | median)" "$(tr ' ' '\n' <<<"$5" | spread)"
}

# RUNS rounds of `MEASURE ours` and `MEASURE theirs`, each printing one figure, in an order that
# turns every round; then the table's line. RATIO is a round's ratio in awk, of a (ours) and b.
rounds() { # job, size, ratio, measure...
    local job=$1 size=$2 ratio=$3 a b mine="" others="" ratios=""
    shift 3
    for run in $(seq 1 "$runs"); do
        if [ $((run % 2)) = 1 ]; then a=$("$@" ours); b=$("$@" theirs)
        else b=$("$@" theirs); a=$("$@" ours); fi
        mine+=" $a" others+=" $b" ratios+=" $(awk -v a="$a" -v b="$b" "BEGIN { print $ratio }")"
    done
    report "$job" "$size" "${mine# }" "${others# }" "${ratios# }"
}

# Times our command against theirs (split by a lone "--"); IN and OUT stand for the files.
compare() { # job, size, our command, --, their command
    local job=$1 size=$2 side=ours word
    shift 2
    ours_command=() theirs_command=()
    for word in "$@"; do
        [ "$word" != -- ] || { side=theirs; continue; }
        word=${word//IN/$dir/$size.pcap}
        word=${word//OUT/$scratch/out.pcap}
        if [ $side = ours ]; then ours_command+=("$word"); else theirs_command+=("$word"); fi
    done
    rounds "$job" "$size" "b / a" time_side
}
time_side() { if [ "$1" = ours ]; then seconds "${ours_command[@]}"; else seconds "${theirs_command[@]}"; fi; }

echo "== whole commands, $runs rounds: median seconds, and their time / ours"
header
for size in 64 1500; do
    compare "info / capinfos -c -u -M" "$size" "$lyrcap" info IN -- capinfos -c -u -M IN
    compare "convert / tcpdump -r -w" "$size" "$lyrcap" convert IN OUT -- tcpdump -r IN -w OUT
    compare "convert / editcap" "$size" "$lyrcap" convert IN OUT -- editcap IN OUT
done

echo
if [ "$(id -u)" -ne 0 ] || ! ip netns add "$ns" 2>/dev/null; then
    echo "== send --topspeed: skipped (a network namespace of its own needs root)"
else
    inside() { ip netns exec "$ns" "$@"; }
    inside ip link add v0 type veth peer name v1
    inside sysctl -qw net.ipv6.conf.v0.disable_ipv6=1 net.ipv6.conf.v1.disable_ipv6=1
    inside ip link set v0 up
    inside ip link set v1 up
    echo "== send --topspeed on a veth pair, $runs rounds: median frames/s, and ours / theirs"
    header
    # The frame rate that each sender reports for the whole file.
    rate_side() {
        if [ "$1" = ours ]; then
            inside "$lyrcap" send "$file" v0 --topspeed | sed -n 's/.*(\([0-9]*\) frames\/s.*/\1/p'
        else
            inside tcpreplay -i v0 --topspeed "$file" 2>&1 | sed -n 's/.* \([0-9.]*\) pps.*/\1/p' | head -1
        fi
    }
    for size in 64 1500; do
        file=$dir/$size.pcap
        rounds "send --topspeed / tcpreplay" "$size" "a / b" rate_side
    done
fi

echo
echo "== the file back-end against bare libpcap"
"$build/benchmarks/capture_file_bench" --runs "$runs" --dir "$dir/backend" --small "${packets[64]}"
echo
echo "== the live input's packet path"
"$build/benchmarks/packet_path_bench" --rounds "$((runs + 2))"
