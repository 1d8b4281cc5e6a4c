# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""Every test that a comment or a decision names is there, and every deliberate oddity and decision names one."""

import re
import unittest

import repo

DEFINITION = re.compile(r"\bTEST(?:_[FP])?\(\s*(\w+),\s*(\w+)\s*\)")
NAME = re.compile(r"\b([A-Z]\w+\.[A-Z]\w+)\b")
REFERENCE = re.compile(r"\b[Tt]ests?:?\*?\s+((?:(?:and|[\s,`])*[A-Z]\w+\.[A-Z]\w+`?)+)")


def defined_tests(texts):
    return {".".join(match.groups()) for text in texts for match in DEFINITION.finditer(text)}


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
    """The decisions of the document: the paragraphs that begin in bold."""
    return [text for text in re.split(r"\n\s*\n", document) if text.startswith("**")]


def missing(texts, tests):
    """What names no test, or one that is not there."""
    return [text[:70] for text in texts if not named_tests(text) or not named_tests(text) <= tests]


class NamedTests(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        sources = [repo.read(path) for path in repo.files(".cpp", ".c") if path.parts[0] == "tests"]
        cls.tests = defined_tests(sources)

    def test_each_deliberate_oddity_names_a_test_that_is_there(self):
        library = [path for path in repo.code_files() if path.parts[0] in ("msg", "malloc", "components")]
        texts = [oddity for path in library for oddity in oddities(repo.read(path))]
        self.assertGreater(len(texts), 10)
        self.assertEqual(missing(texts, self.tests), [])

    def test_each_decision_names_a_test_that_is_there(self):
        texts = [" ".join(text.split()) for text in decisions(repo.read(repo.Path("docs/decisions.md")))]
        self.assertGreater(len(texts), 10)
        self.assertEqual(missing(texts, self.tests), [])

    def test_a_bad_sample_is_caught(self):
        code = "// DELIBERATE: odd. Held by the test Aa.IsThere.\nint a;\n// DELIBERATE: odd too.\n// DELIBERATE: test Bb.IsNot"
        tests = defined_tests(["TEST(Aa, IsThere) {}", "TEST_F(C,\n     IsLong) {}"])
        self.assertEqual(tests, {"Aa.IsThere", "C.IsLong"})
        self.assertEqual(missing(oddities(code), tests), [" odd too. ", " test Bb.IsNot"])
        document = "# D\n\n**One.** x\n*Test:* `Aa.IsThere`\n\n**Two.** no\n\n**Three.** *Tests:* `Aa.IsThere`, `Bb.IsNot`"
        self.assertEqual([text[:5] for text in missing(decisions(document), tests)], ["**Two", "**Thr"])


if __name__ == "__main__":
    unittest.main()
