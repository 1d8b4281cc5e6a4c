# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""The run of README.md's commands (readme.py, ./dev readme) catches what it must, and README.md has its form."""

import tempfile
import unittest
from pathlib import Path

import readme
import repo


def block(*lines, kind="console"):
    return "\n".join(["Text.", "", "```" + kind, *lines, "```", ""])


class Readme(unittest.TestCase):
    def fault(self, *lines, seconds=60):
        with tempfile.TemporaryDirectory() as folder:
            shell = readme.Shell(folder, folder, seconds)
            self.addCleanup(shell.close)
            return readme.faults(shell, readme.commands_of(block(*lines)))

    def test_every_block_is_of_a_known_kind(self):
        self.assertEqual(readme.odd_blocks(repo.read(Path("README.md"))), [])

    def test_it_shows_both_commands_the_installation_and_the_run(self):
        text = "\n".join(command.text for command in readme.commands_of(repo.read(Path("README.md"))))
        for part in ("./dev run ", "./dev test", "cmake --build ", "cmake --install ", "cc -g ", "./hello_pair"):
            self.assertIn(part, text)

    def test_what_is_shown_passes(self):
        self.assertEqual(self.fault("$ printf 'a\\nb\\n'", "a", "b", "$ cd /", "$ pwd", "/"), "")

    def test_a_line_of_dots_stands_for_any_lines(self):
        self.assertEqual(self.fault("$ printf 'a\\nb\\nc\\n'", "...", "c", "$ echo x", "...", "x", "..."), "")

    def test_another_output_is_caught(self):
        for shown in (["b"], [], ["a", "b"], ["...", "b"], ["a "], ["."]):
            self.assertIn("does not print what is shown", self.fault("$ echo a", *shown), shown)

    def test_a_command_that_fails_is_caught(self):
        self.assertEqual(self.fault("$ echo why >&2; false", "why"), "'echo why >&2; false' ended with 1:\nwhy\n")

    def test_a_command_that_ends_the_shell_is_caught(self):
        self.assertEqual(self.fault("$ exit 3", "$ true"), "'exit 3' ended with 3:\n")

    def test_a_command_without_end_is_caught(self):
        self.assertIn("ended with -9", self.fault("$ tail -f /dev/null", seconds=0.1))

    def test_an_output_without_an_end_of_line_is_caught(self):
        self.assertIn("does not print what is shown", self.fault("$ printf a", "a"))
        self.assertIn("does not print what is shown", self.fault("$ printf 'a\\nb'", "...", "b"))
        self.assertEqual(self.fault("$ printf 'a\\nb'", "a", "..."), "")

    def test_a_later_command_is_not_run_after_a_fault(self):
        self.assertIn("'false'", self.fault("$ false", "$ kill $$"))

    def test_the_tests_themselves_are_passed_over_and_nothing_else(self):
        self.assertEqual(self.fault("$ ./dev test", "..."), "")
        self.assertIn("'./dev tests' ended with 127", self.fault("$ ./dev tests", "..."))

    def test_a_command_in_another_kind_of_block_is_caught(self):
        self.assertEqual(readme.odd_blocks(block("make", kind="sh")), ["sh"])
        self.assertEqual(readme.odd_blocks(block("make", kind="")), [""])
        self.assertEqual(readme.odd_blocks("Run\n\n    make\n"), ["    make"])
        self.assertEqual(readme.odd_blocks(block("make")), ["make"])
        self.assertEqual(readme.odd_blocks(block("$ make", "    x")), [])


if __name__ == "__main__":
    unittest.main()
