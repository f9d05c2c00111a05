#!/usr/bin/env bash
# The bash completion of qorc: sub-commands, options, and files where a
# sub-command takes a path.
# Usage: completion_test.sh COMPLETION_FILE
set -uo pipefail
source /usr/share/bash-completion/bash_completion
source "$1"
scratch=$(mktemp -d /tmp/qorc-completion-XXXXXX)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch" && touch image.zpk notes.txt settings.json
failures=0

# complete WORDS... -> the sorted candidates for the last word
complete_words() {
    COMP_WORDS=("$@")
    COMP_CWORD=$(($# - 1))
    COMP_LINE="$*"
    COMP_POINT=${#COMP_LINE}
    COMPREPLY=()
    _qorc qorc "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    [ ${#COMPREPLY[@]} -eq 0 ] && return
    printf '%s\n' "${COMPREPLY[@]}" | sort | tr '\n' ' '
}
expect() { # expected -- words...
    local want=$1; shift 2
    local got
    got=$(complete_words "$@")
    if [ "$got" != "$want" ]; then
        echo "qorc $*: got '$got', want '$want'"
        failures=$((failures + 1))
    fi
}

expect "fallback_ffh fw_config_mode fw_version " -- qorc f
expect "fw_version " -- qorc -u 127.0.0.1 fw_v
expect "" -- qorc fw_version ""
expect "psi_get psi_set " -- qorc --url 127.0.0.1:7000 psi
expect "--url " -- qorc --u
expect "--bind --url --version -h -u " -- qorc -
expect "--reboot-url " -- qorc sysupgrade --r
expect "image.zpk " -- qorc -u 127.0.0.1 sysupgrade -c ""
expect "settings.json " -- qorc psi_set ""
expect "image.zpk notes.txt settings.json " -- qorc reset_imei ""
expect "" -- qorc --url ""
expect "lo " -- qorc --bind l
[ "$failures" -eq 0 ] && echo "completion: all cases pass"
exit "$failures"
