#!/usr/bin/env bash
# Reads the board's console for the markers of arm/board/run-tests.sh and reports each test:
# passed (status 0, nothing skipped), SKIPPED or FAILED, with the output of those that did not
# pass. On the board a test has what it needs, so a skip (status 77, a GoogleTest "[  SKIPPED ]",
# a script's "skipped:" line) counts as a failure, and so does a test that never reported.
#   arm/board-results.sh CONSOLE_LOG EXPECTED_TESTS
set -euo pipefail
awk -v expected="$2" '
    /^@@test: start / { name = $3; output = ""; skipped = 0; next }
    /^@@test: end / {
        if ($4 == 77 || ($4 == 0 && skipped)) verdict = "SKIPPED"
        else if ($4 == 0) verdict = "passed"
        else verdict = "FAILED (status " $4 ")"
        printf "%s: %s\n", verdict, name
        if (verdict == "passed") passed++
        else { failed++; printf "%s", output }
        name = ""
        next
    }
    name != "" {
        output = output $0 "\n"
        if ($0 ~ /\[  SKIPPED \]|^skipped:/) skipped = 1
    }
    END {
        missing = expected - passed - failed
        if (name != "") printf "%s did not finish; its output:\n%s\n", name, output
        if (missing > 0) printf "%d of %d live tests did not report\n", missing, expected
        printf "board: %d passed, %d failed\n", passed, failed + missing
        exit failed + missing > 0
    }' "$1"
