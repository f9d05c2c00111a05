#!/usr/bin/env bash
# Usage: scripts/build.sh [build-dir] [extra cmake args...]
# Configures (once) and builds the project. Default directory: build.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$root/build}
shift || true
cmake -S "$root" -B "$dir" "$@" >/dev/null
cmake --build "$dir" -j "$(nproc)"
