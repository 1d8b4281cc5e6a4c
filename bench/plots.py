# Copyright the zel authors. SPDX-License-Identifier: Apache-2.0
"""The plots of docs/performance.md, drawn by gnuplot: the library and its peers as bars, growth as lines."""

import subprocess

# Dark for the library, light for the others: they differ in grey too.
ZEL, FLOOR, PEER, OTHER = "#12436d", "#e69f00", "#b8b8b8", "#7a5195"
FONT = "Helvetica,11"

# series: (file, title, label of the x axis)
GROWTH = {
    "size of a message": ("message-size", "A message of one line to a companion, and its answer", "bytes in the line"),
    "lines sent": ("lines-sent", "A message of many lines sent, and its answer", "lines"),
    "lines received": ("lines-received", "A message of many lines received, and its answer", "lines"),
    "number of the descriptor": ("descriptor-number", "A message to a companion and its answer, by descriptor number",
                                 "number of the descriptor"),
    "live blocks, debug heap off": ("live-blocks-off", "A block released and one allocated, debug heap off", "live blocks"),
    "live blocks, mode 1": ("live-blocks-mode-1", "A block released and one allocated, debug heap in mode 1", "live blocks"),
    "live blocks, mode 2, one check": ("live-blocks-mode-2", "One check of the whole heap, as each call makes in mode 2",
                                       "live blocks"),
    "companions at once": ("companions", "Starting, closing and reaping a companion, of so many at once", "companions"),
    "size of the parent, MiB": ("parent-size", "Starting and reaping a companion, by the size of its parent",
                                "MiB that the parent has written to"),
    "spawned by a parent of a size, MiB": ("spawn-parent-size", "Spawning and reaping a companion, by the size of its parent",
                                           "MiB that the parent has written to"),
}

STYLES = {"zel": (ZEL, 3), "floor": (FLOOR, 2), "vfork and exec alone": (OTHER, 2), "posix_spawn": (OTHER, 2)}
MARKS = {"x86": (6, "(10,5)"), "x86_64": (7, "solid")}


def run_gnuplot(script):
    subprocess.run(["gnuplot"], input=script, text=True, check=True)


def quoted(text):
    return '"' + text.replace('"', "'") + '"'


# --- bars ------------------------------------------------------------------------------------------------------------


def bars_of(run):
    """(work, contender, ratio) of every work that a peer does too, a blank line before each work."""
    bars = []
    for row in run["rows"]:
        if any(way["peer"] for way in row["ways"]):
            bars.append((row["name"], None, None))
            shown = [way for way in row["ways"] if way["peer"] or way["name"] == "zel"]
            bars += [(None, way["name"], way["ratio"]) for way in shown]
    return bars


def bar_script(path, title, bars):
    """Each bar begins at the floor, 1, and its figure stands behind it."""
    most = max(ratio for _, _, ratio in bars if ratio)
    labels, boxes = [], []
    for place, (work, name, ratio) in enumerate(bars):
        y = -place
        if work:
            heading = quoted("{/:Bold " + work + "}")
            labels.append(f"set label {heading} at graph 0, first {y} offset -32,-0.1 left")
            continue
        colour = ZEL if name == "zel" else PEER
        style = f'fillcolor rgb "{colour}" fillstyle solid noborder'
        low, high = sorted((1, ratio))
        boxes.append(f"set object rectangle from {low:.4f},{y - 0.36} to {max(high, low * 1.004):.4f},{y + 0.36} {style}")
        labels.append(f"set label {quoted(name)} at graph 0, first {y} offset -1,0 right")
        text = f"{ratio:.2f}" if ratio < 10 else f"{ratio:.0f}"
        labels.append(f"set label {quoted(text)} at {max(high, 1):.4f}, first {y} offset 0.6,0 left")
    newline = "\n"
    return f"""set terminal svg size 940,{len(bars) * 17 + 110} dynamic font "{FONT}" background rgb "white"
set output {quoted(str(path))}
set title {quoted(title)}
set logscale x
set xrange [0.5:{most * 1.8:.1f}]
set yrange [{-len(bars) + 0.3}:0.7]
set lmargin 34
unset ytics
unset key
set xtics (0.5, 1, 2, 5, 10, 20, 50, 100, 200)
set grid xtics lc rgb "#dddddd"
set xlabel "times the floor written by hand"
set border 1
set arrow from 1,graph 0 to 1,graph 1 nohead lc rgb "black" lw 1
{newline.join(boxes)}
{newline.join(labels)}
plot NaN
"""


