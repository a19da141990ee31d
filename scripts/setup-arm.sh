#!/usr/bin/env bash
# Makes this machine ready to build for 32-bit ARM hard-float: Debian's cross compiler, qemu-user
# and libpcap for armhf, the last through multiarch or, when the mirror's armhf index is out of
# step with the native one, as packages unpacked into build/arm/sysroot. Packaging reads the
# dependency information of the armhf C and C++ run-time libraries too, which the cross toolchain
# stands in for at build time: through multiarch libstdc++6:armhf is installed beside libpcap (libc6
# and libgcc-s1 come with it), and beside the sysroot their packages are kept in
# build/arm/runtime-debs.
#   scripts/setup-arm.sh    prints the sysroot's path, or nothing when multiarch installed libpcap
set -euo pipefail
exec 3>&1 1>&2 # standard output carries the answer alone
root=$(cd "$(dirname "$0")/.." && pwd)
build=$root/build/arm
sysroot=$build/sysroot
runtime=$build/runtime-debs
triple=arm-linux-gnueabihf
"$root/scripts/install-deps.sh" g++-$triple qemu-user googletest

sudo=""
[ "$(id -u)" -eq 0 ] || sudo=sudo
export DEBIAN_FRONTEND=noninteractive
apt_get() { $sudo apt-get -qq -o DPkg::Lock::Timeout=120 "$@"; }
installed() { dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"; }

# The run-time libraries that $1 needs, and theirs, leaving out what the cross toolchain brings.
library_closure() {
    local queue=("$1") seen=" " package dep
    while [ ${#queue[@]} -gt 0 ]; do
        package=${queue[0]}
        queue=("${queue[@]:1}")
        case "$seen" in *" $package "*) continue ;; esac
        seen+="$package "
        echo "$package"
        # First choice of each dependency; only libraries matter to the dynamic loader.
        for dep in $(apt-cache depends --no-recommends --no-suggests --no-conflicts --no-breaks \
                         --no-replaces --no-enhances "$package" |
                     awk '/^  (Pre)?Depends:/ {print $2}' | tr -d '<>'); do
            dep=${dep%:armhf}
            case "$dep" in
                libc6 | libgcc-s1 | libstdc++6 | libcrypt1) ;;
                lib*) queue+=("$dep:armhf") ;;
            esac
        done
    done
}

# Debian's armhf packages unpacked into the sysroot, with the cross toolchain's own libraries
# linked in, so that one `qemu-arm -L` prefix holds everything a program loads.
make_sysroot() {
    local debs=$build/debs package
    rm -rf "$sysroot" "$debs" "$runtime"
    mkdir -p "$debs" "$runtime" "$sysroot/lib"
    # Called where a failure does not stop the script, so each step says for itself.
    local packages
    packages=$(library_closure libpcap0.8:armhf) || return 1
    # apt fetches as its own user, who may not write into a work tree.
    (cd "$debs" && apt_get -o APT::Sandbox::User=root download $packages libpcap0.8-dev:armhf) || return 1
    (cd "$runtime" && apt_get -o APT::Sandbox::User=root download libc6:armhf libstdc++6:armhf libgcc-s1:armhf) ||
        return 1
    for package in "$debs"/*.deb; do dpkg -x "$package" "$sysroot" || return 1; done
    ln -sf /usr/$triple/lib/* "$sysroot/lib/" || return 1
    touch "$sysroot/.complete"
}
# Set-ups made before the run-time libraries were wanted are made again.
multiarch_complete() { installed libpcap0.8-dev:armhf && installed libstdc++6:armhf; }
sysroot_complete() { [ -e "$sysroot/.complete" ] && compgen -G "$runtime/libc6_*.deb" >/dev/null; }

if ! multiarch_complete && ! sysroot_complete; then
    added_armhf=""
    if ! dpkg --print-foreign-architectures | grep -qx armhf; then
        $sudo dpkg --add-architecture armhf
        added_armhf=yes
    fi
    # A failing armhf index (a mirror in the middle of a sync) leaves the others usable.
    apt_get update || echo "apt-get update failed in part; going on with what it fetched"
    if ! apt_get install -y --no-install-recommends libpcap0.8-dev:armhf libstdc++6:armhf >/dev/null; then
        echo "libpcap0.8-dev:armhf does not install through multiarch; unpacking the packages into $sysroot"
        unpacked=yes
        make_sysroot || unpacked=""
        # Nothing armhf is installed, so dpkg goes back to how it was: otherwise every later
        # apt-get update on this machine would fetch the armhf indexes, and fail with them.
        [ -z "$added_armhf" ] || $sudo dpkg --remove-architecture armhf
        [ -n "$unpacked" ] || { echo "cannot fetch libpcap for armhf" >&2; exit 1; }
    fi
fi
multiarch_complete || echo "$sysroot" >&3
