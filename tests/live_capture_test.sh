#!/usr/bin/env bash
# Runs 'lyrcap capture' on a veth pair in a network namespace of this script's own, sends with
# tcpreplay on the far end, and checks the recording with tcpdump (and tshark, where it is); then the
# scheduling that 'lyrcap send' asks for its scheduler's thread.
set -u
lyrcap=$1
make_fixture=$2
[ -z "${LYR_NO_DEVICES:-}" ] || { echo "$LYR_NO_DEVICES: skipped"; exit 77; }
if [ "${LYR_IN_SANDBOX:-}" != 1 ]; then
    # Re-run inside fresh network and mount namespaces, which vanish with the script; where none
    # can be made (no privilege), the test is skipped (77) rather than failed.
    why=$(unshare -n -m true 2>&1) || { echo "cannot make a network namespace (${why:-refused}): skipped"; exit 77; }
    LYR_IN_SANDBOX=1 exec unshare -n -m "$0" "$@"
fi
command -v tcpreplay >/dev/null || { echo "tcpreplay is missing: skipped"; exit 77; }
ip link add lyrveth0 type veth peer name lyrveth1 || { echo "cannot make a veth pair: skipped"; exit 77; }
sysctl -qw net.ipv6.conf.lyrveth0.disable_ipv6=1 net.ipv6.conf.lyrveth1.disable_ipv6=1
ip link set lyrveth0 up && ip link set lyrveth1 up && ip link set lo up
source "${BASH_SOURCE%/*}/lib.sh"
pid=
trap 'rm -rf "$dir"; [ -n "$pid" ] && kill "$pid" 2>/dev/null' EXIT

check "list-devices lists the pair and the loopback device with its address" \
    bash -c "'$lyrcap' list-devices | grep -q '^lyrveth0 ' && '$lyrcap' list-devices | grep -q '^lo  (.*loopback)  127.0.0.1$'"

