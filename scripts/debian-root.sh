#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds a minimal Debian root for SUITE with mmdebstrap and keeps it as a
# tarball under build/debian-roots/, one per suite and day, so that the
# install test builds each root once a day (about a minute each) and unpacks
# it on every run. Prints the tarball's path.
# Usage: debian-root.sh SUITE [CACHE_DIR]
# The root has apt, man-db and a C++ toolchain (g++, make, cmake,
# pkg-config) with libprotobuf-dev, so that installing the project's packages
# into it resolves from its own package database; apt's lists are kept, so
# anything else is fetched from the archive.
set -euo pipefail
suite=$1
root=$(cd "$(dirname "$0")/.." && pwd)
cache=${2:-$root/build/debian-roots}
mirror=${DEBIAN_MIRROR:-http://deb.debian.org/debian}
mkdir -p "$cache"
tarball=$cache/$suite-$(date -u +%Y%m%d).tar
if [ ! -s "$tarball" ]; then
  # Older days of this suite are stale.
  rm -f "$cache/$suite"-*.tar
  # mmdebstrap picks its output format from the name's ending.
  partial=$cache/.$suite-partial.tar
  mmdebstrap --quiet --variant=apt --skip=cleanup/apt/lists \
    --include=man-db,g++,make,cmake,pkg-config,libprotobuf-dev \
    "$suite" "$partial" "$mirror" >&2
  mv "$partial" "$tarball"
fi
echo "$tarball"
