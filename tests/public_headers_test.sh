#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# The header boundaries:
# - the framework's public headers (rpc/orvi) include only each other and the
#   standard library: nothing from its sources, its generated code or protobuf;
# - the headers installed for the client library (as cmake/QorcInstall.cmake
#   names them) include only each other and the C++ standard library: nothing
#   of the engine and no generated messages, so that a program of its own
#   needs nothing more.
# Usage: public_headers_test.sh SOURCE_DIR
set -euo pipefail
src=$1
failures=0

report() { # NAME COUNT BAD-LINES
  if [ -n "$3" ]; then
    echo "$1: headers that include something else:"
    echo "$3"
    failures=$((failures + 1))
  else
    echo "$1: $2 headers, none includes anything outside the set"
  fi
}

orvi=("$src"/rpc/orvi/*.h)
bad=$(grep -Hn '^#include' "${orvi[@]}" |
  grep -v -E '#include <[a-z_/]+(\.h)?>|#include "orvi/[a-z_]+\.h"' || true)
report rpc/orvi "${#orvi[@]}" "$bad"

# Source paths from the install rules; version.h is generated from version.h.in.
mapfile -t installed < <(grep -oE '(qorc/src/lib|rpc)/[a-z_/]+\.h|qorc/include/qor/version\.h' \
  "$src/cmake/QorcInstall.cmake" | sed 's|^qorc/include/qor/version\.h$|qorc/src/lib/qor/version.h.in|')
[ "${#installed[@]}" -ge 4 ] || { echo "found only ${#installed[@]} installed headers"; exit 1; }
files=() names=" "
for path in "${installed[@]}"; do
  files+=("$src/$path")
  name=${path#qorc/src/lib/}; name=${name#rpc/}
  names+="${name%.in} "
done
bad=$(grep -Hn '^#include' "${files[@]}" | while IFS= read -r line; do
  target=$(sed -n 's/.*#include "\([^"]*\)".*/\1/p' <<<"$line")
  if [ -n "$target" ]; then
    [[ $names == *" $target "* ]] || echo "$line"
  else
    grep -qE '#include <[a-z_]+>' <<<"$line" || echo "$line"
  fi
done)
report "installed headers ($(cat "${files[@]}" | wc -l) lines)" "${#files[@]}" "$bad"
exit "$failures"
