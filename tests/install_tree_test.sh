#!/usr/bin/env bash
# Installs the build into a staging folder, as a packager does, and checks the tree: exactly the
# files of the two packages, absolute run paths, and a lyrcap that runs from there with the
# plug-in, libraries and sample of that tree. Then, as root, installs it for real at its prefix
# inside a mount namespace of its own (a fresh file system there, gone with the test) and runs it
# as the user nobody through file capabilities, as an administrator would set it up.
#   install_tree_test.sh BUILD PREFIX BINDIR LIBDIR DATADIR MANDIR [EMULATOR ...]
set -u
build=$1 prefix=$2 bindir=$3 libdir=$4 datadir=$5 mandir=$6
shift 6
emulator=("$@")
if [ "$(id -u)" = 0 ] && [ "${LYR_IN_SANDBOX:-}" != 1 ] && unshare -m -n true 2>/dev/null; then
    LYR_IN_SANDBOX=1 exec unshare -m -n "$0" "$build" "$prefix" "$bindir" "$libdir" "$datadir" "$mandir" "$@"
fi
source "${BASH_SOURCE%/*}/lib.sh"

DESTDIR=$dir cmake --install "$build" >"$dir/install.log" 2>&1 || { cat "$dir/install.log"; exit 1; }
stage=$dir$prefix

# Every file with its mode: everyone reads everything, and only the program is run.
expected="755 $bindir/lyrcap
644 $libdir/lyr/plugins/liblyrpcap.so
644 $libdir/lyrcap/libkttools.so
644 $libdir/lyrcap/liblyr.so
644 $datadir/bash-completion/completions/lyrcap
644 $datadir/doc/lyr-plugin-pcap/changelog.gz
644 $datadir/doc/lyr-plugin-pcap/copyright
644 $datadir/doc/lyrcap/changelog.gz
644 $datadir/doc/lyrcap/copyright
644 $datadir/lyrcap/samples/ethernet.pcap
644 $datadir/lyrcap/samples/raw-multicast.pcap"
# The manual page needs help2man at build time; the build says so where it is missing.
[ ! -e "$build/host/lyrcap.1.gz" ] || expected+=$'\n'"644 $mandir/man1/lyrcap.1.gz"
check "the tree holds the packages' files, with their modes, and nothing else" \
    test "$(cd "$stage" && find . -type f -printf '%m %P\n' -o -type l -printf 'link %P\n' | sort -k2)" = "$(sort -k2 <<<"$expected")"
check "every folder of the tree is open to all" test -z "$(cd "$stage" && find . -type d ! -perm 755)"

# Run paths: absolute folders only, in the build tree and installed. The loader reads an empty
# entry as the current folder, and ignores $ORIGIN under file capabilities.
run_paths() { readelf -d "$1" 2>/dev/null | sed -n 's/.*(R\(UN\)\{0,1\}PATH).*\[\(.*\)\]/\2/p'; }
# (Debian's own files in a cross build's folders are not ours to judge.)
loose=$(find "$build" "$stage" \( -name CMakeFiles -o -name googletest -o -path "$build/sysroot" -o -path "$build/board" \
    -o -path "$build/debs" -o -path "$build/runtime-debs" \) -prune -o -type f \( -perm -u+x -o -name '*.so*' \) -print |
    while read -r file; do
        paths=$(run_paths "$file")
        [ -z "$paths" ] || ! tr ':' '\n' <<<"$paths" | grep -qv '^/' || echo "$file: $paths"
    done)
check "no run path in the build tree or the installed one has an empty or relative entry" test -z "$loose"
[ -z "$loose" ] || echo "$loose"
check "lyrcap and liblyr.so find the private folder by its absolute path" \
    test "$(run_paths "$stage/$bindir/lyrcap") $(run_paths "$stage/$libdir/lyrcap/liblyr.so")" = "$prefix/$libdir/lyrcap $prefix/$libdir/lyrcap"
