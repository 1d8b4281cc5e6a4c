# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""The library and the programs that are shipped are compiled with the compiler's protections."""

import json
import re
import tempfile
import unittest
from pathlib import Path

import repo


def imports(file):
    """The names that the C library is to provide."""
    return {line.split()[-1].split("@")[0] for line in repo.run(["nm", "-D", "--undefined-only", file]).splitlines()}


def checked_calls(file):
    """The checked forms of calls, but for the end that a damaged stack leads to."""
    return {name for name in imports(file) if name.endswith("_chk")}


def unmarked_objects(archive):
    """The members that do not say that their indirect branches end at marks and their returns are their own."""
    _, *members = re.split(r"^File: .*\((.*)\)$", repo.run(["readelf", "-n", archive]), flags=re.MULTILINE)
    return [name for name, notes in zip(members[::2], members[1::2]) if not ("IBT" in notes and "SHSTK" in notes)]


def probes_large_frames(file):
    """Whether a frame of more than a page is entered page by page, each of which is touched."""
    touched_page = r"\bsubq?\s+\$0x1000,%[er]sp\n.*\b(or|mov)[ql]\s+\$0x0,(0x0)?\(%[er]sp(,1)?\)"
    return re.search(touched_page, repo.run(["objdump", "-d", file])) is not None


def commands_without(option, folder):
    """The objects of the folder's programs that are compiled without the option."""
    commands = json.loads(repo.read(repo.BUILD / "compile_commands.json"))
    words = [entry["command"].split() for entry in commands if f" -o {folder}/CMakeFiles/" in entry["command"]]
    return [command[-1] for command in words if option not in command] if words else [folder]


def build_sample(folder, *options):
    """An archive of one member with a large frame."""
    source, member, sample = (Path(folder) / name for name in ("sample.cpp", "sample.o", "sample.a"))
    source.write_text("void g(char *); void f() { char frame[65536]; g(frame); }\n", encoding="utf-8")
    repo.run(["g++", "-O2", "-c", "-o", member, source, *options])
    repo.run(["ar", "rc", sample, member])
    return sample


class Hardening(unittest.TestCase):
    library = repo.BUILD / "libzel.so"
    archive = repo.BUILD / "libzel.a"

    def test_the_library_notices_an_overrun_of_its_stack(self):
        self.assertIn("__stack_chk_fail", imports(self.library))

    def test_each_object_of_the_library_marks_its_branch_targets(self):
        self.assertEqual(unmarked_objects(self.archive), [])

    def test_the_library_cannot_jump_over_a_guard_page(self):
        self.assertTrue(probes_large_frames(self.library))

    def test_the_library_calls_no_checked_forms(self):
        self.assertEqual(checked_calls(self.library), set())

    def test_the_examples_are_compiled_with_checked_forms(self):
        for option in ("-D_FORTIFY_SOURCE=2", "-fstack-protector-strong"):
            self.assertEqual(commands_without(option, "examples"), [])

    def test_a_missing_option_is_caught(self):
        self.assertNotEqual(commands_without("-D_FORTIFY_SOURCE=2", "tests/repo"), [])

    def test_an_object_without_protection_is_caught(self):
        with tempfile.TemporaryDirectory() as folder:
            plain = build_sample(folder, "-fno-stack-protector", "-fno-stack-clash-protection", "-fcf-protection=none")
            self.assertEqual(unmarked_objects(plain), ["sample.o"])
            self.assertFalse(probes_large_frames(plain))

    def test_an_object_with_protection_is_recognised(self):
        with tempfile.TemporaryDirectory() as folder:
            hard = build_sample(folder, "-fstack-clash-protection", "-fcf-protection=full")
            self.assertEqual(unmarked_objects(hard), [])
            self.assertTrue(probes_large_frames(hard))


if __name__ == "__main__":
    unittest.main()
