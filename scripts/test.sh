#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs what is needed, checks the format, the licence headers and the
# Ansible collection (its unit tests and ansible-test sanity, offline), then
# builds and runs every test three ways:
#   1. a normal build (g++);
#   2. AddressSanitizer + UndefinedBehaviorSanitizer, built with clang and
#      its thread-safety analysis as errors, so that this build also checks
#      the lock annotations and the declared lock order;
#   3. ThreadSanitizer, for the threaded parts (engine, transports, client);
# then builds and checks the Debian packages (scripts/package.sh) and installs
# them into minimal Debian 12 and 13 roots (tests/install_roots_test.sh), runs every
# test of an armhf cross build under qemu, and fuzzes the parsers for a fixed
# time (scripts/fuzz.sh, FUZZ_SECONDS).
# Any failure fails the whole run.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
bash scripts/setup.sh

echo "=== format check"
git ls-files '*.cpp' '*.h' | xargs clang-format --dry-run --Werror

echo "=== licence headers"
missing=$(git ls-files '*.cpp' '*.h' '*.proto' '*.sh' '*.py' '*.cmake' '*CMakeLists.txt' |
  while read -r f; do head -n 3 "$f" | grep -q 'SPDX-License-Identifier: Apache-2.0' || echo "$f"; done)
if [ -n "$missing" ]; then
  echo "Without an SPDX-License-Identifier line:"; echo "$missing"; exit 1
fi

echo "=== Ansible collection: unit tests and sanity (${SECONDS}s)"
bash ansible/tests/sanity.sh

jobs=$(nproc)
run() { # name build-dir ctest-args... -- cmake-args...
  local name=$1 dir=$2; shift 2
  local ctest_args=() cmake_args=()
  while [ $# -gt 0 ] && [ "$1" != "--" ]; do ctest_args+=("$1"); shift; done
  [ $# -gt 0 ] && shift
  cmake_args=("$@")
  echo "=== $name: build (${SECONDS}s)"
  bash scripts/build.sh "$dir" "${cmake_args[@]}"
  echo "=== $name: test (${SECONDS}s)"
  (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 300 "${ctest_args[@]}")
}

run "normal" build/test-normal -- -DCMAKE_BUILD_TYPE=RelWithDebInfo
CC=clang CXX=clang++ ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
  run "asan+ubsan, thread-safety analysis" build/test-asan -- -DCMAKE_BUILD_TYPE=Debug \
  -DQORC_SANITIZE=address,undefined -DQORC_THREAD_SAFETY=ON
# Only the threaded parts: the tests marked THREADED (cmake/QorcHelpers.cmake).
BUILD_TARGETS="threaded_tests" TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
  run "tsan" build/test-tsan -L threaded -- -DCMAKE_BUILD_TYPE=Debug -DQORC_SANITIZE=thread
echo "=== packaging (${SECONDS}s)"
bash scripts/package.sh
bash tests/package_check.sh build/packages
echo "=== packages installed on Debian 12 and 13 (${SECONDS}s)"
bash tests/install_roots_test.sh build/packages
# Every test again, cross-built for the 32-bit ARM hosts, under qemu.
run "armhf" build/test-armhf -- -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/armhf.cmake" -DQORC_SYSROOT="$root/build/sysroot-armhf"
echo "=== fuzz (${SECONDS}s)"
bash scripts/fuzz.sh "${FUZZ_SECONDS:-30}"
echo "=== all test runs passed (${SECONDS}s)"
