#!/usr/bin/env bash
# Runs the host tool as a user would and checks what it prints and how it exits.
set -u
lyrcap=$1
make_fixture=$2
version=$3
plugin=$4
source "${BASH_SOURCE%/*}/lib.sh"
status() { "$@" >"$dir/out" 2>"$dir/err"; echo $?; }
# A command that fails (1) and says why: what, the message's pattern, then lyrcap's arguments.
fails() { local what=$1 why=$2; shift 2; check "$what fails" test "$(status "$lyrcap" "$@")" = 1; check "$what says: $why" grep -q "$why" "$dir/err"; }

"$make_fixture" samples "$dir" >/dev/null || { echo "make-fixture failed"; exit 1; }
eth="$dir/ethernet.pcap"
raw="$dir/raw-multicast.pcap"
expected=$(tcpdump -r "$eth" 2>/dev/null | wc -l)

for words in --help "capture --help" "send --help"; do check "lyrcap $words exits 0" test "$(status "$lyrcap" $words)" = 0; done
check "--version prints the project's version and exits 0" test "$(status "$lyrcap" --version; cat "$dir/out")" = "$(printf '0\nlyrcap %s' "$version")"
check "info --help needs no plug-in" test "$(status "$lyrcap" --plugin /nonexistent.so info --help)" = 0
check "info exits 0" test "$(status "$lyrcap" info "$eth")" = 0
lines() { wc -l <"$dir/out" | tr -d ' '; }
check "replay prints one line per frame and exits 0" test "$(status "$lyrcap" replay "$eth"; lines)" = "$(printf '0\n%s' "$expected")"
check "replay sums up on standard error" grep -q "^$expected frames, " "$dir/err"
check "replay --count stops" test "$(status "$lyrcap" replay "$eth" --count 3; lines)" = "$(printf '0\n3')"
check "RAW multicast gets a group address" \
    bash -c "'$lyrcap' replay '$raw' 2>/dev/null | grep -q '01:00:5e:00:00:01 > 00:00:00:00:00:00  0x0800 IPv4'"
fails "a missing file" "Error reading pcap file" replay "$dir/none.pcap"
# Seeking: the position column counts from the first packet; the packet at the target is
# consumed, so the replay starts behind it.
check "replay --seek 0 gives every frame" test "$(status "$lyrcap" replay "$eth" --seek 0; lines)" = "$(printf '0\n%s' "$expected")"
status "$lyrcap" replay "$eth" >/dev/null; cp "$dir/out" "$dir/all"
after50=$(awk '$2 >= 50' "$dir/all" | tail -n +2)
check "replay --seek 50 starts behind the first frame at 50 ms" \
    test "$(status "$lyrcap" replay "$eth" --seek 50; cat "$dir/out")" = "$(printf '0\n%s' "$after50")"
fails "replay --seek beyond the duration" "cannot seek to 100000 ms: .* lasts [0-9]* ms" replay "$eth" --seek 100000
duration=$("$lyrcap" info "$eth" 2>/dev/null | awk '/^duration:/ {print $2}')
check "replay --seek to the duration itself fails" test "$(status "$lyrcap" replay "$eth" --seek "$duration")" = 1

# Ctrl-C, SIGTERM and SIGHUP (a closed terminal): the replay writes into a pipe that this script
# holds and has stopped reading, so it is still replaying when the signal comes, however fast the
# machine.
"$make_fixture" bench "$dir/long.pcap" --packets 20000 --size 64 >/dev/null
mkfifo "$dir/pipe"
for signal in INT TERM HUP; do
    "$lyrcap" replay "$dir/long.pcap" >"$dir/pipe" 2>"$dir/err" & pid=$!
    exec 3<"$dir/pipe"
    read -r _ <&3
    kill -"$signal" "$pid"
    cat <&3 >/dev/null
    exec 3<&-
    wait "$pid"
    check "a replay stopped by SIG$signal exits 130" test $? = 130
    check "a replay stopped by SIG$signal still sums up" grep -q "^[0-9]* frames, " "$dir/err"
