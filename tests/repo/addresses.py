# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""Writes a source that includes one public header, alone, and takes the address of everything that it declares.

usage: addresses.py HEADER TARGET, the header relative to the root, the target a .c or .cpp file."""

import re
import sys
from pathlib import Path

import repo

C_CAST = "(AnyFunction) {0}"
CPP_CAST = "reinterpret_cast<AnyFunction>(&{0})"


def source(header, header_text, cast):
    name = re.sub(r"\W", "_", header)
    functions = "".join(f"    {cast.format(name)},\n" for name in repo.declared_functions(header_text))
    objects = "".join(f"    &{name},\n" for name in repo.declared_objects(header_text))
    lines = [f"#include <{header}>\n", "typedef void (*AnyFunction)(void);\n"]
    for kind, type_name, table in (("functions", "AnyFunction", functions), ("objects", "void *", objects)):
        if table:
            lines += [f"extern {type_name} const {name}_{kind}[];\n{type_name} const {name}_{kind}[] = {{\n{table}}};\n"]
    return "".join(lines)


def main():
    header, target = sys.argv[1], Path(sys.argv[2])
    cast = C_CAST if target.suffix == ".c" else CPP_CAST
    target.parent.mkdir(parents=True, exist_ok=True)
    target.write_text(source(header, repo.read(header), cast), encoding="utf-8")


if __name__ == "__main__":
    main()
