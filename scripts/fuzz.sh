#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Usage: scripts/fuzz.sh [seconds per target, default 30]
# Builds the libFuzzer targets with clang (ASan + UBSan) and runs each for a
# fixed time, starting from its committed seeds in fuzz/corpus/<target>. Any
# crash, leak, sanitizer report or time-out fails the run; the input that
# caused it is left in build/fuzz/artifacts/.
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
for t in "${targets[@]}"; do
  echo "--- fuzz $t (${seconds}s)"
  work="$dir/corpus/$t"
  mkdir -p "$work"
  # The first corpus directory collects what the run finds; the seeds are read only.
  status=0
  "$dir/fuzz/${t}_fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -max_len=65536 -print_final_stats=1 -artifact_prefix="$dir/artifacts/${t}-" \
    "$work" "fuzz/corpus/$t" >"$dir/$t.log" 2>&1 || status=$?
  grep -aE '^(#[0-9]+.*DONE|stat::number_of_executed_units|stat::peak_rss_mb)' "$dir/$t.log" || true
  if [ "$status" -ne 0 ]; then
    tail -n 60 "$dir/$t.log"
    echo "fuzz $t failed (status $status)"
    exit 1
  fi
done
echo "=== fuzzing passed"