done
# A reader that goes away ends a replay, which says so with what it wrote, and does not die of
# SIGPIPE (141).
"$lyrcap" replay "$dir/long.pcap" 2>"$dir/err" | head -1 >/dev/null
check "a replay whose reader goes away exits 1" test "${PIPESTATUS[0]}" = 1
check "and says so, with the frames it wrote" test "$(grep -c "^lyrcap replay: writing standard output failed: Broken pipe$\|^[0-9]* frames, " "$dir/err")" = 2
# SIGHUP stops a conversion between records: the output holds whole ones, as many as it says.
# The conversion is held up mid-file by its own first message, of 2048 packets that are refused
# (length 61, 60 bytes captured) between two halves of the long file: its standard error is a
# pipe that this script has filled, and reads only once the signal has come.
{ printf '\x00\x00\x00\x66\x00\x00\x00\x00\x3c\x00\x00\x00\x3d\x00\x00\x00'; head -c 60 /dev/zero; } >"$dir/refused"
for _ in $(seq 11); do cat "$dir/refused" "$dir/refused" >"$dir/twice" && mv "$dir/twice" "$dir/refused"; done
cat "$dir/long.pcap" "$dir/refused" <(tail -c +25 "$dir/long.pcap") >"$dir/held-up.pcap"
mkfifo "$dir/errors"
exec 4<>"$dir/errors"
head -c 200000 /dev/zero | tr '\0' '#' | dd of="$dir/errors" bs=1 oflag=nonblock 2>/dev/null
"$lyrcap" convert "$dir/held-up.pcap" "$dir/hup.pcap" >/dev/null 2>"$dir/errors" & pid=$!
exec 3<"$dir/errors" 4<&-
for _ in $(seq 300); do grep -q pipe_write "/proc/$pid/wchan" 2>/dev/null && break; sleep 0.1; done
kill -HUP "$pid"
tr -d '#' <&3 >"$dir/err"
exec 3<&-
wait "$pid"
check "a conversion stopped by SIGHUP exits 130" test $? = 130
converted=$(sed -n 's/^\([0-9]*\) frames, .*(stopped by Ctrl-C.*/\1/p' "$dir/err")
check "and sums up what it wrote, which is whole and ends mid-file" test -n "$converted" -a \
    "$(tcpdump -r "$dir/hup.pcap" 2>&1 | grep -c "UDP\|truncated")" = "${converted:-x}" -a "${converted:-40000}" -lt 40000
check "its refusals are shown ten times, then counted" \
    test "$("$lyrcap" info "$dir/held-up.pcap" 2>&1 | grep -c "Invalid packet size\|^(more lines like this are counted, not shown)$\|^refused: *2048 ")" = 12

