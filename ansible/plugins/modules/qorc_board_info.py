#!/usr/bin/python
# SPDX-License-Identifier: Apache-2.0
# -*- coding: utf-8 -*-
# Copyright: 2026 The qorc developers
# Apache License 2.0 (see LICENSE or https://www.apache.org/licenses/LICENSE-2.0)
"""Ansible module: read one modem board through the installed qorc."""

from __future__ import absolute_import, division, print_function

__metaclass__ = type

DOCUMENTATION = r"""
module: qorc_board_info
short_description: Read a modem board through qorc
version_added: 1.1.0
author:
  - qorc developers <qorc-dev@lists.example.org> (!UNKNOWN)
description:
  - Runs the installed C(qorc) against one board's daemon and returns the
    board's firmware source, firmware version and PSI. Changes nothing.
  - Every call of C(qorc) has a time limit; when it runs out, C(qorc) gets
    SIGTERM and ten seconds to clean up before SIGKILL.
  - Run it on the host the board hangs off (delegate_to), not on the board.
  - M(qorc.boards.qorc_board) changes a board and returns the same values
    as facts.
requirements:
  - A qorc that has the C(fw_version) sub-command, on the host that runs the
    module.
extends_documentation_fragment:
  - qorc.boards.connection
attributes:
  check_mode:
    description: Can run in check mode and return changed status prediction
      without modifying the board.
    support: full
    details: The module changes nothing and runs the same in check mode.
  diff_mode:
    description: Will return details on what has changed (or possibly needs
      changing in check mode), when in diff mode.
    support: N/A
    details: The module changes nothing.
  platform:
    description: Target OS/families that can be operated against.
    support: N/A
    platforms: posix
"""

EXAMPLES = r"""
- name: Read every board
  qorc.boards.qorc_board_info:
    url: "{{ qorc_url }}"
    bind: "{{ qorc_bind | default(omit) }}"
  delegate_to: "{{ qorc_host }}"
  register: board

- name: Show the boards still running from flash
  ansible.builtin.debug:
    msg: "{{ inventory_hostname }} runs {{ board.firmware_version }} from flash"
  when: board.firmware_source == 'FFF'
"""

RETURN = r"""
firmware_source:
  description: Where the firmware comes from.
  returned: always
  type: str
  sample: FFF
firmware_version:
  description: The version the firmware reports; null when the board offers
    no version service.
  returned: always
  type: str
  sample: 5.1.0
psi:
  description: The PSI settings.
  returned: always
  type: dict
  sample: {apn: fleet, roaming: true}
"""

from ansible.module_utils.basic import AnsibleModule
from ansible_collections.qorc.boards.plugins.module_utils.qorc import (
    CONNECTION_ARGS, Board, QorcError)


def main():
    module = AnsibleModule(argument_spec=CONNECTION_ARGS, supports_check_mode=True)
    try:
        facts = Board.from_params(module.params).facts()
    except QorcError as e:
        module.fail_json(msg=e.msg, **e.details)
    module.exit_json(changed=False,
                     **dict((key[len("qorc_"):], value) for key, value in facts.items()))


if __name__ == "__main__":
    main()
