# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""Runs the commands of README.md, in their order, in a fresh copy of the files, and compares what they print.

A command is a line that begins with "$ " in a console block. The lines after it are what it prints; a line of three
dots stands for any lines, at the end also for one without its newline. All commands run in one shell, with a home
folder of its own and without input. `./dev test` is passed over: it takes long, and .ci/run runs it itself. A command
that fails, or prints something else, ends the run.
"""

import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
from dataclasses import dataclass
from pathlib import Path

import repo

PASSED_OVER = ("./dev test",)
DOTS = "..."
# The kinds of blocks that a document may have: a program, a session, a picture.
KINDS = ("c", "console", "text")
SECONDS = 1800


@dataclass
class Command:
    text: str
    prints: list  # of lines


def blocks(document):
    """The fenced blocks of a document, as (kind, lines)."""
    found = re.findall(r"^```(\w*)\n(.*?)^```$", document, re.MULTILINE | re.DOTALL)
    return [(kind, body.splitlines()) for kind, body in found]


def commands_in(lines):
    """The commands of a console block; lines in front of the first one belong to none."""
    commands = []
    for line in lines:
        if line.startswith("$ "):
            commands.append(Command(line[2:], []))
        elif commands:
            commands[-1].prints.append(line)
    return commands


def commands_of(document):
    return [command for kind, lines in blocks(document) if kind == "console" for command in commands_in(lines)]


def odd_blocks(document):
    """What could hold a command that nobody runs: blocks of another kind, indented ones, output without a command."""
    odd = [kind for kind, _ in blocks(document) if kind not in KINDS]
    odd += [lines[0] for kind, lines in blocks(document) if kind == "console" and not lines[0].startswith("$ ")]
    prose = re.sub(r"^```.*?^```$", "", document, flags=re.MULTILINE | re.DOTALL)
    return odd + re.findall(r"^(?: {4}|\t).*", prose, re.MULTILINE)


def prints_as_shown(expected, printed):
    """Whether the printed text is that of the expected lines."""
    pattern = "".join(r"(?:[^\n]*\n)*" if line == DOTS else re.escape(line + "\n") for line in expected)
    if expected[-1:] == [DOTS]:
        pattern += r"[^\n]*"  # a prompt, say
    return re.fullmatch(pattern, printed) is not None


class Shell:
    """A shell that runs one command after the other in a folder, and is killed with them when the time is over."""

    def __init__(self, folder, home, seconds=SECONDS):
        environment = {"HOME": str(home), "LANG": "C.UTF-8", "PATH": os.environ["PATH"], "TERM": "dumb"}
        self.process = subprocess.Popen(["sh"], cwd=folder, env=environment, text=True, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True)
        self.limit = threading.Timer(seconds, os.killpg, (self.process.pid, signal.SIGKILL))
        self.limit.daemon = True  # it holds up no failure
        self.limit.start()
        self.count = 0

    def run(self, command):
        """The exit status of a command, and what it printed."""
        self.count += 1
        mark = f"--- end of command {self.count}: "
        self.process.stdin.write(f"{{ {command}\n}} </dev/null\nprintf '%s%d\\n' '{mark}' $?\n")
        self.process.stdin.flush()
        printed = ""
        for line in self.process.stdout:
            before, found, status = line.partition(mark)
            printed += before
            if found:
                return int(status), printed
        return self.process.wait(), printed

    def close(self):
        self.process.stdin.close()
        self.process.wait()
        self.limit.cancel()
        self.process.stdout.close()


def faults(shell, commands):
    """The first command that fails or prints something else, as a text; "" when there is none."""
    for command in commands:
        if command.text in PASSED_OVER:
            continue
        print(f"$ {command.text}", flush=True)
        status, printed = shell.run(command.text)
        if status != 0:
            return f"'{command.text}' ended with {status}:\n{printed}"
        if not prints_as_shown(command.prints, printed):
            return f"'{command.text}' does not print what is shown, but:\n{printed}"
    return ""


def copy_files(folder):
    for path in repo.files():
        (folder / path).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(repo.ROOT / path, folder / path)


def main():
    with tempfile.TemporaryDirectory(prefix="zel-readme-") as scratch:
        root, home = Path(scratch, "zel"), Path(scratch, "home")
        home.mkdir()
        copy_files(root)
        shell = Shell(root, home)
        fault = faults(shell, commands_of(repo.read(Path("README.md"))))
        shell.close()
    if fault:
        sys.exit(fault)
    print("Every command of README.md does what it shows.")


if __name__ == "__main__":
    main()
