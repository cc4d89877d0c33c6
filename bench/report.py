#!/usr/bin/env python3
"""Draws what the benchmarks measured: bench/report.py FIGURES.csv FOLDER

Reads the lines that the benchmarks append with --csv (family, keys, part, unit, contender, value) and writes into FOLDER
one picture a family, FAMILY.svg (drawn by gnuplot: a panel a part, keys across, nanoseconds an operation upward, both
logarithmic; the thick line is ours), and report.md, which shows the pictures and a table of ratios behind each.
"""

import csv
import platform
import re
import subprocess
import sys
from pathlib import Path

COLUMNS = 3
PANEL = (420, 300)
COLORS = ["#c0392b", "#2980b9", "#27ae60", "#8e44ad", "#f39c12", "#16a085", "#7f8c8d", "#2c3e50"]


def read(path):
    """family -> part -> contender -> {keys: value}, in order of appearance; and the unit of each part."""
    figures, units = {}, {}
    with open(path, newline="") as lines:
        for family, keys, part, unit, contender, value in csv.reader(lines):
            parts = figures.setdefault(family, {})
            parts.setdefault(part, {}).setdefault(contender, {})[int(keys)] = float(value)
            units[family, part] = unit
    return figures, units


def file_of(family):
    return re.sub(r"\W+", "_", family) + ".svg"


def picture(family, parts, units, folder):
    names = list(dict.fromkeys(name for contenders in parts.values() for name in contenders))
    rows = (len(parts) + COLUMNS - 1) // COLUMNS
    script = [f'set terminal svg size {COLUMNS * PANEL[0]},{rows * PANEL[1]} font "sans,11" background "white"',
              f'set output "{folder / file_of(family)}"', f"set multiplot layout {rows},{COLUMNS}",
              'set logscale xy', 'set format x "10^{%L}"', 'set grid back lc rgb "#dddddd"', "set key top left font ',8'"]
    for part, contenders in parts.items():
        curves, data = [], []
        for name, points in contenders.items():
            first = name == names[0]
            curves.append(f'"-" using 1:2 with linespoints lw {3 if first else 1.5} pt 7 ps 0.4 '
                          f'lc rgb "{COLORS[names.index(name) % len(COLORS)]}" title "{name}" noenhanced')
            data += [f"{keys} {max(value, 0.001)}" for keys, value in sorted(points.items())] + ["e"]
        unit = "ns" if units[family, part] == "ns" else ""
        script += [f'set title "{family}: {part}" noenhanced', f'set ylabel "{unit}"', "plot " + ", ".join(curves), *data]
    subprocess.run(["gnuplot"], input="\n".join(script), text=True, check=True)


def table(parts):
    names = list(dict.fromkeys(name for contenders in parts.values() for name in contenders))
    ours, lines = names[0], []
    lines.append("| | keys | " + " | ".join(names) + " |")
    lines.append("|---|---|" + "---|" * len(names))
    for part, contenders in parts.items():
        for keys in sorted({k for points in contenders.values() for k in points}):
            cells = []
            base = contenders.get(ours, {}).get(keys)
            for name in names:
                value = contenders.get(name, {}).get(keys)
                if value is None:
                    cells.append("-")
                elif name == ours or base is None or not value:
                    cells.append(f"{value:.1f}")
                else:
                    cells.append(f"{value:.1f} ({base / value:.2f})")
            lines.append(f"| {part} | {keys:,} | " + " | ".join(cells) + " |")
    return lines


def machine():
    model = next((line.split(":")[1].strip() for line in open("/proc/cpuinfo") if line.startswith("model name")), "")
    cores = sum(1 for line in open("/proc/cpuinfo") if line.startswith("processor"))
    return re.sub(r"\s+", " ", f"{model}, {cores} cores, {platform.system()} {platform.machine()}")


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    folder = Path(sys.argv[2])
    folder.mkdir(parents=True, exist_ok=True)
    figures, units = read(sys.argv[1])
    lines = ["# Ours beside the peers", "", f"On {machine()}: medians, contenders taking turns, in brackets ours over "
             "theirs (below 1 we are faster).", "Nanoseconds an operation where nothing else is said."]
    for family, parts in figures.items():
        picture(family, parts, units, folder)
        lines += ["", f"## {family}", "", f"![{family}]({file_of(family)})", "", *table(parts)]
    (folder / "report.md").write_text("\n".join(lines) + "\n")
    print(folder / "report.md")


if __name__ == "__main__":
    main()
