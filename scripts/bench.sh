#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds in Release and runs the benchmarks: upgrade throughput, exit
# latency, command round trip and peak memory, each beside a reference
# measured in the same run. Usage: scripts/bench.sh [repeats, default 5]
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh
bash scripts/build.sh build/bench -DCMAKE_BUILD_TYPE=Release -DQORC_TESTS=OFF -DQORC_BENCH=ON >/dev/null
exec build/bench/bench/qorc_bench "${1:-5}"
