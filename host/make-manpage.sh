#!/usr/bin/env bash
# Writes lyrcap's manual page, gzipped, from the tool's own --help and --version texts and
# every command's --help, with the sections of INCLUDE that no help text holds.
#   make-manpage.sh OUT.1.gz INCLUDE.h2m [EMULATOR ...] LYRCAP
set -euo pipefail
out=$1
include=$2
shift 2
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT

# help2man runs one program by name: this one runs the tool, through the emulator if there is one.
{
    echo '#!/bin/sh'
    printf 'exec'
    printf ' %q' "$@"
    printf ' "$@"\n'
} >"$dir/lyrcap"
chmod +x "$dir/lyrcap"

# Each command's help is kept as the tool prints it, a subsection of its own; a backslash or a
# leading dot or quote would be read as roff.
as_roff() { sed -e 's/\\/\\e/g' -e "s/^[.']/\\\\\&&/"; }
commands=$("$dir/lyrcap" --help | awk '/^Commands:/ {on = 1; next} /^$/ {on = 0} on {print $1}')
[ -n "$commands" ] || { echo "make-manpage.sh: lyrcap --help lists no commands" >&2; exit 1; }
{
    echo '[COMMANDS]'
    for command in $commands; do
        printf '.SS %s\n.nf\n' "$command"
        "$dir/lyrcap" "$command" --help | as_roff
        printf '.fi\n'
    done
} >"$dir/commands.h2m"

help2man --no-info --section 1 --source "lyrpcap" \
    --name "drive the pcap back-ends of the Lyr plug-in from the command line" \
    --include "$dir/commands.h2m" --include "$include" --output "$dir/lyrcap.1" "$dir/lyrcap"
gzip -9n <"$dir/lyrcap.1" >"$out"
