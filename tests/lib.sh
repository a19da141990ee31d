# What the test scripts share, sourced once their arguments are read: a scratch folder $dir that
# goes with the script, and check, which reports each condition; `finish` ends the script, failed
# if any check failed. With LYR_FIRST_FAILURE_ENDS set (the mutation check sets it), the first
# failed check ends the script and its background jobs at once: the verdict is known.
failures=0
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
check() { # description, then the command's condition
    local what=$1; shift
    if "$@"; then echo "ok: $what"; return; fi
    echo "FAILED: $what"
    failures=$((failures + 1))
    if [ -n "${LYR_FIRST_FAILURE_ENDS:-}" ]; then
        kill $(jobs -p) 2>/dev/null
        exit 1
    fi
}
finish() { exit $((failures != 0)); }
