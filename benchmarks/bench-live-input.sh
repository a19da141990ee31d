#!/usr/bin/env bash
# The live input at rising rates, against tcpdump and a bare pcap_loop, until each drops. On a
# veth pair in a network namespace of this script's own (IPv6 off, no addresses), the traffic
# generator bench-frame-blaster sends 64-byte and 1500-byte frames at an exact rate for a few
# seconds per step, while one receiver listens on the far end:
#   lyrcap      `lyrcap capture -w` as it starts by default, its capture thread at realtime
#               priority 10, recording into a file under /tmp
#   tcpdump     `tcpdump -w` into a file under /tmp
#   bare        bare_live_capture: a bare pcap_loop with the live input's settings (the same
#               2 MiB buffer, 1 ms timeout) that only counts; what it drops is owed to those
#               settings and the machine, not to any packet path
#   bare-rt     the same under `chrt -f 10`, the priority that lyrcap gives its capture thread
# and, when named in TOOLS, lyrcap-ord (lyrcap with --priority 0) and tcpdump-rt (tcpdump under
# `chrt -f 10`).
# The sender runs on CPU 0 (SEND_CPU), the receiver on CPU 1 (RECEIVE_CPU), and the far end's
# receive path is steered onto the receiver's CPU (RPS on lyrveth0): left alone, a veth pair
# delivers every frame, the copy into each receiver's ring included, inside the sender's system
# call, so the sender would pay for the receiver and stop first. Steered, the receiving CPU
# carries the whole receive side, as a network card's interrupts on that CPU would.
# A step counts as zero-drop when the receiver has every frame sent (in its file, or counted) and
# the kernel reports no drop. Each receiver climbs its own ladder, the receivers taking turns at
# every step so that a change in the machine meets all of them alike: the rate doubles from
# START_64 (START_1500) until the first drop, tries once halfway into that gap (x1.41), then
# climbs from the highest zero-drop rate in steps of 12 % until the next drop; a receiver that
# the generator cannot feed at the rate asked (3 % short) twice in a row is done there. The 64-byte ladders run ROUNDS times.
# First it measures the generator flat out beside tcpreplay --topspeed, with nothing listening,
# and once more without the steering.
# Prints every step, then per frame size and round each receiver's highest zero-drop rate and
# what it lost at the first rate above; before all that, the packet-path benchmark.
#
#   benchmarks/bench-live-input.sh          (as root; build/release must exist: scripts/build.sh)
#   BUILD=build/gen SECONDS_PER_RUN=3 ROUNDS=2 TOOLS="bare bare-rt lyrcap tcpdump" benchmarks/bench-live-input.sh
#   START_64=200000 START_1500=100000        the first rate of each ladder
#   LOAD=2 benchmarks/bench-live-input.sh   (a busy machine: 2 busy loops at ordinary priority)
set -u
root=$(cd "$(dirname "$0")/.." && pwd)
build=${BUILD:-$root/build/release}
if [ "${LYR_IN_SANDBOX:-}" != 1 ]; then
    "$build/benchmarks/packet_path_bench" || exit 1
    echo
    # A mount namespace too, for a sysfs that shows this network namespace's devices.
    exec env LYR_IN_SANDBOX=1 unshare -n -m "$0" "$@"
fi
seconds=${SECONDS_PER_RUN:-3}
rounds=${ROUNDS:-2}
tools=${TOOLS:-"bare bare-rt lyrcap tcpdump"}
send_cpu=${SEND_CPU:-0}
receive_cpu=${RECEIVE_CPU:-1}
for tool in tcpreplay tcpdump capinfos; do
    command -v $tool >/dev/null || { echo "$tool is missing (scripts/install-deps.sh)"; exit 1; }
done
blaster=$build/benchmarks/bench-frame-blaster
[ -x "$blaster" ] || { echo "$blaster is missing: cmake --build $build"; exit 1; }
ip link add lyrveth0 type veth peer name lyrveth1 || exit 1
sysctl -qw net.ipv6.conf.lyrveth0.disable_ipv6=1 net.ipv6.conf.lyrveth1.disable_ipv6=1
ip link set lyrveth0 up && ip link set lyrveth1 up
mount -t sysfs sysfs /sys || exit 1
printf %x $((1 << receive_cpu)) >/sys/class/net/lyrveth0/queues/rx-0/rps_cpus || exit 1
dir=$(mktemp -d /tmp/lyr-bench.XXXXXX)
load_pids=()
for ((i = 0; i < ${LOAD:-0}; i++)); do
    sh -c 'while :; do :; done' & load_pids+=($!)
