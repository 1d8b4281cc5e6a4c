# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""Functions stay short: none above 60 lines, and those of the product mostly far below."""

import re
import statistics
import unittest

import repo

LONGEST = 60
MEDIAN = 12
NEARLY_ALL = 36  # 95 of 100 functions are within this

NOT_FUNCTIONS = re.compile(r"^\s*(if|for|while|switch|do|else|catch|return)\b")
SIGNATURE = re.compile(r"\)\s*(const|noexcept|override|final|->[^{};]*|:[^;]*|\s)*$", re.DOTALL)


def function_lengths(code):
    """The functions of a C or C++ source as (lines from signature to closing brace, first line)."""
    code = repo.blank_directives(repo.blank_comments_and_texts(code))
    functions, open_braces, start = [], [], 0
    for position, character in enumerate(code):
        if character == "{":
            head = code[start:position]
            outside = not any(kind == "function" for kind, _ in open_braces)
            is_function = outside and SIGNATURE.search(head) and not NOT_FUNCTIONS.match(head)
            first = code.count("\n", 0, start + len(head) - len(head.lstrip())) + 1
            open_braces.append(("function" if is_function else "other", first))
        elif character == "}" and open_braces:
            kind, first = open_braces.pop()
            if kind == "function":
                functions.append((code.count("\n", 0, position) + 2 - first, first))
        if character in "{};":
            start = position + 1
    return functions


def too_long(code):
    return [function for function in function_lengths(code) if function[0] > LONGEST]


def lengths_of(paths):
    return sorted(length for path in paths for length, _ in function_lengths(repo.read(path)))


def within(lengths, share):
    return lengths[min(len(lengths) - 1, int(len(lengths) * share))]


class Functions(unittest.TestCase):
    def test_none_of_the_repository_is_too_long(self):
        for path in repo.code_files():
            with self.subTest(str(path)):
                self.assertEqual(too_long(repo.read(path)), [])

    def test_those_of_the_library_are_mostly_short(self):
        lengths = lengths_of(path for path in repo.code_files() if path.parts[0] in ("msg", "malloc", "components"))
        print(f"{len(lengths)} functions: median {statistics.median(lengths)} lines, "
              f"95 % within {within(lengths, 0.95)}, longest {lengths[-1]}")
        self.assertGreater(len(lengths), 150)
        self.assertLessEqual(statistics.median(lengths), MEDIAN)
        self.assertLessEqual(within(lengths, 0.95), NEARLY_ALL)

    def test_a_function_of_61_lines_is_caught_and_one_of_60_is_not(self):
        for body, caught in ((58, []), (59, [(61, 3)])):
            code = "namespace n {\n\nint f(int a) {\n" + "    g(a);\n" * body + "}\n\n} // namespace n\n"
            self.assertEqual(too_long(code), caught)

    def test_each_kind_of_function_is_seen(self):
        samples = (
            "int f(void) {\n}\n",
            "auto f(int a) -> int {\n}\n",
            "struct S {\n    S() : a_(1) {\n    }\n    int f() const {\n    }\n};\n",
            "TEST(A, B) {\n    if (a) {\n    }\n}\n",
            "void f(int a,\n       int b) {\n    call([](int c) { return c; });\n}\n",
        )
        counts = [len(function_lengths(sample)) for sample in samples]
        self.assertEqual(counts, [1, 1, 2, 1, 1])
        self.assertEqual(function_lengths(samples[4]), [(4, 1)])

    def test_braces_in_comments_and_texts_do_not_count(self):
        self.assertEqual(function_lengths('int f(void) {\n    // }\n    g("}", \'}\'); /* } */\n}\n'), [(4, 1)])


if __name__ == "__main__":
    unittest.main()
