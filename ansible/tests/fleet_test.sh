#!/usr/bin/env bash
# Usage: fleet_test.sh QORC QORD_SIM
# Runs the example playbook against three qord-sim boards on 127.0.0.x: the
# first run settles them, the second changes nothing, check mode changes
# nothing on the boards, and a killed board fails only its own host.
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

fail() { echo "FAIL: $*"; exit 1; }

wait_for() { # file text
  for _ in $(seq 400); do grep -q "$2" "$1" 2>/dev/null && return 0; sleep 0.025; done
  fail "no '$2' in $1: $(cat "$1")"
}

mkdir -p "$work/collections/ansible_collections/qorc" "$work/tmp" "$work/home"
ln -s "$collection" "$work/collections/ansible_collections/qorc/boards"

declare -A url
for i in 1 2 3; do
  "$sim" --listen "127.0.0.2$i:0" --state "$work/state$i.json" --reboot-delay-ms 100 \
    --reboot-grace-ms 50 >"$work/sim$i.log" 2>&1 &
  pids+=($!)
  wait_for "$work/sim$i.log" "listening on"
  url[$i]=$(sed -n 's/^qord-sim listening on //p' "$work/sim$i.log")
done

cat >"$work/inventory.yml" <<INVENTORY
all:
  children:
    boards:
      vars:
        qorc_host: localhost
        qorc_program: $qorc
      hosts:
        board1: {qorc_url: "${url[1]}"}
        board2: {qorc_url: "${url[2]}"}
        board3: {qorc_url: "${url[3]}"}
INVENTORY

export ANSIBLE_COLLECTIONS_PATH="$work/collections" ANSIBLE_LOCAL_TEMP="$work/tmp" \
  ANSIBLE_HOME="$work/home" ANSIBLE_NOCOLOR=1 ANSIBLE_RETRY_FILES_ENABLED=0 \
  ANSIBLE_LOCALHOST_WARNING=0 LC_ALL=C.UTF-8
playbook() { # log-name extra-args...
  local log="$work/$1.log"; shift
  set +e
  ansible-playbook -i "$work/inventory.yml" "$collection/examples/fleet.yml" "$@" >"$log" 2>&1
  local status=$?
  set -e
  echo "$status"
}
recap() { # log host -> "changed=N failed=N"
  sed -n "s/^$2 *: ok=[0-9]* *\(changed=[0-9]*\) *unreachable=[0-9]* *\(failed=[0-9]*\).*/\1 \2/p" \
    "$work/$1.log"
}
expect_recap() { # log host wanted
  local got; got=$(recap "$1" "$2")
  [ "$got" = "$3" ] || { cat "$work/$1.log"; fail "$1: $2 has '$got', wanted '$3'"; }
}
psi_of() { "$qorc" --url "${url[$1]}" psi_get | tail -n 1; }

[ "$(playbook first)" = 0 ] || { cat "$work/first.log"; fail "the first run failed"; }
for i in 1 2 3; do
  expect_recap first "board$i" "changed=2 failed=0"
  wait_for "$work/sim$i.log" "back on"  # fallback_ffh reboots the board
  case "$(psi_of "$i")" in
    *'"apn":"fleet"'*'"nr":[78]'*) ;;
    *) fail "board $i has PSI $(psi_of "$i")" ;;
  esac
done

[ "$(playbook second)" = 0 ] || { cat "$work/second.log"; fail "the second run failed"; }
for i in 1 2 3; do expect_recap second "board$i" "changed=0 failed=0"; done

before=$(psi_of 1)
[ "$(playbook check --check --diff -e '{"fleet_psi": {"apn": "other"}}')" = 0 ] ||
  { cat "$work/check.log"; fail "the check run failed"; }
for i in 1 2 3; do expect_recap check "board$i" "changed=1 failed=0"; done
grep -q '^+ *"apn": "other"' "$work/check.log" || { cat "$work/check.log"; fail "no diff shown"; }
[ "$(psi_of 1)" = "$before" ] || fail "check mode changed the board: $(psi_of 1)"

kill -9 "${pids[1]}" && wait "${pids[1]}" 2>/dev/null || true
[ "$(playbook killed)" != 0 ] || fail "a run with a dead board succeeded"
expect_recap killed board1 "changed=0 failed=0"
expect_recap killed board2 "changed=0 failed=1"
expect_recap killed board3 "changed=0 failed=0"
grep -q "qorc failed" "$work/killed.log" || { cat "$work/killed.log"; fail "no reason given"; }
echo "fleet playbook: settled, idempotent, check mode kept, one dead board failed alone"
