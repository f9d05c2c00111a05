#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The bash completions of qorc (sub-commands, options, and files where a
# sub-command takes a path) and of qord-sim (every option of its help, and
# the values of its options).
# Usage: completion_test.sh DOC_DIR QORD_SIM
set -uo pipefail
source /usr/share/bash-completion/bash_completion
source "$1/qorc.bash-completion"
source "$1/qord-sim.bash-completion"
sim=$(readlink -f "$2")
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
    local function=_qorc
    [ "$1" = qord-sim ] && function=_qord_sim
    "$function" "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
    [ ${#COMPREPLY[@]} -eq 0 ] && return
    printf '%s\n' "${COMPREPLY[@]}" | sort | tr '\n' ' '
}
expect() { # expected -- words...
    local want=$1; shift 2
    local got
    got=$(complete_words "$@")
    if [ "$got" != "$want" ]; then
        echo "$*: got '$got', want '$want'"
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
expect "--no-version --nodelay " -- qord-sim --listen 127.0.0.1:0 --no
expect "settings.json " -- qord-sim --state ""
expect "image.zpk notes.txt settings.json " -- qord-sim --image-out ""
expect "psi.get psi.set " -- qord-sim --refuse psi.
expect "identities.get= imei.reset= " -- qord-sim --fail i
expect "" -- qord-sim --fail psi.set=
expect "" -- qord-sim --workers ""

# Every option that qord-sim's help names is completed.
help_options=$("$sim" --help | grep -oE "(^|[ ,])--?[a-z][a-z-]*" | tr -d ' ,' | sort -u | tr '\n' ' ')
completed=$(complete_words qord-sim -)
if [ -z "$help_options" ] || [ "$help_options" != "$completed" ]; then
    echo "qord-sim options: help names '$help_options', completion offers '$completed'"
    failures=$((failures + 1))
fi
[ "$failures" -eq 0 ] && echo "completion: all cases pass"
exit "$failures"
