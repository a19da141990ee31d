#!/usr/bin/env bash
# Builds the Debian packages (packaging/package.sh all) and checks them:
# - lintian reports no error on any of them;
# - each depends on what it must: the plug-in on libpcap at the version built against and on
#   nothing of the framework, the tool on the plug-in of its own version;
# - the packaged plug-ins export the factory singletons as unique symbols, as the built ones do;
# - amd64: the packages install with dpkg -i, lyrcap runs info and replay on the shipped samples
#   from PATH, with the installed plug-in and its private libraries, also as an ordinary user
#   through file capabilities (a capture included), its manual page and bash completion are
#   found, and dpkg -r leaves nothing behind;
# - armhf: the packages unpacked into a scratch root run the samples there under qemu-arm.
# The machine ends as it started: the packages are removed even when a check fails.
set -u
root=$(cd "$(dirname "$0")/.." && pwd)
"$root/scripts/install-deps.sh" lintian bash-completion man-db || exit 1
"$root/packaging/package.sh" all || exit 1
echo "=== package checks"
packages=$root/build/packages
version=$(dpkg-deb -f "$packages"/lyrcap_*_amd64.deb Version)
sudo=""
[ "$(id -u)" -eq 0 ] || sudo=sudo
scratch=$(realpath "$(mktemp -d)")
installed_here=""
cleanup() {
    # Whatever happened, nothing of ours stays installed.
    [ -z "$installed_here" ] || $sudo dpkg --purge lyrcap lyr-plugin-pcap >/dev/null 2>&1
    rm -rf "$scratch"
}
trap cleanup EXIT
failures=0 skipped=0
check() {
    local what=$1; shift
    if "$@"; then echo "ok: $what"; else echo "FAILED: $what"; failures=$((failures + 1)); fi
}
skip() { echo "skipped: $1"; skipped=$((skipped + 1)); }
deb() { echo "$packages/$1_${version}_$2.deb"; } # package, architecture

echo "--- lintian"
lintian --fail-on error "$packages"/*.deb 2>&1 | grep -v "running with root privileges" | tee "$scratch/lintian"
check "lintian reports no error" test "${PIPESTATUS[0]}" = 0 -a -z "$(grep '^E:' "$scratch/lintian")"

# The real path of the file of that name that the loader initialised, from LD_DEBUG=libs output.
loaded() { sed -n "s|.*calling init: \(.*/$1\)\$|\1|p" "$2" | head -1 | xargs -r realpath; }
# The dynamic symbols of binding UNIQUE in a binary, sorted.
unique_symbols() { readelf -W --dyn-syms "$1" | awk '$5 == "UNIQUE" {print $8}' | sort; }
# The factories' instance singletons and their guards, which the host and every plug-in must share.
factory_singletons() {
    local kind mangled
    for kind in NetFile NetInputIf NetOutputIf; do
        mangled=ZN3Lyr13PluginFactoryINS_${#kind}${kind}EE8InstanceEvE8instance
        echo "_Z$mangled"
        echo "_ZGV$mangled"
    done | sort
}
# What the tool prints for the sample, as the build tree's own lyrcap prints it.
replay_of_build() { LYRCAP_PLUGIN=$root/build/package/amd64/plugin/liblyrpcap.so "$root/build/package/amd64/host/lyrcap" replay "$root/samples/$1" 2>/dev/null; }

for arch in amd64 armhf; do
    echo "--- $arch: contents and dependencies"
    multiarch=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)
    plugin=$(deb lyr-plugin-pcap "$arch")
    tool=$(deb lyrcap "$arch")
    check "$arch: the plug-in package holds the plug-in and its documents alone" \
        test "$(dpkg-deb -c "$plugin" | awk '!/^d/ {print $6}')" = "$(printf '%s\n' "./usr/lib/$multiarch/lyr/plugins/liblyrpcap.so" \
        ./usr/share/doc/lyr-plugin-pcap/changelog.gz ./usr/share/doc/lyr-plugin-pcap/copyright)"
    depends=$(dpkg-deb -f "$plugin" Depends)
    echo "lyr-plugin-pcap ($arch) depends on: $depends"
    check "$arch: the plug-in depends on libpcap at a version" grep -q 'libpcap0\.8 (>= [0-9.]*)' <<<"$depends"
    check "$arch: the plug-in depends on nothing of the framework" test -z "$(grep -i 'lyr\|kttools' <<<"$depends")"
    echo "lyrcap ($arch) depends on: $(dpkg-deb -f "$tool" Depends)"
    check "$arch: the tool depends on the plug-in of its version" grep -q "lyr-plugin-pcap (= $version)" <<<"$(dpkg-deb -f "$tool" Depends)"
    check "$arch: the tool's libraries are private" \
        test -z "$(dpkg-deb -c "$tool" | awk '{print $6}' | grep "^\./usr/lib/$multiarch/[^/]*\.so")"

    # Root owns everything; everyone reads everything and enters every folder; only the program runs.
    check "$arch: every entry is root's, with the mode its kind wants" test -z "$(for deb in "$plugin" "$tool"; do dpkg-deb -c "$deb"; done |
        awk '$2 != "root/root" || ($1 != "drwxr-xr-x" && $1 != "-rw-r--r--" && !($1 == "-rwxr-xr-x" && $6 == "./usr/bin/lyrcap"))')"
    tree=$scratch/$arch
    dpkg -x "$plugin" "$tree" && dpkg -x "$tool" "$tree"
    packaged=$tree/usr/lib/$multiarch/lyr/plugins/liblyrpcap.so
    built=$root/build/package/$arch/plugin/liblyrpcap.so
    check "$arch: the packaged plug-in exports the factory singletons as unique symbols" \
        test -z "$(comm -23 <(factory_singletons) <(unique_symbols "$packaged"))"
    check "$arch: as the built plug-in does" test "$(unique_symbols "$packaged")" = "$(unique_symbols "$built")"
    check "$arch: lyrcap's run path is its private folder, by its absolute path" \
        grep -q "(RUNPATH).*\[/usr/lib/$multiarch/lyrcap\]" <<<"$(readelf -d "$tree/usr/bin/lyrcap")"
