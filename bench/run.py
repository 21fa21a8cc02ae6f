"""Runs the rows of rows.txt, a process of tessaly_bench for each, and makes their table. Called by tools/bench."""

import argparse
import datetime
import json
import os
import random
import re
import statistics
import subprocess
import sys
from pathlib import Path

import frames

HEADINGS = {"limit": "limit", "columns": "vector per column", "structs": "vector of structs", "colony": "plf::colony",
            "emplace": "plf::colony, emplace", "loop": "plain loop", "glibc": "glibc", "mimalloc": "mimalloc",
            "jemalloc": "jemalloc", "tcmalloc": "tcmalloc", "best": "fastest of these"}
# These take the place of the C library's malloc, in processes of their own.
ALLOCATORS = {"glibc": "libc.so.6", "mimalloc": "libmimalloc.so.2", "jemalloc": "libjemalloc.so.2",
              "tcmalloc": "libtcmalloc_minimal.so.4"}


class Row:
    def __init__(self, line, shape=(1024, 0)):
        self.name, self.title, self.unit, self.notes, sides = (cell.strip() for cell in line.split("|"))
        self.shape = {"TESSALY_PAGE_SIZE": str(shape[0]), "TESSALY_MORE_COLUMNS": str(shape[1])}
        found = [re.fullmatch(r"(\w+)(?:=([\d.]+))?(?: ([\d.]+))?", side.strip()) for side in sides.split(",")]
        self.targets = {side[1]: side[3] and float(side[3]) for side in found}
        self.rounds = {side[1]: [float(side[2])] for side in found if side[2]}  # figures, round by round

    def measure(self, round_count, ours_alone):
        """Sides of one process alternate at random; processes run once a round each, in any order."""
        sides = [side for side in ["ours", *self.targets] if side not in self.rounds and side != "best"]
        if ours_alone:
            return self._run("ours", round_count)
        if not ALLOCATORS.keys() & set(sides):
            return self._run("|".join(sides), round_count)
        for _ in range(round_count):
            for side in random.sample(sides, len(sides)):
                self._run(side, 1)

    def _run(self, sides, round_count):
        library = ALLOCATORS.get(sides, "")
        pattern = f"^{self.name}/({'malloc' if library else sides})(/|$)"
        command = ["build/bench/bench/tessaly_bench", f"--benchmark_filter={pattern}", "--benchmark_format=json",
                   f"--benchmark_repetitions={round_count + 1}", "--benchmark_enable_random_interleaving=true"]
        environment = {**os.environ, **self.shape, "LD_PRELOAD": library}
        report = json.loads(subprocess.run(command, env=environment, stdout=subprocess.PIPE, check=True).stdout)
        if library not in report["context"]["malloc"]:
            sys.exit(f"{library} does not replace malloc")
        for run in report["benchmarks"]:
            if run["run_type"] == "iteration" and run["repetition_index"] > 0:  # the first one warms
                side = sides if library else run["name"].split("/")[1]
                figure = run["bytes"] if "bytes" in run else 1e9 / run["items_per_second"]
                self.rounds.setdefault(side, []).append(figure)

    def judge(self):
        """The figures, and of each side with a target: ours divided by it, and whether that is held as shown."""
        self.figures = {side: statistics.median(values) for side, values in self.rounds.items()}
        allocators = [self.figures[side] for side in ALLOCATORS if side in self.figures]
        if "best" in self.targets and allocators:
            self.figures["best"] = min(allocators)
        self.ratios = {side: self.figures["ours"] / self.figures[side] for side in self.targets if side in self.figures}
        self.held = {side: ratio < self.targets[side] + 0.005 for side, ratio in self.ratios.items() if self.targets[side]}

    def line(self, sides):
        mark = "" if not self.held else "✓" if all(self.held.values()) else "✗"
        cells = [mark, self.title, self.unit, digits(self.figures["ours"]), *map(self._cell, sides), self.notes]
        return "| " + " | ".join(cells) + " |"

    def _cell(self, side):
        text = digits(self.figures[side]) if side in self.figures else ""
        if side not in self.held:
            return text
        comparison = f"{self.ratios[side]:.2f} {'≤' if self.held[side] else '>'} {self.targets[side]:.2f}"
        return f"{text} ({comparison})" if self.held[side] else f"**{text} ({comparison})**"

    def as_json(self):
        quartiles = {side: statistics.quantiles(values, n=4) for side, values in self.rounds.items() if len(values) > 1}
        return {"work": self.title, "unit": self.unit, "figures": self.figures, "quartiles": quartiles,
                "ratios": self.ratios, "targets": self.targets, "held": self.held}


