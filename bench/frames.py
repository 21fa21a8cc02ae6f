"""Runs frames_bench, and makes the tables and the picture of its frames. Part of run.py."""

import math
import subprocess

SIDES = {"ours": "ours", "columns": "vector per column", "colony": "plf::colony"}
STEPS = ["ForEach", "RemoveIf", "births in bursts", "GarbageCollectOldPages", "ResizePending(2)", "Update"]
NEIGHBOUR_TARGET, VECTOR_TARGET, HOLD_TARGET = 4.0, 0.1, 250.0


class Side:
    """Microseconds. The same births and deaths happen in each run, so what differs was done by others: the least figure
    of a frame counts. Waits meet another moment in each run: the worst of each run counts."""

    def __init__(self):
        self.runs, self.worst_waits = [], []

    def add(self, text):
        run = [[float(number) / 1000 for number in line.split()] for line in text.splitlines()]
        self.runs.append([frame[:12] for frame in run])
        self.waits = [frame[12] for frame in run]
        self.worst_waits.append(max(self.waits))

    def finish(self):
        least = [[min(figures) for figures in zip(*frame)] for frame in zip(*self.runs)]
        self.steps = list(zip(*(frame[:6] for frame in least)))
        self.holds = [max(hold) for hold in zip(*(frame[6:] for frame in least))]
        self.frames = [sum(frame[:6]) for frame in least]
        self.worst_without_passes = max(sum(frame[2:6]) for frame in least)

    def worst_by_neighbours(self):
        """The worst frame beside the median of the 100 frames around it."""
        firsts = [min(max(i - 50, 0), len(self.frames) - 100) for i in range(len(self.frames))]
        return max(frame / quantile(self.frames[first:first + 100], 0.5) for frame, first in zip(self.frames, firsts))


def quantile(values, part):
    return sorted(values)[int(part * (len(values) - 1) + 0.5)]


def measure(run_count):
    """The sides in turn, each run in a process of its own."""
    sides = {name: Side() for name in SIDES}
    for _ in range(run_count):
        for name, side in sides.items():
            side.add(subprocess.run(["build/bench/bench/frames_bench", name], stdout=subprocess.PIPE, text=True, check=True).stdout)
    for side in sides.values():
        side.finish()
    return sides


def tables(sides):
    def line(name, values, *more):
        cells = [quantile(values, part) for part in (0.5, 0.99, 0.999, 1.0)] + list(more)
        return f"| {name} | " + " | ".join(f"{cell:.1f}" for cell in cells) + " |"

    def verdict(what, figure, target):
        held = "✓" if figure <= target else "✗"
        return f"| {held} | {what} | {figure:.2f} | {target:.2f} |"

    ours, vectors = sides["ours"], sides["columns"]
    return "\n".join([
        "| frames, us | median | p99 | p99.9 | worst | by neighbours | longest hold | render wait, least | median |",
        "|---" * 9 + "|",
        *(line(SIDES[name], side.frames, side.worst_by_neighbours(), max(side.holds), min(side.worst_waits),
               quantile(side.worst_waits, 0.5)) for name, side in sides.items()),
        "",
        "| ours, us a frame | median | p99 | p99.9 | worst | longest hold |",
        "|---" * 6 + "|",
        *(line(step, times, hold) for step, times, hold in zip(STEPS, ours.steps, ours.holds)),
        "",
        "| held | ours | figure | target |",
        "|---" * 4 + "|",
        verdict("worst frame beside the median of the 100 around it", ours.worst_by_neighbours(), NEIGHBOUR_TARGET),
        verdict("worst frame beside the vectors' worst one", max(ours.frames) / max(vectors.frames), VECTOR_TARGET),
        verdict("the same without ForEach and RemoveIf", ours.worst_without_passes / vectors.worst_without_passes,
                VECTOR_TARGET),
        verdict("longest hold of the lock, us", max(ours.holds), HOLD_TARGET),
        verdict("the render thread's longest wait beside the longest hold, us", min(ours.worst_waits), max(ours.holds))])


def draw(sides, path):
    import matplotlib
    matplotlib.use("Agg")
    from matplotlib import pyplot
    figure, axes = pyplot.subplots(2, 1, figsize=(12, 8.6), sharex=True, gridspec_kw={"height_ratios": [2, 1]})
    titles = ("processor time of a frame: nothing, a million particles at frame 1000, nothing",
              "the render thread's wait for the lock, which it takes for 2 ms of every 8")
    for axis, title in zip(axes, titles):
        axis.set(title=title, yscale="log", ylim=(1, 1e6), ylabel="us")
        axis.grid(color="#dedede")
    for (name, side), colour in reversed(list(zip(sides.items(), ("#006ba3", "#d65e00", "#59a64d")))):  # ours on top
        axes[0].plot(side.frames, ".", markersize=2, color=colour, label=SIDES[name])
        axes[1].plot([wait or math.nan for wait in side.waits], ".", markersize=2, color=colour)
    axes[0].legend(loc="upper right", markerscale=5)
    axes[1].set_xlabel("frame")
    figure.tight_layout()
    figure.savefig(path, dpi=100)
