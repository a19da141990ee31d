#!/usr/bin/env bash
# Completes lyrcap command lines with its bash completion and checks the offers against the
# tool's own help texts: every command, every option of each, and the right kind of argument
# after each, so that the completion cannot drift from the tool.
#   completion_test.sh LYRCAP COMPLETION-SCRIPT
set -u
lyrcap=$(realpath -s "$1") # the test works in a folder of its own
completion=$2
bash_completion=/usr/share/bash-completion/bash_completion
[ -r "$bash_completion" ] || { echo "bash-completion (Debian's bash-completion) is not installed: skipped"; exit 77; }
# shellcheck source=/dev/null
source "$bash_completion"
# shellcheck source=/dev/null
source "$completion"
source "${BASH_SOURCE%/*}/lib.sh"
cd "$dir" || exit 1
touch trace.pcap plugin.so

# The offers for a command line whose last word is being completed, one a line, sorted.
offers() {
    COMP_WORDS=(lyrcap "$@")
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
    COMP_LINE="${COMP_WORDS[*]}"
    COMP_POINT=${#COMP_LINE}
    COMPREPLY=()
    _lyrcap lyrcap "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    [ ${#COMPREPLY[@]} -eq 0 ] || printf '%s\n' "${COMPREPLY[@]}" | sort
}
# What the help texts list: the commands, and the options of one command (none: the tool's
# own) as "option" or "option VALUE"; every command takes --help.
commands() { "$lyrcap" --help | awk '/^Commands:/ {on = 1; next} /^$/ {on = 0} on {print $1}' | sort; }
options() {
    # "  -c, --count N  text": both forms, with the value's name.
    { [ -z "$1" ] || echo "--help"; "$lyrcap" $1 --help | awk '/^Options:/ {on = 1; next} on && /^  -/ {
            n = 0; value = ""
            for (i = 1; i <= NF; i++) { w = $i; sub(/,$/, "", w); if (w ~ /^-/) names[++n] = w; else { if (w ~ /^[A-Z]+$/) value = w; break } }
            for (j = 1; j <= n; j++) print names[j], value }'; } |
        sed 's/ $//' | sort -u
}

check "the help lists commands" test -n "$(commands)"
check "every command is offered" test "$(offers "")" = "$(commands)"
check "a command is completed from its start" test "$(offers rep)" = replay
for command in "" $(commands); do
    name=${command:-lyrcap}
    words=($command)
    check "$name: every option of the help is offered" test "$(offers "${words[@]}" -)" = "$(options "$command" | cut -d' ' -f1)"
    while read -r option value; do
        case $value in
            FILE | IN | OUT) expected=$'plugin.so\ntrace.pcap' ;;
            DEVICE) expected=$(ls /sys/class/net | sort) ;;
            PATH) expected=plugin.so ;;
            USER) expected=$(compgen -u | sort -u) ;;
            *) expected="" ;; # a number, an address: nothing to offer
        esac
        [ -n "$value" ] || continue
        check "$name: after $option $value comes ${expected:-nothing}" test "$(offers "${words[@]}" "$option" "")" = "$expected"
    done < <(options "$command")
done

check "the tool's option value is passed over" test "$(offers --plugin plugin.so "")" = "$(commands)"
check "info takes a file" test "$(offers info "")" = $'plugin.so\ntrace.pcap'
check "an option's value is no argument" test "$(offers replay --count 5 "")" = $'plugin.so\ntrace.pcap'
for flag in --topspeed --spin; do
    check "a flag takes no value: $flag" bash -c "grep -qx lo <<<'$(offers send trace.pcap $flag "")'"
done
check "capture takes a device, also after -w FILE" bash -c "grep -qx lo <<<'$(offers capture "")' && grep -qx lo <<<'$(offers capture -w trace.pcap "")'"
check "send takes a file, then a device" \
    bash -c "grep -qx trace.pcap <<<'$(offers send "")' && grep -qx lo <<<'$(offers send trace.pcap "")'"
check "list-devices takes nothing" test -z "$(offers list-devices "")"
check "convert takes two files, then nothing (a filter expression)" \
    test "$(offers convert trace.pcap "")|$(offers convert trace.pcap out.pcap "")" = $'plugin.so\ntrace.pcap|'
check "-r, -w and -i stand for the arguments they give" test "$(offers send -r trace.pcap "" | grep -cx lo) \
$(offers convert -w out.pcap "" | grep -cx trace.pcap) $(offers convert -w out.pcap trace.pcap "" | wc -l) $(offers capture -i lo "" | wc -l)" = "1 1 0 0"

finish
