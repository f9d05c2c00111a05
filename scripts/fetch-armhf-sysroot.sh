#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Usage: scripts/fetch-armhf-sysroot.sh [dir]     (default: build/sysroot-armhf)
# Fetches the armhf libraries the cross build links against (protobuf-lite,
# GoogleTest, nlohmann-json) from the machine's own Debian sources and unpacks
# them into <dir>. apt runs with a private state directory, so the machine's
# dpkg architectures and package database are left alone.
# <dir>/dpkg is a small dpkg database naming the cross toolchain's C library
# as libc6:armhf, so that dpkg-shlibdeps can compute an armhf package's
# dependencies (DPKG_ADMINDIR=<dir>/dpkg).
# Does nothing when <dir> is complete.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$(realpath -m "${1:-$root/build/sysroot-armhf}")
packages=(libprotobuf-dev libprotobuf-lite32 libprotobuf32 zlib1g zlib1g-dev
  libgtest-dev libgmock-dev nlohmann-json3-dev libc6)
[ -f "$dir/.complete" ] && exit 0

rm -rf "$dir"
apt_dir="$dir/.apt"
mkdir -p "$apt_dir"/{lists/partial,cache/archives/partial,debs} "$dir/dpkg/info" "$dir/dpkg/updates"
touch "$apt_dir/status" "$dir/dpkg/status"
apt_opts=(
  -o "Dir::State=$apt_dir" -o "Dir::State::Lists=$apt_dir/lists"
  -o "Dir::State::status=$apt_dir/status" -o "Dir::Cache=$apt_dir/cache"
  -o "APT::Architecture=armhf" -o "APT::Architectures::=armhf"
  -o "APT::Sandbox::User=root" -o "Debug::NoLocking=1"
)
echo "Fetching the armhf sysroot into $dir"
# A mirror that is half-way through a sync fails one index or another; what
# matters is that every package below can be downloaded.
apt-get "${apt_opts[@]}" update -qq ||
  echo "fetch-armhf-sysroot: some package indexes failed; going on with the others" >&2
(cd "$apt_dir/debs" && apt-get "${apt_opts[@]}" download -qq "${packages[@]}")
for deb in "$apt_dir"/debs/*.deb; do
  [[ $(basename "$deb") == libc6_* ]] && continue  # the C library comes with the cross compiler
  dpkg-deb -x "$deb" "$dir"
done

# The C library's shared-library dependency information, for dpkg-shlibdeps.
libc_deb=$(ls "$apt_dir"/debs/libc6_*.deb)
control="$apt_dir/libc6-control"
dpkg-deb -e "$libc_deb" "$control"
cp "$control/symbols" "$dir/dpkg/info/libc6:armhf.symbols"
cp "$control/shlibs" "$dir/dpkg/info/libc6:armhf.shlibs"
# Its shared objects, under the names the cross toolchain has them.
dpkg-deb -c "$libc_deb" | awk '{print $NF}' | grep -E '\.so(\.[0-9]+)*$' | while read -r path; do
  cross=/usr/arm-linux-gnueabihf/lib/$(basename "$path")
  if [ -e "$cross" ]; then echo "$cross"; fi
done >"$dir/dpkg/info/libc6:armhf.list"
{
  grep -E '^(Package|Version|Architecture|Multi-Arch|Source|Maintainer|Description):' "$control/control"
  echo "Status: install ok installed"
  echo
} >"$dir/dpkg/status"
echo 1 >"$dir/dpkg/info/format"  # info files named package:arch
printf '%s\n' "$(dpkg --print-architecture)" armhf >"$dir/dpkg/arch"

rm -rf "$apt_dir/lists" "$apt_dir/cache"
touch "$dir/.complete"
