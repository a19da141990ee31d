# What the test scripts share, sourced once their arguments are read: a scratch folder $dir that
# goes with the script, and check, which reports each condition; `finish` ends the script, failed
# if any check failed.
failures=0
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
check() { # description, then the command's condition
    local what=$1; shift
    if "$@"; then echo "ok: $what"; else echo "FAILED: $what"; failures=$((failures + 1)); fi
}
finish() { exit $((failures != 0)); }
