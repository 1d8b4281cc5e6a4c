# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""Every test that a comment or a decision names is there, and every deliberate oddity and decision names one.

A decision of docs/decisions.md is a question as a heading of the third level, with its choice, its reason and its
tests. The index at the top of the document lists the headings as they follow."""

import fnmatch
import re
import unittest

import repo

DECISIONS = repo.Path("docs/decisions.md")
DEFINITION = re.compile(r"\bTEST(?:_[FP])?\(\s*(\w+),\s*(\w+)\s*\)")
CHECK = re.compile(r"^class (\w+)\(unittest\.TestCase\)|^    def (test_\w+)\(", re.MULTILINE)
NAME = re.compile(r"\b([A-Z]\w+\.(?:[A-Z]|test_)\w+)\b")
REFERENCE = re.compile(r"\b[Tt]ests?:?\*?\s+((?:(?:and|[\s,`])*[A-Z]\w+\.(?:[A-Z]|test_)\w+`?)+)")


def defined_tests(texts):
    return {".".join(match.groups()) for text in texts for match in DEFINITION.finditer(text)}


def defined_checks(text):
    """The tests of a check on the repository, named like the others: Class.test_name."""
    names, owner = set(), ""
    for match in CHECK.finditer(text):
        owner = match.group(1) or owner
        if match.group(2):
            names.add(f"{owner}.{match.group(2)}")
    return names


def comments_in_one_line(code):
    """The comments of a source, each block of lines joined to one."""
    blocks, block = [], []
    for line in code.splitlines() + [""]:
        comment = re.match(r"\s*//\s?(.*)", line)
        if comment:
            block.append(comment.group(1))
        elif block:
            blocks.append(" ".join(block))
            block = []
    return blocks


def named_tests(text):
    return {name for match in REFERENCE.finditer(text) for name in NAME.findall(match.group(1))}


def oddities(code):
    """Each deliberate oddity of a source, with its comment up to the next one."""
    found = []
    for comment in comments_in_one_line(code):
        found += comment.split("DELIBERATE:")[1:]
    return found


def decisions(document):
    """The decisions of the document, each with its heading, on one line."""
    return [" ".join(text.split()) for text in re.findall(r"^### (.*?)(?=^#|\Z)", document, re.MULTILINE | re.DOTALL)]


def incomplete(texts):
    """The decisions that ask nothing, or lack their choice or their reason."""
    return [text[:70] for text in texts if not re.match(r"[^?]+\? - \*Choice:\* .+ - \*Why:\* .+ - \*Tests?:\* ", text)]


def anchor(heading):
    return re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-")


def index_of(headings):
    """The index that lists these headings of the second and third level, as (level, text)."""
    return [f"{'  ' * (len(level) - 2)}- [{text}](#{anchor(text)})" for level, text in headings]


def headings_of(document):
    return [found for found in re.findall(r"^(###?) (.*)$", document, re.MULTILINE) if found[1] != "Index"]


def index_in(document):
    return re.findall(r"^ *- \[.*$", document, re.MULTILINE)


def missing(texts, tests):
    """What names no test, or one that is not there."""
    return [text[:70] for text in texts if not named_tests(text) or not named_tests(text) <= tests]


def without_a_test(patterns, tests):
    """The patterns of a filter that no test matches."""
    return [pattern for pattern in patterns if not any(fnmatch.fnmatchcase(test, pattern) for test in tests)]


def left_out_under_valgrind(text):
    uncommented = re.sub(r"#.*", "", text)
    return re.search(r"\bset\(ZEL_NOT_UNDER_VALGRIND\b(.*?)\)", uncommented, re.DOTALL).group(1).split()


class NamedTests(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        sources = [repo.read(path) for path in repo.files(".cpp", ".c") if path.parts[0] == "tests"]
        checks = [repo.read(path) for path in repo.files(".py") if path.match("tests/repo/*_test.py")]
        cls.tests = defined_tests(sources).union(*map(defined_checks, checks))

    def test_each_deliberate_oddity_names_a_test_that_is_there(self):
        library = [path for path in repo.code_files() if path.parts[0] in ("msg", "malloc", "components")]
        texts = [oddity for path in library for oddity in oddities(repo.read(path))]
        self.assertGreater(len(texts), 10)
        self.assertEqual(missing(texts, self.tests), [])

    def test_each_decision_names_a_test_that_is_there(self):
        texts = decisions(repo.read(DECISIONS))
        self.assertGreater(len(texts), 50)
        self.assertEqual(missing(texts, self.tests), [])

    def test_each_decision_has_question_choice_and_reason(self):
        self.assertEqual(incomplete(decisions(repo.read(DECISIONS))), [])

    def test_each_test_that_a_guide_names_is_there(self):
        for path in ("CONTRIBUTING.md", "tests/README.md"):
            self.assertEqual(named_tests(repo.read(repo.Path(path)).replace("//", "")) - self.tests, set(), path)

    def test_each_test_that_is_left_out_under_valgrind_is_there(self):
        patterns = left_out_under_valgrind(repo.read(repo.Path("tests/CMakeLists.txt")))
        self.assertGreater(len(patterns), 5)
        self.assertEqual(without_a_test(patterns, self.tests), [])

    def test_a_filter_without_a_test_is_caught(self):
        text = "set(ZEL_NOT_UNDER_VALGRIND\n  # why (so)\n  A.IsThere\n  B.*\n  C.*)\n"
        self.assertEqual(without_a_test(left_out_under_valgrind(text), {"A.IsThere", "B.Is"}), ["C.*"])

    def test_the_index_lists_every_decision(self):
        document = repo.read(DECISIONS)
        self.assertEqual(index_in(document), index_of(headings_of(document)))

    def test_a_bad_sample_is_caught(self):
        code = ("// DELIBERATE: odd. Test: Aa.IsThere.\nint a;\n// DELIBERATE: odd as well. Held by the test\n// Aa.IsThere.\n"
                "int b;\n// DELIBERATE: odd too.\n// DELIBERATE: test Bb.IsNot")
        tests = defined_tests(["TEST(Aa, IsThere) {}", "TEST_F(C,\n     IsLong) {}"])
        self.assertEqual(tests, {"Aa.IsThere", "C.IsLong"})
        self.assertEqual(missing(oddities(code), tests), [" odd too. ", " test Bb.IsNot"])
        texts = decisions("# D\n\n### One? x\n- *Test:* `Aa.IsThere`\n\n### Two? no\n\n## H\n\n"
                          "### Three? - *Tests:* `Aa.IsThere`,\n  `Bb.IsNot`\n")
        self.assertEqual([text[:3] for text in missing(texts, tests)], ["Two", "Thr"])

    def test_a_check_is_a_test_that_can_be_named(self):
        tests = defined_checks("class Aa(unittest.TestCase):\n    def test_one(self):\n        pass\n\n    def two(self):\n")
        self.assertEqual(tests, {"Aa.test_one"})
        texts = decisions("### One? - *Tests:* `Aa.test_one`\n\n### Two? - *Tests:* `Aa.test_one`,\n  `Aa.test_two`\n")
        self.assertEqual([text[:3] for text in missing(texts, tests)], ["Two"])

    def test_an_incomplete_decision_is_caught(self):
        whole = ["Why so?", "- *Choice:* so.", "- *Why:* thus.", "- *Test:* `A.B`"]
        self.assertEqual(incomplete([" ".join(whole)]), [])
        for gone in range(len(whole)):
            self.assertEqual(len(incomplete([" ".join(whole[:gone] + whole[gone + 1:])])), 1, whole[gone])

    def test_an_index_that_lacks_an_entry_is_caught(self):
        document = "# D\n\n## Index\n\n- [`a/b.h`](#abh)\n  - [Why so, then?](#why-so-then)\n\n## `a/b.h`\n\n### Why so, then?\n"
        self.assertEqual(index_in(document), index_of(headings_of(document)))
        more = document + "\n### And why not?\n"
        self.assertNotEqual(index_in(more), index_of(headings_of(more)))


if __name__ == "__main__":
    unittest.main()
