#!/usr/bin/env bash
# The framework's public headers (rpc/orvi) include only each other and the
# standard library: nothing from its sources, its generated code or protobuf.
# Usage: public_headers_test.sh SOURCE_DIR
set -euo pipefail
dir="$1/rpc/orvi"
bad=$(grep -Hn '^#include' "$dir"/*.h | grep -v -E '#include <[a-z_/]+(\.h)?>|#include "orvi/[a-z_]+\.h"' || true)
if [ -n "$bad" ]; then
  echo "public headers that include something else:"
  echo "$bad"
  exit 1
fi
echo "rpc/orvi: $(ls "$dir"/*.h | wc -l) public headers, none includes an internal one"
