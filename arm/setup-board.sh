#!/usr/bin/env bash
# Makes the emulated 32-bit ARM board that the live tests run on, from Debian's packages alone:
# qemu-system-arm, Debian's armhf kernel, and a root file system for an initramfs: busybox, dash,
# bash, coreutils, util-linux, iproute2, ethtool, jq, tcpdump and tcpreplay with the libraries they load,
# libpcap, libcap, the C and C++ run-time libraries, and the veth module. Kept in build/arm/board, and
# made again only when this script changes.
#   arm/setup-board.sh
# leaves there vmlinuz and root.cpio.gz, the base of the initramfs that arm/board.sh
# boots with the build's programs added.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
board=$root/build/arm/board
"$root/scripts/install-deps.sh" qemu-system-arm cpio jq
stamp=$(sha1sum <"$0")
[ "$(cat "$board/.complete" 2>/dev/null)" = "$stamp" ] && exit 0

source "$root/arm/packages.sh"
userland=(busybox-static:armhf dash:armhf bash:armhf coreutils:armhf util-linux:armhf iproute2:armhf ethtool:armhf jq:armhf
    tcpdump:armhf tcpreplay:armhf libpcap0.8:armhf libcap2:armhf libc6:armhf libstdc++6:armhf libgcc-s1:armhf)

fetch_board_packages() {
    local kernel
    # linux-image-armmp only depends on the versioned package that holds the kernel and modules.
    kernel=$(apt-cache depends linux-image-armmp:armhf | awk '/^  Depends: linux-image-/ {print $2; exit}')
    [ -n "$kernel" ] || { echo "no armhf kernel in the package index" >&2; return 1; }
    # shellcheck disable=SC2046 # one package a word
    download_packages "$board/debs" $(library_closure "${userland[@]}") || return 1
    download_packages "$board/kernel-deb" "${kernel%:armhf}:armhf"
}

echo "=== arm board: fetching Debian's armhf kernel and root file system"
rm -rf "$board"
mkdir -p "$board/debs" "$board/kernel-deb" "$board/root"
with_armhf_index fetch_board_packages

for package in "$board"/debs/*.deb; do dpkg -x "$package" "$board/root"; done
dpkg -x "$board"/kernel-deb/*.deb "$board/kernel"
cp "$board"/kernel/boot/vmlinuz-* "$board/vmlinuz"
# veth is the one module that the tests need: namespaces, packet sockets and the serial console
# are built into the kernel.
mkdir -p "$board/root/lib/modules"
cp "$(find "$board/kernel/lib/modules" -name veth.ko)" "$board/root/lib/modules/"
# busybox's own shell would run its applets before the programs of the same name (its "ip" knows
# no veth), so /bin/sh is dash, as on a Debian system.
ln -sf dash "$board/root/bin/sh"
# tcpdump gives up root for its user once its file is open; the tests run lyrcap as nobody.
printf 'root:x:0:0:root:/root:/bin/sh\ntcpdump:x:100:101::/nonexistent:/usr/sbin/nologin\nnobody:x:65534:65534:nobody:/nonexistent:/usr/sbin/nologin\n' >"$board/root/etc/passwd"
printf 'root:x:0:\ntcpdump:x:101:\nnogroup:x:65534:\n' >"$board/root/etc/group"
mkdir -p "$board/root"/{dev,proc,sys,tmp,busybox}
rm -rf "$board/debs" "$board/kernel-deb" "$board/kernel" "$board/root/usr/share"/{doc,man,locale,info}
(cd "$board/root" && find . | cpio -o -H newc -R 0:0 --quiet | gzip -1) >"$board/root.cpio.gz"
echo "$stamp" >"$board/.complete"
