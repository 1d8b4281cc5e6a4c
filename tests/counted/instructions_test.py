# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""The library's operations take no more instructions than their figures, and no fewer: instructions.py counts them."""

import os
import unittest
from pathlib import Path

import instructions

ADVICE = "when that is meant, ./dev count writes the figures anew"
PROFILE = """# callgrind format
version: 1
creator: callgrind
desc: Trigger: --dump-after=operation_short_line

positions: line
events: Ir
summary: 1174


ob=/somewhere/build/x86/tests/counted/counted_operations
fl=operations.c
fn=operation_short_line
42 7
cob=/somewhere/build/x86/libzel.so.0.1.0
cfi=msg/msg_calls.cpp
cfn=msg_print
calls=50 10
42 1167

ob=/somewhere/build/x86/libzel.so.0.1.0
fl=msg/msg_calls.cpp
fn=msg_print
10 100
fi=msg/internal/state.h
+3 20
* 5
-7 2
fe=msg/msg_calls.cpp
cob=/lib/libc.so.6
cfn=fputs
calls=50 0
12 1000
13 40

ob=/lib/libc.so.6
fl=fputs.c
fn=fputs
0 1000

totals: 1174
"""


class Instructions(unittest.TestCase):
    def setUp(self):
        self.setting = instructions.setting(os.environ["ZEL_BUILD"])

    def test_each_operation_is_within_three_per_cent_of_its_figure(self):
        figures = instructions.figures_for(self.setting, instructions.read_figures())
        found = instructions.faults(instructions.count(self.setting["program"]), figures)
        if found:
            self.fail("\n".join([f"{self.setting['compiler']}, {self.setting['target']}:", *found, ADVICE]))

    def test_the_library_alone_counts_and_not_what_it_calls(self):
        self.assertEqual(instructions.instructions_of_library(PROFILE), 100 + 20 + 5 + 2 + 40)
        sums = instructions.instructions_by_object(PROFILE)
        self.assertEqual({Path(path).name: count for path, count in sums.items()},
                         {"counted_operations": 7, "libzel.so.0.1.0": 167, "libc.so.6": 1000})

    def test_a_profile_names_its_operation(self):
        self.assertEqual(instructions.operation_of(PROFILE), "short_line")
        self.assertIsNone(instructions.operation_of("desc: Trigger: Program termination\n"))

    def test_more_and_fewer_instructions_are_caught(self):
        for counted, caught in ((1000, False), (1030, False), (970, False), (1031, True), (969, True), (10000, True)):
            with self.subTest(counted):
                self.assertEqual(bool(instructions.faults({"line": counted}, {"line": 1000})), caught)

    def test_an_operation_without_a_figure_is_caught(self):
        self.assertEqual(len(instructions.faults({"line": 1, "block": 2}, {"line": 1})), 1)

    def test_a_figure_without_an_operation_is_caught(self):
        self.assertEqual(len(instructions.faults({"line": 1}, {"line": 1, "block": 2})), 1)

    def test_new_figures_leave_those_of_other_compilers_and_targets_alone(self):
        figures = {"a": {"x86": {"line": 1}, "x86_64": {"line": 2}}, "b": {"x86": {"line": 3}}}
        replaced = instructions.replaced(figures, {"compiler": "a", "target": "x86"}, {"block": 9})
        self.assertEqual(replaced, {"a": {"x86": {"block": 9}, "x86_64": {"line": 2}}, "b": {"x86": {"line": 3}}})

    def test_a_command_that_fails_is_a_failure(self):
        with self.assertRaisesRegex(AssertionError, "ended with 1"):
            instructions.run(["false"], "/")
        with self.assertRaisesRegex(AssertionError, "is not installed"):
            instructions.run(["no-such-program-anywhere"], "/")


if __name__ == "__main__":
    unittest.main()
