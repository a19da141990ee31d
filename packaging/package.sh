#!/usr/bin/env bash
# Builds the Debian packages of the plug-in (lyr-plugin-pcap) and the host tool (lyrcap) into
# build/packages/, with CPack's DEB generator.
#   packaging/package.sh [amd64|armhf|all]      (default: all)
# Each architecture has a build tree of its own, build/package/<arch>, configured as a package
# wants it: under /usr with the multiarch library folder, Debian's hardening flags
# (dpkg-buildflags), no sanitizer, no tests. armhf is cross-built with the toolchain and the
# libpcap that arm/setup.sh provides, the ones the ARM tests use.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
out=$root/build/packages
case "${1:-all}" in
    amd64 | armhf) arches=("$1") ;;
    all) arches=(amd64 armhf) ;;
    *) echo "usage: $0 [amd64|armhf|all]" >&2; exit 2 ;;
esac
"$root/scripts/install-deps.sh" dpkg-dev file help2man
cd "$root" # dpkg-buildflags maps the current folder out of the debug information

# dpkg-shlibdeps finds a library's dependency information through dpkg, or beside the library in
# an unpacked package tree (its DEBIAN folder). Packages unpacked into the ARM sysroot are not
# known to dpkg, so each is unpacked again as such a tree, and its library folders are added to
# library_dirs.
add_package_trees() { # multiarch triplet, then .deb files
    local multiarch=$1 deb tree dir
    shift
    for deb in "$@"; do
        tree=$root/build/package/trees/$(basename "$deb" .deb)
        if [ ! -d "$tree/DEBIAN" ]; then
            mkdir -p "$tree"
            dpkg-deb -R "$deb" "$tree"
        fi
        for dir in "$tree/lib/$multiarch" "$tree/usr/lib/$multiarch"; do
            [ ! -d "$dir" ] || library_dirs+="$dir;"
        done
    done
}

build_packages() {
    local arch=$1 build=$root/build/package/$1
    local multiarch options=() library_dirs=""
    multiarch=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
    if [ "$arch" != "$(dpkg --print-architecture)" ]; then
        [ "$arch" = armhf ] || { echo "no cross toolchain for $arch" >&2; return 1; }
        local sysroot
        sysroot=$("$root/arm/setup.sh")
        options=(-DCMAKE_TOOLCHAIN_FILE="$root/arm/toolchain-armhf.cmake" -DLYR_ARM_SYSROOT="$sysroot")
        if [ -n "$sysroot" ]; then
            add_package_trees "$multiarch" "$root"/build/arm/debs/*.deb "$root"/build/arm/runtime-debs/*.deb
        fi
    fi
    echo "=== $arch packages"
    # Debian's flags, every hardening option on. CMake takes them from the environment only when
    # it configures a tree from nothing, so the tree forgets its cache (ninja still rebuilds only
    # what changed).
    rm -f "$build/CMakeCache.txt"
    flags() { DEB_HOST_ARCH=$arch DEB_BUILD_MAINT_OPTIONS=hardening=+all dpkg-buildflags --get "$1"; }
    CXXFLAGS="$(flags CPPFLAGS) $(flags CXXFLAGS)" LDFLAGS=$(flags LDFLAGS) \
        cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR="lib/$multiarch" \
        -DLYR_BUILD_TESTS=OFF -DLYR_BUILD_BENCHMARKS=OFF -DLYR_DEB_LIBRARY_DIRS="$library_dirs" \
        "${options[@]}" >/dev/null
    cmake --build "$build" -j2
    rm -f "$build"/*.deb "$out"/*_"$arch".deb
    # dpkg-shlibdeps looks for the libraries of the architecture that dpkg-architecture sets
    # (which wants to see that architecture's compiler in CC).
    (cd "$build" && CC=$(dpkg-architecture -a"$arch" -qDEB_HOST_GNU_TYPE 2>/dev/null)-gcc \
        dpkg-architecture -a"$arch" -c cpack -D CPACK_DEBIAN_PACKAGE_ARCHITECTURE="$arch" >/dev/null)
    mkdir -p "$out"
    mv "$build"/*.deb "$out/"
    # dpkg-shlibdeps passes over a library whose package it cannot tell (it must, for the
    # framework's), so a plug-in without its libpcap dependency would go out unnoticed.
    dpkg-deb -f "$out"/lyr-plugin-pcap_*_"$arch".deb Depends | grep -q 'libpcap0\.8 (>= ' || {
        echo "lyr-plugin-pcap for $arch does not depend on libpcap0.8: dpkg-shlibdeps found no information for it" >&2
        return 1
    }
    ls "$out"/*_"$arch".deb
}

for arch in "${arches[@]}"; do
    build_packages "$arch"
done
