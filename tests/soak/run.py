#!/usr/bin/env python3
"""Long life: one process of the library in a changing house of simulated devices.

  run.py HOURS [--build DIR] [--out DIR] [--devices N] [--speed X] [--rate N] [--seed N]
         [--malloc trimmed|plain|default] [--no-plot]

To be run by tools/two_hosts. The house is changed all the time: devices join, say byebye, die
without a word, come back, stop for seconds; lamps and others are changed, which their subscribers
must be told. soak_host meets, subscribes and calls them, fetches and serves media. Every ten seconds
memory, descriptors, threads and latencies go into soak.csv. At checkpoints, every two minutes and at
the end, the house rests until the host lists what lives and nothing else, and every change made
must have been told. Ends with 0 when nothing was missed and nothing has grown since the first five
minutes, in which the house changes faster; --speed changes it so many times faster all the time, for
short runs.

The C library keeps what a program has freed, in up to eight arenas a processor and in a cache of
each thread, and some forty threads fill those for hours. "plain" gives the host one arena and no
caches; "trimmed", the usual one, also gives the heap's free pages back to the kernel every ten
seconds, so that resident memory is what is in use; "default" shows what a host gets that sets nothing.
"""

import argparse
import csv
import hashlib
import json
import os
import signal
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request

from host_process import Guest, HostProcess, Joins, measure
from simulated_house import COUNTED, SimulatedHouse, on_devices

HERE = "10.78.0.1"
WARM_UP_S = 300
# For most of the warm-up the house changes so many times faster: an allocator whose free pieces lie
# between blocks of all ages takes its memory then, and what is taken later is growth.
RUSH = 8
RUSH_S = 240
CHECKPOINT_S = 120
# At every so many checkpoints the host gives its control point back and registers another.
ANEW = 3
# Silent deaths are found by searches, each type's every 20 s.
CONVERGENCE_S = 90
# Compared behind the warm-up and at the end of the run: long enough that it matters little which
# devices, with longer or shorter descriptions, just happen to be there.
SPAN_S = 300
LARGEST_GROWTH = 0.01
# Of the bytes in use, far fewer, which go up and down with every description and transfer.
LARGEST_HEAP_GROWTH = 0.05
COLUMNS = ("t_s", "rss_kib", "pss_kib", "private_dirty_kib", "heap_kib", "stacks_kib",
           "files_kib", "blocks_kib", "heap_used_kib", "heap_free_kib", "heap_peak_kib", "descriptors",
           "threads", "cpu_s",
           "devices", "actions", "action_p50_us", "action_p95_us", "action_p99_us",
           "action_max_us", "events", "event_p50_us", "event_p95_us", "event_p99_us",
           "event_max_us", "joins", "join_p50_us", "join_p95_us", "join_p99_us", "join_max_us",
           "downloads", "served", "subscriptions", "rescans", "violations")


