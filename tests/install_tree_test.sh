#!/usr/bin/env bash
# Installs the build into a staging folder, as a packager does, and checks the tree: exactly the
# files of the two packages, run paths relative to the program, and a lyrcap that runs from
# there with the plug-in, libraries and sample of that tree.
#   install_tree_test.sh BUILD PREFIX BINDIR LIBDIR DATADIR MANDIR [EMULATOR ...]
set -u
build=$1 prefix=$2 bindir=$3 libdir=$4 datadir=$5 mandir=$6
shift 6
emulator=("$@")
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

# A run path into the build tree would not exist on the user's machine.
run_paths() { readelf -d "$1" | sed -n 's/.*(R\(UN\)\{0,1\}PATH).*\[\(.*\)\]/\2/p'; }
check "lyrcap's run path is its private folder, from its own" \
    test "$(run_paths "$stage/$bindir/lyrcap")" = "\$ORIGIN/$(realpath -m --relative-to="/$bindir" "/$libdir/lyrcap")"
check "the plug-in has no run path: the host has loaded what it needs" test -z "$(run_paths "$stage/$libdir/lyr/plugins/liblyrpcap.so")"
for library in liblyr.so libkttools.so; do
    check "$library finds its neighbours only" bash -c "[[ '$(run_paths "$stage/$libdir/lyrcap/$library")' =~ ^(\\\$ORIGIN)?\$ ]]"
done

# The loader tells which file it initialised; every one of ours must come from the tree.
LD_DEBUG=libs "${emulator[@]}" "$stage/$bindir/lyrcap" info >"$dir/out" 2>"$dir/err"
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
    "${nobody[@]}" "${emulator[@]}" "$stage/$bindir/lyrcap" info >"$dir/out" 2>&1
    check "an ordinary user runs lyrcap info from the tree" test $? = 0
else
    echo "skipped: running as an ordinary user needs root, the user nobody, and a build tree that user can read"
fi

finish
