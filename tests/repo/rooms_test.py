# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""docs/architecture.md shows every file of the library in the room where it stands, and none that is not there."""

import re
import unittest

import repo

ROOMS = ("msg", "malloc", "components")
# Their files are shown in the row of the folder.
SHOWN_AS_ONE = ("msg/internal", "malloc/internal")


def shown_files(document):
    """The files that the tables of the rooms show, as FOLDER/NAME; a name without a suffix is a source and its header."""
    shown, folder = set(), None
    for line in document.splitlines():
        if line.startswith("#"):
            heading = re.match(r"### `([\w/]+)/`", line)
            folder = heading and heading.group(1)
        row = folder and re.match(r"\| `([\w.]+)` \|", line)
        if row:
            name = row.group(1)
            shown |= {f"{folder}/{name}"} if "." in name else {f"{folder}/{name}.cpp", f"{folder}/{name}.h"}
    return shown


def files_of_rooms(paths):
    """The sources and internal headers of the rooms; a source that stands alone beside its header has no row."""
    found = [path for path in paths if path.parts[0] in ROOMS and str(path.parent) not in SHOWN_AS_ONE]
    return {str(path) for path in found if not repo.is_public_header(path) and str(path.parent) != "components/platform"}


def differences(document, paths):
    """The files that are shown and not there, and those that are there and not shown."""
    shown = shown_files(document)
    there = files_of_rooms(paths)
    return sorted(shown - there), sorted(there - shown)


class Rooms(unittest.TestCase):
    def test_every_file_is_shown_where_it_stands(self):
        document = repo.read(repo.Path("docs/architecture.md"))
        self.assertGreater(len(shown_files(document)), 50)
        self.assertEqual(differences(document, repo.files(".cpp", ".h")), ([], []))

    def test_a_file_that_is_missing_here_or_there_is_caught(self):
        document = "### `msg/base/`: all\n\n| file | what |\n|---|---|\n| `text` | x |\n| `gone.cpp` | x |\n\n## End\n\n| `no` | x |\n"
        paths = [repo.Path(f"msg/base/{name}") for name in ("text.cpp", "text.h", "new.h")]
        self.assertEqual(differences(document, paths), (["msg/base/gone.cpp"], ["msg/base/new.h"]))
        self.assertEqual(differences(document, [repo.Path("msg/internal/a.h"), repo.Path("msg/msg.h")])[1], [])


if __name__ == "__main__":
    unittest.main()
