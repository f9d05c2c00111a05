#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Usage: fleet_test.sh QORC QORD_SIM
# Runs the example playbooks against qord-sim boards on 127.0.0.x: the first
# run upgrades and settles three boards and reports them as they are after
# it; the second changes nothing (the image's version is there already);
# check mode changes nothing on the boards; the info module reads them.
# A killed board fails only its own host. Then the passcode stays out of
# every process list while qorc runs, and a time limit ends qorc with
# SIGTERM (no upgrade marker left behind).
set -euo pipefail
qorc=$1 sim=$2
collection=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d /tmp/qorc-fleet-XXXXXX)
pids=()
cleanup() {
  for p in "${pids[@]}"; do { kill -9 "$p" && wait "$p"; } 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*"
  exit 1
}

wait_for() { # file text
  for _ in $(seq 400); do
    grep -q "$2" "$1" 2>/dev/null && return 0
    sleep 0.025
  done
  fail "no '$2' in $1: $(cat "$1")"
}

mkdir -p "$work/collections/ansible_collections/qorc" "$work/tmp" "$work/home"
ln -s "$collection" "$work/collections/ansible_collections/qorc/boards"

# Boards 1-3 are the fleet; board 4 never answers an activation, board 5
# never asks for the image's first chunk.
declare -A url
start_board() { # n extra-options...
  local n=$1
  shift
  "$sim" --listen "127.0.0.2$n:0" --state "$work/state$n.json" --reboot-delay-ms 500 \
    --reboot-grace-ms 50 "$@" >"$work/sim$n.log" 2>&1 &
  pids+=($!)
  wait_for "$work/sim$n.log" "listening on"
  url[$n]=$(sed -n 's/^qord-sim listening on //p' "$work/sim$n.log")
}
for i in 1 2 3; do start_board "$i"; done
start_board 4 --stall device.activate
start_board 5 --stall sysupgrade

cat >"$work/inventory.yml" <<INVENTORY
all:
  vars:
    qorc_host: localhost
    qorc_program: $qorc
  children:
    boards:
      hosts:
        board1: {qorc_url: "${url[1]}"}
        board2: {qorc_url: "${url[2]}"}
        board3: {qorc_url: "${url[3]}"}
    faulty:
      hosts:
        board4: {qorc_url: "${url[4]}"}
        board5: {qorc_url: "${url[5]}"}
INVENTORY

{
  printf 'QORFW 2.0.0\n'
  head -c 20000 /dev/urandom
} >"$work/image.zpk"
cat >"$work/image.yml" <<VARS
fleet_image: $work/image.zpk
fleet_image_version: 2.0.0
VARS

export ANSIBLE_COLLECTIONS_PATH="$work/collections" ANSIBLE_LOCAL_TEMP="$work/tmp" \
  ANSIBLE_HOME="$work/home" ANSIBLE_NOCOLOR=1 ANSIBLE_RETRY_FILES_ENABLED=0 \
  ANSIBLE_LOCALHOST_WARNING=0 ANSIBLE_PIPELINING=1 LC_ALL=C.UTF-8
playbook() { # log-name playbook extra-args...
  local log="$work/$1.log" book=$2
  shift 2
  set +e
  ansible-playbook -i "$work/inventory.yml" "$book" "$@" >"$log" 2>&1
  local status=$?
  set -e
  echo "$status"
}
recap() { # log host -> "changed=N failed=N"
  sed -n "s/^$2 *: ok=[0-9]* *\(changed=[0-9]*\) *unreachable=[0-9]* *\(failed=[0-9]*\).*/\1 \2/p" \
    "$work/$1.log"
}
expect_recap() { # log host wanted
  local got
  got=$(recap "$1" "$2")
  [ "$got" = "$3" ] || {
    cat "$work/$1.log"
    fail "$1: $2 has '$got', wanted '$3'"
  }
}
expect_in_log() { # log text what
  grep -qF -- "$2" "$work/$1.log" || {
    cat "$work/$1.log"
    fail "$1: $3"
  }
}
psi_of() { "$qorc" --url "${url[$1]}" psi_get | tail -n 1; }
fleet="$collection/examples/fleet.yml"

# The module waits for the reboot after fallback_ffh: the second run follows
# at once, with no wait for the boards here.
[ "$(playbook first "$fleet" -e "@$work/image.yml")" = 0 ] || {
  cat "$work/first.log"
  fail "the first run failed"
}
for i in 1 2 3; do
  expect_recap first "board$i" "changed=3 failed=0"
  expect_in_log first "\"msg\": \"board$i: FFH, version 2.0.0, apn fleet\"" \
    "board$i's facts do not show the upgrade and the switch to FFH"
  case "$(psi_of "$i")" in
    *'"apn":"fleet"'*'"nr":[78]'*) ;;
    *) fail "board $i has PSI $(psi_of "$i")" ;;
  esac
