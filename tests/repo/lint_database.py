# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""Writes the compile database as the static checks can read it.

usage: lint_database.py DATABASE TARGET

The build's own database is of another compiler: its precompiled header is replaced by the header that it was made from,
warnings that only the other compiler knows are not complained of, and the end of an argument list may have a name."""

import json
import re
import sys
from pathlib import Path


def for_lint(command):
    command = re.sub(r"-Winvalid-pch -include \S+/cmake_pch\.hxx", "-include gtest/gtest.h", command)
    return command.replace(" -c ", " -Wno-unknown-warning-option -Wno-sentinel -c ")


def main():
    commands = json.loads(Path(sys.argv[1]).read_text(encoding="utf-8"))
    for entry in commands:
        entry["command"] = for_lint(entry["command"])
    target = Path(sys.argv[2])
    target.parent.mkdir(parents=True, exist_ok=True)
    target.write_text(json.dumps(commands, indent=1), encoding="utf-8")


if __name__ == "__main__":
    main()