done

echo "--- armhf: the unpacked packages under qemu-arm"
sysroot=$("$root/arm/setup.sh")
arm_lib=$scratch/armhf/usr/lib/arm-linux-gnueabihf
# The tool's run path names the private folder where the package puts it, not the scratch root's.
run_arm() { qemu-arm -L "${sysroot:-/usr/arm-linux-gnueabihf}" -E LD_LIBRARY_PATH="$arm_lib/lyrcap" "$scratch/armhf/usr/bin/lyrcap" "$@"; }
check "armhf: lyrcap --version" test "$(run_arm --version)" = "lyrcap ${version%%-*}"
LD_DEBUG=libs run_arm info >"$scratch/out" 2>"$scratch/err"
check "armhf: lyrcap info runs the shipped sample" test $? = 0 \
    -a -n "$(grep -x "file: *$scratch/armhf/usr/share/lyrcap/samples/ethernet.pcap" "$scratch/out")"
check "armhf: with the plug-in of the scratch root" test "$(loaded liblyrpcap.so "$scratch/err")" = "$arm_lib/lyr/plugins/liblyrpcap.so"
check "armhf: with its private framework and toolkit" \
    test "$(loaded liblyr.so "$scratch/err") $(loaded libkttools.so "$scratch/err")" = "$arm_lib/lyrcap/liblyr.so $arm_lib/lyrcap/libkttools.so"
for sample in ethernet.pcap raw-multicast.pcap; do
    check "armhf: lyrcap replay $sample prints what the amd64 build prints" \
        test -n "$(replay_of_build $sample)" -a "$(run_arm replay "$scratch/armhf/usr/share/lyrcap/samples/$sample" 2>/dev/null)" = "$(replay_of_build $sample)"
done

echo "--- amd64: installed with dpkg"
plugin=$(deb lyr-plugin-pcap amd64)
tool=$(deb lyrcap amd64)
# The dpkg status of our packages that are not simply absent.
known() { dpkg-query -W -f='${db:Status-Status}\n' lyrcap lyr-plugin-pcap 2>/dev/null | grep -v '^not-installed$'; }
paths() { dpkg-deb -c "$1" | awk '{print substr($6, 2)}' | sed 's|/$||'; }
present=$(for path in $(paths "$plugin") $(paths "$tool"); do [ ! -e "$path" ] || echo "$path"; done)
occupied=$(for path in $present; do [ -d "$path" ] || echo "$path"; done)
if [ -n "$(known)" ]; then
    skip "amd64 install: lyrcap or lyr-plugin-pcap is installed on this machine, and the check would remove it"
elif [ -n "$occupied" ]; then
    skip "amd64 install: files of the packages are on this machine already, and dpkg -r would remove them: $occupied"
