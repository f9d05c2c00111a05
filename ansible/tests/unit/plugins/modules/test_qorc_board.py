# SPDX-License-Identifier: Apache-2.0
# -*- coding: utf-8 -*-
# Copyright: 2026 The qorc developers
# Apache License 2.0 (see LICENSE or https://www.apache.org/licenses/LICENSE-2.0)

from __future__ import absolute_import, division, print_function

__metaclass__ = type

import unittest

from ansible_collections.qorc.boards.plugins.modules.qorc_board import merge_patch


class MergePatchTest(unittest.TestCase):
    def test_rfc7386_cases(self):
        cases = [
            ({"a": "b"}, {"a": "c"}, {"a": "c"}),
            ({"a": "b"}, {"b": "c"}, {"a": "b", "b": "c"}),
            ({"a": "b"}, {"a": None}, {}),
            ({"a": "b", "b": "c"}, {"a": None}, {"b": "c"}),
            ({"a": ["b"]}, {"a": "c"}, {"a": "c"}),
            ({"a": "c"}, {"a": ["b"]}, {"a": ["b"]}),
            ({"a": {"b": "c"}}, {"a": {"b": "d", "c": None}}, {"a": {"b": "d"}}),
            ({"a": [{"b": "c"}]}, {"a": [1]}, {"a": [1]}),
            ({"e": None}, {"a": 1}, {"e": None, "a": 1}),
            ([1, 2], {"a": "b", "c": None}, {"a": "b"}),
            ({}, {"a": {"bb": {"ccc": None}}}, {"a": {"bb": {}}}),
        ]
        for target, patch, wanted in cases:
            with self.subTest(target=target, patch=patch):
                self.assertEqual(merge_patch(target, patch), wanted)

    def test_the_target_is_left_as_it_was(self):
        target = {"a": {"b": [1]}}
        merge_patch(target, {"a": {"b": None, "c": 2}})
        self.assertEqual(target, {"a": {"b": [1]}})


if __name__ == "__main__":
    unittest.main()
