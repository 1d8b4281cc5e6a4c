# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""Writes the figures of docs/performance.md and its plots from the samples that zel_bench left.

usage: report.py ROOT

The samples are ROOT/build/TARGET/bench/zel_bench.json and growth.json. In the document stands everything between a line
"<!-- NAME -->" and the line "<!-- end of NAME -->" for what this program writes; all else is written by hand."""

import json
import os
import re
import statistics
import sys
from pathlib import Path

import plots

TARGETS = {"x86": "x86", "x86_64": "x86-64"}


# --- the samples -----------------------------------------------------------------------------------------------------


def quantile(values, part):
    ordered = sorted(values)
    return ordered[round(part * (len(ordered) - 1))]


def ratios(row, way):
    """The ratios of a way to the floor, round by round."""
    floor = next(other for other in row["ways"] if other["name"] == "floor")
    return [a / b for a, b in zip(way["seconds"], floor["seconds"])]


def summary(row, way):
    each = ratios(row, way)
    return {
        "name": way["name"],
        "peer": "peer" in way,
        "pages": way.get("pages"),
        "seconds": statistics.median(way["seconds"]),
        "ratio": quantile(each, 0.5),
        "low": quantile(each, 0.25),
        "high": quantile(each, 0.75),
    }


def read_run(path):
    """A run with its rows summed up; None when it was not taken."""
    if not path.is_file():
        return None
    run = json.loads(path.read_text(encoding="utf-8"))
    for row in run["rows"]:
        row["ways"] = [summary(row, way) for way in row["ways"]]
    return run


def read_runs(root, name):
    runs = {target: read_run(root / "build" / target / "bench" / f"{name}.json") for target in TARGETS}
    return {target: run for target, run in runs.items() if run}


def by_work(runs, wanted):
    """{work: {way: {target: summary}}} of the ways that are wanted, in the order of the program."""
    works = {}
    for target, run in runs.items():
        for row in run["rows"]:
            for way in row["ways"]:
                if wanted(way):
                    works.setdefault(row["name"], {}).setdefault(way["name"], {})[target] = way
    return works


# --- the tables ------------------------------------------------------------------------------------------------------


def time_text(seconds):
    for size, unit in ((1, "s"), (1e-3, "ms"), (1e-6, "µs")):
        if seconds >= size:
            return f"{seconds / size:.3g} {unit}"
    return f"{seconds / 1e-9:.3g} ns"


def ratio_text(ratio):
    return f"{ratio:.2f}" if ratio < 10 else f"{ratio:.0f}"


def table(head, rows):
    lines = ["| " + " | ".join(cells) + " |" for cells in [head, *rows]]
    return "\n".join([lines[0], "|" + "---|" * len(head), *lines[1:]])


def cells_of(ways):
    """Ratio and quartiles for each target, blank where it was not measured."""
    cells = []
    for target in TARGETS:
        way = ways.get(target)
        cells.append(ratio_text(way["ratio"]) if way else "")
        cells.append(f"{ratio_text(way['low'])} to {ratio_text(way['high'])}" if way else "")
    return cells


def ratio_head(first):
    return first + [cell for name in TARGETS.values() for cell in (name, "quartiles")]


def figures(runs):
    rows = []
    for work, ways in by_work(runs, lambda way: not way["peer"] and way["name"] != "floor").items():
        rows += [[work, name, *cells_of(of_targets)] for name, of_targets in ways.items()]
    return table(ratio_head(["work", "contender"]), rows)


def times(runs):
    rows = []
    for work, ways in by_work(runs, lambda way: way["name"] in ("zel", "floor")).items():
        cells = [time_text(ways[name][target]["seconds"]) if target in ways[name] else ""
                 for target in TARGETS for name in ("zel", "floor")]
        rows.append([work, *cells])
    return table(["work"] + [f"{name}, {way}" for name in TARGETS.values() for way in ("zel", "floor")], rows)


def peers(runs):
    rows = []
    with_peers = {work for work, ways in by_work(runs, lambda way: way["peer"]).items() if ways}
    for work, ways in by_work(runs, lambda way: way["peer"] or way["name"] == "zel").items():
        if work in with_peers:
            rows += [[work, name, *cells_of(of_targets)] for name, of_targets in ways.items()]
    return table(ratio_head(["work", "contender"]), rows)


def pages(runs):
    touched = by_work(runs, lambda way: way["pages"])
    parts = []
    for ways in touched.values():
        for target, name in TARGETS.items():
            if target in ways["zel"]:
                hook, empty = (int(ways[way][target]["pages"]) for way in ("zel", "floor"))
                parts.append(f"On {name} the program with the hook touches {hook} pages, the empty one {empty}.")
    return "\n".join(parts)


def growth(runs):
    """A line for each series and place in it: the time of the library and its ratio to the floor."""
    rows = []
    series = {}
    for target, run in runs.items():
        for row in run["rows"]:
            zel = next(way for way in row["ways"] if way["name"] == "zel")
            series.setdefault((row["series"], row["x"]), {})[target] = zel
    for (name, x), of_targets in series.items():
        cells = [text for target in TARGETS for text in
                 ((time_text(of_targets[target]["seconds"]), ratio_text(of_targets[target]["ratio"]))
                  if target in of_targets else ("", ""))]
        rows.append([name, f"{x:,.0f}", *cells])
    head = ["series", "at"] + [cell for name in TARGETS.values() for cell in (name, "ratio")]
    return table(head, rows)


def processor():
    match = re.search(r"^model name\s*:\s*(.+)$", Path("/proc/cpuinfo").read_text(encoding="utf-8"), re.MULTILINE)
    memory = os.sysconf("SC_PAGE_SIZE") * os.sysconf("SC_PHYS_PAGES") / 2**30
    return f"{match.group(1) if match else 'unknown'}, {os.cpu_count()} processors, {memory:.0f} GiB of memory"


def machine(runs):
    lines = [f"- Machine: {processor()}"]
    for target, run in runs.items():
        lines.append(f"- {TARGETS[target]}: {run['date']}, commit {run['commit']}, {run['kernel']}, {run['compiler']}, "
                     f"{run['rounds']} rounds")
    return "\n".join(lines)


# --- the document ----------------------------------------------------------------------------------------------------


def with_block(document, name, text):
    """The document with a new text between the two marks of that name."""
    begin, end = f"<!-- {name} -->\n", f"<!-- end of {name} -->\n"
    before, found, rest = document.partition(begin)
    _, found_end, after = rest.partition(end)
    if not found or not found_end:
        raise SystemExit(f"report.py: the document has no place for {name}")
    return f"{before}{begin}\n{text}\n\n{end}{after}"


def main():
    root = Path(sys.argv[1])
    path = root / "docs" / "performance.md"
    runs, grown = read_runs(root, "zel_bench"), read_runs(root, "growth")
    if not runs or not grown:
        raise SystemExit("report.py: there are no samples; run ./dev bench --report")
    document = path.read_text(encoding="utf-8")
    for name, text in (("machine", machine(runs)), ("figures", figures(runs)), ("times", times(runs)),
                       ("peers", peers(runs)), ("pages", pages(runs)), ("growth", growth(grown))):
        document = with_block(document, name, text)
    plots.draw(root / "docs" / "plots", runs, grown, TARGETS)
    path.write_text(document, encoding="utf-8")


if __name__ == "__main__":
    main()
