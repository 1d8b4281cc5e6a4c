# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""The build as part of another project and without the sources of GoogleTest; the order of its lists."""

import itertools
import re
import subprocess
import tempfile
import unittest
from pathlib import Path

import repo

OUTER = """cmake_minimum_required(VERSION 3.25)
project(outer LANGUAGES C CXX)
add_subdirectory({root} zel)
get_target_property(kind zel::zel TYPE)
"""


def configure(source, build, *options):
    """The exit status of a configuration, and what it said on one line."""
    toolchain = repo.ROOT / f"cmake/{repo.TARGET}.cmake"
    command = ["cmake", "-G", "Ninja", f"-DCMAKE_TOOLCHAIN_FILE={toolchain}", "-S", source, "-B", build, *options]
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True, check=False)
    return done.returncode, " ".join((done.stdout + done.stderr).split())


def cached(build, option):
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    return re.search(rf"^{option}:\w+=(.*)$", cache, re.MULTILINE).group(1)


def listed(text, name):
    """The entries of a list that a CMake file sets."""
    return re.search(rf"^set\({name}\s+(.*?)\)", text, re.MULTILINE | re.DOTALL).group(1).split()


def disorder(paths):
    """The folders whose sources do not follow each other by name, or stand in two places of the list."""
    groups = [(folder, list(names)) for folder, names in itertools.groupby(paths, lambda path: str(Path(path).parent))]
    folders = [folder for folder, _ in groups]
    return [folder for folder, names in groups if names != sorted(names) or folders.count(folder) > 1]


class CMake(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.build = self.folder / "build"

    def test_as_part_of_another_project_it_builds_no_tests(self):
        (self.folder / "CMakeLists.txt").write_text(OUTER.format(root=repo.ROOT), encoding="utf-8")
        status, said = configure(self.folder, self.build)
        self.assertEqual(status, 0, said)
        self.assertEqual(cached(self.build, "ZEL_TESTS"), "OFF")
        self.assertFalse((self.build / "zel/tests").exists())

    def test_without_the_sources_of_googletest_it_says_what_to_do(self):
        status, said = configure(repo.ROOT, self.build, "-DZEL_GOOGLETEST_DIR=/nowhere")
        self.assertEqual(status, 1)
        self.assertEqual(cached(self.build, "ZEL_TESTS"), "ON")
        self.assertIn("The tests need the sources of GoogleTest, and /nowhere does not hold them. Install the package "
                      "googletest, set ZEL_GOOGLETEST_DIR, or build without the tests: -DZEL_TESTS=OFF", said)

    def test_the_sources_are_listed_in_order(self):
        text = repo.read(Path("CMakeLists.txt"))
        for name in ("ZEL_PUBLIC_HEADERS", "ZEL_SOURCES"):
            self.assertEqual(disorder(listed(text, name)), [], name)

    def test_a_list_without_order_is_caught(self):
        text = "set(OTHER x/y.c)\nset(SOURCES\n  a/a.c\n  a/b.c\n  b/d.c\n  b/c.c\n  a/c.c)\n"
        self.assertEqual(disorder(listed(text, "SOURCES")), ["a", "b", "a"])
        self.assertEqual(disorder(listed(text, "OTHER")), [])


if __name__ == "__main__":
    unittest.main()
