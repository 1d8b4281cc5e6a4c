# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""No dead file, a licence line at the head of each, and nothing in the texts that belongs to one machine or one day."""

import json
import re
import unittest

import repo

BUILD_LISTS = ("CMakeLists.txt", ".cmake")
LICENCE = "Copyright the zel authors. SPDX-License-Identifier: Apache-2.0"
# In pieces, so that this file does not hold what it looks for.
UNFINISHED = re.compile(r"\b(" + "|".join(("TO" + "DO", "FIX" + "ME", "XX" + "X", "HA" + "CK", "GTEST" + "_SKIP")) + r")\b")
BROKEN_BANNER = re.compile(r"^\s*(?://|#) ?-{20,}$", re.MULTILINE)
ONE_MACHINE = re.compile(r"/(home/(?!guest\b)|root/|Users/|work/)\w")


def build_lists():
    paths = repo.files(".txt", ".cmake", ".json")
    return [path for path in paths if path.name == "CMakeLists.txt" or path.suffix in (".cmake", ".json")]


def is_named(path, lists):
    """Whether a build list of the file's own folder, or of one above it, names the file; lists: path to text.

    A CMake module is named by the include of its plain name."""
    if path.suffix == ".cmake" and any(f"include({path.stem})" in text for text in lists.values()):
        return True
    for listing, text in lists.items():
        if path.is_relative_to(listing.parent):
            name = re.escape(str(path.relative_to(listing.parent)))
            if re.search(rf"(?<![\w./-]){name}(?![\w-])|/{name}(?![\w-])", text):
                return True
    return False


def dead_sources(sources, compiled, lists):
    """The sources that are neither compiled by this build nor named in a build list."""
    return [str(path) for path in sources if path not in compiled and not is_named(path, lists)]


def dead_headers(headers, texts):
    """The headers that no file includes."""
    included = {name for text in texts for name in re.findall(r'^\s*#\s*include\s*[<"](.+?)[>"]', text, re.MULTILINE)}
    return [str(path) for path in headers if not any(str(path) == name or str(path).endswith("/" + name) for name in included)]


def compiled_sources():
    commands = json.loads((repo.BUILD / "compile_commands.json").read_text(encoding="utf-8"))
    paths = [repo.Path(command["file"]) for command in commands]
    return {path.relative_to(repo.ROOT) for path in paths if path.is_relative_to(repo.ROOT)}


def without_licence(path, text):
    return LICENCE not in "\n".join(text.splitlines()[:2])


def unfinished_or_local(text):
    return [match.group() for pattern in (UNFINISHED, ONE_MACHINE) for match in pattern.finditer(text)]


class Files(unittest.TestCase):
    def test_every_source_and_script_of_the_repository_is_used(self):
        lists = {path: repo.read(path) for path in build_lists()}
        sources = repo.files(".cpp", ".c", ".cmake", ".in", ".supp")
        sources += [path for path in repo.files(".py", ".sh") if path.name != "repo.py"]
        self.assertEqual(dead_sources(sources, compiled_sources(), lists), [])

    def test_every_header_of_the_repository_is_included(self):
        texts = [repo.read(path) for path in repo.files(".cpp", ".c", ".h", ".txt", ".cmake", ".py")]
        public = {repo.Path("zel.h")}  # it is there for others
        headers = [path for path in repo.files(".h") if path not in public and path.name != "prelude.h"]
        self.assertEqual(dead_headers(headers, texts), [])

    def test_every_source_of_the_repository_has_its_licence_line(self):
        kinds = (".cpp", ".c", ".h", ".cmake", ".py", ".sh", ".supp")
        paths = repo.files(*kinds) + [repo.Path("dev"), repo.Path(".ci/run"), repo.Path("CMakeLists.txt")]
        self.assertEqual([str(path) for path in paths if without_licence(path, repo.read(path))], [])

    def test_no_text_of_the_repository_is_unfinished_or_local(self):
        for path in repo.files():
            with self.subTest(str(path)):
                self.assertEqual(unfinished_or_local((repo.ROOT / path).read_text(encoding="utf-8", errors="replace")), [])

    def test_no_banner_of_the_repository_is_broken_in_two(self):
        paths = repo.files(".cpp", ".c", ".h", ".py", ".cmake", ".txt") + [repo.Path("dev")]
        self.assertEqual([str(path) for path in paths if BROKEN_BANNER.search(repo.read(path))], [])

    def test_a_dead_source_is_caught(self):
        lists = {repo.Path("msg/CMakeLists.txt"): "add_library(a used.cpp not_unused.cpp)"}
        sources = [repo.Path("msg/used.cpp"), repo.Path("msg/unused.cpp"), repo.Path("malloc/compiled.cpp")]
        self.assertEqual(dead_sources(sources, {repo.Path("malloc/compiled.cpp")}, lists), ["msg/unused.cpp"])

    def test_a_dead_header_is_caught(self):
        headers = [repo.Path("msg/msg.h"), repo.Path("tests/support/child.h"), repo.Path("msg/internal/old.h")]
        texts = ["#include <msg/msg.h>\n", '#include "support/child.h"\n// #include <msg/internal/old.h>\n']
        self.assertEqual(dead_headers(headers, texts), ["msg/internal/old.h"])

    def test_a_missing_licence_line_is_caught(self):
        self.assertTrue(without_licence("a.cpp", "// A file.\n"))
        self.assertFalse(without_licence("a.sh", f"#!/bin/sh\n# {LICENCE}\n"))

    def test_a_broken_banner_is_caught(self):
        self.assertTrue(BROKEN_BANNER.search("// ---- Steps\n// " + 40 * "-" + "\n"))
        self.assertFalse(BROKEN_BANNER.search("// ---- Steps " + 40 * "-" + "\n"))

    def test_an_unfinished_or_local_text_is_caught(self):
        samples = ("// TO" + "DO: later", "see /ho" + "me/someone/notes", "/wo" + "rk/tree", "/ro" + "ot/x")
        self.assertEqual([len(unfinished_or_local(sample)) for sample in samples], [1, 1, 1, 1])

    def test_the_users_folder_of_the_examples_and_a_name_template_are_allowed(self):
        self.assertEqual(unfinished_or_local("/home/guest and /tmp/zel-" + 6 * "X"), [])


if __name__ == "__main__":
    unittest.main()
