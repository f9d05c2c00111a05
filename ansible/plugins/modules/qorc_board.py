#!/usr/bin/python
# -*- coding: utf-8 -*-
"""Ansible module: one modem board, driven through the installed qorc."""

from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
module: qorc_board
short_description: Read and settle a modem board through qorc
description:
  - Runs the installed C(qorc) against one board's daemon and reports the
    board's firmware source and PSI as facts.
  - Applies a desired PSI as a JSON merge patch (RFC 7386), only when it
    changes something; switches the board to FFH only when it is not there
    already; upgrades, activates TALVEX mode and resets the IMEI on request.
  - Every call of C(qorc) has a time limit, since a board that accepts a
    command and never answers is not bounded by C(qorc) itself.
  - Run it on the host the board hangs off (delegate_to), not on the board.
options:
  url:
    description: The board's daemon, C(ADDRESS[:PORT]) as for C(qorc --url).
    type: str
    required: true
  bind:
    description: Local address or interface to connect from (C(qorc --bind)).
    type: str
  qorc:
    description: The qorc program.
    type: str
    default: qorc
  call_timeout:
    description: Seconds any one call of qorc may take (an upgrade gets
      I(reboot_timeout) on top).
    type: int
    default: 60
  psi:
    description: Desired PSI, as a JSON merge patch. C(null) removes a key.
    type: dict
  firmware_source:
    description: C(ffh) puts a board that runs from flash (FFF) in FFH mode;
      the board then reboots.
    type: str
    choices: [ffh]
  image:
    description: Upgrade the board with this image. Always reports a change.
    type: path
  keep_config:
    description: Keep all of /etc through the upgrade (C(qorc sysupgrade -c)).
    type: bool
    default: false
  reboot_timeout:
    description: Seconds to wait for the board after the upgrade's reboot.
    type: int
    default: 180
  activate_passcode:
    description: Activate TALVEX mode with this passcode.
    type: str
  reset_imei_passcodes:
    description: Reset the IMEI, with the passcode found for the device's MAC
      in this file.
    type: path
"""

EXAMPLES = r"""
- name: Settle the PSI of every board
  qorc.boards.qorc_board:
    url: "{{ qorc_url }}"
    bind: "{{ qorc_bind | default(omit) }}"
    psi: {apn: fleet, band: {nr: [78]}}
  delegate_to: "{{ qorc_host }}"
"""

RETURN = r"""
ansible_facts:
  description: C(qorc_firmware_source) (FFF or FFH) and C(qorc_psi), read
    before any change.
  returned: always
  type: dict
"""

import copy
import json
import os
import re
import subprocess
import tempfile

from ansible.module_utils.basic import AnsibleModule


def merge_patch(target, patch):
    """RFC 7386: objects merge key by key, null removes, anything else replaces."""
    if not isinstance(patch, dict):
        return copy.deepcopy(patch)
    result = copy.deepcopy(target) if isinstance(target, dict) else {}
    for key, value in patch.items():
        if value is None:
            result.pop(key, None)
        else:
            result[key] = merge_patch(result.get(key), value)
    return result


class Board(object):
    def __init__(self, module):
        self.module = module
        p = module.params
        self.base = [p["qorc"], "--url", p["url"]]
        if p["bind"]:
            self.base += ["--bind", p["bind"]]

    def run(self, args, timeout=None, secret=None):
        timeout = timeout or self.module.params["call_timeout"]
        cmd = self.base + args
        shown = " ".join("********" if a == secret else a for a in cmd)
        try:
            proc = subprocess.run(cmd, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, timeout=timeout,
                                  universal_newlines=True)
        except subprocess.TimeoutExpired:
            self.module.fail_json(msg="qorc did not finish within %d s" % timeout, cmd=shown)
        except OSError as e:
            self.module.fail_json(msg="cannot run qorc: %s" % e, cmd=shown)
        if proc.returncode != 0:
            self.module.fail_json(msg="qorc failed: %s" % proc.stderr.strip(),
                                  rc=proc.returncode, stdout=proc.stdout, stderr=proc.stderr,
                                  cmd=shown)
        return proc.stdout

    def firmware_source(self):
        out = self.run(["fw_config_mode"])
        found = re.search(r"FW configuration mode: (FFF|FFH)", out)
        if not found:
            self.module.fail_json(msg="unexpected answer of fw_config_mode", stdout=out)
        return found.group(1)

    def psi(self):
        with tempfile.TemporaryDirectory(prefix="qorc-psi-") as scratch:
            path = os.path.join(scratch, "psi.json")
            self.run(["psi_get", path])
            with open(path) as f:
                try:
                    return json.load(f)
                except ValueError as e:
                    self.module.fail_json(msg="the board's PSI is not JSON: %s" % e)

    def psi_set(self, patch):
        with tempfile.TemporaryDirectory(prefix="qorc-psi-") as scratch:
            path = os.path.join(scratch, "patch.json")
            with open(path, "w") as f:
                json.dump(patch, f)
            self.run(["psi_set", path])


def main():
    module = AnsibleModule(
        argument_spec=dict(
            url=dict(type="str", required=True),
            bind=dict(type="str"),
            qorc=dict(type="str", default="qorc"),
            call_timeout=dict(type="int", default=60),
            psi=dict(type="dict"),
            firmware_source=dict(type="str", choices=["ffh"]),
            image=dict(type="path"),
            keep_config=dict(type="bool", default=False),
            reboot_timeout=dict(type="int", default=180),
            activate_passcode=dict(type="str", no_log=True),
            reset_imei_passcodes=dict(type="path", no_log=False),
        ),
        mutually_exclusive=[("image", "firmware_source")],
        supports_check_mode=True,
    )
    p = module.params
    board = Board(module)
    source = board.firmware_source()
    psi = board.psi()
    result = dict(changed=False, actions=[],
                  ansible_facts=dict(qorc_firmware_source=source, qorc_psi=psi))

    def act(name):
        result["changed"] = True
        result["actions"].append(name)
        return not module.check_mode

    if p["psi"] is not None:
        wanted = merge_patch(psi, p["psi"])
        if wanted != psi:
            if module._diff:
                result["diff"] = dict(before=json.dumps(psi, indent=2, sort_keys=True) + "\n",
                                      after=json.dumps(wanted, indent=2, sort_keys=True) + "\n")
            if act("psi_set"):
                board.psi_set(p["psi"])
    if p["activate_passcode"] is not None and act("activate"):
        board.run(["activate", p["activate_passcode"]], secret=p["activate_passcode"])
    if p["reset_imei_passcodes"] is not None and act("reset_imei"):
        board.run(["reset_imei", p["reset_imei_passcodes"]])
    # Both reboot the board: they come last.
    if p["image"] is not None:
        if act("sysupgrade"):
            args = ["sysupgrade", "-t", str(p["reboot_timeout"])]
            if p["keep_config"]:
                args.append("-c")
            board.run(args + [p["image"]], timeout=p["call_timeout"] + p["reboot_timeout"])
    elif p["firmware_source"] == "ffh" and source != "FFH":
        if act("fallback_ffh"):
            board.run(["fallback_ffh"])
    module.exit_json(**result)


if __name__ == "__main__":
    main()
