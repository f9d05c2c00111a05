#!/usr/bin/python
# SPDX-License-Identifier: Apache-2.0
# -*- coding: utf-8 -*-
# Copyright: 2026 The qorc developers
# Apache License 2.0 (see LICENSE or https://www.apache.org/licenses/LICENSE-2.0)
"""Ansible module: one modem board, driven through the installed qorc."""

from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
module: qorc_board
short_description: Settle a modem board through qorc
version_added: 1.0.0
author:
  - qorc developers <qorc-dev@lists.example.org> (!UNKNOWN)
description:
  - Runs the installed C(qorc) against one board's daemon and reports the
    board's firmware source, firmware version and PSI as facts. The facts
    describe the board after the module's changes.
  - Applies a desired PSI as a JSON merge patch (RFC 7386), only when it
    changes something; switches the board to FFH only when it is not there
    already; upgrades the system image unless the board already runs
    I(image_version); activates TALVEX mode and resets the IMEI on request.
  - Every call of C(qorc) has a time limit, since a board that accepts a
    command and never answers is not bounded by C(qorc) itself. When it runs
    out, C(qorc) gets SIGTERM and ten seconds to clean up before SIGKILL.
  - Run it on the host the board hangs off (delegate_to), not on the board.
  - Use M(qorc.boards.qorc_board_info) to read a board without changing it.
requirements:
  - A qorc that has the C(fw_version) sub-command and reads the passcode of
    C(activate -) from standard input, on the host that runs the module.
notes:
  - After a switch to FFH the board reboots; the module waits until it has
    gone down and answers again (I(reboot_timeout)) before it reads the facts.
  - In check mode nothing is changed and the facts describe the board as it
    is; the diff shows what would change.
extends_documentation_fragment:
  - qorc.boards.connection
attributes:
  check_mode:
    description: Can run in check mode and return changed status prediction
      without modifying the board.
    support: full
  diff_mode:
    description: Will return details on what has changed (or possibly needs
      changing in check mode), when in diff mode.
    support: full
  platform:
    description: Target OS/families that can be operated against.
    support: N/A
    platforms: posix
