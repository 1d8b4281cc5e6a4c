# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""Programs outside the tree build against an installed prefix, as a CMake package and by pkg-config, and run."""

import os
import re
import shutil
import subprocess
import tempfile
import unittest
from pathlib import Path

import repo

CONSUMER = repo.ROOT / "tests/repo/consumer"
WORD = {"x86": "-m32", "x86_64": "-m64"}[repo.TARGET]
OTHER = {"x86": "x86_64", "x86_64": "x86"}[repo.TARGET]
SAYS = "forty-two is 42: 1 0\n"

COMPILERS = {
    "consumer.c": ["gcc", "-std=c11"],
    "consumer.cpp": ["g++", "-std=c++17"],
}


def build_type():
    """The build type as it stands in the names of the package's files."""
    cache = (repo.BUILD / "CMakeCache.txt").read_text(encoding="utf-8")
    return re.search(r"^CMAKE_BUILD_TYPE:\w+=(\w+)$", cache, re.MULTILINE).group(1).lower()


def installed_files(prefix):
    return {str(path.relative_to(prefix)) for path in prefix.rglob("*") if not path.is_dir()}


def expected_files():
    headers = {f"include/zel/{path}" for path in repo.public_headers()}
    libraries = {"lib/libzel.a", "lib/libzel.so", "lib/libzel.so.0", "lib/libzel.so.0.1.0"}
    names = ("zelConfig", f"zelConfig-{build_type()}", "zelConfigVersion")
    package = {f"lib/cmake/zel/{name}.cmake" for name in names}
    return headers | libraries | package | {"lib/pkgconfig/zel.pc"}


def configure_consumer(build, prefix, target):
    """Configures the consumer for a target; its result tells whether the package was found."""
    toolchain = repo.ROOT / f"cmake/{target}.cmake"
    options = ["-G", "Ninja", f"-DCMAKE_TOOLCHAIN_FILE={toolchain}", f"-DCMAKE_PREFIX_PATH={prefix}"]
    command = ["cmake", "-S", str(CONSUMER), "-B", str(build), *options]
    return subprocess.run(command, capture_output=True, text=True, check=False)


class Install(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        first = self.folder / "first"
        repo.run(["cmake", "--install", repo.BUILD, "--prefix", first])
        # A prefix that was moved afterwards serves as well.
        self.prefix = self.folder / "a prefix"
        shutil.move(first, self.prefix)

    def pkg_config(self, prefix, *options):
        path = str(prefix / "lib/pkgconfig")
        return repo.run(["pkg-config", *options, "zel"], env={**os.environ, "PKG_CONFIG_PATH": path}).split()

    def test_the_prefix_holds_what_is_promised_and_nothing_else(self):
        self.assertEqual(installed_files(self.prefix), expected_files())

    def test_programs_find_it_as_a_cmake_package(self):
        build = self.folder / "consumer"
        done = configure_consumer(build, self.prefix, repo.TARGET)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        repo.run(["cmake", "--build", build])
        for program in ("c_zel", "c_static", "cpp_zel", "cpp_static"):
            self.assertEqual(repo.run([build / program]), SAYS, program)

    def test_a_program_for_the_other_target_does_not_find_it(self):
        done = configure_consumer(self.folder / "other", self.prefix, OTHER)
        self.assertNotEqual(done.returncode, 0)
        bits = {"x86": "32bit", "x86_64": "64bit"}[repo.TARGET]
        self.assertIn(f"considered but not accepted: {self.prefix}/lib/cmake/zel/zelConfig.cmake, version: 0.1.0 ({bits})",
                      " ".join(done.stderr.split()))

    def test_programs_find_it_by_pkg_config(self):
        # pkg-config puts out words for a shell, so this prefix is one without a blank.
        prefix = self.folder / "prefix"
        shutil.move(self.prefix, prefix)
        flags = self.pkg_config(prefix, "--cflags", "--libs")
        for source, compiler in COMPILERS.items():
            for kind, library in (("shared", []), ("static", [prefix / "lib/libzel.a"])):
                program = self.folder / f"{source}-{kind}"
                libraries = library or [flag for flag in flags if not flag.startswith("-I")]
                cflags = [flag for flag in flags if flag.startswith("-I")]
                repo.run([*compiler, WORD, CONSUMER / source, *cflags, "-o", program, *libraries])
                environment = {**os.environ, "LD_LIBRARY_PATH": str(prefix / "lib") if kind == "shared" else ""}
                self.assertEqual(repo.run([program], env=environment), SAYS, program.name)

    def test_the_package_tells_its_version(self):
        self.assertEqual(self.pkg_config(self.prefix, "--modversion"), ["0.1.0"])


if __name__ == "__main__":
    unittest.main()
