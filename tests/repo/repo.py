# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""What the checks of this folder share: the repository's files, and just enough reading of C and C++."""

import os
import re
import subprocess
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
# The build folder that is looked at, and the preset that it was made from.
BUILD = Path(os.environ.get("ZEL_BUILD", ROOT / "build" / "x86"))
PRESET = BUILD.name
# The target that it builds for, without what else its name says of it.
TARGET = PRESET.split("-")[0]

CODE_FOLDERS = ("msg", "malloc", "components", "examples", "tools", "bench", "tests")


def files(*suffixes):
    """The repository's own files with one of the suffixes (all files without any), as paths relative to the root."""
    found = []
    for folder, folders, names in os.walk(ROOT):
        folders[:] = [name for name in folders if name not in (".git", "build", "__pycache__", ".cache")]
        # .git is a file in a linked working tree, and holds a path of the machine.
        found += [(Path(folder) / name).relative_to(ROOT) for name in names if name != ".git"]
    return sorted(path for path in found if not suffixes or path.suffix in suffixes)


def code_files():
    return [path for path in files(".cpp", ".c", ".h") if path.parts[0] in CODE_FOLDERS or path.name == "zel.h"]


def is_public_header(path):
    """Whether a header is installed: zel.h, and those at the top of a folder of the library."""
    public_folders = (("msg",), ("malloc",), ("components", "platform"), ())
    return path.suffix == ".h" and path.parts[:-1] in public_folders


def public_headers():
    return [path for path in files(".h") if is_public_header(path)]


def read(path):
    return (ROOT / path).read_text(encoding="utf-8")


def blank_comments_and_texts(code):
    """The code with comments, string and character literals turned into blanks; every line stays where it was."""
    pattern = r'//[^\n]*|/\*.*?\*/|R"\((?:.|\n)*?\)"|"(?:\\.|[^"\\\n])*"|(?<!\w)\'(?:\\.|[^\'\\\n])*\''
    return re.sub(pattern, lambda match: re.sub(r"[^\n]", " ", match.group()), code, flags=re.DOTALL)


def blank_directives(code):
    """The code with preprocessor lines, their continuations too, turned into empty lines."""
    lines, going_on = [], False
    for line in code.splitlines():
        directive = going_on or line.lstrip().startswith("#")
        going_on = directive and line.rstrip().endswith("\\")
        lines.append("" if directive else line)
    return "\n".join(lines)


def declarations(header_text):
    """The top-level declarations of a C header as (first line, last line, text), line numbers from 1."""
    code = blank_directives(blank_comments_and_texts(header_text))
    code = re.sub(r"\bextern\s*\{", "", code)
    result, start, depth, text = [], None, 0, ""
    for number, line in enumerate(code.splitlines(), 1):
        for character in line + " ":
            if start is None and (character.isspace() or character in "};"):
                continue
            start = start or number
            depth += (character in "{(") - (character in "})")
            text += character
            if depth == 0 and character == ";":
                result.append((start, number, text))
                start, text = None, ""
    return result


def declared_functions(header_text):
    """The names of the functions that a C header declares."""
    texts = [text for _, _, text in declarations(header_text) if not text.startswith("typedef")]
    return [re.search(r"(\w+)\s*\(", text).group(1) for text in texts if "(" in text]


def declared_objects(header_text):
    """The names of the objects that a C header declares."""
    texts = [text for _, _, text in declarations(header_text) if text.startswith("extern") and "(" not in text]
    return [re.search(r"(\w+)\s*(\[[^]]*\])?\s*;", text).group(1) for text in texts]


def run(arguments, **options):
    """The standard output of a program that must end well; what it wrote is in the failure otherwise."""
    done = subprocess.run([str(argument) for argument in arguments], text=True, capture_output=True, check=False, **options)
    if done.returncode != 0:
        raise AssertionError(f"{arguments} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
    return done.stdout
