# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""Every commit after the one that added this check tells its reason: a subject, an empty line, a body, 72 columns."""

import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

import repo

WIDEST = 72
THIS_CHECK = "tests/repo/commits_test.py"
SOMEBODY = ("-c", "user.name=Somebody", "-c", "user.email=somebody@example.org", "-c", "commit.gpgSign=false")


def git(root, *arguments):
    """The output of git, or None where there is no git, no repository or no such revision."""
    if shutil.which("git") is None:
        return None
    command = ["git", "-c", "safe.directory=*", "-C", str(root), *arguments]
    done = subprocess.run(command, text=True, capture_output=True, check=False)
    return done.stdout if done.returncode == 0 else None


def first_checked(root):
    """The commit that added this check, or None where the history does not reach back to it."""
    if git(root, "rev-parse", "--is-shallow-repository") != "false\n":
        return None
    if git(root, "rev-parse", "--show-prefix") != "\n":  # a tarball, unpacked inside another project's repository
        return None
    added = (git(root, "log", "--diff-filter=A", "--format=%H", "--", THIS_CHECK) or "").split()
    return added[-1] if added else None


def messages_since(root, commit):
    """The messages of the later commits, as (short name, text). Merges are passed over: git writes their text."""
    log = git(root, "log", "--no-merges", "--format=%h%n%B%x00", f"{commit}..HEAD") or ""
    entries = [entry.lstrip("\n") for entry in log.split("\0")]
    return [(name, text) for name, _, text in (entry.partition("\n") for entry in entries) if name]


def faults(message):
    """The faults of a commit message; a good one has none."""
    lines = message.rstrip().splitlines()
    found = [f"over {WIDEST} columns: {line}" for line in lines if len(line) > WIDEST]
    if len(lines) > 1 and lines[1].strip():
        found.append("no empty line after the subject")
    if not any(line.strip() for line in lines[2:]):
        found.append("no body that says why")
    return found


class Commits(unittest.TestCase):
    def test_each_tells_its_reason(self):
        start = first_checked(repo.ROOT)
        if start is None:
            print("There is no history to check here.")
            return
        for name, message in messages_since(repo.ROOT, start):
            with self.subTest(name):
                self.assertEqual(faults(message), [])

    def test_a_message_without_a_body_is_caught(self):
        for message in ("Do this\n", "Do this\n\n\n", ""):
            self.assertEqual(faults(message), ["no body that says why"])

    def test_a_body_in_the_subjects_paragraph_is_caught(self):
        self.assertEqual(faults("Do this\nBecause.\nAnd that."), ["no empty line after the subject"])

    def test_a_line_of_73_columns_is_caught_and_one_of_72_is_not(self):
        self.assertEqual(faults("Do this\n\n" + 72 * "a"), [])
        self.assertEqual(faults("Do this\n\n" + 73 * "a"), ["over 72 columns: " + 73 * "a"])
        self.assertEqual(faults(73 * "s" + "\n\nBecause."), ["over 72 columns: " + 73 * "s"])


class History(unittest.TestCase):
    """The walk over a history, in a repository of its own; without git there is none to walk."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.root = Path(folder.name)
        git(self.root, "init", "--quiet")

    def commit(self, message):
        git(self.root, "add", ".")
        git(self.root, *SOMEBODY, "commit", "--quiet", "--allow-empty", "--allow-empty-message", "--message", message)

    def add_the_check(self):
        check = self.root / THIS_CHECK
        check.parent.mkdir(parents=True)
        check.write_text("the check\n", encoding="utf-8")
        self.commit("Add the check")

    def test_the_commits_after_the_check_are_looked_at_and_no_earlier_one(self):
        self.commit("Before")
        self.add_the_check()
        self.commit("After\n\nBecause.")
        self.commit("")
        messages = [text.strip() for _, text in messages_since(self.root, first_checked(self.root))]
        self.assertEqual(messages, ["", "After\n\nBecause."] if shutil.which("git") else [])

    def test_a_history_without_the_check_counts_as_none(self):
        self.assertIsNone(first_checked(self.root))
        self.commit("Before")
        self.assertIsNone(first_checked(self.root))

    def test_the_history_of_an_outer_repository_counts_as_none(self):
        self.add_the_check()
        self.assertIsNone(first_checked(self.root / "tests"))


if __name__ == "__main__":
    unittest.main()