done
# The namespaces, the veth pair and the sysfs mount with them, end with this script's process.
trap 'kill ${load_pids[*]} 2>/dev/null; rm -rf "$dir"' EXIT

# "sent N frames of S bytes in T s, R frames/s, asked A frames/s, F refused ..." -> "N R F"
blaster_figures() { sed -n 's/^sent \([0-9]*\) frames .* s, \([0-9]*\) frames\/s, .*, \([0-9]*\) refused.*/\1 \2 \3/p'; }
send() { taskset -c $send_cpu "$blaster" lyrveth1 "$@" | blaster_figures; }

# One step: $1 tool, $2 frame size, $3 rate. Prints "sent recorded drops achieved-rate refused".
run() {
    local tool=$1 size=$2 rate=$3 out="$dir/out.pcap" pid
    local on_cpu="taskset -c $receive_cpu"
    rm -f "$out"
    case $tool in
    lyrcap) $on_cpu "$build/host/lyrcap" capture lyrveth0 -w "$out" 2>"$dir/err" & pid=$! ;;
    lyrcap-ord) $on_cpu "$build/host/lyrcap" capture lyrveth0 -w "$out" --priority 0 2>"$dir/err" & pid=$! ;;
    tcpdump) $on_cpu tcpdump -i lyrveth0 -w "$out" 2>"$dir/err" & pid=$! ;;
    tcpdump-rt) $on_cpu chrt -f 10 tcpdump -i lyrveth0 -w "$out" 2>"$dir/err" & pid=$! ;;
    bare) $on_cpu "$build/benchmarks/bare_live_capture" lyrveth0 2>"$dir/err" & pid=$! ;;
    bare-rt) $on_cpu chrt -f 10 "$build/benchmarks/bare_live_capture" lyrveth0 2>"$dir/err" & pid=$! ;;
    esac
    sleep 0.5 # each opens the device on its own time (milliseconds)
    local sent achieved refused
    read -r sent achieved refused < <(send --frames $((rate * seconds)) --size "$size" --rate "$rate")
    sleep 1.5 # tcpdump hands a kernel block over after its 1 s timeout at the latest
    kill -INT $pid
    wait $pid
    local recorded drops
    case $tool in
    lyrcap*) drops=$(sed -n 's/.* captured in .*, \([0-9]*\) dropped.*/\1/p' "$dir/err") ;;
    tcpdump*) drops=$(sed -n 's/^\([0-9]*\) packets dropped by kernel.*/\1/p' "$dir/err") ;;
    bare*)
        recorded=$(sed -n 's/^\([0-9]*\) packets captured, .*/\1/p' "$dir/err")
        drops=$(sed -n 's/.* captured, \([0-9]*\) dropped.*/\1/p' "$dir/err")
        ;;
    esac
    [ "${tool#bare}" != "$tool" ] || recorded=$(capinfos -c -M "$out" 2>/dev/null | awk '/Number of packets/ {print $NF}')
    rm -f "$out"
    echo "${sent:-0} ${recorded:-0} ${drops:-?} ${achieved:-0} ${refused:-?}"
}

echo "== the generator's ceiling beside tcpreplay's: flat out, nothing listening, frames/s"
printf "%-6s %-44s %10s %10s %10s\n" frame sender run1 run2 run3
rps=/sys/class/net/lyrveth0/queues/rx-0/rps_cpus
for size in 64 1500; do
    loops=5 # 500,000 frames of 64 bytes, 300,000 of 1500
    [ $size = 1500 ] && loops=3
    "$build/fixtures/make-fixture" bench "$dir/traffic$size.pcap" --packets 100000 --size $size >/dev/null || exit 1
    ours=() theirs=() unsteered=()
    for i in 1 2 3; do
        ours+=("$(send --frames $((loops * 100000)) --size $size | cut -d' ' -f2)")
        theirs+=("$(taskset -c $send_cpu tcpreplay -i lyrveth1 --topspeed --loop=$loops "$dir/traffic$size.pcap" 2>&1 |
            sed -n 's/^Rated: .* \([0-9.]*\) pps.*/\1/p' | cut -d. -f1)")
        steering=$(cat $rps)
        echo 0 >$rps
        unsteered+=("$(send --frames $((loops * 100000)) --size $size | cut -d' ' -f2)")
        echo "$steering" >$rps
    done
    printf "%-6s %-44s %10s %10s %10s\n" $size bench-frame-blaster "${ours[@]}"
    printf "%-6s %-44s %10s %10s %10s\n" $size "tcpreplay --topspeed" "${theirs[@]}"
    printf "%-6s %-44s %10s %10s %10s\n" $size "bench-frame-blaster, receive path not steered" "${unsteered[@]}"
