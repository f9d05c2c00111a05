#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Usage: scripts/build.sh [build-dir] [extra cmake args...]
# Configures and builds the project. Default directory: build.
# BUILD_TARGETS="a b" builds only those targets.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$root/build}
shift || true
cmake -S "$root" -B "$dir" "$@" >/dev/null
targets=()
for t in ${BUILD_TARGETS:-}; do targets+=(--target "$t"); done
cmake --build "$dir" -j "$(nproc)" "${targets[@]}"
