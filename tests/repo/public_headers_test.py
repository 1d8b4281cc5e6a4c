# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""Every declaration of a public header is documented where it stands, and one include brings nearly all."""

import re
import unittest

import repo


def undocumented(header_text):
    """The declarations without a comment: neither one that ends above their group, nor one that ends their line.

    A group is declarations without an empty line between them. A section's banner documents nothing."""
    lines = header_text.splitlines()
    bare, documented_to = [], None
    for first, last, text in repo.declarations(header_text):
        above = lines[first - 2].rstrip()
        comment_above = above.endswith("*/") and not re.search(r"-{4,} \*/$", above)
        in_group = documented_to == first - 1
        comment_behind = re.search(r";\s*/\*.*\*/$", lines[last - 1])
        if comment_above or in_group or comment_behind:
            documented_to = last
        else:
            bare.append(" ".join(text.split()))
    return bare


class PublicHeaders(unittest.TestCase):
    def test_every_declaration_of_the_repository_is_documented(self):
        for path in repo.public_headers():
            with self.subTest(str(path)):
                self.assertEqual(undocumented(repo.read(path)), [])

    def test_the_one_include_brings_every_public_header_but_that_of_the_sinks(self):
        included = set(re.findall(r"^#include <(.+)>$", repo.read(repo.Path("zel.h")), re.MULTILINE))
        expected = {str(path) for path in repo.public_headers()} - {"zel.h", "msg/sinks.h"}
        self.assertEqual(included, expected)

    def test_there_are_declarations_to_look_at(self):
        counts = [len(repo.declared_functions(repo.read(path))) for path in repo.public_headers()]
        self.assertGreater(sum(counts), 100)

    def test_a_declaration_behind_an_empty_line_is_caught(self):
        self.assertEqual(undocumented("/* Says a. */\nint a(void);\n\nint b(int c,\n      int d);\n"), ["int b(int c, int d);"])

    def test_a_declaration_under_a_banner_alone_is_caught(self):
        self.assertEqual(undocumented("/* ---- Section ---- */\nextern int a;\n"), ["extern int a;"])

    def test_an_undocumented_record_is_caught(self):
        sample = 'extern "C" {\n#define A(x) \\\n  f(x);\ntypedef struct T {\n    int a; /* one */\n} T;\n}\n'
        self.assertEqual(undocumented(sample), ["typedef struct T { int a; } T;"])

    def test_a_group_under_one_comment_and_a_comment_behind_a_line_are_enough(self):
        self.assertEqual(undocumented("/* Both. */\nint a(void);\nint b(void);\n\nint c(void); /* And c. */\n"), [])


if __name__ == "__main__":
    unittest.main()
