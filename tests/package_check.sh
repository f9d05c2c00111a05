#!/usr/bin/env bash
# Checks built Debian packages without installing them: unpacks each into a
# scratch root with dpkg-deb -x, then runs the programs and reads the manual
# pages from there. The armhf client runs under qemu-arm-static.
# Usage: package_check.sh PACKAGE_DIR
set -euo pipefail
dir=$1
scratch=$(mktemp -d /tmp/qorc-packages-XXXXXX)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "package check: $*" >&2; exit 1; }

version=$(sed -n '1s/^qorc (\([^)]*\)).*/\1/p' "$(dirname "$0")/../doc/changelog")
for arch in amd64 armhf; do
  root=$scratch/$arch
  for package in qorc qord-sim libqorc-dev; do
    deb=$dir/${package}_${version}_${arch}.deb
    [ -f "$deb" ] || fail "missing $deb"
    dpkg-deb -x "$deb" "$root"
  done
  # A static qorc brings the C library's name-service code of its own
  # release, and must be installed only beside that release.
  if file -b "$root/usr/bin/qorc" | grep -q "statically linked"; then
    dpkg-deb -f "$dir/qorc_${version}_${arch}.deb" Depends | grep -Eq "libc6 \(<< [0-9]+\.[0-9]+\)" ||
      fail "$arch static qorc without a libc6 release range"
  fi
  run=()
  if [ "$arch" = armhf ]; then
    file -b "$root/usr/bin/qorc" | grep -q "ELF 32-bit LSB .*ARM" || fail "armhf qorc is $(file -b "$root/usr/bin/qorc")"
    run=(qemu-arm-static -L /usr/arm-linux-gnueabihf)
  fi
  [ "$("${run[@]}" "$root/usr/bin/qorc" --version)" = "qorc 4.2.3-41112" ] || fail "$arch qorc --version"
  "${run[@]}" "$root/usr/bin/qord-sim" --help | grep -q "^Usage: qord-sim" || fail "$arch qord-sim --help"
  for page in qorc qord-sim; do
    man -l "$root/usr/share/man/man1/$page.1.gz" 2>/dev/null | grep -q "^NAME" || fail "$arch man page $page"
  done
  [ -f "$root/usr/share/bash-completion/completions/qorc" ] || fail "$arch completion"
  echo "$arch: qorc --version, qord-sim --help, man -l qorc and qord-sim: ok"
done
