#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Usage: scripts/fuzz.sh [seconds per target, default 30]
# Builds the libFuzzer targets with clang (ASan + UBSan) and runs each for a
# fixed time, as many at once as there are cores, starting from its committed
# seeds in fuzz/corpus/<target>. Any crash, leak, sanitizer report or time-out
# fails the run; the input that caused it is left in build/fuzz/artifacts/.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
seconds=${1:-${FUZZ_SECONDS:-30}}
dir=build/fuzz
CC=clang CXX=clang++ cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=Debug -DQORC_TESTS=OFF \
  -DQORC_FUZZ=ON -DQORC_SANITIZE=address,undefined >/dev/null
targets=(frame_reader url engine_routing passcode_file psi_store)
cmake --build "$dir" -j "$(nproc)" $(printf -- '--target %s_fuzz ' "${targets[@]}")
mkdir -p "$dir/artifacts"

# One target: its status goes to $dir/<target>.status, its output to .log.
fuzz_one() {
  local t=$1 work="$dir/corpus/$1" status=0
  mkdir -p "$work"
  # The first corpus directory collects what the run finds; the seeds are read only.
  "$dir/fuzz/${t}_fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -max_len=65536 -print_final_stats=1 -artifact_prefix="$dir/artifacts/${t}-" \
    "$work" "fuzz/corpus/$t" >"$dir/$t.log" 2>&1 || status=$?
  echo "$status" >"$dir/$t.status"
}

# A fuzzer keeps one core busy: as many run at once as there are cores.
echo "--- fuzz ${targets[*]} (${seconds}s each, $(nproc) at a time)"
running=()
for t in "${targets[@]}"; do
  fuzz_one "$t" &
  running+=($!)
  if [ "${#running[@]}" -ge "$(nproc)" ]; then
    wait "${running[0]}"
    running=("${running[@]:1}")
  fi
done
wait

failed=0
for t in "${targets[@]}"; do
  echo "--- $t"
  grep -aE '^(#[0-9]+.*DONE|stat::number_of_executed_units|stat::peak_rss_mb)' "$dir/$t.log" || true
  status=$(cat "$dir/$t.status")
  if [ "$status" -ne 0 ]; then
    tail -n 60 "$dir/$t.log"
    echo "fuzz $t failed (status $status)"
    failed=1
  fi
done
[ "$failed" -eq 0 ] || exit 1
echo "=== fuzzing passed"
