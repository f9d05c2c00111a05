# SPDX-License-Identifier: Apache-2.0
# -*- coding: utf-8 -*-
# Copyright: 2026 The qorc developers
# Apache License 2.0 (see LICENSE or https://www.apache.org/licenses/LICENSE-2.0)

from __future__ import absolute_import, division, print_function

__metaclass__ = type

import os
import shutil
import signal
import stat
import tempfile
import time
import unittest

from ansible_collections.qorc.boards.plugins.module_utils.qorc import (
    Board, QorcError, run_with_limit, split_reboot_url)


class RunWithLimitTest(unittest.TestCase):
    def test_a_program_that_ends_in_time_gives_its_status_and_output(self):
        timed_out, status, out, err = run_with_limit(
            ["sh", "-c", "read line; echo \"got $line\"; echo oops >&2; exit 3"], 5, stdin_text="abc\n")
        self.assertEqual((timed_out, status, out, err), (False, 3, "got abc\n", "oops\n"))

    def test_the_time_limit_sends_sigterm_first_and_sigkill_only_after_the_grace(self):
        cases = [
            # program, status, shortest and longest run in seconds
            ("trap 'echo cleaned; kill $!; trap - TERM; kill -TERM $$' TERM;"
             " sleep 30 >/dev/null 2>&1 & wait", -signal.SIGTERM, 0.3, 1.0),
            # An ignored signal stays ignored across exec.
            ("trap '' TERM; exec sleep 30", -signal.SIGKILL, 1.3, 2.5),
        ]
        for program, status, shortest, longest in cases:
            with self.subTest(program=program):
                started = time.monotonic()
                timed_out, got, out, dummy = run_with_limit(["sh", "-c", program], 0.3, grace=1.0)
                took = time.monotonic() - started
                self.assertTrue(timed_out)
                self.assertEqual(got, status)
                self.assertTrue(shortest <= took <= longest, took)
                if status == -signal.SIGTERM:
                    self.assertEqual(out, "cleaned\n")


class SplitRebootUrlTest(unittest.TestCase):
    def test_address_and_binding(self):
        cases = [
            # reboot url, session binding, address, binding
            ("tcp://10.0.0.2:7000", None, "10.0.0.2:7000", None),
            ("tcp://10.0.0.2:7000", "eth1", "10.0.0.2:7000", "eth1"),
            ("10.0.0.2:7000?bind=eth2", "eth1", "10.0.0.2:7000", "eth2"),
            ("tcp://10.0.0.2?a=1&bind=10.0.0.9&b=2", None, "10.0.0.2", "10.0.0.9"),
            ("tcp://10.0.0.2:7000/path?bind=eth3", None, "10.0.0.2:7000", "eth3"),
            ("tcp://10.0.0.2:7000?binder=x", "eth1", "10.0.0.2:7000", "eth1"),
        ]
        for url, bind, address, binding in cases:
            with self.subTest(url=url, bind=bind):
                self.assertEqual(split_reboot_url(url, bind), (address, binding))


FAKE_QORC = """#!/bin/sh
# Answers as a board would, from files named after the sub-command.
for last; do :; done
case "$*" in
  *psi_get*) cat "$0.d/psi_get" >"$last"; exit 0 ;;
esac
cat "$0.d/$last.out" 2>/dev/null
cat "$0.d/$last.err" >&2 2>/dev/null
exit "$(cat "$0.d/$last.rc" 2>/dev/null || echo 0)"
"""


class BoardReadingTest(unittest.TestCase):
    """The facts parsed from what qorc prints."""

    def setUp(self):
        self.dir = tempfile.mkdtemp()
        self.program = os.path.join(self.dir, "qorc")
        with open(self.program, "w") as f:
            f.write(FAKE_QORC)
        os.chmod(self.program, stat.S_IRWXU)
        os.mkdir(self.program + ".d")

    def tearDown(self):
        shutil.rmtree(self.dir)

    def answer(self, command, out="", err="", rc=0):
        for suffix, text in (("out", out), ("err", err), ("rc", str(rc))):
            with open(os.path.join(self.program + ".d", "%s.%s" % (command, suffix)), "w") as f:
                f.write(text)

    def test_facts(self):
        connect = "Try to connect to 127.0.0.1:7000\n"
        cases = [
            # fw_config_mode answer, fw_version answer, facts or error
            ((connect + "FW configuration mode: FFH\n",), (connect + "FW version: 5.1.0 rc 2\n",),
             dict(qorc_firmware_source="FFH", qorc_firmware_version="5.1.0 rc 2", qorc_psi={"apn": "x"})),
            ((connect + "FW configuration mode: FFF\n",), (connect, "Error: No handler found\n", 1),
             dict(qorc_firmware_source="FFF", qorc_firmware_version=None, qorc_psi={"apn": "x"})),
            ((connect + "FW configuration mode: FFF\n",), (connect, "Error: Connection lost\n", 1),
             "qorc failed: Error: Connection lost"),
            ((connect + "FW configuration mode: ???\n",), (connect + "FW version: 1\n",),
             "unexpected answer of fw_config_mode"),
            ((connect + "FW configuration mode: FFF\n",), (connect + "version 1\n",),
             "unexpected answer of fw_version"),
        ]
        with open(os.path.join(self.program + ".d", "psi_get"), "w") as f:
            f.write('{"apn": "x"}\n')
        board = Board(self.program, "127.0.0.1")
        for mode, version, wanted in cases:
            with self.subTest(mode=mode, version=version):
                self.answer("fw_config_mode", *mode)
                self.answer("fw_version", *version)
                if isinstance(wanted, dict):
                    self.assertEqual(board.facts(), wanted)
                else:
                    with self.assertRaises(QorcError) as caught:
                        board.facts()
                    self.assertEqual(caught.exception.msg, wanted)

    def test_a_passcode_that_is_not_one_line_is_refused_before_qorc_runs(self):
        board = Board(os.path.join(self.dir, "absent"), "127.0.0.1")
        for passcode in ("", "a\nb", "a\r"):
            with self.subTest(passcode=passcode):
                with self.assertRaises(QorcError) as caught:
                    board.activate(passcode)
                self.assertIn("one non-empty line", caught.exception.msg)


if __name__ == "__main__":
    unittest.main()
