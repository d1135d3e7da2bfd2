#!/usr/bin/env python3
"""Runs the fuzzers of a build folder, several at a time, and tells what each has reached.

A finding ends the run with 1; its input lies in BUILD/found-by/ENTRY/ and is given to the fuzzer as
its only argument to see it again.
"""

import argparse
import concurrent.futures
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
MEMORY_MB = 2048
ONE_INPUT_S = 10


class Run:
    """One fuzzer, on the kept corpus and what earlier runs in this build folder have found."""

    def __init__(self, build, entry, seconds):
        self.entry = entry
        self.log = build / ("fuzz_%s.log" % entry)
        self.findings = build / "found-by" / entry
        self.learnt = build / "learnt" / entry
        self.findings.mkdir(parents=True, exist_ok=True)
        self.learnt.mkdir(parents=True, exist_ok=True)
        self.command = [
            str(build / ("fuzz_" + entry)), "-max_total_time=%d" % seconds,
            "-timeout=%d" % ONE_INPUT_S, "-rss_limit_mb=%d" % MEMORY_MB, "-print_final_stats=1",
            "-use_value_profile=1", "-artifact_prefix=%s/" % self.findings, str(self.learnt),
            str(ROOT / "tests/fuzz/corpus" / entry)]
        dictionary = ROOT / "tests/fuzz" / (entry + ".dict")
        if dictionary.exists():
            self.command.append("-dict=%s" % dictionary)

    def wait(self):
        with open(self.log, "wb") as log:
            self.status = subprocess.call(self.command, stdout=log, stderr=log, cwd=ROOT)
        self.text = self.log.read_text(errors="replace")
        return self

    def number(self, pattern):
        found = re.findall(pattern, self.text)
        return int(found[-1]) if found else 0

    def row(self):
        edges = self.number(r"\((\d+) inline 8-bit counters\)")
        covered = self.number(r"cov: (\d+)")
        executions = self.number(r"number_of_executed_units: +(\d+)")
        rate = self.number(r"average_exec_per_sec: +(\d+)")
        return "%-13s %12d %9d %9d of %6d %9d  %s" % (
            self.entry, executions, rate, covered, edges, self.number(r"corp: (\d+)"),
            "ok" if self.status == 0 else "FAILED: %s" % self.log)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build/fuzz")
    parser.add_argument("--seconds", type=int, default=30)
    parser.add_argument("--jobs", type=int, default=2)
    parser.add_argument("entries", nargs="*", metavar="ENTRY", help="all, when none is named")
    options = parser.parse_args()
    known = sorted(path.stem[len("fuzz_"):] for path in (ROOT / "tests/fuzz").glob("fuzz_*.cpp"))
    unknown = set(options.entries) - set(known)
    if unknown:
        parser.error("no fuzzer '%s'; there are %s" % ("', '".join(unknown), ", ".join(known)))
    runs = [Run(options.build.resolve(), entry, options.seconds)
            for entry in options.entries or known]
    print("%-13s %12s %9s %19s %9s" % ("entry", "executions", "a second", "branches reached",
                                       "inputs"), flush=True)
    failed = False
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for run in pool.map(Run.wait, runs):
            print(run.row(), flush=True)
            failed = failed or run.status != 0
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