options:
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
    description: Upgrade the board with this image (C(qorc sysupgrade)).
      Without I(image_version) the upgrade always runs and reports a change.
    type: path
  image_version:
    description:
      - The version the board reports (C(qorc fw_version)) once it runs
        I(image). When it reports this version already, nothing is upgraded.
      - After an upgrade the board must report this version, or the task
        fails.
    type: str
    version_added: 1.1.0
  keep_config:
    description: Keep all of /etc through the upgrade (C(qorc sysupgrade -c)).
    type: bool
    default: false
  no_keep:
    description: Do not keep the files listed in the board's
      /etc/sysupgrade.conf through the upgrade (C(qorc sysupgrade -n)).
    type: bool
    default: false
    version_added: 1.1.0
  reboot_url:
    description:
      - Where the board's daemon answers after the upgrade's reboot, as for
        C(qorc sysupgrade --reboot-url), such as C(tcp://10.0.0.2:7000) or
        C(tcp://10.0.0.2:7000?bind=enp1s0u2). The facts are read there.
      - By default the board comes back at I(url).
    type: str
    version_added: 1.1.0
  reboot_timeout:
    description: Seconds to wait for the board after a reboot (an upgrade's
      or the switch to FFH).
    type: int
    default: 180
  activate_passcode:
    description: Activate TALVEX mode with this passcode (one line). It
      reaches qorc on its standard input, never on a command line.
    type: str
  reset_imei_passcodes:
    description: Reset the IMEI, with the passcode found for the device's MAC
      in this file on the host.
    type: path
"""

EXAMPLES = r"""
- name: Settle the PSI of every board
  qorc.boards.qorc_board:
    url: "{{ qorc_url }}"
    bind: "{{ qorc_bind | default(omit) }}"
    psi: {apn: fleet, band: {nr: [78]}}
  delegate_to: "{{ qorc_host }}"

- name: Upgrade the boards that do not run 5.1.0 yet
  qorc.boards.qorc_board:
    url: "{{ qorc_url }}"
    bind: "{{ qorc_bind | default(omit) }}"
    image: /srv/images/board-5.1.0.zpk
    image_version: 5.1.0
  delegate_to: "{{ qorc_host }}"

- name: Service mode, with the passcode from a vault
  qorc.boards.qorc_board:
    url: "{{ qorc_url }}"
    activate_passcode: "{{ vault_talvex_passcode }}"
  delegate_to: "{{ qorc_host }}"
"""

RETURN = r"""
ansible_facts:
  description: The board after the module's changes (as it is, in check mode).
  returned: always
  type: dict
  contains:
    qorc_firmware_source:
      description: Where the firmware comes from.
      returned: always
      type: str
      sample: FFH
    qorc_firmware_version:
      description: The version the firmware reports; null when the board
        offers no version service.
      returned: always
      type: str
      sample: 5.1.0
    qorc_psi:
      description: The PSI settings.
      returned: always
      type: dict
      sample: {apn: fleet, roaming: true}
actions:
  description: The qorc sub-commands run to change the board, in order (in
    check mode, those that would run).
  returned: always
  type: list
  elements: str
  sample: [psi_set, fallback_ffh]
diff:
  description: The firmware source, version and PSI before and after, as
    JSON texts. In check mode, after is the predicted state.
  returned: changed and diff mode
  type: dict
  contains:
    before:
      description: The board before the module ran.
      type: str
      returned: changed and diff mode
    after:
      description: The board after the module ran.
      type: str
      returned: changed and diff mode
"""

import copy
import json

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.qorc.boards.plugins.module_utils.qorc import (
    CONNECTION_ARGS, Board, QorcError, split_reboot_url)


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


def as_text(facts):
    shown = dict((key[len("qorc_"):], value) for key, value in facts.items())
    return json.dumps(shown, indent=2, sort_keys=True) + "\n"


class Settler(object):
    """Compares the board with the wanted state and runs what differs."""

    def __init__(self, module, board):
        self.module = module
        self.board = board
        self.params = module.params
        self.actions = []

    def act(self, name):
        """Records an action; True when it is to be run (not in check mode)."""
        self.actions.append(name)
        return not self.module.check_mode

    def run(self, before):
        """Changes the board; returns the facts expected afterwards and the
        address and binding that reach the board then."""
        p = self.params
        after = copy.deepcopy(before)
        reach = (p["url"], p["bind"])
        if p["psi"] is not None:
            wanted = merge_patch(before["qorc_psi"], p["psi"])
            if wanted != before["qorc_psi"]:
                after["qorc_psi"] = wanted
                if self.act("psi_set"):
                    self.board.psi_set(p["psi"])
        if p["activate_passcode"] is not None and self.act("activate"):
            self.board.activate(p["activate_passcode"])
        if p["reset_imei_passcodes"] is not None and self.act("reset_imei"):
            self.board.run(["reset_imei", p["reset_imei_passcodes"]])
        # Both reboot the board: they come last.
        if p["image"] is not None:
            if self.upgrade_needed(before):
                after["qorc_firmware_version"] = p["image_version"] or "(from %s)" % p["image"]
                if p["reboot_url"]:
                    reach = split_reboot_url(p["reboot_url"], p["bind"])
                if self.act("sysupgrade"):
                    self.upgrade()
        elif p["firmware_source"] == "ffh" and before["qorc_firmware_source"] != "FFH":
            after["qorc_firmware_source"] = "FFH"
            if self.act("fallback_ffh"):
                self.board.run(["fallback_ffh"])
                if not self.board.wait_for_reboot(p["reboot_timeout"]):
                    self.module.warn("the board was not seen rebooting after fallback_ffh")
        return after, reach

    def upgrade_needed(self, before):
        wanted = self.params["image_version"]
        if wanted is None:
            return True
        if before["qorc_firmware_version"] is None:
            raise QorcError("the board offers no version service: image_version cannot be checked")
        return before["qorc_firmware_version"] != wanted

    def upgrade(self):
        p = self.params
        args = ["sysupgrade", "-t", str(p["reboot_timeout"])]
        if p["keep_config"]:
            args.append("-c")
        if p["no_keep"]:
            args.append("-n")
        if p["reboot_url"]:
            args += ["--reboot-url", p["reboot_url"]]
        # qorc waits for the reboot itself, for up to reboot_timeout.
        self.board.run(args + [p["image"]], timeout=p["call_timeout"] + p["reboot_timeout"] + 5)


def check_outcome(params, actions, facts):
    """Problems with a board that accepted every command but does not show
    their effect."""
    if "sysupgrade" in actions and params["image_version"] is not None:
        if facts["qorc_firmware_version"] != params["image_version"]:
            return "after the upgrade the board reports version %r, not %r" % (
                facts["qorc_firmware_version"], params["image_version"])
    if "fallback_ffh" in actions and facts["qorc_firmware_source"] != "FFH":
        return "after fallback_ffh the board reports %s" % facts["qorc_firmware_source"]
    return None


def main():
    argument_spec = dict(
        psi=dict(type="dict"),
        firmware_source=dict(type="str", choices=["ffh"]),
        image=dict(type="path"),
        image_version=dict(type="str"),
        keep_config=dict(type="bool", default=False),
        no_keep=dict(type="bool", default=False),
        reboot_url=dict(type="str"),
        reboot_timeout=dict(type="int", default=180),
        activate_passcode=dict(type="str", no_log=True),
        reset_imei_passcodes=dict(type="path", no_log=False),
    )
    argument_spec.update(CONNECTION_ARGS)
    module = AnsibleModule(
        argument_spec=argument_spec,
        mutually_exclusive=[("image", "firmware_source"), ("keep_config", "no_keep")],
        required_by=dict(image_version="image", reboot_url="image"),
        supports_check_mode=True,
    )
    p = module.params
    board = Board.from_params(p)
    settler = Settler(module, board)
    try:
        before = board.facts()
        after, reach = settler.run(before)
        if settler.actions and not module.check_mode:
            board = Board(p["qorc"], reach[0], reach[1], p["call_timeout"])
            after = board.facts()
    except QorcError as e:
        module.fail_json(msg=e.msg, actions=settler.actions, **e.details)

    result = dict(changed=bool(settler.actions), actions=settler.actions,
                  ansible_facts=before if module.check_mode else after)
    if module._diff and settler.actions:
        result["diff"] = dict(before=as_text(before), after=as_text(after))
    problem = check_outcome(p, settler.actions, after) if not module.check_mode else None
    if problem:
        module.fail_json(msg=problem, **result)
    module.exit_json(**result)


if __name__ == "__main__":
    main()