done
echo

# One ladder per tool, all advanced a step at a time in turn. For each tool: the rate of its
# next step, the phase, the rate asked at its last zero-drop step, its highest zero-drop rate,
# the steps in a row that the generator fell short of, and the last rate that lost frames with
# what was lost there.
ladders() { # $1 frame size, $2 first rate
    local size=$1 first=$2 tool
    declare -A next=() phase=() passed=() best=() short=() above=() lost=()
    for tool in $tools; do
        next[$tool]=$first phase[$tool]=double passed[$tool]=0 best[$tool]=0 short[$tool]=0 above[$tool]=- lost[$tool]=-
    done
    local climbing=1
    while [ $climbing = 1 ]; do
        climbing=0
        for tool in $tools; do
            [ ${phase[$tool]} = done ] && continue
            climbing=1
            local rate=${next[$tool]} sent recorded drops achieved refused
            read -r sent recorded drops achieved refused < <(run $tool $size $rate)
            printf "%-6s %-11s %10s %10s %10s %8s %12s %8s\n" $size $tool $rate $sent $recorded $drops $achieved $refused
            if [ "$sent" -gt 0 ] && [ "$recorded" = "$sent" ] && [ "$drops" = 0 ]; then
                [ "$achieved" -gt ${best[$tool]} ] && best[$tool]=$achieved
                if [ "$achieved" -lt $((rate * 97 / 100)) ]; then
                    # The generator fell short of the rate: once may be a stall of the machine,
                    # twice in a row is its ceiling with this receiver.
                    short[$tool]=$((short[$tool] + 1))
                    if [ ${short[$tool]} = 2 ]; then
                        phase[$tool]=done
                        lost[$tool]="${lost[$tool]/#-/none}; then the generator fell short of $rate/s"
                    fi
                    continue
                fi
                short[$tool]=0 passed[$tool]=$rate
                if [ ${phase[$tool]} = double ]; then
                    next[$tool]=$((rate * 2))
                else
                    phase[$tool]=climb next[$tool]=$((rate * 112 / 100 / 1000 * 1000))
                fi
            else
                above[$tool]=$achieved lost[$tool]="$((sent - recorded)) ($drops by the kernel)"
                # After the doubling's first loss, a step halfway (by ratio) into the gap, then
                # steps of 12 % from the highest zero-drop rate until the next loss.
                if [ ${phase[$tool]} = double ] && [ ${passed[$tool]} -gt 0 ]; then
                    phase[$tool]=leap next[$tool]=$((passed[$tool] * 141 / 100 / 1000 * 1000))
                elif [ ${phase[$tool]} = leap ]; then
                    phase[$tool]=climb next[$tool]=$((passed[$tool] * 112 / 100 / 1000 * 1000))
                else
                    phase[$tool]=done
                fi
            fi
        done
    done
    for tool in $tools; do
        printf "   %-11s %14s %16s   %s\n" $tool ${best[$tool]} "${above[$tool]}" "${lost[$tool]}"
    done >>"$dir/summary"
}

printf "%-6s %-11s %10s %10s %10s %8s %12s %8s\n" frame tool "rate/s" sent recorded drops "achieved/s" refused
: >"$dir/summary"
for ((round = 1; round <= rounds; round++)); do
    echo "-- 64-byte frames, round $round of $rounds" >>"$dir/summary"
    ladders 64 "${START_64:-200000}"
done
echo "-- 1500-byte frames" >>"$dir/summary"
ladders 1500 "${START_1500:-100000}"
echo
echo "== highest zero-drop rate (frames/s), and the lowest rate above it that lost frames, with the loss"
echo "   ($seconds s a step)  zero-drop/s  first above/s   frames lost there (kernel drops)"
cat "$dir/summary"