check "the plug-in and libkttools.so have none" \
    test -z "$(run_paths "$stage/$libdir/lyr/plugins/liblyrpcap.so")$(run_paths "$stage/$libdir/lyrcap/libkttools.so")"
cmake --install "$build" --prefix "$dir/elsewhere" >"$dir/out" 2>&1
check "an install to another prefix than the one configured is refused, before anything is installed" \
    test $? != 0 -a ! -e "$dir/elsewhere" -a -n "$(tr -s ' \n' '  ' <"$dir/out" | grep -F "configure the build with -DCMAKE_INSTALL_PREFIX=$dir/elsewhere")"

# The staged tree, its libraries named by hand (they are not at the prefix yet): the loader tells
# which file it initialised, and every one of ours must come from the tree.
staged() { LD_LIBRARY_PATH=$stage/$libdir/lyrcap "$@" "${emulator[@]}" "$stage/$bindir/lyrcap" info; }
LD_DEBUG=libs staged >"$dir/out" 2>"$dir/err"
check "the staged lyrcap runs info without --plugin" test $? = 0
loaded() { # the real path of the initialised file of that name
    sed -n "s|.*calling init: \(.*/$1\)\$|\1|p" "$dir/err" | head -1 | xargs -r realpath
}
for file in lyr/plugins/liblyrpcap.so lyrcap/liblyr.so lyrcap/libkttools.so; do # the plug-in, then the private folder
    check "it loads $file from the tree" test "$(loaded "${file##*/}")" = "$(realpath "$stage/$libdir/$file")"
done
check "it reads the sample of the tree" grep -qx "file: *$(realpath "$stage/$datadir/lyrcap/samples/ethernet.pcap")" "$dir/out"

# An ordinary user runs the staged tool with the staged plug-in (cross-built, with the emulator's
# libraries from the build tree, which that user must reach).
chmod 755 "$dir"
nobody=(setpriv --reuid=nobody --regid="$(id -g nobody 2>/dev/null)" --clear-groups)
if [ "$(id -u)" = 0 ] && "${nobody[@]}" test -r "$build/CMakeCache.txt" 2>/dev/null; then
    staged "${nobody[@]}" >"$dir/out" 2>&1
    check "an ordinary user runs lyrcap info from the tree" test $? = 0
else
    echo "skipped: running as an ordinary user needs root, the user nobody, and a build tree that user can read"
fi

# Installed at the prefix, with file capabilities, run by nobody.
why=""
if [ "${LYR_IN_SANDBOX:-}" != 1 ]; then why="it needs root and mount and network namespaces"
elif [ ${#emulator[@]} != 0 ]; then why="file capabilities do not reach a program run by an emulator"
elif ! command -v setcap >/dev/null; then why="setcap is missing (Debian's libcap2-bin)"
elif [ "$prefix" = / ] || [ "$prefix" = /usr ]; then why="the prefix $prefix holds the system itself"
elif ! mount -t tmpfs -o mode=755 tmpfs "$prefix" 2>"$dir/mount.err"; then why="no file system at $prefix: $(cat "$dir/mount.err")"
fi
if [ -n "$why" ]; then
    echo "skipped: lyrcap installed with file capabilities ($why)"
    finish
fi
cmake --install "$build" >"$dir/install.log" 2>&1 || { cat "$dir/install.log"; exit 1; }
tool=$prefix/$bindir/lyrcap
setcap cap_net_raw+ep "$tool"
ip link add lyrveth0 type veth peer name lyrveth1 && ip link set lyrveth0 up && ip link set lyrveth1 up
as_nobody() { "${nobody[@]}" "$tool" "$@" >"$dir/out" 2>"$dir/err"; echo $?; }
check "with file capabilities, nobody runs lyrcap info on the installed sample" \
    test "$(as_nobody info; grep -c "^file: *$prefix/$datadir/lyrcap/samples/ethernet.pcap$" "$dir/out")" = $'0\n1'
"${nobody[@]}" env LYRCAP_PLUGIN=/nonexistent.so "$tool" info >"$dir/out" 2>"$dir/err"
check "it does not read LYRCAP_PLUGIN, and says so" \
    test "$?/$(cat "$dir/err")" = "0/lyrcap: LYRCAP_PLUGIN is not read: lyrcap runs with more privilege than its user"
# Copies of the plug-in: in a folder that only root can write; one that anyone can, and a root
# folder inside it; one that a group can write, and a group-writable file; a file that belongs
# to nobody; and a folder beside the installed one whose name begins with its name.
plugins=$prefix/$libdir/lyr/plugins
mkdir -m 755 "$prefix/trusted" "$prefix/open" "$prefix/group" "$plugins-x"
chmod 1777 "$prefix/open" "$plugins-x" && chmod 775 "$prefix/group"
mkdir -m 755 "$prefix/open/deep"
cp "$plugins/liblyrpcap.so" "$prefix/trusted/plugin.so"
for copy in open/plugin.so open/deep/plugin.so group/plugin.so trusted/nobodys.so trusted/group.so; do cp "$prefix/trusted/plugin.so" "$prefix/$copy"; done
cp "$prefix/trusted/plugin.so" "$plugins-x/plugin.so"
chown nobody "$prefix/trusted/nobodys.so" && chmod 664 "$prefix/trusted/group.so"
check "it loads a plug-in that only root can write, in folders only root can write" test "$(as_nobody --plugin "$prefix/trusted/plugin.so" info)" = 0
for refused in "open/plugin.so:$prefix/open may be written by others than root" \
    "open/deep/plugin.so:$prefix/open may be written by others than root" \
    "group/plugin.so:$prefix/group may be written by others than root" \
    "trusted/group.so:$prefix/trusted/group.so may be written by others than root" \
    "${plugins#"$prefix/"}-x/plugin.so:$plugins-x may be written by others than root" \
    "trusted/nobodys.so:$prefix/trusted/nobodys.so belongs to a user other than root"; do
    check "it refuses $prefix/${refused%%:*}, naming the file and why" test "$(as_nobody --plugin "$prefix/${refused%%:*}" info)" = 1 -a \
        -n "$(grep "^lyrcap: refusing to load the plug-in $prefix/${refused%%:*}: ${refused#*:} (lyrcap runs with more privilege" "$dir/err")"
done
check "--user needs root" test "$(as_nobody capture lyrveth0 --user nobody; cat "$dir/err")" = $'1\nlyrcap capture: --user nobody needs root: only root runs as another user'
# A capture: it opens the device as nobody, and the file is nobody's.
mkdir "$dir/nobodys" && chown nobody "$dir/nobodys"
"${nobody[@]}" "$tool" capture lyrveth0 --seconds 30 --priority 0 -w "$dir/nobodys/mine.pcap" 2>"$dir/err" & pid=$!
for _ in $(seq 300); do grep -q "^[0-9]* frames" "$dir/err" && break; sleep 0.1; done
check "nobody captures with file capabilities, keeping only CAP_NET_RAW" \
    test "$(grep -h '^Cap\(Prm\|Eff\)' /proc/"$pid"/task/*/status | sort -u | tr -s '\t\n' '  ')" = "CapEff: 0000000000002000 CapPrm: 0000000000002000 "
check "with the installed plug-in" grep -q " $prefix/$libdir/lyr/plugins/liblyrpcap.so$" "/proc/$pid/maps"
kill -INT "$pid"; wait "$pid"
check "and ends well" test $? = 130 -a "$(stat -c %U "$dir/nobodys/mine.pcap")" = nobody
# A setuid copy goes back to the user who starts it: what it writes is that user's.
cp "$tool" "$tool-setuid" && chmod 4755 "$tool-setuid"
"${nobody[@]}" "$tool-setuid" convert "$prefix/$datadir/lyrcap/samples/ethernet.pcap" "$dir/nobodys/setuid.pcap" 2>"$dir/err"
check "a setuid copy run by nobody writes nobody's file" test "$?:$(stat -c %U "$dir/nobodys/setuid.pcap" 2>&1)" = 0:nobody

finish
