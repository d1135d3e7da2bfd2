#!/usr/bin/python3
"""Draws a soak's CSV: memory, descriptors and threads, and latencies over time.

  plot.py CSV SVG
"""

import csv
import sys

import matplotlib

matplotlib.use("svg")
# The same numbers give the same file.
matplotlib.rcParams["svg.hashsalt"] = "soak"
import matplotlib.pyplot as plt  # noqa: E402

WARM_UP_MIN = 5


def column(rows, name, scale=1.0):
    return [float(row[name]) / scale if row[name] else float("nan") for row in rows]


def main():
    with open(sys.argv[1], encoding="ascii", newline="") as file:
        rows = list(csv.DictReader(file))
    minutes = column(rows, "t_s", 60)
    figure, (memory, counts, times) = plt.subplots(3, 1, sharex=True, figsize=(9, 9))
    memory.plot(minutes, column(rows, "rss_kib", 1024), label="resident")
    memory.plot(minutes, column(rows, "private_dirty_kib", 1024), label="private, dirty")
    for name, label in (("files_kib", "files"), ("heap_kib", "heap"), ("stacks_kib", "stacks")):
        # Files written by an earlier run.py do not tell them.
        if name in rows[0]:
            memory.plot(minutes, column(rows, name, 1024), label=label)
    memory.plot(minutes, column(rows, "heap_used_kib", 1024), label="heap in use")
    memory.set_ylabel("MiB")
    memory.set_ylim(bottom=0)
    for name in ("devices", "threads", "descriptors"):
        counts.plot(minutes, column(rows, name), label=name)
    counts.set_ylim(bottom=0)
    for name, label in (("action_p50_us", "action, median"), ("action_p99_us", "action, 99 %"),
                        ("event_p50_us", "event, median"), ("event_p99_us", "event, 99 %"),
                        ("join_p50_us", "new device, median")):
        times.plot(minutes, column(rows, name, 1000), label=label,
                   linewidth=1, marker="." if name.startswith("join") else None, markersize=3)
    times.set_yscale("log")
    times.set_ylabel("ms, in windows of 10 s")
    times.set_xlabel("minutes")
    for axes, place in ((memory, "lower right"), (counts, (0.6, 0.65)), (times, "upper right")):
        axes.grid(alpha=0.3)
        axes.legend(loc=place, fontsize="small", ncol=3)
        if minutes[-1] > WARM_UP_MIN:
            axes.axvline(WARM_UP_MIN, color="grey", linestyle=":", linewidth=1)
    figure.tight_layout()
    figure.savefig(sys.argv[2], metadata={"Date": None})


if __name__ == "__main__":
    main()
