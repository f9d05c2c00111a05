#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages for amd64 and armhf into build/packages/ and
# checks them with lintian:
#   qorc_<version>_<arch>.deb, qord-sim_..., libqorc-dev_...
# Installs what it needs first (scripts/setup.sh) and fetches the armhf
# libraries (scripts/fetch-armhf-sysroot.sh). Installs nothing into the
# machine's package database.
#
# The packages are reproducible: their times are SOURCE_DATE_EPOCH (by
# default the time of the last commit), and no path of the build machine is
# in them (scripts/reproducible.sh checks). Environment:
#   QORC_ARMHF_SYSROOT  an armhf sysroot to use (default build/sysroot-armhf)
#   QORC_PACKAGE_ARCHES the architectures to build (default "amd64 armhf")
#   QORC_NO_LINTIAN=1   skip lintian
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh
arches=${QORC_PACKAGE_ARCHES:-amd64 armhf}
sysroot=${QORC_ARMHF_SYSROOT:-$root/build/sysroot-armhf}
[[ " $arches " == *" armhf "* ]] && bash scripts/fetch-armhf-sysroot.sh "$sysroot"
if [ -z "${SOURCE_DATE_EPOCH:-}" ]; then
  SOURCE_DATE_EPOCH=$(git -C "$root" log -1 --format=%ct)
fi
export SOURCE_DATE_EPOCH

out=build/packages
rm -rf "$out"
mkdir -p "$out"
release=(-DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DQORC_TESTS=OFF -DQORC_REPRODUCIBLE=ON)

if [[ " $arches " == *" amd64 "* ]]; then
  echo "=== packages: amd64"
  bash scripts/build.sh build/package-amd64 "${release[@]}"
  (cd build/package-amd64 && rm -rf packages && cpack -G DEB >/dev/null)
  cp build/package-amd64/packages/*.deb "$out"/
fi

if [[ " $arches " == *" armhf "* ]]; then
  echo "=== packages: armhf"
  bash scripts/build.sh build/package-armhf "${release[@]}" \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/armhf.cmake" -DQORC_SYSROOT="$sysroot"
  # dpkg-shlibdeps learns about the armhf C library from the sysroot's own
  # small database, not the machine's.
  (cd build/package-armhf && rm -rf packages &&
    DPKG_ADMINDIR="$sysroot/dpkg" cpack -G DEB >/dev/null)
  cp build/package-armhf/packages/*.deb "$out"/
fi

if [ "${QORC_NO_LINTIAN:-}" != 1 ]; then
  echo "=== lintian"
  lintian --fail-on error,warning "$out"/*.deb
fi
ls -l "$out"
