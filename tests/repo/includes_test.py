# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""Includes point down only: a folder is a layer, and `internal/` belongs to its folder alone."""

import re
import unittest

import repo

# From the bottom. A source may include what stands in its own layer and in those below it.
LAYERS = (
    r"msg/base/\w+",
    r"msg/(internal/)?\w+",
    r"malloc/(internal/)?\w+",
    r"components/platform/(internal/)?(environment\w*|path|sleep|descriptor|allocation)",
    r"components/platform/(internal/)?(process_info|socket\w*|message_scan)",
    r"components/platform/(internal/)?(zel_pair_connection\w*|pair|child_start|child_exit)",
    r"components/platform/(internal/)?(debug_hooks\w*|file_control(\w*|/\w+)|relative_path)",
)

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


def may_include(path, header):
    folder = path.split("/")[0]
    if folder == "tests" or path == "zel.h":
        return True
    if folder in OUTSIDE:
        return is_public(header)
    below, own = layer_of(header), layer_of(path)
    if below is None or own is None:
        return False
    internal = re.match(r"(.*)/internal/", header)
    foreign = internal is not None and not path.startswith(internal.group(1) + "/")
    return (path, header) in EXCEPTIONS or (below <= own and not foreign)


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
        self.assertEqual(wrong_includes("components/platform/socket_parse.cpp", f'# include "{up}"\n'), [up])
        self.assertEqual(wrong_includes("msg/base/text.h", "#include <msg/msg.h>\n"), ["msg/msg.h"])

    def test_a_foreign_internal_header_is_caught(self):
        header = "msg/internal/state.h"
        self.assertEqual(wrong_includes("malloc/zel_malloc.cpp", f"#include <{header}>\n"), [header])

    def test_an_internal_header_in_an_example_is_caught(self):
        header = "components/platform/internal/pair.h"
        self.assertEqual(wrong_includes("examples/word_count.cpp", f"#include <{header}>\n"), [header])
        self.assertEqual(wrong_includes("bench/bench.cpp", "#include <msg/base/text.h>\n"), ["msg/base/text.h"])

    def test_a_header_of_no_layer_is_caught(self):
        self.assertEqual(wrong_includes("msg/msg.cpp", "#include <components/other.h>\n"), ["components/other.h"])

    def test_down_and_sideways_is_allowed(self):
        code = "#include <msg/base/text.h>\n#include <malloc/zel_malloc.h>\n#include <components/platform/socket.h>\n"
        self.assertEqual(wrong_includes("components/platform/zel_pair_connection.cpp", code), [])


if __name__ == "__main__":
    unittest.main()