"$make_fixture" bench "$dir/traffic.pcap" --packets 100 --size 200 >/dev/null || exit 1
# Tries the condition every tenth of a second until it holds (at most ~30 s, or more with the
# traffic); with "send", sends the traffic between tries (or $nudge, where it is set): the capture
# opens on its own time.
await() { # send or nothing, then the condition
    local send=$1; shift
    for _ in $(seq 1 300); do
        "$@" && return 0
        [ "$send" != send ] || tcpreplay -q -i lyrveth1 "${nudge:-$dir/traffic.pcap}" >/dev/null 2>&1
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
has_thread() { grep -qx "$1" /proc/"$pid"/task/*/comm 2>/dev/null; } # by its name
capture_thread() { has_thread LYR-PcapInIf; }
# Who every thread of the run is and what it may, one line each: user and group ids (real,
# effective, saved, file system), supplementary groups, inheritable, permitted, effective,
# bounding and ambient capabilities, no-new-privileges. Capabilities belong to threads.
credentials() {
    local task
    for task in /proc/"$pid"/task/*; do
        awk '/^(Uid|Gid|Groups|CapInh|CapPrm|CapEff|CapBnd|CapAmb|NoNewPrivs):/ {
                 key = $1; $1 = ""; gsub(/^ +| +$/, ""); gsub(/ +/, ","); line = line key $0 " " }
             END { print line }' "$task/status"
    done
}
# The line of a thread that runs as that user, with those groups, and keeps the capabilities
# given (a mask), none to regain: the capabilities by number, CAP_DAC_OVERRIDE 1, CAP_NET_RAW
# 13, CAP_SYS_NICE 23.
DAC_OVERRIDE=$((1 << 1)) NET_RAW=$((1 << 13)) SYS_NICE=$((1 << 23))
expected_credentials() { # uid gid groups capabilities
    printf 'Uid:%s,%s,%s,%s Gid:%s,%s,%s,%s Groups:%s CapInh:%016x CapPrm:%016x CapEff:%016x CapBnd:%016x CapAmb:%016x NoNewPrivs:1 \n' \
        "$1" "$1" "$1" "$1" "$2" "$2" "$2" "$2" "$3" 0 "$4" "$4" 0 0
}
nogroup=$(id -g nobody 2>/dev/null)
same_credentials() { # the arguments of expected_credentials; says what differs
    local seen
    seen=$(credentials)
    [ "$(sort -u <<<"$seen")" = "$(expected_credentials "$@")" ] && [ "$(wc -l <<<"$seen")" -ge 2 ] && return
    printf 'threads seen:\n%s\nexpected of each:\n%s' "$seen" "$(expected_credentials "$@")"
    return 1
}
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
# The emulated ARM board carries tcpdump, not tshark, whose libraries outweigh all else on it.
if command -v tshark >/dev/null; then
    check "tshark reads all 50" test "$(tshark -r "$dir/count.pcap" 2>/dev/null | wc -l)" = 50
fi
# The capture may open in the middle of a pass over the file: frames are matched by their bytes.
check "frames are recorded whole" test "$(frames "$dir/count.pcap" | sort -u | comm -23 - <(frames "$dir/traffic.pcap" | sort -u) | wc -l)" = 0

"$lyrcap" capture lyrveth0 --port 5001 --seconds 3 --priority 0 -w "$dir/filtered.pcap" 2>"$dir/err" & pid=$!
await "" capture_thread
check "--priority 0 leaves the capture thread at ordinary priority" test "$(policies | tr '\n' ' ')" = "0 0 0 0 "
check "and keeps no CAP_SYS_NICE on any thread" same_credentials 0 0 "" $((NET_RAW | DAC_OVERRIDE))
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
check "a root capture keeps, on every thread, only CAP_NET_RAW, CAP_SYS_NICE and CAP_DAC_OVERRIDE, none to regain" \
    same_credentials 0 0 "" $((NET_RAW | SYS_NICE | DAC_OVERRIDE))
await send grep -q "^[1-9][0-9]* frames, " "$dir/err" # traffic until the status line counts some
kill -INT "$pid"; wait "$pid"; check "Ctrl-C exits 130" test $? = 130; pid=
tcpdump -r "$dir/interrupted.pcap" >/dev/null 2>"$dir/tcpdump.err"
check "the interrupted recording is complete" test $? = 0 -a -z "$(grep -i truncated "$dir/tcpdump.err")"
captured=$(sed -n 's/^\([0-9]*\) frames, .*captured.*/\1/p' "$dir/err")
check "the interrupted recording holds what was captured" test "$(packets "$dir/interrupted.pcap")" = "$captured"
check "the filter let the matching traffic through" test "${captured:-0}" -gt 0
# Recordings. Each capture is opened by the usual traffic (200 bytes) first; the frames checked
# are told apart by their size, and carry their sequence number behind the UDP header.
sequence() { # the sequence numbers of the frames of that size in the files given, in order
    local size=$1; shift
    for file in "$@"; do frames "$file"; done | awk -v hex=$((2 * size)) 'length($0) == hex {print substr($0, 85, 8)}'
}
recorded() { test "$(sequence "$1" "$2" | wc -l)" -ge "$3"; } # size, file, how many at least
start_capture() { # capture arguments; returns once the capture counts traffic
    "$lyrcap" capture lyrveth0 --seconds 120 "$@" 2>"$dir/err" & pid=$!
    await send grep -q "^[1-9][0-9]* frames, " "$dir/err"
}
# Frames after a pause reach the file at once, dense ones soon after: a killed capture keeps them.
"$make_fixture" bench "$dir/paused.pcap" --packets 5 --size 300 --gap-us 100000 >/dev/null
"$make_fixture" bench "$dir/dense.pcap" --packets 300 --size 400 --gap-us 10000 >/dev/null
start_capture -w "$dir/killed.pcap"
"$lyrcap" send "$dir/paused.pcap" lyrveth1 --timeout 18446744073709551615 >/dev/null 2>&1
check "frames after a pause are in the file while the capture runs" await "" recorded 300 "$dir/killed.pcap" 5
"$lyrcap" send "$dir/dense.pcap" lyrveth1 --timeout 18446744073709551615 >/dev/null 2>&1
check "dense frames are in the file a second of stamps behind the last" await "" recorded 400 "$dir/killed.pcap" 200
kill -KILL "$pid"; wait "$pid" 2>/dev/null; pid=
check "a killed capture leaves them all" test "$(sequence 300 "$dir/killed.pcap" | wc -l)" = 5 -a "$(sequence 400 "$dir/killed.pcap" | wc -l)" -ge 200
# A ring of files of at most 1 MB, the newest two kept: no frame lost or doubled at a switch.
"$make_fixture" bench "$dir/ring-traffic.pcap" --packets 4000 --size 500 --gap-us 200 >/dev/null
start_capture -w "$dir/ring.pcap" -C 1 --files 2
"$lyrcap" send "$dir/ring-traffic.pcap" lyrveth1 --timeout 18446744073709551615 >/dev/null 2>&1
# Until the last frame (3999) is in the files: traffic after a pause writes out what waits. One
# small frame a try, so that however many tries a busy machine takes, the ring grows by no file.
"$make_fixture" bench "$dir/one.pcap" --packets 1 --size 60 >/dev/null
nudge=$dir/one.pcap await send eval 'test "$(sequence 500 "$dir"/ring_0000[23].pcap | tail -1)" = 00000f9f'
kill -HUP "$pid"; wait "$pid"; check "SIGHUP ends a capture as Ctrl-C does" test $? = 130; pid=
check "the ring keeps the newest two files, and the summary lists them" \
    grep -q ", recorded to $dir/ring_00002.pcap, $dir/ring_00003.pcap (the 1 older files of the ring removed)$" "$dir/err"
check "the oldest file is gone" test ! -e "$dir/ring_00001.pcap" -a ! -e "$dir/ring.pcap"
check "a file holds at most a megabyte, and is full before the next starts" \
    test "$(stat -c %s "$dir/ring_00002.pcap")" -le 1000000 -a "$(($(stat -c %s "$dir/ring_00002.pcap") + 516))" -gt 1000000
first=$((16#$(sequence 500 "$dir/ring_00002.pcap" | head -1)))
check "the frames run on from file to file, each once" \
    test "$(sequence 500 "$dir"/ring_0000[23].pcap | tr '\n' ' ')" = "$(for n in $(seq $first 3999); do printf '%08x ' $n; done)"
# A link planted at the name of the ring's next file: the capture stops there, the link's target
# untouched, and says why.
echo "untouched" >"$dir/victim"
ln -s "$dir/victim" "$dir/planted_00002.pcap"
start_capture -w "$dir/planted.pcap" --file-size 1
"$lyrcap" send "$dir/ring-traffic.pcap" lyrveth1 --timeout 18446744073709551615 >/dev/null 2>&1 &
wait "$pid"; check "a capture whose next file is a symbolic link exits 1" test $? = 1; pid=
check "and names the link" grep -q "^lyrcap capture: cannot write $dir/planted_00002.pcap: it is a symbolic link" "$dir/err"
check "whose target it left alone" test "$(cat "$dir/victim")" = untouched
wait
# Frames larger than the back-end takes (9022 bytes) are refused, counted apart from the drops on
# the status line and in the summary, which says once why they came and how to stop them: an
# MTU that lets them in, and a device that merges packets (GRO on a veth pair).
ip link set lyrveth0 mtu 12000 && ip link set lyrveth1 mtu 12000
for round in "off 1" "on 5"; do
    read -r offloads jumbo <<<"$round"
    ethtool -K lyrveth0 gro "$offloads" >/dev/null 2>&1 || [ "$offloads" = off ] || { echo "skipped: GRO on a veth pair"; break; }
    "$make_fixture" bench "$dir/jumbo.pcap" --packets "$jumbo" --size 12000 >/dev/null
    start_capture -w "$dir/jumbo-capture.pcap"
    tcpreplay -q -i lyrveth1 "$dir/jumbo.pcap" >/dev/null 2>&1
    check "with GRO $offloads, the status line counts $jumbo refused frames apart from the drops" \
        await "" grep -q "^[0-9]* frames, .*, [0-9]* dropped, $jumbo refused, [0-9]* frames/s$" "$dir/err"
    kill -INT "$pid"; wait "$pid"; pid=
    advice="lyrveth0's MTU of 12000 lets such frames in; to keep them out: ip link set lyrveth0 mtu 9004"
    [ "$offloads" = off ] || advice="lyrveth0 merges the packets it receives into larger ones (receive offloads); to capture them as they came: ethtool -K lyrveth0 gro off lro off; $advice"
    check "and the summary too, with why they came, once" test "$(grep -c "captured in .*, [0-9]* dropped, $jumbo refused, recorded to \|^lyrcap capture: $jumbo frames\? \(were\|was\) larger than 9022 bytes and \(were\|was\) refused: $advice$" "$dir/err")" = 2
    check "the recording holds none of them" test "$(sequence 12000 "$dir/jumbo-capture.pcap" | wc -l)" = 0
done
ethtool -K lyrveth0 gro off >/dev/null 2>&1
ip link set lyrveth0 mtu 1500 && ip link set lyrveth1 mtu 1500
# capture's own figures. Without -w it exits 0 when its count is reached. Each status line's rate
# is the frames since the line before over the time between them, a second or a little more.
"$lyrcap" capture -i lyrveth0 -c 600 --seconds 120 2>"$dir/err" & pid=$!
for _ in $(seq 100); do ended && break; tcpreplay -q -i lyrveth1 "$dir/traffic.pcap" >/dev/null 2>&1; sleep 0.5; done
wait "$pid"; check "a capture without -w exits 0 at its count" test $? = 0; pid=
check "each status line's rate is the frames since the last over a second or so" awk -F'[ ,]+' '
    /frames\/s$/ { delta = $1 - last; last = $1; lines++; if ($(NF - 1) > delta || $(NF - 1) < delta / 3) bad++ }
    END { exit !(lines >= 2 && !bad) }' "$dir/err"
# Drops that come after the last status line are in the summary: the capture is stopped while far
# more frames arrive than the kernel's buffer holds, then ended as soon as it runs again.
"$make_fixture" bench "$dir/flood.pcap" --packets 60000 --size 64 >/dev/null
start_capture
kill -STOP "$pid"
"$lyrcap" send "$dir/flood.pcap" lyrveth1 --topspeed >/dev/null 2>&1
kill -INT "$pid"; kill -CONT "$pid"; wait "$pid"; pid=
dropped=$(sed -n 's/.* captured in .*, \([0-9]*\) dropped.*/\1/p' "$dir/err")
check "drops after the last status line are in the summary ($dropped)" test "${dropped:-0}" -gt 0 -a \
    "$(grep -c "frames/s$" "$dir/err") $(grep "frames/s$" "$dir/err" | tail -1 | sed 's/.* \([0-9]*\) dropped.*/\1/')" != "0 "

# Standard output: frames reach a reader while the capture runs, every one of them; a reader that
# goes away ends the capture as a full disk does, said, with exit 1.
{ "$lyrcap" capture -qi lyrveth0 -w - 2>"$dir/err" & echo $! >"$dir/pid"; wait $!; echo $? >"$dir/exit"; } |
    tcpdump -U -r - -w "$dir/piped.pcap" 2>"$dir/reader.err" &
check "capture -w - | tcpdump -r - carries every frame while the capture runs" await send eval 'test "$(packets "$dir/piped.pcap")" -ge 100'
kill -INT "$(cat "$dir/pid")"; wait
check "and ends with a whole record" test "$(cat "$dir/exit")" = 130 -a -z "$(grep -i "truncated\|error" "$dir/reader.err")"
rm -f "$dir/exit"
{ "$lyrcap" capture -i lyrveth0 -w - --seconds 120 2>"$dir/err"; echo $? >"$dir/exit"; } | head -c 100 >/dev/null &
check "a capture whose reader goes away ends" await send test -s "$dir/exit"
check "with exit 1, saying so" test "$(cat "$dir/exit")" = 1 -a \
    -n "$(grep "^lyrcap capture: writing standard output failed: Broken pipe; [0-9]* frames\? reached it" "$dir/err")"
wait
# A filter expression: the back-end's own forms go to the kernel, anything else runs on the frames
# received (the summary counts what it left out); the traffic is UDP to port 5000.
for filter in "dst port 5001:0:" "udp and dst port 5000:50:, 0 left out" "src host 10.0.0.2:0:, [1-9][0-9]* left out" \
    "not udp:0:, [1-9][0-9]* left out"; do
    IFS=: read -r expression kept leftOut <<<"$filter"
    "$lyrcap" capture -qi lyrveth0 -c 50 --seconds 3 $expression 2>"$dir/err" & pid=$!
    await send ended; wait "$pid"; pid=
    check "capture '$expression' keeps $kept frames" grep -q "^$kept frames, .*refused$leftOut" "$dir/err"
done
check "and -q leaves out the status lines of its three seconds" test "$(grep -c "frames/s$" "$dir/err")" = 0
# A ring by time: each file holds at most a second of frames by their stamps; frames 300 ms apart
# run on from file to file, each once, and the summary (as JSON too) lists the files.
"$make_fixture" bench "$dir/slow.pcap" --packets 12 --size 300 --gap-us 300000 >/dev/null
"$lyrcap" capture -i lyrveth0 --seconds 120 -G 1 -w "$dir/timed.pcap" --json 'udp' >"$dir/json" 2>"$dir/err" & pid=$!
await send eval 'test "$(stat -c %s "$dir/timed_00001.pcap" 2>/dev/null || echo 0)" -gt 24' # --json: no status lines
"$lyrcap" send "$dir/slow.pcap" lyrveth1 --timeout 18446744073709551615 >/dev/null 2>&1
kill -INT "$pid"; wait "$pid"; pid=
span() { tcpdump -tt -r "$1" 2>/dev/null | awk 'NR == 1 {first = $1} {last = $1} END {print (last - first < 1) ? "short" : "long"}'; }
# The files, from the summary's list (a board without jq reads them from the folder).
files=$(if command -v jq >/dev/null; then jq -r '.files[]' "$dir/json"; else ls "$dir"/timed_*.pcap; fi)
# A new file starts only at a frame a second or more after its file's first: no more files than
# whole seconds between the first frame and the last, and one.
most=$(for f in $files; do tcpdump -tt -r "$f" 2>/dev/null | cut -d' ' -f1; done | sort -n | awk 'NR == 1 {first = $1} {last = $1} END {print int(last - first) + 1}')
check "capture -G 1 writes files of less than a second each ($(wc -w <<<"$files") files, $most at most)" \
    test "$(for f in $files; do span "$f"; done | sort -u)" = short -a "$(wc -w <<<"$files")" -ge 3 -a "$(wc -w <<<"$files")" -le "$most"
check "with every frame once, in order" test "$(sequence 300 $files | tr '\n' ' ')" = "$(for n in $(seq 0 11); do printf '%08x ' $n; done)"
# send with -r, -i, -c and a filter, summed up in JSON.
"$lyrcap" send -c 30 -r "$dir/traffic.pcap" -i lyrveth1 --json --topspeed udp >"$dir/send.json" 2>/dev/null
if command -v jq >/dev/null; then
    check "capture --json sums up in one object" test "$(jq -r '[.device, .files_removed, .interrupted] | @tsv' "$dir/json")" = $'lyrveth0\t0\ttrue'
    check "send -r -i -c --json, no frame handed over late at top speed" \
        test "$(jq -r '[.frames_sent, .handed_over_frames, .filter, .lateness_us, .handed_over_late] | @tsv' "$dir/send.json")" = $'30\t30\tudp\t\t0'
else
    echo "skipped: the JSON summaries of capture and send (no jq here)"
fi

# Devices whose frames are not Ethernet frames: marked in the list, refused for capture.
check "list-devices marks 'any' as not Ethernet, and not the pair" \
    test "$("$lyrcap" list-devices | grep -c '^any  (.*not Ethernet)\|^lyrveth0  (.*not Ethernet')" = 1
check "capture refuses 'any' with the reason" test "$("$lyrcap" capture any --seconds 60 2>&1 >/dev/null; echo $?)" = \
    "$(printf 'lyrcap capture: any delivers packets of link type LINUX_SLL (Linux cooked v1, 113), not Ethernet frames: %s\n1' \
        "recorded as Ethernet frames they would pass for what they are not; capture from a device of its own ('lyrcap list-devices' marks the others)")"
# A damaged file is sent up to the damage, which send names (exit 3).
head -c $((24 + 3 * 216 + 50)) "$dir/traffic.pcap" >"$dir/cut.pcap"
"$lyrcap" send "$dir/cut.pcap" lyrveth1 --loop 2 --timeout 18446744073709551615 >"$dir/out" 2>"$dir/err"
check "send --loop 2 of a cut file exits 3, having sent the three frames before the cut twice" test "$?:$(head -1 "$dir/out")" = "3:frames sent: 6"
check "and says once where the file was cut" \
    test "$(grep -c "^lyrcap send: $dir/cut.pcap is cut short: it ends inside the record at byte 672, after 3 frames: truncated" "$dir/err")" = 1
# --user: the whole run is nobody's, every thread keeping CAP_NET_RAW and, for its realtime
# priority, CAP_SYS_NICE; its file is nobody's, and a device that goes away and comes back is
# opened again.
chmod 755 "$dir" && mkdir -m 755 "$dir/nobodys" && chown nobody "$dir/nobodys"
start_capture -Z nobody --priority 1 -w "$dir/nobodys/user.pcap"
check "capture --user nobody runs every thread as nobody, with CAP_NET_RAW and CAP_SYS_NICE alone" \
    same_credentials 65534 "$nogroup" "$nogroup" $((NET_RAW | SYS_NICE))
grep -q "realtime priority refused" "$dir/err" ||
    check "its capture thread runs at the realtime priority asked, 1" test "$(policies | tr '\n' ' ')" = "1 1 0 0 "
ip link del lyrveth0
ip link add lyrveth0 type veth peer name lyrveth1 && sysctl -qw net.ipv6.conf.lyrveth0.disable_ipv6=1 net.ipv6.conf.lyrveth1.disable_ipv6=1
ip link set lyrveth0 up && ip link set lyrveth1 up
# The capture opens the device again within a second or so; frames sent before that are not seen.
for _ in $(seq 60); do
    "$lyrcap" send "$dir/paused.pcap" lyrveth1 --timeout 18446744073709551615 >/dev/null 2>&1
    recorded 300 "$dir/nobodys/user.pcap" 5 && break
done
check "and takes up a device that came back" recorded 300 "$dir/nobodys/user.pcap" 5
kill -INT "$pid"; wait "$pid"; pid=
check "its file belongs to nobody" test "$(stat -c %U:%G "$dir/nobodys/user.pcap")" = "nobody:$(id -gn nobody)"
# A user who may not capture is told at once why, and what to do, instead of a capture that
# retries for ever and ends with 0 frames.
setpriv --reuid=nobody --regid="$nogroup" --clear-groups "$lyrcap" capture lyrveth0 --seconds 20 >"$dir/out" 2>"$dir/err"
check "a capture without the permission exits 1" test $? = 1
check "with the system's reason and the remedy" \
    test "$(grep -c "cannot open lyrveth0: .*Operation not permitted\|CAP_NET_RAW: run lyrcap as root" "$dir/err")" = 2
# A reader of the status lines that goes away (capture 2>&1 | head -1) costs the capture nothing:
# frames sent after it went are recorded, and the capture ends as asked, not by SIGPIPE.
mkfifo "$dir/status"
"$lyrcap" capture lyrveth0 --seconds 5 -w "$dir/unread.pcap" 2>"$dir/status" & pid=$!
exec 3<"$dir/status"
for _ in $(seq 300); do # the first status line
    read -r -t 1 line <&3 && [[ $line == *frames/s* ]] && break
    tcpreplay -q -i lyrveth1 "$dir/traffic.pcap" >/dev/null 2>&1
done
exec 3<&-
"$lyrcap" send "$dir/paused.pcap" lyrveth1 --timeout 18446744073709551615 >/dev/null 2>&1
wait "$pid"; check "a capture whose status reader went away ends as asked" test $? = 0; pid=
check "with the frames sent after it went" test "$(sequence 300 "$dir/unread.pcap" | wc -l)" = 5
# A full file system: the capture stops, says why and what reached the file, which stays whole.
mkdir "$dir/full"
if mount -t tmpfs -o size=1500k tmpfs "$dir/full" 2>"$dir/mount.err"; then
    start_capture -w "$dir/full/capture.pcap" --file-size 1 # the second file of the ring fails
    "$lyrcap" send "$dir/ring-traffic.pcap" lyrveth1 --timeout 18446744073709551615 >/dev/null 2>&1 &
    wait "$pid"; check "a capture that cannot write exits 1" test $? = 1; pid=
    kept=$(($(packets "$dir/full/capture_00001.pcap") + $(packets "$dir/full/capture_00002.pcap")))
    check "and says why, with the frames that reached the file and those that did not" \
        grep -q "^lyrcap capture: writing $dir/full/capture_00002.pcap failed: No space left on device; $kept frames reached the files, [1-9][0-9]* did not$" "$dir/err"
    check "what reached the file reads whole" test -z "$(tcpdump -r "$dir/full/capture_00002.pcap" 2>&1 >/dev/null | grep -i "truncated\|error")"
    wait
    umount "$dir/full"
else
    echo "skipped: the full file system (no tmpfs here: $(cat "$dir/mount.err"))"
fi

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
# --spin: a paced file leaves whole and in order, the thread spinning through most of its gaps;
# without it the thread sleeps through them and spins only a margin before each frame.
spun() { awk -F'spun ' '/^scheduler thread:/ { print ($2 + 0 >= 0.5) ? "most" : "little" }' "$dir/out"; }
"$make_fixture" bench "$dir/paced.pcap" --packets 200 --size 300 --gap-us 5000 >/dev/null
start_capture -w "$dir/spun.pcap"
"$lyrcap" send "$dir/paced.pcap" lyrveth1 --spin --timeout 18446744073709551615 >"$dir/out" 2>"$dir/send.err"
await send eval 'test "$(sequence 300 "$dir/spun.pcap" | tail -1)" = 000000c7' # the last one recorded
kill -INT "$pid"; wait "$pid"; pid=
check "send --spin sends a paced file whole and in order" \
    test "$(sequence 300 "$dir/spun.pcap" | tr '\n' ' ')" = "$(for n in $(seq 0 199); do printf '%08x ' $n; done)"
check "and its thread spins through the gaps" test "$(grep -c "spinning through the gaps" "$dir/out")/$(spun)" = 1/most
"$lyrcap" send "$dir/paced.pcap" lyrveth1 --timeout 18446744073709551615 >"$dir/out" 2>"$dir/send.err"
check "without --spin it sleeps through them" test "$(grep -c "spinning" "$dir/out")/$(spun)" = 0/little
check "and every frame was handed over before its time" test "$(grep -c "after their time" "$dir/out")" = 0
# --priority 0: the scheduler's thread and the reading thread stay ordinary all through the send,
# also where a realtime priority needs no privilege (a limit on realtime priority above 0, as an
# administrator may give a group), where this system lets the limit be raised. The frames are a
# second apart: the reading thread sleeps until the next one enters its window.
"$make_fixture" bench "$dir/sparse.pcap" --packets 3 --size 300 --gap-us 1000000 >/dev/null
limit=$(prlimit --rtprio=5 true 2>/dev/null && echo "prlimit --rtprio=5")
$limit "$lyrcap" send "$dir/sparse.pcap" lyrveth1 --priority 0 --timeout 18446744073709551615 >"$dir/out" 2>"$dir/send.err" & pid=$!
await "" has_thread LYR-Scheduler
wakes() { awk '/^voluntary_ctxt_switches/ {print $2}' /proc/"$pid"/task/"$pid"/status; }
before=$(wakes)
for _ in 1 2 3 4 5; do sleep 0.1; awk '{print $41, $40}' /proc/"$pid"/stat; done >"$dir/policies"
after=$(wakes)
wait "$pid"; pid=
# In sleeps of 100 ms at most (for Ctrl-C and the status line): a few wakes in half a second of
# the gap, never a poll through it.
check "send's reading thread sleeps through the gap until the next frame enters its window ($((after - before)) wakes)" \
    test $((after - before)) -lt 200
check "send --priority 0 leaves the scheduler at ordinary priority" grep -q "^scheduler thread: ordinary priority," "$dir/out"
check "and its reading thread too" test "$(sort -u "$dir/policies")" = "0 0"
# --spin warns at its start where the kernel would stop its thread for part of each second. The
# kernel's limit is faked in this script's own mount namespace; the machine's stays as it is.
echo 500000 >"$dir/runtime"
if mount --bind "$dir/runtime" /proc/sys/kernel/sched_rt_runtime_us 2>/dev/null; then
    "$lyrcap" send "$dir/traffic.pcap" lyrveth1 --spin -c 1 >/dev/null 2>"$dir/err"
    check "send --spin warns where realtime threads may run half of each second" \
        grep -q "^lyrcap send: --spin: the kernel lets realtime threads run only 500 ms of every 1000 ms" "$dir/err"
    echo -1 >"$dir/runtime"
    "$lyrcap" send "$dir/traffic.pcap" lyrveth1 --spin -c 1 >/dev/null 2>"$dir/err"
    check "and not where they may run without a limit" test "$(grep -c sched_rt_runtime_us "$dir/err")" = 0
    umount /proc/sys/kernel/sched_rt_runtime_us
else
    echo "skipped: the warning of --spin (the kernel's realtime limit cannot be faked here)"
fi
# The summary tells how long the spinning thread stood still at the worst: the process is stopped
# for 0.3 s three times, most of which land while the thread spins, then for 0.8 s, longer than
# the reading thread keeps ahead.
"$make_fixture" bench "$dir/paced3.pcap" --packets 600 --size 300 --gap-us 5000 >/dev/null
"$lyrcap" send "$dir/paced3.pcap" lyrveth1 --spin --timeout 18446744073709551615 >"$dir/out" 2>"$dir/send.err" & pid=$!
for stop in 0.3 0.3 0.3 0.8; do sleep 0.2; kill -STOP "$pid"; sleep $stop; kill -CONT "$pid"; done
wait "$pid"; pid=
check "send --spin says how long its thread stood still, at least a stop's 300 ms" \
    awk '/stood still/ { for (i = 1; i < NF; i++) if ($i == "still") found = ($(i + 1) >= 250) } END { exit !found }' "$dir/out"
check "and, after the stop longer than its window (0.5 s), how far behind the reading fell" \
    awk '/after their time/ { for (i = 1; i < NF; i++) if ($i == "most") found = ($(i + 1) >= 100) } END { exit !found }' "$dir/out"
# --user: the scheduler's thread is nobody's too, with the same narrow set; a root run keeps
# CAP_DAC_OVERRIDE beside it.
for user in nobody ""; do
    "$lyrcap" send "$dir/paced.pcap" lyrveth1 --timeout 18446744073709551615 ${user:+--user $user} >"$dir/out" 2>"$dir/err" & pid=$!
    await "" has_thread LYR-Scheduler
    if [ -n "$user" ]; then
        check "send --user nobody runs every thread as nobody" same_credentials 65534 "$nogroup" "$nogroup" $((NET_RAW | SYS_NICE))
    else
        check "a root send keeps, on every thread, only CAP_NET_RAW, CAP_SYS_NICE and CAP_DAC_OVERRIDE" \
            same_credentials 0 0 "" $((NET_RAW | SYS_NICE | DAC_OVERRIDE))
        # The reading thread runs at realtime priority one below the scheduler's, so that a
        # thread spinning on its core never keeps it waiting.
        reading_and_scheduler() {
            test "$(awk '{print $41, $40}' /proc/"$pid"/stat) $(for task in /proc/"$pid"/task/*; do
                [ "$(cat "$task/comm")" = LYR-Scheduler ] && awk '{print $41, $40}' "$task/stat"; done)" = "1 9 1 10"
        }
        check "the reading thread runs at realtime priority 9, the scheduler's at 10" await "" reading_and_scheduler
    fi
    wait "$pid"; pid=
    check "send ${user:+--user $user }sends every frame" grep -q "^frames sent: 200$" "$dir/out"
done
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
