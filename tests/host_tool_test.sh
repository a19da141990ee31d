#!/usr/bin/env bash
# Runs the host tool as a user would and checks what it prints and how it exits.
set -u
lyrcap=$1
make_fixture=$2
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
failures=0

check() { # description, then the command's condition
    local what=$1; shift
    if "$@"; then echo "ok: $what"; else echo "FAILED: $what"; failures=$((failures + 1)); fi
}
status() { "$@" >"$dir/out" 2>"$dir/err"; echo $?; }

"$make_fixture" samples "$dir" >/dev/null || { echo "make-fixture failed"; exit 1; }
eth="$dir/ethernet.pcap"
raw="$dir/raw-multicast.pcap"
expected=$(tcpdump -r "$eth" 2>/dev/null | wc -l)

check "--help exits 0" test "$(status "$lyrcap" --help)" = 0
check "info --help needs no plug-in" test "$(status "$lyrcap" --plugin /nonexistent.so info --help)" = 0
check "info exits 0" test "$(status "$lyrcap" info "$eth")" = 0
check "info counts what tcpdump counts" grep -q "^packets: *$expected\$" "$dir/out"
lines() { wc -l <"$dir/out" | tr -d ' '; }
check "replay exits 0" test "$(status "$lyrcap" replay "$eth")" = 0
check "replay prints one line per frame" test "$(lines)" = "$expected"
check "replay sums up on standard error" grep -q "^$expected frames, " "$dir/err"
check "replay --count stops" test "$(status "$lyrcap" replay "$eth" --count 3; lines)" = "$(printf '0\n3')"
check "RAW multicast gets a group address" \
    bash -c "'$lyrcap' replay '$raw' 2>/dev/null | grep -q '01:00:5e:00:00:01 > 00:00:00:00:00:00  0x0800 IPv4'"
check "bad count is a usage error" test "$(status "$lyrcap" replay "$eth" --count 0)" = 2
check "unknown option is a usage error" test "$(status "$lyrcap" info --bogus)" = 2
check "unknown command is a usage error" test "$(status "$lyrcap" bogus)" = 2
check "missing file fails" test "$(status "$lyrcap" info "$dir/none.pcap")" = 1
check "missing file is named" grep -q "Error reading pcap file" "$dir/err"
check "missing plug-in fails" test "$(status "$lyrcap" --plugin "$dir/none.so" info "$eth")" = 1
check "missing plug-in is named" grep -q "cannot load plug-in $dir/none.so" "$dir/err"
check "capture --help exits 0" test "$(status "$lyrcap" capture --help)" = 0
check "capture needs a device" test "$(status "$lyrcap" capture)" = 2
check "capture refuses a port beyond 16 bits" test "$(status "$lyrcap" capture lo --port 70000)" = 2
check "capture refuses a host that is no address" test "$(status "$lyrcap" capture lo --host 10.0.0)" = 2
check "capture of an unknown device fails" test "$(status "$lyrcap" capture nosuch0 --count 1)" = 1
check "the unknown device is named" grep -q "Error attempting to configure interface(nosuch0)" "$dir/err"
if [ -z "${LYR_NO_DEVICES:-}" ]; then
    check "list-devices exits 0" test "$(status "$lyrcap" list-devices)" = 0
    check "list-devices lists the loopback device" grep -q "^lo  (.*loopback" "$dir/out"
else
    echo "skipped: list-devices ($LYR_NO_DEVICES)"
fi

exit $((failures != 0))
