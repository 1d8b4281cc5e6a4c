# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""Includes point down only: a folder is a layer, and a header that is not public belongs to its folder alone."""

import re
import unittest

import repo

# From the bottom. A source may include what stands in its own layer and in those below it.
LAYERS = (
    r"msg/base/\w+",
    r"msg/(internal/|sinks/)?\w+",
    r"malloc/(internal/)?\w+",
    r"components/platform/(base/\w+|environment(/\w+)?)",
    r"components/platform/(process_identity|process_info|message_lines|socket(/\w+)?)",
    r"components/platform/(zel_pair_connection|pair_control|pair/\w+)",
    r"components/platform/(debug_hooks|file_control|file_services)(/\w+)?",
)

# The folders whose headers others may include as well: what several units use.
SHARED_FOLDERS = ("msg/base", "components/platform/base")

# The one exception to "down only": the diagnostic log's destination is an environment service.
EXCEPTIONS = {("msg/diag_log.cpp", "components/platform/environment.h")}

OUTSIDE = ("examples", "tools", "bench")


def layer_of(path):
    name = re.sub(r"\.\w+$", "", path)
    matching = [level for level, pattern in enumerate(LAYERS) if re.fullmatch(pattern, name)]
    return matching[0] if matching else None


def own_includes(path, code):
    """The repository's headers that a source includes."""
    code = re.sub(r"/\*.*?\*/", "", code, flags=re.DOTALL)
    names = re.findall(r'^\s*#\s*include\s*[<"]([\w./]+)[>"]', code, flags=re.MULTILINE)
    return [name for name in names if name == "zel.h" or name.startswith(("msg/", "malloc/", "components/", "tests/"))]


def is_public(header):
    return repo.is_public_header(repo.Path(header))


def is_foreign(path, header):
    """Whether a header belongs to a folder that the source does not stand in; that of internal/ is the one above it."""
    folder = header.rpartition("/")[0].removesuffix("/internal")
    return not is_public(header) and folder not in SHARED_FOLDERS and not path.startswith(folder + "/")


def may_include(path, header):
    folder = path.split("/")[0]
    if folder == "tests" or path == "zel.h":
        return True
    if folder in OUTSIDE:
        return is_public(header)
    below, own = layer_of(header), layer_of(path)
    if below is None or own is None:
        return False
    return (path, header) in EXCEPTIONS or (below <= own and not is_foreign(path, header))


def wrong_includes(path, code):
    return [header for header in own_includes(path, code) if not may_include(path, header)]


class Includes(unittest.TestCase):
    def test_those_of_the_repository_point_down(self):
        for path in repo.code_files():
            with self.subTest(str(path)):
                self.assertEqual(wrong_includes(str(path), repo.read(path)), [])

    def test_every_source_of_the_library_has_a_layer(self):
        library = [str(path) for path in repo.code_files() if path.parts[0] in ("msg", "malloc", "components")]
        self.assertEqual([path for path in library if layer_of(path) is None], [])
        self.assertGreater(len(library), 40)

    def test_an_include_that_points_up_is_caught(self):
        self.assertEqual(wrong_includes("msg/msg.cpp", "#include <malloc/zel_malloc.h>\n"), ["malloc/zel_malloc.h"])
        up = "components/platform/zel_pair_connection.h"
        self.assertEqual(wrong_includes("components/platform/socket/message_scan.cpp", f'# include "{up}"\n'), [up])
        self.assertEqual(wrong_includes("msg/base/text.h", "#include <msg/msg.h>\n"), ["msg/msg.h"])

    def test_a_foreign_internal_header_is_caught(self):
        header = "msg/internal/state.h"
        self.assertEqual(wrong_includes("malloc/zel_malloc.cpp", f"#include <{header}>\n"), [header])

    def test_an_internal_header_in_an_example_is_caught(self):
        header = "components/platform/pair/handle.h"
        self.assertEqual(wrong_includes("examples/word_count.cpp", f"#include <{header}>\n"), [header])
        self.assertEqual(wrong_includes("bench/bench.cpp", "#include <msg/base/text.h>\n"), ["msg/base/text.h"])

    def test_a_header_of_no_layer_is_caught(self):
        self.assertEqual(wrong_includes("msg/msg.cpp", "#include <components/other.h>\n"), ["components/other.h"])

    def test_down_and_sideways_is_allowed(self):
        code = "#include <msg/base/text.h>\n#include <malloc/zel_malloc.h>\n#include <components/platform/socket.h>\n"
        self.assertEqual(wrong_includes("components/platform/pair/handle.cpp", code), [])


if __name__ == "__main__":
    unittest.main()
