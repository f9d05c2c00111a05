# SPDX-License-Identifier: Apache-2.0
# -*- coding: utf-8 -*-
# Copyright: 2026 The qorc developers
# Apache License 2.0 (see LICENSE or https://www.apache.org/licenses/LICENSE-2.0)
"""Runs ansible-test with the system's Python packages instead of the
virtual environments it would fill from PyPI.

ansible-test gives each sanity test a virtual environment with pinned
requirements, installed by pip; without PyPI that fails. This wrapper hands
every test the interpreter that runs it instead, so the tests run with the
checkers the system provides (Debian's pylint, pycodestyle, voluptuous,
yamllint) and with ansible-test's own configurations, plugins and ignore
lists. Versions differ from the pinned ones; ansible-test --venv on a
machine with PyPI runs the pinned ones.

Usage: python3 offline_ansible_test.py sanity [ansible-test options]
(from the collection's root, like ansible-test).
"""

from __future__ import absolute_import, division, print_function

__metaclass__ = type

import importlib
import os
import sys
import venv

from ansible_test._internal import main as ansible_test_main
from ansible_test._internal.host_configs import VirtualPythonConfig

# The tests' interpreter, inside the directory the caller gives.
VENV = os.path.join(os.environ.get("QORC_SANITY_VENV_ROOT", os.path.expanduser("~/.ansible/test")), "system-venv")


def system_python(args, python, name, coverage=False, minimize=False):  # pylint: disable=unused-argument
    """Replaces create_sanity_virtualenv: one virtual environment that sees
    the system's packages, made once, without pip."""
    if not os.path.exists(os.path.join(VENV, "bin", "python")):
        venv.create(VENV, system_site_packages=True, with_pip=False, symlinks=True)
    return VirtualPythonConfig(version=python.version, path=os.path.join(VENV, "bin", "python"))


def libyaml_present(python):  # pylint: disable=unused-argument
    """Replaces check_sanity_virtualenv_yaml, which reads the venv's notes."""
    try:
        from yaml import CSafeLoader  # noqa: F401  pylint: disable=unused-import,import-outside-toplevel
        return True
    except ImportError:
        return False


# The test modules bind these names when they are imported: replace them in
# each module that has them.
for name in ("", ".import", ".mypy"):
    module = importlib.import_module("ansible_test._internal.commands.sanity" + name)
    if hasattr(module, "create_sanity_virtualenv"):
        module.create_sanity_virtualenv = system_python
    if hasattr(module, "check_sanity_virtualenv_yaml"):
        module.check_sanity_virtualenv_yaml = libyaml_present

if __name__ == "__main__":
    ansible_test_main()