def percentiles(values):
    values = sorted(values)
    return [len(values)] + [round(values[min(len(values) * percent // 100, len(values) - 1)])
                            for percent in (50, 95, 99, 100) if values]


def fetch_for_ever():
    """On the other host: a URL a line in, the digest of what it gives a line out."""
    for line in sys.stdin:
        try:
            with urllib.request.urlopen(line.strip(), timeout=60) as answer:
                print(hashlib.sha256(answer.read()).hexdigest(), flush=True)
        except OSError as error:
            print("failed: %s" % error, flush=True)


class Soak:
    def __init__(self, options, work):
        self.options = options
        self.failures = []
        self.rows = []
        self.convergence = []
        self.checkpoints = 0
        self.joins = Joins()
        self.house = SimulatedHouse(options.build, options.devices, work, options.speed,
                                    options.seed)
        with open(self.house.media_file, "rb") as file:
            self.digest = hashlib.sha256(file.read()).hexdigest()
        try:
            self.host = HostProcess(options.build, self.house.media_file, options.rate,
                                    options.malloc)
        except OSError:
            self.house.kill()
            raise
        self.house.is_gone = self.host.is_gone
        self.house.on_join = lambda device, begun: self.joins.joined(device.udn, begun)
        self.host.on_added = self.joins.added
        self.last = {}
        self.guest = None
        self.started = False

    def fail(self, text):
        self.failures.append(text)
        print("FAILED: " + text, flush=True)

    def start(self):
        for simulator, promise in ((self.house.home, "stable"), (self.house.sleeper, "slow")):
            for device in simulator.devices:
                self.host.tell("%s %s" % (promise, device.udn))
        self.host.tell("media " + self.digest)
        answer = self.host.ask("go", 30)
        if answer is None or answer["e"] != "started":
            raise RuntimeError("the host did not start: %s" % answer)
        self.started = True
        self.begun = time.monotonic()
        helper = on_devices([sys.executable, os.path.abspath(__file__), "--fetch"])
        self.guest = Guest(helper, "http://%s:%d/file" % (HERE, answer["port"]), self.digest,
                           5.0 / self.options.speed)
        self.guest.start()

    def sample(self):
        """A row for each window that the host has told."""
        while not self.host.windows.empty():
            window = self.host.windows.get()
            row = {"t_s": round(time.monotonic() - self.begun, 1),
                   "devices": len(self.house.alive())}
            row.update(measure(self.host.process.pid))
            row["heap_used_kib"], row["heap_free_kib"], row["heap_peak_kib"] = (
                size // 1024 for size in window["heap"])
            for name, values in (("action", window["action_us"]), ("event", window["event_us"]),
                                 ("join", percentiles(self.joins.take()))):
                row[name + "s"] = values[0]
                for column, value in zip(("p50", "p95", "p99", "max"), values[1:]):
                    row["%s_%s_us" % (name, column)] = value
            for name in ("downloads", "served", "subscriptions", "rescans", "violations"):
                row[name] = window[name]
            self.last = window
            self.rows.append(row)
            self.writer.writerow(row)
            self.file.flush()

    def converge(self):
        begun = time.monotonic()
        alive = {device.udn for device in self.house.alive()}
        while True:
            answer = self.host.ask("devices", 60)
            if answer is None or answer["e"] != "devices":
                self.fail("the host does not list its devices")
                return
            listed = set(answer["udns"])
            if listed == alive:
                self.convergence.append(time.monotonic() - begun)
                return
            if time.monotonic() - begun > CONVERGENCE_S:
                self.fail("after %d s %d living devices are not listed and %d dead ones are" %
                          (CONVERGENCE_S, len(alive - listed), len(listed - alive)))
                return
            time.sleep(0.5)
            self.sample()

    def set_speed(self):
        """Short runs have no warm-up."""
        rush = self.options.hours * 3600 > WARM_UP_S and time.monotonic() < self.begun + RUSH_S
        self.house.speed = self.options.speed * (RUSH if rush else 1)

    def checkpoint(self):
        self.house.rest()
        self.converge()
        answer = self.host.ask("settle", 120)
        if answer is None or answer["e"] != "settled":
            self.fail("the host did not settle")
        self.sample()
        for device in self.house.alive():
            if device.kind not in COUNTED:
                continue
            answer = self.host.ask("expect %s %d" % (device.udn, device.changes), 60)
            seen = "nothing" if answer is None else answer.get("seen")
            stable = device.simulator in (self.house.home, self.house.sleeper)
            # A pair whose subscription ended with its device cannot be subscribed again.
            if seen != "told" and (stable or seen != "not subscribed"):
                self.fail("change %d of %s was missed: %s" % (device.changes, device.udn, seen))
        self.checkpoints += 1
        if self.checkpoints % ANEW == 1 and self.host.ask("anew", 60) is None:
            self.fail("the host did not begin anew")
        self.host.tell("resume")

    def is_over(self):
        return time.monotonic() > self.begun + self.options.hours * 3600

    def live(self):
        checkpoint = self.begun + CHECKPOINT_S / self.options.speed
        while not self.is_over() and self.host.process.poll() is None:
            self.set_speed()
            self.house.live()
            self.sample()
            if time.monotonic() > checkpoint:
                self.checkpoint()
                checkpoint = time.monotonic() + CHECKPOINT_S / self.options.speed
            time.sleep(0.02)
        if self.host.process.poll() is not None:
            self.fail("the host ended by itself with %s" % self.host.process.returncode)
            return
        self.checkpoint()

    def stop(self):
        """Lets all come to its end; what fails to, is killed, and so nothing stays behind."""
        try:
            if self.guest is not None:
                self.guest.stop()
                for bad in self.guest.bad:
                    self.fail("a served file did not come whole, " + bad)
            if self.started and self.host.process.poll() is None:
                self.end_host()
            self.house.end()
        finally:
            self.host.end()
            self.house.kill()

    def end_host(self):
        answer = self.host.ask("stop", 90)
        status = self.host.wait(60)
        while not self.host.windows.empty():
            self.last = self.host.windows.get()
        if answer is None or answer["e"] != "end":
            self.fail("the library did not come to its end")
            return
        for name in ("threads", "descriptors"):
            before, after = answer[name]
            if before != after:
                self.fail("%d %s before the start, %d after the end" % (before, name, after))
        if status != 0 and not self.host.violations:
            self.fail("the host ended with %s" % status)
        for text in self.host.violations:
            self.failures.append(text)
        if self.last["actions"] != self.last["outcomes"] + self.last["cancelled"]:
            self.fail("of %(actions)d actions %(outcomes)d had an outcome, and %(cancelled)d were "
                      "cancelled" % self.last)

    def run(self):
        path = os.path.join(self.options.out, "soak.csv")
        with open(path, "w", encoding="ascii", newline="") as self.file:
            self.writer = csv.DictWriter(self.file, COLUMNS, lineterminator="\n")
            self.writer.writeheader()
            try:
                self.start()
                self.live()
            finally:
                self.stop()


def level(rows, column, begin, end):
    """The lower quartile: what is taken for a transfer and given back is no growth."""
    values = sorted(row[column] for row in rows if begin <= row["t_s"] < end)
    return values[len(values) // 4] if values else None


def growth(rows, column):
    """At the end of the warm-up, at the end of the run, and the change per hour by a straight line
    through what lies between, as a part of the first."""
    first = level(rows, column, WARM_UP_S, WARM_UP_S + SPAN_S)
    last = level(rows, column, rows[-1]["t_s"] - SPAN_S, rows[-1]["t_s"] + 1)
    points = [(row["t_s"], row[column]) for row in rows if row["t_s"] >= WARM_UP_S]
    slope = statistics.linear_regression(*zip(*points)).slope if len(points) > 1 else 0.0
    return {"after_warm_up": first, "at_end": last, "growth": (last - first) / first,
            "trend_per_hour": slope * 3600 / first}


def judge(soak):
    """What the run has shown. Growth is judged in runs that are long enough for it."""
    rows = soak.rows
    result = {"date": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()),
              "kernel": os.uname().release, "hours": soak.options.hours,
              "devices": soak.options.devices, "malloc": soak.options.malloc, "speed": soak.options.speed,
              "house": soak.house.events, "host": {name: value for name, value in soak.last.items()
                                                   if isinstance(value, int) and name != "t"},
              "served_whole": soak.guest.good,
              "join_us": percentiles(soak.joins.all),
              "longest_convergence_s": round(max(soak.convergence, default=0), 1),
              "checkpoints": len(soak.convergence)}
    for name in ("action", "event"):
        result[name + "_us"] = {
            column: statistics.median([row["%s_%s_us" % (name, column)] for row in rows
                                       if row.get("%s_%s_us" % (name, column)) is not None] or [0])
            for column in ("p50", "p95", "p99")}
    if rows:
        result["cpu_share"] = round((rows[-1]["cpu_s"] - rows[0]["cpu_s"]) /
                                    max(rows[-1]["t_s"] - rows[0]["t_s"], 1), 4)
    if rows and rows[-1]["t_s"] >= WARM_UP_S + 2 * SPAN_S:
        for column in ("rss_kib", "private_dirty_kib", "heap_used_kib", "descriptors", "threads"):
            result[column] = growth(rows, column)
        if result["rss_kib"]["growth"] > LARGEST_GROWTH:
            soak.fail("resident memory has grown by %.2f %% since the warm-up" %
                      (100 * result["rss_kib"]["growth"]))
        if result["heap_used_kib"]["growth"] > LARGEST_HEAP_GROWTH:
            soak.fail("the heap in use has grown by %.1f %% since the warm-up" %
                      (100 * result["heap_used_kib"]["growth"]))
        for column in ("descriptors", "threads"):
            # Exchanges that are under way make both go up and down by a few.
            if result[column]["at_end"] > result[column]["after_warm_up"] + 3:
                soak.fail("%s have grown from %d to %d" % (
                    column, result[column]["after_warm_up"], result[column]["at_end"]))
    result["failures"] = soak.failures
    return result


def main():
    if sys.argv[1:] == ["--fetch"]:
        fetch_for_ever()
        return 0
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("hours", type=float)
    parser.add_argument("--build", default="build/release")
    parser.add_argument("--out", default=".")
    parser.add_argument("--devices", type=int, default=100)
    parser.add_argument("--speed", type=float, default=1.0)
    parser.add_argument("--rate", type=int, default=40, help="actions a second")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--malloc", choices=("trimmed", "plain", "default"),
                        default="trimmed")
    parser.add_argument("--no-plot", action="store_true")
    options = parser.parse_args()
    if "ON_DEVICES" not in os.environ:
        sys.exit("run.py: to be started by tools/two_hosts")
    # Ends like any other failure, behind itself all that it started.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    os.makedirs(options.out, exist_ok=True)
    with tempfile.TemporaryDirectory() as work:
        soak = Soak(options, work)
        soak.run()
    result = judge(soak)
    with open(os.path.join(options.out, "soak.json"), "w", encoding="ascii") as file:
        json.dump(result, file, indent=1)
    print(json.dumps(result, indent=1))
    if not options.no_plot:
        plot = os.path.join(os.path.dirname(os.path.abspath(__file__)), "plot.py")
        # By its first line: the system's Python, which has the system's packages.
        subprocess.run([plot, os.path.join(options.out, "soak.csv"),
                        os.path.join(options.out, "soak.svg")], check=True)
    if soak.failures:
        print("soak: %d failures" % len(soak.failures))
        return 1
    print("soak: nothing missed, nothing left, nothing grown")
    return 0


if __name__ == "__main__":
    sys.exit(main())
