# -*- coding: utf-8 -*-
# SPDX-License-Identifier: Apache-2.0
# Copyright: 2026 The qorc developers
# Apache License 2.0 (see LICENSE or https://www.apache.org/licenses/LICENSE-2.0)
"""The options every qorc module takes to reach one board."""

from __future__ import absolute_import, division, print_function

__metaclass__ = type


class ModuleDocFragment(object):
    DOCUMENTATION = r"""
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
    description: Seconds any one call of qorc may take.
    type: int
    default: 60
"""