else
    installed_here=yes
    check "amd64: dpkg -i installs both packages" $sudo dpkg -i "$plugin" "$tool"
    check "amd64: lyrcap is found on PATH" test "$(command -v lyrcap)" = /usr/bin/lyrcap
    check "amd64: lyrcap --version" test "$(lyrcap --version)" = "lyrcap ${version%%-*}"
    LD_DEBUG=libs lyrcap info >"$scratch/out" 2>"$scratch/err"
    check "amd64: lyrcap info runs the shipped sample" test $? = 0 \
        -a -n "$(grep -x 'file: */usr/share/lyrcap/samples/ethernet.pcap' "$scratch/out")"
    check "amd64: with the installed plug-in" test "$(loaded liblyrpcap.so "$scratch/err")" = /usr/lib/x86_64-linux-gnu/lyr/plugins/liblyrpcap.so
    check "amd64: with its private framework and toolkit" \
        test "$(loaded liblyr.so "$scratch/err") $(loaded libkttools.so "$scratch/err")" = \
        "/usr/lib/x86_64-linux-gnu/lyrcap/liblyr.so /usr/lib/x86_64-linux-gnu/lyrcap/libkttools.so"
    check "amd64: info counts what tcpdump counts" \
        grep -qx "packets: *$(tcpdump -r /usr/share/lyrcap/samples/ethernet.pcap 2>/dev/null | wc -l)" "$scratch/out"
    check "amd64: lyrcap replay prints the sample as the build tree does" \
        test -n "$(replay_of_build ethernet.pcap)" -a "$(lyrcap replay 2>/dev/null)" = "$(replay_of_build ethernet.pcap)"
    check "amd64: an ordinary user runs lyrcap replay with the installed plug-in" test -n "$(replay_of_build ethernet.pcap)" \
        -a "$(setpriv --reuid=nobody --regid="$(id -g nobody)" --clear-groups lyrcap replay 2>/dev/null)" = "$(replay_of_build ethernet.pcap)"
    # File capabilities, as an administrator gives them so that users capture without root.
    setcap cap_net_raw+ep /usr/bin/lyrcap
    check "amd64: with file capabilities, an ordinary user runs lyrcap replay" \
        test "$(setpriv --reuid=nobody --regid="$(id -g nobody)" --clear-groups lyrcap replay 2>/dev/null)" = "$(replay_of_build ethernet.pcap)"
    if unshare -n true 2>/dev/null; then
        unshare -n bash -c "ip link add lyrpkg0 type veth peer name lyrpkg1 && ip link set lyrpkg0 up &&
            setpriv --reuid=nobody --regid=$(id -g nobody) --clear-groups lyrcap capture lyrpkg0 --seconds 1 --priority 0" 2>"$scratch/err"
        check "amd64: and captures on a device" test $? = 0 -a -n "$(grep ' frames, [0-9]* bytes captured in 1' "$scratch/err")"
    else
        skip "amd64: a capture with file capabilities (no network namespace here)"
    fi
    setcap -r /usr/bin/lyrcap
    check "amd64: lyrcap replay of the RAW sample" \
        test "$(lyrcap replay /usr/share/lyrcap/samples/raw-multicast.pcap 2>/dev/null)" = "$(replay_of_build raw-multicast.pcap)"
    if grep -rqs 'path-exclude.*/usr/share/man' /etc/dpkg/dpkg.cfg.d/; then
        skip "amd64: the manual page (dpkg is told to leave out manual pages on this machine)"
    else
        check "amd64: man finds the manual page" \
            bash -c "MANWIDTH=200 man -P cat lyrcap 2>/dev/null | tr -s ' ' | grep -q 'lyrcap - drive the pcap back-ends'"
    fi
    check "amd64: bash finds the completion" bash -c \
        "source /usr/share/bash-completion/bash_completion && __load_completion lyrcap && complete -p lyrcap | grep -q '_lyrcap lyrcap'"

    check "amd64: dpkg -r removes both packages" $sudo dpkg -r lyrcap lyr-plugin-pcap
    check "amd64: dpkg keeps nothing of either" test -z "$(known)"
    left=$(for path in $(paths "$plugin") $(paths "$tool"); do
               [ ! -e "$path" ] || grep -qxF "$path" <<<"$present" || echo "$path"
           done)
    check "amd64: nothing of the packages is left behind" test -z "$left"
    [ -z "$left" ] || echo "left behind: $left"
fi

echo "=== packages: $failures failed, $skipped skipped"
exit $((failures != 0))
