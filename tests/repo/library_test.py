# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""The shared library needs the C library alone, and exports what its public headers declare and nothing else."""

import re
import tempfile
import unittest
from pathlib import Path

import repo


def needed(library):
    return re.findall(r"\(NEEDED\).*\[(.*)\]", repo.run(["readelf", "-d", library]))


def exported(library):
    """The symbols that a program could link to."""
    lines = repo.run(["nm", "-D", "--defined-only", library]).splitlines()
    return {line.split()[-1].split("@")[0] for line in lines}


def declared(header_texts):
    names = set()
    for text in header_texts:
        names.update(repo.declared_functions(text), repo.declared_objects(text))
    return names


def start_up_code(library):
    """The entries of the library's table of static constructors, in bytes, but for the compiler's own one."""
    sections = repo.run(["readelf", "-SW", library])
    size = re.search(r"\.init_array\s+INIT_ARRAY\s+\w+\s+\w+\s+(\w+)", sections)
    word = 4 if "ELF32" in repo.run(["readelf", "-h", library]) else 8
    return int(size.group(1), 16) - word if size else 0


def build_sample(folder, code, *options):
    source, library = Path(folder) / "sample.cpp", Path(folder) / "libsample.so"
    source.write_text(code, encoding="utf-8")
    repo.run(["g++", "-shared", "-fPIC", "-o", library, source, *options])
    return library


class Library(unittest.TestCase):
    library = repo.BUILD / "libzel.so"

    def test_it_needs_the_c_library_alone(self):
        self.assertEqual(needed(self.library), ["libc.so.6"])

    def test_it_exports_what_the_public_headers_declare(self):
        headers = [repo.read(path) for path in repo.public_headers()]
        self.assertEqual(exported(self.library), declared(headers))

    def test_nothing_of_it_runs_before_main(self):
        self.assertEqual(start_up_code(self.library), 0)

    def test_another_library_is_caught(self):
        with tempfile.TemporaryDirectory() as folder:
            library = build_sample(folder, "#include <iostream>\nvoid f() { std::cout << 1; }\n")
            self.assertIn("libstdc++.so.6", needed(library))
            self.assertGreater(start_up_code(library), 0)

    def test_an_export_that_no_header_declares_is_caught(self):
        with tempfile.TemporaryDirectory() as folder:
            library = build_sample(folder, 'extern "C" { int a; void b() {} }\n', "-nostdlib")
            self.assertEqual(exported(library) - declared(["extern int a;\n"]), {"b"})

    def test_a_declaration_that_is_not_exported_is_caught(self):
        with tempfile.TemporaryDirectory() as folder:
            library = build_sample(folder, 'extern "C" void b() {}\n', "-nostdlib")
            header = "typedef int (*C)(int);\nvoid b(void);\nC d(C e) __attribute__((sentinel));\n"
            self.assertEqual(declared([header]) - exported(library), {"d"})


if __name__ == "__main__":
    unittest.main()
