# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""Counts the instructions of the library's operations, and keeps the figures of them: ./dev count writes them anew.

The operations of operations.c run under valgrind. Only instructions of the library itself count: the C library chooses
its string functions by the processor. The counts are the same in every run, so a figure is a whole number."""

import collections
import json
import os
import re
import subprocess
import sys
import tempfile
from pathlib import Path

FIGURES = Path(__file__).resolve().with_name("instructions.json")
TOLERANCE = 0.03
TIMES = 50  # an operation is carried out in one count
OPERATION = "operation_"


def setting(build):
    """What a build folder is: the name of its compiler, its target and its program of operations."""
    return json.loads((Path(build) / "tests" / "counted" / "setting.json").read_text(encoding="utf-8"))


def instructions_by_object(profile):
    """The instructions of each object of a callgrind profile by the object's path, without those of what it calls."""
    sums, current, inclusive = collections.Counter(), "", False
    for line in profile.splitlines():
        if line.startswith("ob="):
            current = line.removeprefix("ob=")
        elif line.startswith("calls="):
            inclusive = True  # the next line is the cost of the call
        elif re.match(r"[0-9+*-]", line):
            if not inclusive:
                sums[current] += int(line.split()[1])
            inclusive = False
    return sums


def instructions_of_library(profile):
    sums = instructions_by_object(profile)
    return sum(count for path, count in sums.items() if Path(path).name.startswith("libzel.so"))


def operation_of(profile):
    """The operation at whose end the profile was written; None for that of the program's end."""
    found = re.search(rf"^desc: Trigger: --dump-after={OPERATION}(\w+)$", profile, re.MULTILINE)
    return found and found.group(1)


def run(arguments, folder):
    """Carries out a command; the variables of its caller would direct the library, or valgrind."""
    try:
        done = subprocess.run(arguments, cwd=folder, env={"PATH": os.environ["PATH"]}, text=True, capture_output=True,
                              check=False)
    except FileNotFoundError as missing:
        raise AssertionError(f"{arguments[0]} is not installed; ./dev packages test installs it") from missing
    if done.returncode != 0:
        raise AssertionError(f"{' '.join(arguments)} ended with {done.returncode}:\n{done.stdout}{done.stderr}")


def profiles(program, debug):
    """The profiles of one run of the program, in their order."""
    with tempfile.TemporaryDirectory() as folder:
        out = Path(folder) / "profile"
        run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}", f"--dump-after={OPERATION}*",
             "--compress-strings=no", "--compress-pos=no", program, debug, str(TIMES), f"{folder}/lines"], folder)
        parts = sorted(out.parent.glob(f"{out.name}.*"), key=lambda part: int(part.suffix.removeprefix(".")))
        return [part.read_text(encoding="utf-8") for part in parts]


def count(program):
    """The instructions of the library in each operation of the program."""
    counted = {}
    for debug in ("off", "on"):
        for profile in profiles(program, debug):
            if operation_of(profile):  # an operation's second profile replaces its first
                counted[operation_of(profile)] = round(instructions_of_library(profile) / TIMES)
    return counted


def read_figures():
    return json.loads(FIGURES.read_text(encoding="utf-8"))


def figures_for(build_setting, figures):
    return figures.get(build_setting["compiler"], {}).get(build_setting["target"], {})


def change(counted, figure):
    return f"{figure} -> {counted} instructions ({(counted - figure) / figure:+.1%})"


def fault(operation, counted, figure):
    """What is wrong with the count of an operation, or None. One that is not there is None."""
    if counted is None:
        return f"{operation}: the operation is gone, and its figure is not"
    if figure is None:
        return f"{operation}: there is no figure for it, {counted} instructions were counted"
    if abs(counted - figure) <= TOLERANCE * figure:
        return None
    if counted < figure:
        return f"{operation}: {change(counted, figure)}: fewer than the figure, which would let them come back"
    return f"{operation}: {change(counted, figure)}"


def faults(counted, figures):
    found = [fault(operation, counted.get(operation), figures.get(operation)) for operation in {**counted, **figures}]
    return [text for text in found if text]


def replaced(figures, build_setting, counted):
    """The figures with those of one compiler and target replaced."""
    of_compiler = {**figures.get(build_setting["compiler"], {}), build_setting["target"]: counted}
    return {**figures, build_setting["compiler"]: of_compiler}


def write(build):
    """Counts, writes the figures, and says what changed."""
    build_setting, figures = setting(build), read_figures()
    counted, before = count(build_setting["program"]), figures_for(build_setting, figures)
    print(f"{build_setting['compiler']}, {build_setting['target']}:")
    for operation, instructions in sorted(counted.items()):
        known = before.get(operation)
        print(f"  {operation}: {change(instructions, known) if known else f'{instructions} instructions'}")
    text = json.dumps(replaced(figures, build_setting, counted), indent=2, sort_keys=True)
    FIGURES.write_text(text + "\n", encoding="utf-8")


if __name__ == "__main__":
    for build_folder in sys.argv[1:]:
        write(build_folder)
