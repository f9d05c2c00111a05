#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Builds the Debian packages twice, from two copies of the source tree in
# two different directories, and compares them byte for byte. Where they
# differ, diffoscope shows how. Exit status 0 when every package is the same.
# Usage: scripts/reproducible.sh [ARCH...]       (default: amd64 armhf)
# Takes two package builds per architecture; not part of scripts/test.sh.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
arches=("$@")
[ ${#arches[@]} -gt 0 ] || arches=(amd64 armhf)
bash "$root/scripts/setup.sh"

# Both builds take their times from the last commit and share one armhf
# sysroot, at a path of its own.
SOURCE_DATE_EPOCH=$(git -C "$root" log -1 --format=%ct)
export SOURCE_DATE_EPOCH
export QORC_PACKAGE_ARCHES="${arches[*]}" QORC_NO_LINTIAN=1
if [[ " ${arches[*]} " == *" armhf "* ]]; then
  export QORC_ARMHF_SYSROOT=$root/build/sysroot-armhf
  bash "$root/scripts/fetch-armhf-sysroot.sh" "$QORC_ARMHF_SYSROOT"
fi

scratch=$(mktemp -d /tmp/qorc-reproducible-XXXXXX)
trap 'rm -rf "$scratch"' EXIT
# The tree as committed, plus what is changed and not yet committed; the
# second copy lies deeper, under another name.
copies=("$scratch/a/qorc" "$scratch/second/build-place/qorc-src")
for copy in "${copies[@]}"; do
  mkdir -p "$copy"
  git -C "$root" ls-files -z --cached --others --exclude-standard |
    (cd "$root" && xargs -0 tar -cf - --no-recursion) | tar -xf - -C "$copy"
done

for copy in "${copies[@]}"; do
  echo "=== packages in $copy"
  (cd "$copy" && bash scripts/package.sh >"$copy.log" 2>&1) || { tail -30 "$copy.log"; exit 1; }
done

status=0
first=${copies[0]}/build/packages second=${copies[1]}/build/packages
for deb in "$first"/*.deb; do
  name=$(basename "$deb")
  if cmp -s "$deb" "$second/$name"; then
    echo "same: $name ($(sha256sum <"$deb" | cut -c1-16))"
  else
    echo "DIFFERENT: $name"
    diffoscope --text - "$deb" "$second/$name" | head -200 || true
    status=1
  fi
done
[ "$(ls "$first" | wc -l)" -eq "$(ls "$second" | wc -l)" ] || { echo "different sets of packages"; status=1; }
exit "$status"