def digits(value):
    """Three digits that matter, or as many as stand before the point."""
    return f"{value:.{3 if value < 1 else 2 if value < 10 else 1 if value < 100 else 0}f}"


def read_tables(is_shapes):
    """Headings with their rows."""
    tables = {}
    for line in Path("bench/rows.txt").read_text().splitlines():
        if line.startswith("== "):
            rows = tables.setdefault(line[3:], [])
        elif line and not line.startswith("#"):
            rows.append(line)
    shapes = tables.pop("Shapes")
    if not is_shapes:
        return {heading: [Row(line) for line in lines] for heading, lines in tables.items()}
    return {f"Particles of {48 + 16 * more} bytes, pages of {page_size}": [Row(line, (page_size, more)) for line in shapes]
            for more in (0, 1, 13) for page_size in (64, 1024, 16384)}


def machine():
    def first(path, key=""):
        return next(line[len(key):].strip(" \t:") for line in Path(path).read_text().splitlines() if line.startswith(key))

    compiler = subprocess.run(["g++", "-dumpfullversion"], stdout=subprocess.PIPE, text=True, check=True).stdout.strip()
    huge_pages = re.search(r"\[(\w+)\]", first("/sys/kernel/mm/transparent_hugepage/enabled"))[1]
    return (f"{first('/proc/cpuinfo', 'model name')}, {os.cpu_count()} processors, last-level cache of "
            f"{first('/sys/devices/system/cpu/cpu0/cache/index3/size')}, {os.sysconf('SC_PAGESIZE') >> 10} KiB pages, huge "
            f"pages by {huge_pages}, g++ {compiler}, {datetime.date.today()}")


def run_rows(options, tell):
    """Tells the table line by line. Returns the rows."""
    rows = []
    for heading, candidates in read_tables(options.shapes).items():
        found = [row for row in candidates if options.filter.search(row.title)]
        sides = [side for side in HEADINGS if any(side in row.targets for row in found)]
        for row in found:
            row.measure(options.rounds, options.ours_alone)
            row.judge()
            if row is found[0]:
                tell(f"\n### {heading}\n\n| held | work | figures | ours | " +
                     " | ".join(HEADINGS[side] for side in sides) + " | notes |\n" + "|---" * (5 + len(sides)) + "|")
            tell(row.line(sides))
        rows += found
    if not rows:
        sys.exit("no row matches the filter")
    held = [held for row in rows for held in row.held.values()]
    tell(f"\n{sum(held)} of {len(held)} targets are held.")
    return rows


def regex(text):
    try:
        return re.compile(text)
    except re.error as error:
        raise argparse.ArgumentTypeError(f"'{text}' is no regular expression: {error}") from error


def put(name, text):
    """The text becomes what stands between the marks of that name."""
    document = Path("docs/performance.md")
    begin, end = f"<!-- {name} -->\n", f"<!-- end of {name} -->"
    head, rest = document.read_text().split(begin)
    document.write_text(head + begin + text + end + rest.split(end)[1])


def main():
    parser = argparse.ArgumentParser(prog="tools/bench", usage="see tools/bench --help")
    for flag in ("quick", "shapes", "ours-alone", "frames", "document"):
        parser.add_argument(f"--{flag}", action="store_true")
    parser.add_argument("--rounds", type=int, default=25)
    parser.add_argument("--filter", type=regex, default=regex(""))
    parser.add_argument("--json")
    parser.add_argument("--markdown")
    options = parser.parse_args()
    options.rounds = 1 if options.quick else max(1, options.rounds)
    text = []

    def tell(line):
        print(line, flush=True)
        text.append(line + "\n")

    if options.document or not options.frames:
        tell(f"{machine()}; medians over {options.rounds} rounds.")
        rows = run_rows(options, tell)
        if options.json:
            report = {"machine": text[0], "rows": [row.as_json() for row in rows]}
            Path(options.json).write_text(json.dumps(report, indent=2))
        if options.document:
            put("table", "".join(text))
            text.clear()
    if options.document or options.frames:
        runs = max(1, options.rounds // 5)
        tell(f"{machine()}; {runs} runs.\n")
        sides = frames.measure(runs)
        tell(frames.tables(sides))
        if not options.quick:
            frames.draw(sides, "docs/frames.png" if options.document else "out/frames.png")
        if options.document:
            put("frames", "".join(text))
    if options.markdown:
        Path(options.markdown).write_text("".join(text))


try:
    main()
except (OSError, subprocess.CalledProcessError) as error:
    sys.exit(f"tools/bench: {error}")
