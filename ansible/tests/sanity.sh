#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Usage: sanity.sh [ansible-test sanity options, such as --test pylint]
# Runs the collection's unit tests, then ansible-test sanity, without any
# network: in a
# network namespace of its own, with the checkers Debian provides instead of
# the virtual environments ansible-test would fill from PyPI
# (offline_ansible_test.py). Needs the packages scripts/setup.sh installs.
set -euo pipefail
collection=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d /tmp/qorc-sanity-XXXXXX)
trap 'rm -rf "$work"' EXIT

# ansible-test wants the collection inside an ansible_collections tree, and
# resolves links: a copy, then.
tree="$work/ansible_collections/qorc/boards"
mkdir -p "$tree" "$work/home"
tar -C "$collection" --exclude=tests/output --exclude=__pycache__ -cf - . | tar -C "$tree" -xf -

# Debian's python3, with the Debian checkers, whatever else is on PATH.
export PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME="$work/home" QORC_SANITY_VENV_ROOT="$work"
python=$(/usr/bin/python3 -c 'import sys; print("%d.%d" % sys.version_info[:2])')
isolate=(unshare --net)
[ "$(id -u)" -eq 0 ] || isolate=(unshare --net --map-root-user)

cd "$tree"
# The unit tests, by module name: ansible_collections is a namespace package.
mapfile -t units < <(find tests/unit -name 'test_*.py' | sed 's|\.py$||; s|/|.|g; s|^|ansible_collections.qorc.boards.|')
PYTHONPATH="$work" /usr/bin/python3 -m unittest "${units[@]}"
"${isolate[@]}" /usr/bin/python3 tests/offline_ansible_test.py sanity --python "$python" "$@"
