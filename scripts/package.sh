#!/usr/bin/env bash
# Builds the Debian packages for amd64 and armhf into build/packages/ and
# checks them with lintian:
#   qorc_<version>_<arch>.deb, qord-sim_..., libqorc-dev_...
# Installs what it needs first (scripts/setup.sh) and fetches the armhf
# libraries (scripts/fetch-armhf-sysroot.sh). Installs nothing into the
# machine's package database.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh
bash scripts/fetch-armhf-sysroot.sh build/sysroot-armhf

out=build/packages
rm -rf "$out"
mkdir -p "$out"
release=(-DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DQORC_TESTS=OFF)

echo "=== packages: amd64"
bash scripts/build.sh build/package-amd64 "${release[@]}"
(cd build/package-amd64 && rm -rf packages && cpack -G DEB >/dev/null)
cp build/package-amd64/packages/*.deb "$out"/

echo "=== packages: armhf"
bash scripts/build.sh build/package-armhf "${release[@]}" \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/armhf.cmake" -DQORC_SYSROOT="$root/build/sysroot-armhf"
# dpkg-shlibdeps learns about the armhf C library from the sysroot's own
# small database, not the machine's.
(cd build/package-armhf && rm -rf packages &&
  DPKG_ADMINDIR="$root/build/sysroot-armhf/dpkg" cpack -G DEB >/dev/null)
cp build/package-armhf/packages/*.deb "$out"/

echo "=== lintian"
lintian --fail-on error,warning "$out"/*.deb
ls -l "$out"
