# SPDX-License-Identifier: Apache-2.0
# -*- coding: utf-8 -*-
# Copyright: 2026 The qorc developers
# Apache License 2.0 (see LICENSE or https://www.apache.org/licenses/LICENSE-2.0)
"""What the qorc modules share: running qorc with a time limit, and reading a board."""

from __future__ import absolute_import, division, print_function

__metaclass__ = type

import json
import os
import re
import shutil
import subprocess
import tempfile
import time

# How long qorc has to end after SIGTERM (it removes its upgrade marker and
# ends the open line) before it is killed.
TERM_GRACE = 10

# The options every qorc module takes, for AnsibleModule(argument_spec=...).
CONNECTION_ARGS = dict(
    url=dict(type="str", required=True),
    bind=dict(type="str"),
    qorc=dict(type="str", default="qorc"),
    call_timeout=dict(type="int", default=60),
)

_NO_VERSION_SERVICE = "No handler found"


class QorcError(Exception):
    """A run of qorc that did not succeed; details go into fail_json."""

    def __init__(self, msg, **details):
        super(QorcError, self).__init__(msg)
        self.msg = msg
        self.details = details


def run_with_limit(cmd, timeout, stdin_text=None, grace=TERM_GRACE):
    """Runs cmd; returns (timed_out, status, stdout, stderr), status as
    Popen gives it (-N for signal N). When the time limit runs out the
    program gets SIGTERM and `grace` seconds to end before SIGKILL: qorc
    cleans up on SIGTERM (its upgrade marker), never on SIGKILL."""
    stdin = subprocess.DEVNULL if stdin_text is None else subprocess.PIPE
    with subprocess.Popen(cmd, stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          universal_newlines=True) as proc:
        try:
            out, err = proc.communicate(stdin_text, timeout=timeout)
            return False, proc.returncode, out, err
        except subprocess.TimeoutExpired:
            proc.terminate()
        try:
            out, err = proc.communicate(timeout=grace)
        except subprocess.TimeoutExpired:
            proc.kill()
            out, err = proc.communicate()
        return True, proc.returncode, out, err


def split_reboot_url(reboot_url, bind):
    """The ADDRESS[:PORT] and binding at which qorc reaches the board after
    the reboot, from a --reboot-url text ([tcp://]HOST[:PORT][/...][?bind=B]).
    Without a bind parameter the session's binding holds."""
    rest = reboot_url.split("://", 1)[-1]
    query = rest.partition("?")[2]
    address = re.split(r"[/?]", rest, maxsplit=1)[0]
    for pair in query.split("&"):
        key, sep, value = pair.partition("=")
        if sep and key == "bind":
            bind = value or None
    return address, bind


class Board(object):
    """One board, reached through the installed qorc.

    Every call has a time limit; a call that fails raises QorcError."""

    def __init__(self, qorc, url, bind=None, call_timeout=60):
        self.qorc = qorc
        self.call_timeout = call_timeout
        self.base = [qorc, "--url", url]
        if bind:
            self.base += ["--bind", bind]

    @classmethod
    def from_params(cls, params):
        return cls(params["qorc"], params["url"], params["bind"], params["call_timeout"])

    def run(self, args, timeout=None, stdin_text=None):
        """Runs one sub-command; returns its standard output."""
        timeout = timeout or self.call_timeout
        cmd = self.base + args
        shown = " ".join(cmd)
        try:
            timed_out, status, out, err = run_with_limit(cmd, timeout, stdin_text)
        except OSError as e:
            raise QorcError("cannot run qorc: %s" % e, cmd=shown)
        if timed_out:
            raise QorcError("qorc did not finish within %d s" % timeout, rc=status, cmd=shown,
                            stdout=out, stderr=err)
        if status != 0:
            raise QorcError("qorc failed: %s" % err.strip(), rc=status, cmd=shown,
                            stdout=out, stderr=err)
        return out

    def answers(self, timeout):
        """Whether the board's daemon takes a connection now."""
        try:
            self.run(["discover"], timeout=timeout)
            return True
        except QorcError:
            return False

    def firmware_source(self):
        out = self.run(["fw_config_mode"])
        found = re.search(r"^FW configuration mode: (FFF|FFH)$", out, re.M)
        if not found:
            raise QorcError("unexpected answer of fw_config_mode", stdout=out)
        return found.group(1)

    def firmware_version(self):
        """The version the board's firmware reports, None when the board has
        no version service."""
        try:
            out = self.run(["fw_version"])
        except QorcError as e:
            if _NO_VERSION_SERVICE in e.details.get("stderr", ""):
                return None
            raise
        found = re.search(r"^FW version: (.*)$", out, re.M)
        if not found:
            raise QorcError("unexpected answer of fw_version", stdout=out)
        return found.group(1)

    def psi(self):
        scratch = tempfile.mkdtemp(prefix="qorc-psi-")
        try:
            path = os.path.join(scratch, "psi.json")
            self.run(["psi_get", path])
            with open(path) as f:
                try:
                    return json.load(f)
                except ValueError as e:
                    raise QorcError("the board's PSI is not JSON: %s" % e)
        finally:
            shutil.rmtree(scratch, ignore_errors=True)

    def psi_set(self, patch):
        scratch = tempfile.mkdtemp(prefix="qorc-psi-")
        try:
            path = os.path.join(scratch, "patch.json")
            with open(path, "w") as f:
                json.dump(patch, f)
            self.run(["psi_set", path])
        finally:
            shutil.rmtree(scratch, ignore_errors=True)

    def activate(self, passcode):
        """The passcode travels on qorc's standard input, so that no process
        list shows it."""
        if not passcode or "\n" in passcode or "\r" in passcode:
            raise QorcError("the TALVEX passcode must be one non-empty line")
        self.run(["activate", "-"], stdin_text=passcode + "\n")

    def facts(self):
        return dict(qorc_firmware_source=self.firmware_source(),
                    qorc_firmware_version=self.firmware_version(),
                    qorc_psi=self.psi())

    def wait_for_reboot(self, timeout, poll=0.1, gone_limit=10):
        """After a command that reboots the board: waits until the board has
        gone away (for at most gone_limit seconds; a reboot quicker than the
        polling is not seen) and then until it takes connections again.
        Returns False when the board was never seen away."""
        seen_away = False
        deadline = time.monotonic() + gone_limit
        while time.monotonic() < deadline:
            if not self.answers(timeout=min(5, gone_limit)):
                seen_away = True
                break
            time.sleep(poll)
        deadline = time.monotonic() + timeout
        while not self.answers(timeout=max(1, min(5, deadline - time.monotonic()))):
            if time.monotonic() >= deadline:
                raise QorcError("the board did not come back within %d s" % timeout)
            time.sleep(0.5)
        return seen_away
