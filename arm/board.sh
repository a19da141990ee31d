#!/usr/bin/env bash
# Boots the emulated 32-bit ARM board (arm/setup-board.sh: qemu-system-arm, machine
# "virt" with 2 CPUs) with the programs of build/arm at their own paths, runs SCRIPT there as
# root, and powers it off.
#   arm/board.sh SCRIPT
# The board's console is written to build/arm/board/console.log. Fails, with the end of that
# log, when the board does not reach the end of SCRIPT within ARM_BOARD_TIMEOUT seconds (default
# 900); otherwise exits with SCRIPT's status.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/arm
board=$build/board
script=$(realpath "$1")
timeout=${ARM_BOARD_TIMEOUT:-900}
"$root/arm/setup-board.sh"

# The initramfs is the cached root with a second archive behind it, which the kernel unpacks over
# the first: the build's programs and libraries, the test scripts, and the board's own files.
overlay=$board/overlay
rm -rf "$overlay"
mkdir -p "$overlay/board" "$overlay/usr/bin"
(cd / && find "$build" \( -path "$board" -o -path "$build/sysroot" -o -path "$build/debs" -o -name CMakeFiles \) -prune \
    -o -type f \( -perm -u+x -o -name '*.so*' \) -print | cpio -pdm --quiet "$overlay")
(cd / && find "$root/tests" -name '*.sh' | cpio -pdm --quiet "$overlay")
# Debug information is most of what the build's programs weigh, and the board keeps them in RAM.
while IFS= read -r -d '' file; do
    [ "$(head -c 4 "$file" | tail -c 3)" != ELF ] || arm-linux-gnueabihf-strip --strip-debug "$file"
done < <(find "$overlay$build" -type f -print0)
cp "$root/arm/board/init" "$overlay/init"
cp "$root/arm/board/qemu-arm" "$overlay/usr/bin/qemu-arm"
cp "$root/arm/board/run-tests.sh" "$overlay/board/"
install -m 755 "$script" "$overlay/board/run"
(cd "$overlay" && find . | cpio -o -H newc -R 0:0 --quiet | gzip -1) >"$board/overlay.cpio.gz"
cat "$board/root.cpio.gz" "$board/overlay.cpio.gz" >"$board/initrd"

echo "=== arm board: booting (qemu-system-arm, virt, 2 CPUs; at most $timeout s)"
status=0
# panic=-1 and -no-reboot: a board whose init dies stops qemu instead of hanging.
timeout -k 10 "$timeout" qemu-system-arm -M virt -smp 2 -m 1024 -display none -monitor none -nic none \
    -serial stdio -no-reboot -kernel "$board/vmlinuz" -initrd "$board/initrd" \
    -append "console=ttyAMA0 quiet panic=-1" </dev/null | tr -d '\r' >"$board/console.log" || status=$?
end=$(sed -n 's/^@@board: end \([0-9]*\)$/\1/p' "$board/console.log")
if [ -z "$end" ]; then
    [ "$status" = 124 ] && reason="did not finish within $timeout s" || reason="stopped before the end (status $status)"
    echo "the arm board $reason; the end of its console ($board/console.log):" >&2
    tail -n 60 "$board/console.log" >&2
    exit 1
fi
exit "$end"
