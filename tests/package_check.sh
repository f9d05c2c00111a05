#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Checks built Debian packages without installing them: unpacks each into a
# scratch root with dpkg-deb -x, then runs the programs and reads the manual
# pages from there. The armhf client runs under qemu-arm-static.
# Usage: package_check.sh PACKAGE_DIR   (QORC_PACKAGE_ARCHES: default "amd64 armhf")
set -euo pipefail
dir=$1
scratch=$(mktemp -d /tmp/qorc-packages-XXXXXX)
trap 'rm -rf "$scratch"' EXIT
fail() { echo "package check: $*" >&2; exit 1; }

version=$(sed -n '1s/^qorc (\([^)]*\)).*/\1/p' "$(dirname "$0")/../doc/changelog")
for arch in ${QORC_PACKAGE_ARCHES:-amd64 armhf}; do
  root=$scratch/$arch
  for package in qorc qord-sim libqorc-dev; do
    deb=$dir/${package}_${version}_${arch}.deb
    [ -f "$deb" ] || fail "missing $deb"
    dpkg-deb -x "$deb" "$root"
  done
  # The programs are hardened as Debian's own: position-independent, read-only
  # relocations bound at start, stack protector and fortified calls, against
  # the system's C library of any release from the one they were built with.
  for program in qorc qord-sim; do
    exe=$root/usr/bin/$program
    file -b "$exe" | grep -q "pie executable, .*dynamically linked" || fail "$arch $program is $(file -b "$exe")"
    headers=$(readelf -lW "$exe") dynamic=$(readelf -dW "$exe") symbols=$(readelf --dyn-syms -W "$exe")
    grep -q "GNU_RELRO" <<<"$headers" || fail "$arch $program has no RELRO segment"
    grep -q "BIND_NOW" <<<"$dynamic" || fail "$arch $program is not bound now"
    grep -q "__stack_chk_fail" <<<"$symbols" || fail "$arch $program has no stack protector"
    grep -Eq "__[a-z_]+_chk@" <<<"$symbols" || fail "$arch $program calls no fortified function"
    needed=$(sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' <<<"$dynamic" | sort | tr '\n' ' ')
    case $needed in
      *libstdc++*|*libprotobuf*) fail "$arch $program loads $needed" ;;
    esac
  done
  for package in qorc qord-sim; do
    depends=$(dpkg-deb -f "$dir/${package}_${version}_${arch}.deb" Depends)
    grep -Eq "(^|, )libc6 \(>= [0-9.]+\)" <<<"$depends" || fail "$arch $package depends on '$depends'"
    grep -q "<<" <<<"$depends" && fail "$arch $package has an upper bound: $depends"
  done
  for package in qorc qord-sim libqorc-dev; do
    grep -q "^License: Apache-2.0$" "$root/usr/share/doc/$package/copyright" || fail "$arch $package copyright"
  done
  ! find "$root" -path "*lintian/overrides*" | grep -q . || fail "$arch packages carry lintian overrides"
  dev=$dir/libqorc-dev_${version}_${arch}.deb
  [ "$(dpkg-deb -f "$dev" Multi-Arch)" = same ] || fail "$arch libqorc-dev is not Multi-Arch: same"
  dpkg-deb -f "$dev" Depends | grep -Eq "^libprotobuf-dev \(>= ([0-9.]+)\), libprotobuf-dev \(<< [0-9.]+\)$" ||
    fail "$arch libqorc-dev depends on '$(dpkg-deb -f "$dev" Depends)'"
  # The static libraries go into a shared object whole: a relocation that only
  # an executable may have fails this link.
  cxx=g++
  [ "$arch" = armhf ] && cxx=arm-linux-gnueabihf-g++
  "$cxx" -shared -o "$scratch/$arch-whole.so" \
    -Wl,--whole-archive "$root"/usr/lib/*/libqorc-*.a -Wl,--no-whole-archive ||
    fail "$arch static libraries do not link into a shared object"
  run=()
  if [ "$arch" = armhf ]; then
    file -b "$root/usr/bin/qorc" | grep -q "ELF 32-bit LSB .*ARM" || fail "armhf qorc is $(file -b "$root/usr/bin/qorc")"
    run=(qemu-arm-static -L /usr/arm-linux-gnueabihf)
  fi
  [ "$("${run[@]}" "$root/usr/bin/qorc" --version)" = "qorc 4.2.3-41112" ] || fail "$arch qorc --version"
  "${run[@]}" "$root/usr/bin/qord-sim" --help | grep -q "^Usage: qord-sim" || fail "$arch qord-sim --help"
  [ "$("${run[@]}" "$root/usr/bin/qord-sim" --version)" = "qord-sim $version" ] || fail "$arch qord-sim --version"
  for page in qorc qord-sim; do
    man -l "$root/usr/share/man/man1/$page.1.gz" 2>/dev/null | grep -q "^NAME" || fail "$arch man page $page"
  done
  for program in qorc qord-sim; do
    [ -f "$root/usr/share/bash-completion/completions/$program" ] || fail "$arch $program completion"
  done
  echo "$arch: hardened dynamic programs, dependencies, PIC libraries, --version, --help, man pages: ok"
done

# Multi-Arch: same lets libqorc-dev of both architectures be installed at
# once, which dpkg allows only if every path they share has the same bytes.
if [ -d "$scratch/amd64" ] && [ -d "$scratch/armhf" ]; then
  shared=0
  while read -r path; do
    cmp -s "$scratch/amd64/$path" "$scratch/armhf/$path" || fail "libqorc-dev: $path differs between amd64 and armhf"
    shared=$((shared + 1))
  done < <(comm -12 <(dpkg-deb -c "$dir/libqorc-dev_${version}_amd64.deb" | awk '$1 !~ /^d/ {print $6}' | sort) \
                    <(dpkg-deb -c "$dir/libqorc-dev_${version}_armhf.deb" | awk '$1 !~ /^d/ {print $6}' | sort))
  [ "$shared" -gt 0 ] || fail "libqorc-dev: no shared files found"
  echo "libqorc-dev: the $shared files that amd64 and armhf share are the same"
fi