# --- growth ----------------------------------------------------------------------------------------------------------


def lines_of(grown, series):
    """{(target, contender): [(x, seconds, ratio)]} of one series."""
    lines = {}
    for target, run in grown.items():
        for row in run["rows"]:
            if row["series"] == series:
                for way in row["ways"]:
                    if way["name"] in STYLES:
                        place = lines.setdefault((target, way["name"]), [])
                        place.append((row["x"], way["seconds"], way["ratio"]))
    return lines


def data_blocks(lines, shift):
    texts = []
    for number, points in enumerate(lines.values()):
        rows = "\n".join(f"{x + shift:.6g} {seconds:.6g} {ratio:.5g}" for x, seconds, ratio in points)
        texts.append(f"$line{number} << END\n{rows}\nEND")
    return "\n".join(texts)


def curves(lines, names, column, contenders, with_title):
    parts = []
    for number, (target, name) in enumerate(lines):
        if name in contenders:
            colour, width = STYLES[name]
            mark, dash = MARKS[target]
            title = quoted(f"{name}, {names[target]}") if with_title else '""'
            parts.append(f'$line{number} using 1:{column} with linespoints lc rgb "{colour}" lw {width} dt {dash} '
                         f"pt {mark} ps 0.7 title {title}")
    return "plot " + ", \\\n     ".join(parts)


def x_axis(lines, shift):
    """The places as labels: with a shift a logarithmic axis shows 0 as well."""
    if not shift:
        return 'set format x "%.0s%c"'
    places = sorted({x for points in lines.values() for x, _, _ in points})
    return f"set xrange [{places[0] + shift * 0.8:.6g}:{places[-1] * 1.3:.6g}]\nset xtics (" + ", ".join(f'"{x:.0f}" {x + shift:.6g}' for x in places) + ")"


def growth_script(path, title, label, lines, names):
    """Above the time of one operation, below what the library takes for each second of the floor."""
    shift = 0.5 if any(points[0][0] == 0 for points in lines.values()) else 0
    return f"""{data_blocks(lines, shift)}
set terminal svg size 760,620 dynamic font "{FONT}" background rgb "white"
set output {quoted(str(path))}
set multiplot
set lmargin 10
set rmargin 3
set grid lc rgb "#dddddd"
set logscale x
{x_axis(lines, shift)}
set origin 0,0.36
set size 1,0.64
set title {quoted(title)}
set ylabel "time of one operation"
set logscale y
set format y "%.0s %cs"
set key outside bottom center horizontal samplen 4
{curves(lines, names, 2, tuple(STYLES), True)}
set origin 0,0
set size 1,0.36
unset title
unset key
unset logscale y
set format y "%g"
set ylabel "times the floor"
set xlabel {quoted(label)}
set yrange [0:*]
set arrow from graph 0, first 1 to graph 1, first 1 nohead lc rgb "{FLOOR}" lw 2
{curves(lines, names, 3, ("zel",), False)}
unset multiplot
"""


def draw(folder, runs, grown, names):
    """Writes every plot; names: how the targets are called."""
    folder.mkdir(exist_ok=True)
    for target, run in runs.items():
        bars = bars_of(run)
        if bars:
            title = f"The library and its peers, {names[target]}"
            run_gnuplot(bar_script(folder / f"peers-{target.replace('_', '-')}.svg", title, bars))
    for series, (file, title, label) in GROWTH.items():
        lines = lines_of(grown, series)
        if lines:
            run_gnuplot(growth_script(folder / f"{file}.svg", title, label, lines, names))
