#!/usr/bin/env bash
# Makes this machine ready to build for 32-bit ARM hard-float: Debian's cross compiler, qemu-user,
# and libpcap and libcap for armhf, the last two through multiarch or, when the mirror's armhf index is out of
# step with the native one, as packages unpacked into build/arm/sysroot. Packaging reads the
# dependency information of the armhf C and C++ run-time libraries too, which the cross toolchain
# stands in for at build time: through multiarch libstdc++6:armhf is installed beside libpcap (libc6
# and libgcc-s1 come with it), and beside the sysroot their packages are kept in
# build/arm/runtime-debs.
#   arm/setup.sh    prints the sysroot's path, or nothing when multiarch installed libpcap
set -euo pipefail
exec 3>&1 1>&2 # standard output carries the answer alone
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/arm
sysroot=$build/sysroot
runtime=$build/runtime-debs
triple=arm-linux-gnueabihf
"$root/scripts/install-deps.sh" g++-$triple qemu-user googletest

source "$root/arm/packages.sh"

# Debian's armhf packages unpacked into the sysroot, with the cross toolchain's own libraries
# linked in, so that one `qemu-arm -L` prefix holds everything a program loads.
make_sysroot() {
    local debs=$build/debs package
    rm -rf "$sysroot" "$debs" "$runtime"
    mkdir -p "$debs" "$runtime" "$sysroot/lib"
    # Called where a failure does not stop the script, so each step says for itself.
    local packages
    # Leaving out the run-time libraries that the cross toolchain brings.
    packages=$(library_closure libpcap0.8:armhf libcap2:armhf | grep -Ev '^(libc6|libgcc-s1|libstdc\+\+6|libcrypt1):') || return 1
    download_packages "$debs" $packages libpcap0.8-dev:armhf libcap-dev:armhf || return 1
    download_packages "$runtime" libc6:armhf libstdc++6:armhf libgcc-s1:armhf || return 1
    for package in "$debs"/*.deb; do dpkg -x "$package" "$sysroot" || return 1; done
    ln -sf /usr/$triple/lib/* "$sysroot/lib/" || return 1
    touch "$sysroot/.complete"
}
# Set-ups made before the run-time libraries were wanted are made again.
multiarch_complete() { installed libpcap0.8-dev:armhf && installed libcap-dev:armhf && installed libstdc++6:armhf; }
sysroot_complete() { [ -e "$sysroot/.complete" ] && compgen -G "$runtime/libc6_*.deb" >/dev/null; }

install_or_unpack() {
    apt_get install -y --no-install-recommends libpcap0.8-dev:armhf libcap-dev:armhf libstdc++6:armhf >/dev/null && return
    echo "libpcap0.8-dev:armhf or libcap-dev:armhf does not install through multiarch; unpacking the packages into $sysroot"
    make_sysroot || { echo "cannot fetch libpcap for armhf" >&2; return 1; }
}
multiarch_complete || sysroot_complete || with_armhf_index install_or_unpack
multiarch_complete || echo "$sysroot" >&3
