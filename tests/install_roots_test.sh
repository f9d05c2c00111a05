#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs the amd64 packages into minimal Debian roots, one per suite
# (default: bookworm and trixie, built and cached by scripts/debian-root.sh),
# with apt, so that their dependencies must resolve against that release, and
# uses them there:
#   qorc and qord-sim: --version, the manual pages, a simulated board on
#     127.0.0.2 with fw_config_mode and a small sysupgrade against it;
#   libqorc-dev: examples/consumer built with CMake and with pkg-config, and
#     a shared object built from the library both ways, run by a program.
# Everything in the root runs in network, mount and pid namespaces of its
# own: its only network is a loopback of its own, so nothing it does reaches
# beyond this machine, and nothing is left behind when it ends.
# Usage: install_roots_test.sh PACKAGE_DIR [SUITE...]     (as root)
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
source_dir=$(dirname "$here")
packages=$(realpath "$1")
shift
suites=("$@")
[ ${#suites[@]} -gt 0 ] || suites=(bookworm trixie)
[ "$(id -u)" -eq 0 ] || { echo "install roots: needs root (chroot, namespaces)" >&2; exit 1; }

version=$(sed -n '1s/^qorc (\([^)]*\)).*/\1/p' "$source_dir/doc/changelog")
debs=()
for package in qorc qord-sim libqorc-dev; do
  deb=$packages/${package}_${version}_amd64.deb
  [ -f "$deb" ] || { echo "install roots: missing $deb" >&2; exit 1; }
  debs+=("$deb")
done

scratch=$(mktemp -d /tmp/qorc-roots-XXXXXX)
trap 'rm -rf "$scratch"' EXIT

# What runs inside the root, as its root user. $1: the suite's name.
cat >"$scratch/inside.sh" <<'INSIDE'
set -euo pipefail
suite=$1
fail() { echo "$suite: $*" >&2; exit 1; }
cd /tmp/qorc
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8

apt-get install -y -q --no-install-recommends ./debs/*.deb >apt.log 2>&1 ||
  { cat apt.log; fail "apt cannot install the packages"; }
dpkg -s libqorc-dev | grep -q "^Multi-Arch: same" || fail "libqorc-dev is not Multi-Arch: same"

[ "$(qorc --version)" = "qorc 4.2.3-41112" ] || fail "qorc --version"
[ "$(qord-sim --version)" = "qord-sim $(dpkg-query -W -f '${Version}' qord-sim)" ] ||
  fail "qord-sim --version is $(qord-sim --version)"
for page in qorc qord-sim; do
  man -P cat "$page" 2>/dev/null | grep -q "^NAME" || fail "man $page"
done

qord-sim --listen 127.0.0.2:0 --state board.json --reboot-delay-ms 200 >sim.log 2>sim.err &
sim=$!
for _ in $(seq 100); do grep -q "listening on" sim.log && break; sleep 0.1; done
port=$(sed -n '1s/^qord-sim listening on 127\.0\.0\.2:\([0-9]*\)$/\1/p' sim.log)
[ -n "$port" ] || { cat sim.err; fail "qord-sim did not start"; }
url=127.0.0.2:$port

answer=$(timeout 60 qorc --url "$url" fw_config_mode)
[ "$answer" = "Try to connect to $url"$'\n'"FW configuration mode: FFF" ] ||
  fail "qorc fw_config_mode said '$answer'"
{ echo "QORFW 9.9.9-$suite"; head -c 300000 /dev/urandom; } >image.zpk
timeout 120 qorc --url "$url" sysupgrade -n -t 30 --reboot-url "$url" image.zpk >upgrade.log 2>&1 ||
  { cat upgrade.log; fail "qorc sysupgrade"; }
grep -q "\"version\":\"9.9.9-$suite\"" board.json || fail "the board did not take the image: $(cat board.json)"

# The library from a program, from CMake and from pkg-config.
cmake -S consumer -B consumer-build >cmake.log 2>&1 && cmake --build consumer-build >>cmake.log 2>&1 ||
  { cat cmake.log; fail "examples/consumer does not build with CMake"; }
[ "$(consumer-build/board_mode 127.0.0.2 "$port")" = FFF ] || fail "the CMake consumer"
g++ -std=c++17 consumer/main.cpp -o board_mode_pc $(pkg-config --cflags --libs qorc) ||
  fail "examples/consumer does not build with pkg-config"
[ "$(./board_mode_pc 127.0.0.2 "$port")" = FFF ] || fail "the pkg-config consumer"

# The library in a shared object: pkg-config, then CMake.
g++ -std=c++17 -shared -fPIC plugin/plugin.cpp -o libboard_plugin.so $(pkg-config --cflags --libs qorc) ||
  fail "no shared object from the library with pkg-config"
g++ -std=c++17 plugin/user.cpp -o plugin_user -L. -lboard_plugin
[ "$(LD_LIBRARY_PATH=. ./plugin_user 127.0.0.2 "$port")" = FFF ] || fail "the pkg-config shared object"
cmake -S plugin -B plugin-build >cmake.log 2>&1 && cmake --build plugin-build >>cmake.log 2>&1 ||
  { cat cmake.log; fail "no shared object from qorc::client"; }
[ "$(plugin-build/plugin_user 127.0.0.2 "$port")" = FFF ] || fail "the CMake shared object"

kill "$sim" && wait "$sim" || true
echo "$suite: installed with apt; qorc --version, man, fw_config_mode, sysupgrade; consumer and shared object with CMake and pkg-config: ok"
INSIDE

# A shared object that uses the library, and a program that uses it.
mkdir -p "$scratch/plugin"
cat >"$scratch/plugin/plugin.cpp" <<'EOF'
#include <string>

#include "qor/client.h"

// Where the board takes its firmware from; throws what the library throws.
__attribute__((visibility("default"))) std::string board_mode(const char* host, const char* port) {
    qor::Client client;
    client.connect(host, port, "", 5);
    bool fromFlash = false;
    client.fw_config_mode(fromFlash);
    return fromFlash ? "FFF" : "FFH";
}
EOF
cat >"$scratch/plugin/user.cpp" <<'EOF'
#include <iostream>
#include <string>

std::string board_mode(const char* host, const char* port);

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    std::cout << board_mode(argv[1], argv[2]) << std::endl;
}
EOF
cat >"$scratch/plugin/CMakeLists.txt" <<'EOF'
cmake_minimum_required(VERSION 3.16)
project(board_plugin CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(qorc 4 REQUIRED)
add_library(board_plugin SHARED plugin.cpp)
target_link_libraries(board_plugin PRIVATE qorc::client)
add_executable(plugin_user user.cpp)
target_link_libraries(plugin_user PRIVATE board_plugin)
EOF

# One suite, from its cached root to its verdict (the exit status).
install_into_root() {
  local suite=$1 start=$SECONDS tarball root work
  tarball=$(bash "$source_dir/scripts/debian-root.sh" "$suite")
  root=$scratch/$suite
  mkdir -p "$root"
  tar -xf "$tarball" -C "$root"
  work=$root/tmp/qorc
  mkdir -p "$work/debs"
  cp "${debs[@]}" "$work/debs/"
  cp -r "$source_dir/examples/consumer" "$scratch/plugin" "$work/"
  cp "$scratch/inside.sh" "$work/"
  # The mounts live and die with the mount namespace.
  local status=0
  unshare --net --mount --pid --fork --kill-child -- sh -c '
      mount --make-rprivate / && ip link set lo up &&
      mount -t proc proc "$1/proc" && mount --rbind /dev "$1/dev" &&
      exec chroot "$1" /bin/bash /tmp/qorc/inside.sh "$2"' sh "$root" "$suite" || status=$?
  rm -rf "$root"
  [ "$status" -eq 0 ] && echo "$suite: $((SECONDS - start)) s"
  return "$status"
}

# The suites are independent (each has its own root and namespaces) and
# mostly wait on the disk and the package mirror: they run side by side,
# each into a log of its own that is shown when it ends.
pids=()
for suite in "${suites[@]}"; do
  install_into_root "$suite" >"$scratch/$suite.log" 2>&1 &
  pids+=($!)
done
failures=0
for i in "${!suites[@]}"; do
  status=0
  wait "${pids[$i]}" || status=$?
  cat "$scratch/${suites[$i]}.log"
  if [ "$status" -ne 0 ]; then
    echo "install roots: ${suites[$i]} failed" >&2
    failures=$((failures + 1))
  fi
done
exit "$failures"
