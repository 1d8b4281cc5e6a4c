# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""The shared library needs the C library alone, and exports what its public headers declare and nothing else. It calls
the C library without stubs, and reaches its own variables without a table of addresses."""

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


def stubs(library):
    """The functions of others that the library calls through a stub. One of its own has an address here. Two are left
    out, which code that the C library itself adds may call: atexit calls __cxa_atexit, and on 32-bit x86 there is code
    for the end of a damaged stack."""
    relocations = [line.split() for line in repo.run(["readelf", "-rW", library]).splitlines() if "_JUMP_SLO" in line]
    called = [name for _, _, _, address, name, *_ in relocations if int(address, 16) == 0]
    return [name for name in called if not name.startswith(("__cxa_atexit", "__stack_chk_fail"))]


def own_variables(archive):
    """The variables that the objects of the archive share with one another."""
    lines = repo.run(["nm", "--defined-only", archive]).splitlines()
    return {words[2] for words in map(str.split, lines) if len(words) == 3 and words[1] in "BDR"}


def reached_through_table(archive):
    """The symbols whose addresses the objects read from the table of addresses."""
    relocations = repo.run(["readelf", "-rW", archive]).splitlines()
    return {line.split()[4] for line in relocations if re.search(r" R_\w+GOT(PCRELX?|32X?) ", line)}


def compiler_of_build():
    """The compiler of the library, with the option for its target."""
    compiler = re.search(r"^CMAKE_CXX_COMPILER:\w+=(.*)$", repo.read(repo.BUILD / "CMakeCache.txt"), re.MULTILINE)
    return [compiler.group(1), "-m32" if repo.TARGET == "x86" else "-m64"]


def build_sample(folder, code, *options, compiler=("g++",)):
    source, library = Path(folder) / "sample.cpp", Path(folder) / "libsample.so"
    source.write_text(code, encoding="utf-8")
    repo.run([*compiler, "-shared", "-fPIC", "-o", library, source, *options])
    return library


def build_objects(folder, attribute):
    """An archive of two members. One defines a variable, the other reads it. Both see its declaration."""
    archive, declaration = Path(folder) / "libsample.a", f"extern {attribute} int variable;\n"
    for name, code in (("one", "int variable = 1;\n"), ("other", "int f() { return variable; }\n")):
        source, member = Path(folder) / f"{name}.cpp", Path(folder) / f"{name}.o"
        source.write_text(declaration + code, encoding="utf-8")
        repo.run(["g++", "-O2", "-fPIC", "-c", "-o", member, source])
        repo.run(["ar", "rc", archive, member])
    return archive


CALL = "#include <cstdlib>\nvoid *f() { return malloc(1); }\n"


class Library(unittest.TestCase):
    library = repo.BUILD / "libzel.so"
    archive = repo.BUILD / "libzel.a"

    def test_it_needs_the_c_library_alone(self):
        self.assertEqual(needed(self.library), ["libc.so.6"])

    def test_it_exports_what_the_public_headers_declare(self):
        headers = [repo.read(path) for path in repo.public_headers()]
        self.assertEqual(exported(self.library), declared(headers))

    def test_nothing_of_it_runs_before_main(self):
        self.assertEqual(start_up_code(self.library), 0)

    def test_it_calls_the_c_library_without_stubs_where_its_compiler_can(self):
        with tempfile.TemporaryDirectory() as folder:
            sample = build_sample(folder, CALL, "-fno-plt", compiler=compiler_of_build())
            self.assertEqual(bool(stubs(self.library)), bool(stubs(sample)))

    def test_its_objects_reach_their_own_variables_without_the_table(self):
        own = own_variables(self.archive) - exported(self.library)
        self.assertNotEqual(own, set())
        self.assertEqual(own & reached_through_table(self.archive), set())

    def test_a_stub_is_caught(self):
        with tempfile.TemporaryDirectory() as folder:
            self.assertIn("malloc", " ".join(stubs(build_sample(folder, CALL))))

    def test_a_variable_behind_the_table_is_caught(self):
        for attribute, found in (("", {"variable"}), ('__attribute__((visibility("hidden")))', set())):
            with tempfile.TemporaryDirectory() as folder:
                archive = build_objects(folder, attribute)
                self.assertEqual(own_variables(archive), {"variable"})
                self.assertEqual(own_variables(archive) & reached_through_table(archive), found)

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
