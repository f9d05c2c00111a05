#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The main job on one machine: installs what is needed, builds, starts
# qord-sim on loopback, takes qorc through every sub-command against it and
# stops the simulator. Nothing leaves this machine.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh
bash scripts/build.sh build/release -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQORC_TESTS=OFF >/dev/null

qorc=$root/build/release/qorc/qorc
sim=$root/build/release/sim/qord-sim
work=$(mktemp -d /tmp/qorc-demo-XXXXXX)
sim_pid=
cleanup() {
  [ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null && wait "$sim_pid" 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# A board that is away for 6.5 s when it reboots and then takes 2 s to
# finish booting, so the upgrade shows its reconnection dots.
"$sim" --listen 127.0.0.1:0 --state "$work/board.json" --reboot-delay-ms 6500 --boot-time-ms 2000 >"$work/sim.log" 2>&1 &
sim_pid=$!
for _ in $(seq 100); do grep -q "listening on" "$work/sim.log" && break; sleep 0.05; done
address=$(sed -n 's/^qord-sim listening on //p' "$work/sim.log")
echo "qord-sim is serving a simulated board on $address (state in $work/board.json)"

run() {
  echo
  echo "\$ qorc --url $address $*"
  "$qorc" --url "$address" "$@" || echo "(exit status $?)"
}

run discover
run fw_config_mode
run fw_version
run psi_get
echo '{"roaming": true, "apn": "iot.example"}' >"$work/amend.json"
run psi_set "$work/amend.json"
run psi_get "$work/psi.json"
echo "(written to psi.json: $(cat "$work/psi.json"))"
printf '# MAC               passcode\n02-00-5e-10-00-01   RESET-1234\n' >"$work/passcodes.txt"
run reset_imei "$work/passcodes.txt"
run activate WRONG-CODE
run activate TALVEX-5678

run fallback_ffh
# The board reboots into firmware-from-host; give it a moment to come back.
for _ in $(seq 200); do [ "$(grep -c "back on" "$work/sim.log")" -ge 1 ] && break; sleep 0.05; done
run fw_config_mode

# Last, an upgrade: an image whose first line names its version, then 3 MiB
# of data. qorc streams it, follows the reboot and checks the new version.
{ echo "QORFW 4.3.0-demo"; head -c $((3 * 1024 * 1024)) /dev/urandom; } >"$work/image.zpk"
run sysupgrade "$work/image.zpk"
echo
echo "qord-sim's own log:"
sed 's/^/  /' "$work/sim.log"
