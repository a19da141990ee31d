#!/usr/bin/env bash
# Runs 'lyrcap capture' on a veth pair in a network namespace of this script's own, sends with
# tcpreplay on the far end, and checks the recording with tcpdump (and tshark, where it is); then the
# scheduling that 'lyrcap send' asks for its scheduler's thread.
set -u
lyrcap=$1
make_fixture=$2
[ -z "${LYR_NO_DEVICES:-}" ] || { echo "$LYR_NO_DEVICES: skipped"; exit 77; }
if [ "${LYR_IN_SANDBOX:-}" != 1 ]; then
    # Re-run inside a fresh namespace, which vanishes with the script; where none can be made
    # (no privilege), the test is skipped (77) rather than failed.
    why=$(unshare -n true 2>&1) || { echo "cannot make a network namespace (${why:-refused}): skipped"; exit 77; }
    LYR_IN_SANDBOX=1 exec unshare -n "$0" "$@"
fi
command -v tcpreplay >/dev/null || { echo "tcpreplay is missing: skipped"; exit 77; }
ip link add lyrveth0 type veth peer name lyrveth1 || { echo "cannot make a veth pair: skipped"; exit 77; }
sysctl -qw net.ipv6.conf.lyrveth0.disable_ipv6=1 net.ipv6.conf.lyrveth1.disable_ipv6=1
ip link set lyrveth0 up && ip link set lyrveth1 up
source "${BASH_SOURCE%/*}/lib.sh"
pid=
trap 'rm -rf "$dir"; [ -n "$pid" ] && kill "$pid" 2>/dev/null' EXIT

check "list-devices lists the pair and the loopback device" \
    bash -c "'$lyrcap' list-devices | grep -q '^lyrveth0 ' && '$lyrcap' list-devices | grep -q '^lo  (.*loopback'"

