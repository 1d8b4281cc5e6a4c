# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""What `./dev run` hands on to the main job. The script runs in a folder of its own, beside stand-ins for its tools."""

import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

import repo

DEV = repo.ROOT / "dev"
# All packages are there, and none is ever installed by this test.
TOOLS = {"cmake": "exit 0", "dpkg-query": "echo 'installed '", "apt-get": "exit 1", "sudo": "exit 1"}
# The main job: says its arguments, and all that it finds on its standard input.
JOB = "echo \"$*\"; cat"


def write_program(path, body):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(f"#!/bin/sh\n{body}\n", encoding="utf-8")
    path.chmod(0o755)


class Dev(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = Path(scratch.name)
        shutil.copy(DEV, self.folder / "dev")
        for name, body in TOOLS.items():
            write_program(self.folder / "tools" / name, body)
        write_program(self.folder / "build" / "x86" / "examples" / "word_count", JOB)

    def run_with_pipe(self, *arguments):
        environment = {"PATH": f"{self.folder / 'tools'}:/usr/bin:/bin"}
        return subprocess.run([self.folder / "dev", "run", *arguments], env=environment, input="piped\n", text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, check=True).stdout

    def test_without_a_file_a_pipe_is_kept_from_the_job(self):
        self.assertEqual(self.run_with_pipe(), "\n")
        self.assertEqual(self.run_with_pipe("--hybrid"), "--hybrid\n")

    def test_with_a_file_the_job_has_it(self):
        self.assertEqual(self.run_with_pipe("-"), "-\npiped\n")
        self.assertEqual(self.run_with_pipe("--hybrid", "/dev/stdin"), "--hybrid /dev/stdin\npiped\n")


if __name__ == "__main__":
    unittest.main()
