# Sourced on the board by the list of tests that arm/test.sh makes: one board_test line a
# test, as CTest would run it, each framed by markers that the host turns into the summary.
#   board_test NAME WORKING_DIRECTORY [VAR=VALUE...] COMMAND [ARGS...]
export GTEST_COLOR=no # the console is a terminal, its log is read as text
board_test() {
    local name=$1 dir=$2 status
    shift 2
    echo "@@test: start $name"
    # A hang ends the test, not the board's whole run.
    (cd "$dir" && timeout 600 env "$@")
    status=$?
    echo "@@test: end $name $status"
}
