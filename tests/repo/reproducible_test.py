# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""Two checkouts in different folders build the same bytes."""

import shutil
import tempfile
import unittest
from pathlib import Path

import repo

LIBRARIES = ("libzel.so", "libzel.a")


def copy_sources(target):
    """Copies what the library is built from; the folders that only stand around it stay empty."""
    for path in repo.files():
        if path.parts[0] not in ("tests", "bench", "docs", "tools", "examples"):
            (target / path).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(repo.ROOT / path, target / path)
    (target / "examples").mkdir()
    (target / "examples/CMakeLists.txt").touch()


def build_library(checkout):
    """Builds the library alone, in the checkout's folder for the preset at hand. Returns that folder."""
    folder = checkout / "build" / repo.PRESET
    repo.run(["cmake", "--preset", repo.PRESET, "-DZEL_TESTS=OFF"], cwd=checkout)
    repo.run(["cmake", "--build", folder, "--target", "zel_static", "zel_shared"])
    return folder


def different(one, other, names):
    return [name for name in names if (one / name).read_bytes() != (other / name).read_bytes()]


class Reproducible(unittest.TestCase):
    def test_two_checkouts_in_different_folders_build_the_same_bytes(self):
        with tempfile.TemporaryDirectory() as folder:
            builds = []
            for checkout in (Path(folder) / "here", Path(folder) / "a checkout" / "elsewhere"):
                copy_sources(checkout)
                builds.append(build_library(checkout))
            self.assertEqual(different(*builds, LIBRARIES), [])

    def test_a_source_that_names_its_place_is_caught(self):
        with tempfile.TemporaryDirectory() as folder:
            objects = []
            for name in ("here", "there"):
                (Path(folder) / name).mkdir()
                source = Path(folder) / name / "sample.cpp"
                source.write_text("const char *place() { return __FILE__; }\n", encoding="utf-8")
                repo.run(["g++", "-c", "-o", source.with_suffix(".o"), source])
                objects.append(source.parent)
            self.assertEqual(different(*objects, ["sample.o"]), ["sample.o"])


if __name__ == "__main__":
    unittest.main()
