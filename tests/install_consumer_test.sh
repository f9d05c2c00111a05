#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the client library from a build tree into a scratch prefix, builds
# examples/consumer against it (CMake package; pkg-config too in a native
# build), and runs the result against a simulated board on loopback.
# Usage: install_consumer_test.sh SOURCE_DIR BUILD_DIR QORD_SIM [TOOLCHAIN_FILE SYSROOT]
# A cross build passes its toolchain and sysroot, and QORC_EMULATOR in the
# environment runs the consumer.
set -euo pipefail
source_dir=$1 build_dir=$2 sim=$3 toolchain=${4:-} sysroot=${5:-}
scratch=$(mktemp -d /tmp/qorc-consumer-XXXXXX)
sim_pid=
cleanup() {
  [ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null && wait "$sim_pid" 2>/dev/null
  rm -rf "$scratch"
}
trap cleanup EXIT

prefix=$scratch/prefix
cmake --install "$build_dir" --prefix "$prefix" --component dev >/dev/null
config=$(find "$prefix" -name qorcConfig.cmake)
[ -n "$config" ] || { echo "no qorcConfig.cmake installed"; exit 1; }
if find "$prefix" -name '*.pb.h' | grep -q .; then
  echo "generated message headers were installed"; exit 1
fi
# Each installed header compiles on its own, with nothing but the prefix.
include_dir=$(dirname "$(dirname "$(find "$prefix" -path '*/qor/client.h')")")
while IFS= read -r header; do
  echo "#include \"${header#"$include_dir"/}\"" |
    "${CXX:-g++}" -std=c++17 -fsyntax-only -Wall -Wextra -Werror -I "$include_dir" -x c++ - ||
    { echo "installed header ${header#"$include_dir"/} does not compile on its own"; exit 1; }
done < <(find "$include_dir" -name '*.h')

cross=()
if [ -n "$toolchain" ]; then
  cross=(-DCMAKE_TOOLCHAIN_FILE="$toolchain" -DQORC_SYSROOT="$sysroot")
  export LD_LIBRARY_PATH=$sysroot/usr/lib/arm-linux-gnueabihf
fi
cmake -S "$source_dir/examples/consumer" -B "$scratch/build" "${cross[@]}" \
  -Dqorc_DIR="$(dirname "$config")" >/dev/null
cmake --build "$scratch/build" >/dev/null

"$sim" --listen 127.0.0.1:0 >"$scratch/sim.out" 2>"$scratch/sim.err" &
sim_pid=$!
for _ in $(seq 100); do grep -q "listening on" "$scratch/sim.out" && break; sleep 0.1; done
port=$(sed -n 's/^qord-sim listening on 127.0.0.1:\([0-9]*\)$/\1/p' "$scratch/sim.out")
[ -n "$port" ] || { echo "qord-sim did not start"; cat "$scratch/sim.err"; exit 1; }

read -r -a emulator <<<"${QORC_EMULATOR:-}"
answer=$("${emulator[@]}" "$scratch/build/board_mode" 127.0.0.1 "$port")
[ "$answer" = FFF ] || { echo "CMake consumer said '$answer', not FFF"; exit 1; }
echo "CMake consumer: $answer"

if [ -z "$toolchain" ]; then
  pc_dir=$(dirname "$(find "$prefix" -name qorc.pc)")
  flags=$(PKG_CONFIG_PATH=$pc_dir pkg-config --cflags --libs qorc)
  # shellcheck disable=SC2086  # the flags are words
  g++ -std=c++17 "$source_dir/examples/consumer/main.cpp" -o "$scratch/board_mode_pc" $flags
  answer=$("$scratch/board_mode_pc" 127.0.0.1 "$port")
  [ "$answer" = FFF ] || { echo "pkg-config consumer said '$answer', not FFF"; exit 1; }
  echo "pkg-config consumer: $answer"
fi