# Conversion and info in every format: tcpdump sees the same packets, bytes and stamps in the
# copy, and capinfos every figure that info and convert print (stamps as libpcap hands them over).
"$make_fixture" corpus "$dir/corpus" >/dev/null
dump() { tcpdump -tt -nn -x -r "$1" 2>/dev/null; }
usec() { local whole=${1%.*} fraction=${1#*.}000000; echo "$whole${fraction:0:6}"; }
stamp() { printf '%s.%06d UTC (%s.%06d)' "$(date -u -d @$(($1 / 1000000)) '+%F %T')" $(($1 % 1000000)) $(($1 / 1000000)) $(($1 % 1000000)); }
for source in "$eth" "$dir/long.pcap" "$dir"/corpus/{nano.pcap,pcapng-nano.pcapng,pcapng.pcapng,big-endian.pcap}; do
    name=$(basename "$source")
    IFS=$'\t' read -r _ packets bytes first last < <(capinfos -T -r -S -c -d -a -e "$source")
    first=$(usec "$first") last=$(usec "$last")
    check "convert $name exits 0" test "$(status "$lyrcap" convert "$source" "$dir/copy.pcap")" = 0
    check "convert $name sums up what capinfos counts in the copy" \
        test "$(tail -1 "$dir/err")" = "$packets frames, $bytes bytes, $(((last - first) / 1000)) ms, 0 refused"
    fine=$(tshark -r "$source" -T fields -e frame.time_epoch 2>/dev/null | grep -vc '000$')
    check "convert $name says how many stamps lost their nanoseconds ($fine)" test "$(grep -c . "$dir/err")" = $((1 + (fine != 0))) \
        -a "$(grep -c "^lyrcap convert: $fine frames read had time stamps finer than a microsecond" "$dir/err")" = $((fine != 0))
    check "convert $name keeps packets, bytes and stamps" test -n "$(dump "$source")" -a "$(dump "$source")" = "$(dump "$dir/copy.pcap")"
    check "info $name prints capinfos's figures" test "$("$lyrcap" info "$source" 2>/dev/null | tail -n +3 | tr -s ' ')" = \
        "$(printf 'packets: %s\nbytes: %s (as frames)\nduration: %s ms\nfirst packet: %s\nlast packet: %s' "$packets" "$bytes" \
            $(((last - first) / 1000)) "$(stamp "$first")" "$(stamp "$last")")"
    check "replay $name gives tcpdump's stamps" \
        test "$("$lyrcap" replay "$source" 2>/dev/null | cut -d' ' -f1)" = "$(tcpdump -tt -r "$source" 2>/dev/null | cut -d' ' -f1)"
done

# info reads a file once, and gives the duration that the back-end's scan gives, which a refused
# seek names, whatever the file holds (but for stamps on both sides of 2038, below).
for source in "$dir"/corpus/*; do
    info=$("$lyrcap" info "$source" 2>/dev/null | awk '/^duration:/ {print $2}')
    [[ $source != *y2038* ]] || continue
    "$lyrcap" replay "$source" --seek 99999999999 >/dev/null 2>"$dir/err"
    scanned=$(sed -n 's/.* lasts \([0-9]*\) ms$/\1/p' "$dir/err")
    [ -z "$scanned" ] || check "info $(basename "$source") lasts what the scan says ($scanned ms)" test "$info" = "$scanned"
    check "convert $(basename "$source") reports no loss where there is none" bash -c "! '$lyrcap' convert '$source' '$dir/c.pcap' 2>&1 | grep 'failed:'"
done
# Seconds from 2^31 on reach the tool as negative numbers; it prints what the file means, and
# convert, whose recording cannot keep such stamps, says so once with their count.
y2038=$dir/corpus/y2038.pcap
check "replay prints stamps past 2038 as the file means them" \
    test "$("$lyrcap" replay "$y2038" 2>/dev/null | cut -d' ' -f1 | tr '\n' ' ')" = "2147483647.999999 2147483648.000000 4294967295.000005 "
check "info prints their dates and the time between them" test "$("$lyrcap" info "$y2038" 2>/dev/null | tail -n 3 | tr -s ' ')" = \
    "$(printf '%s\n' "duration: 2147483647000 ms" "first packet: 2038-01-19 03:14:07.999999 UTC (2147483647.999999)" \
        "last packet: 2106-02-07 06:28:15.000005 UTC (4294967295.000005)")"
for f in "$y2038" "${y2038}ng"; do check "convert $(basename "$f") warns once of two stamps it cannot keep, and spans 2^31 s" test "$("$lyrcap" convert "$f" "$dir/y.pcap" 2>&1 | grep -c "warning: 2 frames\|^3 frames, 240 bytes, 2147483647000 ms,")" = 2; done
# A full file system: convert stops, says why and how much reached the file, which stays readable.
mkdir "$dir/full"
unshare -m bash -c "mount -t tmpfs -o size=64k tmpfs '$dir/full' && '$lyrcap' convert '$dir/long.pcap' '$dir/full/out.pcap' 2>'$dir/err'
    echo \$? >'$dir/status'; tcpdump -r '$dir/full/out.pcap' 2>'$dir/tcpdump.err' | wc -l >'$dir/count'" 2>"$dir/mount.err"
if [ -s "$dir/status" ]; then
    check "convert onto a full file system exits 1" test "$(cat "$dir/status")" = 1
    check "and says why, with the frames that reached the file and those that did not" \
        grep -q "^lyrcap convert: writing $dir/full/out.pcap failed: No space left on device; $(cat "$dir/count") frames reached the file, [1-9][0-9]* did not$" "$dir/err"
    check "what reached the file reads whole" test -z "$(grep -i "truncated\|error" "$dir/tcpdump.err")" -a "$(cat "$dir/count")" -gt 0
else
    echo "skipped: the full file system (no tmpfs in a mount namespace here: $(cat "$dir/mount.err"))"
fi
check "convert RAW exits 0" test "$(status "$lyrcap" convert "$raw" "$dir/eth.pcap")" = 0
check "converted RAW is Ethernet" bash -c "tcpdump -r '$dir/eth.pcap' 2>&1 >/dev/null | grep -q 'link-type EN10MB'"
check "converted RAW has group addresses and IPv4" test "$(tshark -r "$dir/eth.pcap" -T fields -e eth.dst -e eth.type -e ip.dst 2>/dev/null | head -2)" \
    = "$(printf '01:00:5e:00:00:01\t0x0800\t224.0.0.1\n01:00:5e:01:02:03\t0x0800\t239.1.2.3')"
check "converted RAW keeps the IP packets and stamps" \
    test "$(tcpdump -tt -nn -r "$raw" 2>/dev/null)" = "$(tcpdump -tt -nn -r "$dir/eth.pcap" 2>/dev/null)"
check "convert --from --count cuts a slice" \
    test "$(status "$lyrcap" convert "$eth" "$dir/slice.pcap" --from 50 --count 3; dump "$dir/slice.pcap" | grep -c '^[0-9]')" = "$(printf '0\n3')"
check "the slice starts where replay --seek does" \
    test "$(tcpdump -tt -r "$dir/slice.pcap" 2>/dev/null | head -1 | cut -d' ' -f1)" = "$(printf '%s\n' "$after50" | head -1 | cut -d' ' -f1)"
# Streams. Standard input and a FIFO read as the file itself; standard output carries every frame
# as tcpdump reads it, and a reader that goes away ends the conversion, said, with exit 1.
for command in info replay "convert - $dir/from-stdin.pcap"; do
    words=($command)
    "$lyrcap" ${words[0]} "$eth" "${words[@]:2}" >"$dir/file.out" 2>"$dir/file.err"
    sed -i "s|$eth|standard input|" "$dir/file.out" "$dir/file.err"
    check "${words[0]} - reads standard input as the file" \
        test "$(cat "$eth" | "$lyrcap" ${words[0]} - "${words[@]:2}" 2>&1)" = "$(cat "$dir/file.out" "$dir/file.err")"
done
mkfifo "$dir/fifo"
cat "$eth" >"$dir/fifo" &
check "info reads a FIFO whole" test "$("$lyrcap" info "$dir/fifo" 2>&1 | tail -n +2)" = "$("$lyrcap" info "$eth" 2>&1 | tail -n +2)"
wait
check "convert to standard output carries every frame, as tcpdump and tshark read them" \
    test "$("$lyrcap" convert "$eth" - 2>/dev/null | tcpdump -tt -nn -xx -r - 2>/dev/null)" = "$(tcpdump -tt -nn -xx -r "$eth" 2>/dev/null)" -a \
    "$("$lyrcap" convert "$raw" - 2>/dev/null | tshark -r - -T fields -e frame.time_epoch -e ip.src -e ip.dst -e udp.length 2>/dev/null)" = \
    "$(tshark -r "$raw" -T fields -e frame.time_epoch -e ip.src -e ip.dst -e udp.length 2>/dev/null)"
"$lyrcap" convert "$dir/long.pcap" - 2>"$dir/err" | head -c 1000 >/dev/null
check "a conversion whose reader goes away exits 1" test "${PIPESTATUS[0]}" = 1
check "and says so, with the frames that reached it" grep -q "^lyrcap convert: writing standard output failed: Broken pipe; [0-9]* frames reached it, [1-9][0-9]* did not$" "$dir/err"
# Standard input is held in a file that nothing else can open (none appears in TMPDIR, even
# while it is read), and costs memory only for a buffer: 40 MB read as 4 kB are.
mkdir "$dir/spool"
"$make_fixture" bench "$dir/big.pcap" --packets 500000 --size 64 >/dev/null
rss() { { /usr/bin/time -f %M "$lyrcap" info - <"$1" >/dev/null; } 2>&1 | tail -1; }
{ cat "$dir/big.pcap"; sleep 1; } | TMPDIR=$dir/spool "$lyrcap" info - >"$dir/out" 2>&1 &
sleep 0.5
check "standard input is held where no one else sees it" test -z "$(ls -A "$dir/spool")"
wait
check "and read whole" grep -q "^packets: *500000$" "$dir/out"
check "in memory for a buffer, not the stream" test $(($(cat "$dir/big.pcap" | TMPDIR=$dir/spool rss /dev/stdin) - $(rss "$eth"))) -lt 20000
check "leaving nothing behind" test -z "$(ls -A "$dir/spool")"
# Standard input that is a file is read from where it stands, as a pipe would be.
{ head -c 40 /dev/zero; cat "$eth"; } >"$dir/after40"
check "standard input that is a file is read from its offset" \
    test "$({ head -c 40 >/dev/null; "$lyrcap" info - 2>&1; } <"$dir/after40" | grep -c "^packets: *20$")" = 1

# The short options people type, bundled and all, and "--" that ends the options.
cp "$eth" "$dir/-dash.pcap"
check "-r, -c, -q and a bundle of them" test "$("$lyrcap" replay -qc 3 -r "$eth" 2>/dev/null | wc -l) $("$lyrcap" replay -c2 "$eth" 2>/dev/null | wc -l)" = "3 2"
check "convert -r IN -w OUT" test "$(status "$lyrcap" convert -c 4 -w "$dir/short.pcap" -r "$eth"; tcpdump -r "$dir/short.pcap" 2>/dev/null | wc -l)" = $'0\n4'
check "-- ends the options" test "$(status "$lyrcap" info -- "$dir/-dash.pcap"; grep -c "^file: *$dir/-dash.pcap$" "$dir/out")" = $'0\n1'
for words in "replay -x $eth" "replay -c $eth -c" "info --json=1 $eth" "capture -i"; do
    check "lyrcap $words is a usage error" test "$(status "$lyrcap" ${words//\$eth/$eth})" = 2
done

# Filter expressions keep exactly the frames that tcpdump keeps, in every command that reads a
# file; RAW packets are filtered as the IP packets they are. A TCP segment to port 80 and an
# ICMP echo (text2pcap's) join the sample's ARP and UDP frames.
printf '0000  68 65 6c 6c 6f\n' >"$dir/payload.txt" && printf '0000  08 00 f7 ff 00 00 00 00\n' >"$dir/echo.txt"
text2pcap -q -F pcap -T 40000,80 "$dir/payload.txt" "$dir/tcp.pcap" >/dev/null 2>&1
text2pcap -q -F pcap -i 1 "$dir/echo.txt" "$dir/icmp.pcap" >/dev/null 2>&1
mergecap -F pcap -w "$dir/mixed.pcap" "$dir/tcp.pcap" "$dir/icmp.pcap" "$eth"
for source in "$dir/mixed.pcap" "$raw"; do
    for expression in "tcp port 80 or icmp" "arp" "udp and dst port 5000" "ip and not udp" "ether broadcast" "net 224.0.0.0/4" "greater 100"; do
        kept=$(tcpdump -tt -nn -xx -r "$source" "$expression" 2>"$dir/tcpdump.err")
        if reason=$(sed -n 's/^tcpdump: //p' "$dir/tcpdump.err") && [ -n "$reason" ]; then # "arp" on bare IP packets
            check "replay of $(basename "$source") with '$expression' fails with tcpdump's reason: $reason" \
                test "$(status "$lyrcap" replay "$source" $expression; grep -c ": $reason$" "$dir/err")" = $'1\n1'
            continue
        fi
        what="$(basename "$source") with '$expression' ($(tcpdump -r "$source" "$expression" 2>/dev/null | wc -l) of $(tcpdump -r "$source" 2>/dev/null | wc -l))"
        "$lyrcap" convert "$source" "$dir/kept.pcap" $expression 2>/dev/null
        [ "$source" = "$raw" ] || check "convert of $what keeps what tcpdump keeps" test "$(tcpdump -tt -nn -xx -r "$dir/kept.pcap" 2>/dev/null)" = "$kept"
        check "replay and info of $what count what tcpdump keeps" \
            test "$("$lyrcap" replay "$source" $expression 2>/dev/null | cut -d' ' -f1) $("$lyrcap" info "$source" $expression 2>/dev/null | awk '/^packets:/ {print $2}')" \
            = "$(tcpdump -tt -r "$source" "$expression" 2>/dev/null | cut -d' ' -f1) $(tcpdump -r "$source" "$expression" 2>/dev/null | wc -l)"
    done
done
check "a bad expression is a usage error with libpcap's reason" \
    test "$(status "$lyrcap" replay "$eth" tcp port; grep -c "^lyrcap replay: the filter expression 'tcp port' does not compile (libpcap: .*syntax error)" "$dir/err")" = $'2\n1'

# JSON for scripts: info takes several files, one object each, with the figures that capinfos
# gives; convert sums up in one object.
head -c 130 "$eth" >"$dir/cut130.pcap"
"$lyrcap" info --json "$eth" "$raw" "$dir/cut130.pcap" >"$dir/json" 2>/dev/null
check "info --json: one object per file, the damaged one with its damage" \
    test "$(jq -r '[.file, .packets, .damage.offset // "none"] | @tsv' "$dir/json")" = "$(printf '%s\t20\tnone\n%s\t10\tnone\n%s\t1\t100' "$eth" "$raw" "$dir/cut130.pcap")"
IFS=$'\t' read -r _ packets bytes first last < <(capinfos -T -r -S -c -d -a -e "$eth")
check "with capinfos's figures, in fixed units" test "$(jq -r 'select(.packets == 20) | [.packets, .bytes, .first_us, .last_us, .duration_ms, .link_type, .refused] | @tsv' "$dir/json")" = \
    "$(printf '%s\t%s\t%s\t%s\t%s\tEN10MB\t0' "$packets" "$bytes" "$(usec "$first")" "$(usec "$last")" $((($(usec "$last") - $(usec "$first")) / 1000)))"
check "convert --json sums up in one object" \
    test "$("$lyrcap" convert "$dir/mixed.pcap" "$dir/x.pcap" --json icmp 2>/dev/null | jq -r '[.frames, .filtered_out, .filter, .damage] | @tsv')" = $'1\t21\ticmp\t'
cp "$eth" "$dir/a\"b €.pcap"
check "a file name with quotes and other scripts' letters comes out whole" \
    test "$("$lyrcap" info --json "$dir/a\"b €.pcap" 2>/dev/null | jq -r .file)" = "$dir/a\"b €.pcap"
check "and its duration in milliseconds, as info's" \
    test "$("$lyrcap" convert "$eth" "$dir/x.pcap" --json 2>/dev/null | jq .duration_ms)" = "$(jq 'select(.packets == 20) | .duration_ms' "$dir/json")"
check "info of a file it cannot read and a damaged one exits 1, the worse" test "$(status "$lyrcap" info "$dir/payload.txt" "$dir/cut130.pcap")" = 1
check "convert --json to standard output is a usage error" test "$(status "$lyrcap" convert "$eth" - --json)" = 2

# What cannot be read is said. A file cut anywhere: at the end of a record it is whole and reads
# without a word; inside a record or its header, info reads the records before it, names the byte
# where the cut one begins and exits 3. Classic and pcapng files from our writer, whose layout is
# known: a 24-byte header and records of 76 bytes, or 48 bytes of section and interface and
# blocks of 92.
for layout in "classic 24 76" "pcapng 48 92"; do
    read -r format header record <<<"$layout"
    "$make_fixture" bench "$dir/whole" --packets 3 --size 60 $([ "$format" = classic ] || echo --pcapng) >/dev/null
    wrong=""
    for ((cut = header; cut < header + 3 * record; cut++)); do
        head -c $cut "$dir/whole" >"$dir/cut.$format"
        frames=$(((cut - header) / record))
        said=""
        if (((cut - header) % record != 0)); then
            said="lyrcap info: $dir/cut.$format is cut short: it ends inside the record at byte $((header + frames * record)), "
            said+="after $frames frame$([ $frames = 1 ] || echo s): truncated"
        fi
        code=$(status "$lyrcap" info "$dir/cut.$format")
        [ "$code $(grep -c "^packets: *$frames$" "$dir/out") $(head -c ${#said} "$dir/err")" = "$([ -n "$said" ] && echo 3 || echo 0) 1 $said" ] ||
            wrong+=" $cut"
    done
    check "info on a $format file cut at each byte tells a cut record from a whole end (wrong at:${wrong:- none})" test -z "$wrong"
    head -c $((header + record + 30)) "$dir/whole" >"$dir/cut.$format"
    check "convert of a cut $format file keeps the record before the cut and exits 3" \
        test "$(status "$lyrcap" convert "$dir/cut.$format" "$dir/kept.pcap") $(tcpdump -r "$dir/kept.pcap" 2>&1 | grep -c 'UDP\|truncated')" = "3 1"
    check "and says so in its summary" grep -q "^1 frames, .*(the input is damaged: the output holds the frames before the damage)$" "$dir/err"
done
head -c 20 "$eth" >"$dir/cut.pcap"
fails "info of a file cut inside its header" "truncated dump file; tried to read 24 file header bytes" info "$dir/cut.pcap"
# Lengths that no record can have, in the second record: libpcap's reason, as tcpdump gives it.
le32() { printf '\\x%02x' $(($1 & 255)) $(($1 >> 8 & 255)) $(($1 >> 16 & 255)) $(($1 >> 24 & 255)); }
for damage in "classic 108 4294967295" "pcapng 144 0" "pcapng 144 2147483648" "pcapng 160 4294967295"; do
    read -r format offset value <<<"$damage"
    "$make_fixture" bench "$dir/bad" --packets 3 --size 60 $([ "$format" = classic ] || echo --pcapng) >/dev/null
    printf "$(le32 "$value")" | dd of="$dir/bad" bs=1 seek="$offset" conv=notrunc 2>/dev/null
    reason=$(tcpdump -r "$dir/bad" 2>&1 >/dev/null | sed -n 's/^tcpdump: pcap_loop: //p')
    start=$([ "$format" = classic ] && echo 100 || echo 140)
    for command in info replay; do
        check "$command of a $format file whose record says $value at byte $offset reads one frame and exits 3" \
            test "$(status "$lyrcap" $command "$dir/bad"; grep -c "^packets: *1$\|0x0800 IPv4$" "$dir/out")" = "$(printf '3\n1')"
        check "and says where and why: $reason" test -n "$reason" -a "$(grep -v '^[0-9]* frames, ' "$dir/err")" = \
            "lyrcap $command: $dir/bad is damaged: libpcap cannot read the record at byte $start, after 1 frame: $reason"
    done
done
# A link type that is neither Ethernet nor RAW is said once, and read on; convert refuses to write
# its packets into a capture of Ethernet frames.
"$make_fixture" bench "$dir/sll2.pcap" --packets 3 --size 60 --link-type 276 >/dev/null
for command in info replay; do
    check "$command of a LINUX_SLL2 file says once that its packets are not Ethernet frames, and reads them" \
        test "$(status "$lyrcap" $command "$dir/sll2.pcap") $(grep -c "^lyrcap $command: $dir/sll2.pcap holds packets of link type LINUX_SLL2 (Linux cooked v2, 276), not Ethernet frames" "$dir/err")" = "0 1"
done
fails "convert of a LINUX_SLL2 file" "holds packets of link type LINUX_SLL2 (Linux cooked v2, 276), not Ethernet frames or bare IP packets" \
    convert "$dir/sll2.pcap" "$dir/sll2-copy.pcap"
check "and writes nothing" test ! -e "$dir/sll2-copy.pcap"
# Stamps finer than a microsecond: convert says how many of those it read lost their nanoseconds,
# in classic files of either byte order and in pcapng.
for format in "" --big-endian --pcapng; do
    "$make_fixture" bench "$dir/fine.pcap" --packets 10 --size 60 --nano --gap-ns 1500 $format >/dev/null
    for count in 10 4; do
        check "convert --count $count of a file ($format) with a fine stamp in every other frame counts $((count / 2))" \
            test "$(status "$lyrcap" convert "$dir/fine.pcap" "$dir/x.pcap" --count $count; grep -c "^lyrcap convert: $((count / 2)) frames read had time stamps finer than a microsecond: $dir/x.pcap keeps them" "$dir/err")" = "$(printf '0\n1')"
    done
done
# Damage that a reading stopped before it is not said; a refused packet before the damage is not
# among the frames before it.
"$make_fixture" bench "$dir/bad" --packets 3 --size 60 >/dev/null
printf "$(le32 61)" | dd of="$dir/bad" bs=1 seek=36 conv=notrunc 2>/dev/null # the first packet's length: refused
printf "$(le32 4294967295)" | dd of="$dir/bad" bs=1 seek=184 conv=notrunc 2>/dev/null # the third's captured length
check "replay -c 1 of a file damaged after its first frame says nothing of the damage" \
    test "$(status "$lyrcap" replay -c 1 "$dir/bad"; grep -c "damaged" "$dir/err")" = $'0\n0'
check "the damage comes after 1 frame, the refused packet apart" test "$(status "$lyrcap" replay "$dir/bad"; grep -c "at byte 176, after 1 frame: " "$dir/err")" = $'3\n1'

# Usage errors: a bad count, port or host, an unknown option (before the command too) or command,
# a missing argument, options that exclude each other, and a copy onto its own input, also by a
# link to it.
ln -s "$eth" "$dir/eth-link.pcap"
for words in "convert $eth $dir/eth-link.pcap" "replay $eth --count 0" "info --bogus" "--bogus info $eth" bogus "convert $eth" "convert $eth $eth" capture \
    "capture lo --port 70000" "capture lo --host 10.0.0" "capture lo --host 10.0.0.1x" "capture lo --host 10.0.0.256" \
    "send $eth" "send $eth lo --speed 2 --topspeed" "capture lo -w $dir/x.pcap --files 3" "convert $eth $dir/x.pcapng" \
    "capture lo -w $dir/x.PcapNG"; do
    check "lyrcap ${words//$dir\//} is a usage error" test "$(status "$lyrcap" $words)" = 2
done
check "convert to a missing directory fails" test "$(status "$lyrcap" convert "$eth" "$dir/no/such.pcap")" = 1
# Numbers are digits, and one decimal point where fractions are allowed: nothing else.
for number in " -1" "+5" "-0" "5 " "0x10" "1e3" "" "2..5" "." "inf"; do
    check "replay --count '$number' is a usage error" test "$(status "$lyrcap" replay "$eth" --count "$number")" = 2
    check "capture --seconds '$number' is a usage error" test "$(status "$lyrcap" capture lo --seconds "$number")" = 2
done
check "numbers are decimal, leading zeros and all" test "$("$lyrcap" replay "$eth" --count 010 2>/dev/null | wc -l)" = 10
# Output is never written through a link: a symbolic link planted at the name is left, with its
# target, and so is a file of two names (a hard link), each with the reason.
echo "untouched" >"$dir/target"
ln -s "$dir/target" "$dir/symlink.pcap"
ln "$dir/target" "$dir/hardlink.pcap"
fails "convert onto a symbolic link" "cannot write $dir/symlink.pcap: it is a symbolic link" convert "$eth" "$dir/symlink.pcap"
fails "convert onto a hard link" "cannot write $dir/hardlink.pcap: the file has 2 names" convert "$eth" "$dir/hardlink.pcap"
check "both leave the target as it was" test "$(cat "$dir/target")/$(readlink "$dir/symlink.pcap")" = "untouched/$dir/target"

# The command line as people type it: options in both forms, repeated (the last counts), before
# and after the file, and given last without their value.
for form in "--plugin $plugin" "--plugin=$plugin"; do check "$form loads the plug-in" test "$(status "$lyrcap" $form info "$eth")" = 0; done
check "--count=N, --count N before the file and a repeated --count" \
    test "$("$lyrcap" replay --count=2 "$eth" 2>/dev/null | wc -l) $("$lyrcap" replay --count 9 "$eth" --count 3 2>/dev/null | wc -l)" = "2 3"
for words in "--plugin" "replay $eth --count" "replay $eth --seek" "convert $eth $dir/x.pcap --from" "capture lo --host"; do
    option=${words##* }
    check "lyrcap $option given last without its value is a usage error" test "$(status "$lyrcap" $words)" = 2
    check "which names the option" grep -q "option $option needs a value" "$dir/err"
done

fails "a missing plug-in" "cannot load plug-in $dir/none.so" --plugin "$dir/none.so" info "$eth"
fails "capture of an unknown device" "Error attempting to configure interface(nosuch0)" capture nosuch0 --count 1
fails "send to a missing device" "^Failed to open port for transmitting: " send "$eth" lyrnosuchdev0
check "send takes -Z USER for --user" test "$(status "$lyrcap" send -Z nobody "$eth" lyrnosuchdev0) $(grep -c option "$dir/err")" = "1 0"

finish
