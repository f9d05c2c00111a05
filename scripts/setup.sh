#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Installs every Debian package the project needs, without prompts.
# Does nothing when they are all there already.
set -euo pipefail

packages=(
  cmake g++ make
  protobuf-compiler libprotobuf-dev
  libgtest-dev libgmock-dev
  nlohmann-json3-dev
  clang-format
  clang libclang-rt-14-dev
  iproute2
  ansible-core
  pylint pycodestyle yamllint shellcheck python3-voluptuous python3-packaging python3-venv
  scdoc lintian dpkg-dev file man-db pkg-config bash-completion
  mmdebstrap diffoscope-minimal binutils
  g++-arm-linux-gnueabihf qemu-user-static
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
sudo_cmd=()
[ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
export DEBIAN_FRONTEND=noninteractive
"${sudo_cmd[@]}" apt-get update -qq
"${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