"$make_fixture" bench "$dir/traffic.pcap" --packets 100 --size 200 >/dev/null || exit 1
# Tries the condition every tenth of a second until it holds (at most ~30 s, or more with the
# traffic); with "send", sends the traffic between tries: the capture opens on its own time.
await() { # send or nothing, then the condition
    local send=$1; shift
    for _ in $(seq 1 300); do
        "$@" && return 0
        [ "$send" != send ] || tcpreplay -q -i lyrveth1 "$dir/traffic.pcap" >/dev/null 2>&1
        sleep 0.1
    done
    return 1
}
ended() { ! kill -0 "$pid" 2>/dev/null; }
packets() { tcpdump -r "$1" 2>/dev/null | wc -l; }
# Every frame of a capture as one line of hex, link header included, for matching by content.
frames() {
    tcpdump -r "$1" -xx -nn 2>/dev/null |
        awk '/^[^ \t]/ { if (f != "") print f; f = ""; next } { for (i = 2; i <= NF; i++) f = f $i } END { if (f != "") print f }'
}
capture_thread() { grep -qx LYR-PcapInIf /proc/"$pid"/task/*/comm 2>/dev/null; }
# Scheduling policy and realtime priority of the running capture's threads ("1 10": FIFO at 10),
# the capture thread's first, then the main thread's.
policies() {
    local task
    for task in /proc/"$pid"/task/*; do
        [ "$(cat "$task/comm")" = LYR-PcapInIf ] && awk '{print $41, $40}' "$task/stat"
    done
    awk '{print $41, $40}' /proc/"$pid"/stat
}

# --seconds: a capture that never delivers ends the test instead of hanging it.
"$lyrcap" capture lyrveth0 --count 50 --seconds 120 -w "$dir/count.pcap" 2>"$dir/err" & pid=$!
await send ended
wait "$pid"; check "capture --count exits 0" test $? = 0; pid=
check "the summary counts 50 frames" grep -q "^50 frames, 10000 bytes captured" "$dir/err"
check "tcpdump reads all 50" test "$(tcpdump -r "$dir/count.pcap" 2>/dev/null | wc -l)" = 50
# The emulated ARM board carries tcpdump alone: tshark and its libraries would weigh more than
# everything else on it.
if command -v tshark >/dev/null; then
    check "tshark reads all 50" test "$(tshark -r "$dir/count.pcap" 2>/dev/null | wc -l)" = 50
fi
# The capture may open in the middle of a pass over the file: frames are matched by their bytes.
check "frames are recorded whole" test "$(frames "$dir/count.pcap" | sort -u | comm -23 - <(frames "$dir/traffic.pcap" | sort -u) | wc -l)" = 0

"$lyrcap" capture lyrveth0 --port 5001 --seconds 3 --priority 0 -w "$dir/filtered.pcap" 2>"$dir/err" & pid=$!
await "" capture_thread
check "--priority 0 leaves the capture thread at ordinary priority" test "$(policies | tr '\n' ' ')" = "0 0 0 0 "
await send ended
wait "$pid"; check "capture --seconds exits 0" test $? = 0; pid=
check "a port nobody sends to keeps everything out" test "$(packets "$dir/filtered.pcap")" = 0
check "the status line shows the counters" grep -q "frames, .*dropped, .* frames/s" "$dir/err"

"$lyrcap" capture lyrveth0 --host 10.0.0.2 --port 5000 -w "$dir/interrupted.pcap" 2>"$dir/err" & pid=$!
await "" capture_thread
if grep -q "realtime priority refused" "$dir/err"; then # a system that grants none: said, and ordinary
    check "a refused realtime priority leaves the capture at ordinary priority" test "$(policies | tr '\n' ' ')" = "0 0 0 0 "
else
    check "the capture thread runs at realtime priority 10, the main thread gave it up" \
        test "$(policies | tr '\n' ' ')" = "1 10 0 0 "
fi
await send grep -q "^[1-9][0-9]* frames, " "$dir/err" # traffic until the status line counts some
kill -INT "$pid"; wait "$pid"; check "Ctrl-C exits 130" test $? = 130; pid=
tcpdump -r "$dir/interrupted.pcap" >/dev/null 2>"$dir/tcpdump.err"
check "the interrupted recording is complete" test $? = 0 -a -z "$(grep -i truncated "$dir/tcpdump.err")"
captured=$(sed -n 's/^\([0-9]*\) frames, .*captured.*/\1/p' "$dir/err")
check "the interrupted recording holds what was captured" test "$(packets "$dir/interrupted.pcap")" = "$captured"
check "the filter let the matching traffic through" test "${captured:-0}" -gt 0
# lyrcap send: the scheduler's thread takes the realtime priority asked for, and where the
# system refuses it (no CAP_SYS_NICE), the tool says so and sends at ordinary priority.
sent() { grep -q "^frames sent: 100$" "$dir/out"; }
"$lyrcap" send "$dir/traffic.pcap" lyrveth1 --topspeed >"$dir/out" 2>"$dir/err"
check "send runs its scheduler at realtime priority 10 by default" grep -q "^scheduler thread: realtime priority 10," "$dir/out"
check "send sends every frame" sent
# At top speed every frame is due at the start, so a file that takes longer to send than the
# default lateness limit (10 ms) must still leave whole, none of it counted late.
"$make_fixture" bench "$dir/many.pcap" --packets 20000 --size 64 >/dev/null
"$lyrcap" send "$dir/many.pcap" lyrveth1 --topspeed >"$dir/out" 2>"$dir/err"
check "send --topspeed of a file longer than the lateness limit sends every frame" \
    test "$(head -2 "$dir/out")" = $'frames sent: 20000\ndropped as late: 0'
"$lyrcap" send "$dir/traffic.pcap" lyrveth1 --topspeed --priority 0 >"$dir/out" 2>"$dir/err"
check "send --priority 0 leaves the scheduler at ordinary priority" grep -q "^scheduler thread: ordinary priority," "$dir/out"
if setpriv --inh-caps -sys_nice --bounding-set -sys_nice true 2>/dev/null; then
    setpriv --inh-caps -sys_nice --bounding-set -sys_nice "$lyrcap" send "$dir/traffic.pcap" lyrveth1 --priority 20 \
        --topspeed >"$dir/out" 2>"$dir/err"
    check "a refused priority is said" grep -q "realtime priority refused" "$dir/err"
    check "and the frames leave at ordinary priority" grep -q "^scheduler thread: ordinary priority," "$dir/out"
    check "all of them" sent
else
    echo "skipped: the refused priority (setpriv cannot drop CAP_SYS_NICE here)"
fi

finish