done

[ "$(playbook second "$fleet" -e "@$work/image.yml")" = 0 ] || {
  cat "$work/second.log"
  fail "the second run failed"
}
for i in 1 2 3; do expect_recap second "board$i" "changed=0 failed=0"; done

before=$(psi_of 1)
[ "$(playbook check "$fleet" --check --diff -e '{"fleet_psi": {"apn": "other"}}')" = 0 ] || {
  cat "$work/check.log"
  fail "the check run failed"
}
for i in 1 2 3; do expect_recap check "board$i" "changed=1 failed=0"; done
grep -q '^+ *"apn": "other"' "$work/check.log" || {
  cat "$work/check.log"
  fail "no diff shown"
}
[ "$(psi_of 1)" = "$before" ] || fail "check mode changed the board: $(psi_of 1)"

# The info module; board 2 is dead by then and fails alone.
kill -9 "${pids[1]}"
wait "${pids[1]}" 2>/dev/null || true
[ "$(playbook read "$collection/examples/read.yml")" != 0 ] || fail "a run with a dead board succeeded"
expect_recap read board1 "changed=0 failed=0"
expect_recap read board2 "changed=0 failed=1"
expect_recap read board3 "changed=0 failed=0"
expect_in_log read '"msg": "board3: FFH, version 2.0.0, apn fleet"' "the info module misread board 3"
expect_in_log read "qorc failed" "no reason given for board 2"

# Faults. The passcode comes from a vars file, as from a vault: nothing of
# it on any command line, ansible-playbook's included.
secret=TALVEX-5678
cat >"$work/secret.yml" <<VARS
talvex_passcode: $secret
VARS
cat >"$work/faults.yml" <<'BOOK'
- name: Passcodes and time limits
  hosts: board1:faulty
  gather_facts: false
  strategy: free
  tasks:
    - name: TALVEX mode
      qorc.boards.qorc_board:
        qorc: "{{ qorc_program }}"
        url: "{{ qorc_url }}"
        activate_passcode: "{{ talvex_passcode }}"
        call_timeout: 3
      delegate_to: "{{ qorc_host }}"
      when: inventory_hostname != 'board5'
    - name: An upgrade the board never takes
      qorc.boards.qorc_board:
        qorc: "{{ qorc_program }}"
        url: "{{ qorc_url }}"
        image: "{{ image }}"
        call_timeout: 1
        reboot_timeout: 1
      delegate_to: "{{ qorc_host }}"
      when: inventory_hostname == 'board5'
BOOK

watch_cmdlines() { # stop-file: one line per process seen with the passcode or "activate -"
  local line f args
  while [ ! -e "$1" ]; do
    for f in /proc/[0-9]*/cmdline; do
      { mapfile -d '' -t args <"$f"; } 2>/dev/null || continue
      line="${args[*]} "
      case "$line" in
        *"$secret"*) echo "LEAK: $line" ;;
        *" activate - "*) echo "SEEN: $line" ;;
      esac
    done
    sleep 0.05
  done
}
watch_cmdlines "$work/faults.done" >"$work/cmdlines" &
watcher=$!
status=$(playbook faults "$work/faults.yml" -e "@$work/secret.yml" -e "image=$work/image.zpk")
touch "$work/faults.done"
wait "$watcher"
[ "$status" != 0 ] || fail "the faults run succeeded"
expect_recap faults board1 "changed=1 failed=0"
grep -q '"talvex_active":true' "$work/state1.json" || fail "board 1 not in TALVEX mode: $(cat "$work/state1.json")"
expect_recap faults board4 "changed=0 failed=1"
expect_in_log faults "qorc did not finish within 3 s" "no time limit on board 4's activation"
! grep -q '^LEAK' "$work/cmdlines" || fail "the passcode is in a process list: $(grep -m1 '^LEAK' "$work/cmdlines")"
grep -qF -- "--url ${url[4]} activate -" "$work/cmdlines" ||
  fail "qorc's activation on board 4 was never seen running: $(cat "$work/cmdlines")"
expect_recap faults board5 "changed=0 failed=1"
expect_in_log faults '"rc": -15' "the upgrade's time limit did not end qorc with SIGTERM"
if [ -e /tmp/qor_sysupgrade ]; then
  marker=$(cat /tmp/qor_sysupgrade)
  kill -0 "$marker" 2>/dev/null || fail "/tmp/qor_sysupgrade holds the dead pid $marker"
fi

echo "fleet playbook: upgraded and settled, idempotent, facts current, check mode kept," \
  "one dead board failed alone, passcode hidden, time limit clean"
