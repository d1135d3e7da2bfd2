#!/usr/bin/env python3
"""Runs the fuzzers of a build folder, several at a time, and tells what each has reached.

A finding ends the run with 1; its input lies in BUILD/found-by/ENTRY/ and is given to the fuzzer as
its only argument to see it again.

Each entry begins with the seeds in tests/fuzz/corpus, with what was learnt by earlier runs and is
kept in tests/fuzz/learnt, and with what runs in this build folder have learnt. --keep merges all of
that into the smallest set of inputs that reaches as much, and writes it to tests/fuzz/learnt.

--afl takes a build folder of the preset fuzz-afl, whose programs run under AFL++.
"""

import argparse
import concurrent.futures
import gzip
import io
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tarfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
MEMORY_MB = 2048
# By the clock on the wall, beside as many others as there are processors.
ONE_INPUT_S = 30
# What an entry may keep in the repository.
MOST_KEPT = 300
MOST_KEPT_BYTES = 300 * 1024
LARGEST_KEPT = 64 * 1024


def seeds_of(entry):
    return ROOT / "tests/fuzz/corpus" / entry


def archive_of(entry):
    return ROOT / "tests/fuzz/learnt" / (entry + ".tar.gz")


def unpack(entry, folder):
    """What earlier runs have learnt, as files in a folder of its own, which is made anew."""
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir(parents=True)
    if archive_of(entry).exists():
        with tarfile.open(archive_of(entry)) as archive:
            for member in archive:
                content = archive.extractfile(member).read()
                (folder / pathlib.PurePath(member.name).name).write_bytes(content)
    return folder


def pack(entry, folder):
    """The same inputs give the same archive. Too many or too large ones are refused."""
    inputs = sorted(folder.iterdir())
    sizes = [path.stat().st_size for path in inputs]
    if (len(inputs) > MOST_KEPT or sum(sizes) > MOST_KEPT_BYTES or
            max(sizes, default=0) > LARGEST_KEPT):
        raise ValueError("%s: %d inputs of %d bytes, the largest %d, are too much to keep" %
                         (entry, len(inputs), sum(sizes), max(sizes, default=0)))
    packed = io.BytesIO()
    with tarfile.open(fileobj=packed, mode="w", format=tarfile.USTAR_FORMAT) as archive:
        for path, size in zip(inputs, sizes):
            member = tarfile.TarInfo(path.name)
            member.size = size
            with open(path, "rb") as file:
                archive.addfile(member, file)
    archive_of(entry).parent.mkdir(exist_ok=True)
    archive_of(entry).write_bytes(gzip.compress(packed.getvalue(), mtime=0))
    return len(inputs), sum(sizes)


class Run:
    """One fuzzer, on the seeds, what is kept and what earlier runs in this build folder learnt."""

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
            "-use_value_profile=1", "-artifact_prefix=%s/" % self.findings,
            # New inputs are written to the first folder.
            str(self.learnt), str(unpack(entry, build / "kept" / entry)), str(seeds_of(entry))]
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

    @staticmethod
    def head():
        return "%-13s %12s %9s %19s %9s" % ("entry", "executions", "a second", "branches reached",
                                            "inputs")

    def row(self):
        edges = self.number(r"\((\d+) inline 8-bit counters\)")
        covered = self.number(r"cov: (\d+)")
        executions = self.number(r"number_of_executed_units: +(\d+)")
        rate = self.number(r"average_exec_per_sec: +(\d+)")
        return "%-13s %12d %9d %9d of %6d %9d  %s" % (
            self.entry, executions, rate, covered, edges, self.number(r"corp: (\d+)"),
            "ok" if self.status == 0 else "FAILED: %s" % self.log)


class AflRun:
    """The same for AFL++, which goes on where an earlier run in this build folder has ended."""

    # Nobody looks after its screen or owns the machine's settings; a core pattern that hands crashes
    # to a program delays them, and what crashed is counted below in any case. Kept inputs that AFL
    # finds slow or alike are no reason to refuse them.
    SETTINGS = {"AFL_NO_UI": "1", "AFL_SKIP_CPUFREQ": "1", "AFL_NO_AFFINITY": "1",
                "AFL_I_DONT_CARE_ABOUT_MISSING_CRASHES": "1", "AFL_AUTORESUME": "1",
                "AFL_IGNORE_SEED_PROBLEMS": "1"}

    def __init__(self, build, entry, seconds):
        self.entry = entry
        self.log = build / ("afl_%s.log" % entry)
        self.output = build / "found-by" / entry
        begin = unpack(entry, build / "begin" / entry)
        for seed in seeds_of(entry).iterdir():
            shutil.copyfile(seed, begin / seed.name)
        self.output.parent.mkdir(exist_ok=True)
        self.command = ["afl-fuzz", "-V", str(seconds), "-t", str(ONE_INPUT_S * 1000), "-i",
                        str(begin), "-o", str(self.output)]
        dictionary = ROOT / "tests/fuzz" / (entry + ".dict")
        if dictionary.exists():
            self.command += ["-x", str(dictionary)]
        self.command += ["--", str(build / ("fuzz_" + entry))]

    def wait(self):
        environment = dict(os.environ, **self.SETTINGS)
        with open(self.log, "wb") as log:
            self.status = subprocess.call(self.command, stdout=log, stderr=log, cwd=ROOT,
                                          env=environment)
        self.stats = {}
        stats = self.output / "default" / "fuzzer_stats"
        if stats.exists():
            self.stats = dict(re.findall(r"^(\w+) +: (.*)$", stats.read_text(), re.M))
        # Those of earlier runs, too, until somebody has looked at them.
        self.findings = [path for kind in ("crashes", "hangs")
                         for path in (self.output / "default" / kind).glob("id:*")]
        if not self.stats or self.findings:
            self.status = self.status or 1
        return self

    @staticmethod
    def head():
        return "%-13s %12s %9s %9s %9s %9s" % ("entry", "executions", "a second", "reached",
                                               "inputs", "findings")

    def row(self):
        return "%-13s %12s %9s %9s %9s %9d  %s" % (
            self.entry, self.stats.get("execs_done", "0"), self.stats.get("execs_per_sec", "0"),
            self.stats.get("bitmap_cvg", ""), self.stats.get("corpus_count", "0"),
            len(self.findings), "ok" if self.status == 0 else "FAILED: %s" % self.log)


class Merge:
    """The smallest set of all inputs that there are, kept."""

    def __init__(self, build, entry, _):
        self.entry = entry
        self.log = build / ("merge_%s.log" % entry)
        self.merged = build / "merged" / entry
        shutil.rmtree(self.merged, ignore_errors=True)
        self.merged.mkdir(parents=True)
        folders = [seeds_of(entry), unpack(entry, build / "kept" / entry),
                   build / "learnt" / entry,
                   build.parent / "fuzz-afl/found-by" / entry / "default/queue"]
        self.command = [
            str(build / ("fuzz_" + entry)), "-merge=1", "-set_cover_merge=1",
            "-max_len=%d" % LARGEST_KEPT, "-timeout=%d" % ONE_INPUT_S,
            "-rss_limit_mb=%d" % MEMORY_MB, str(self.merged)
        ] + [str(folder) for folder in folders if folder.exists()]

    def wait(self):
        with open(self.log, "wb") as log:
            self.status = subprocess.call(self.command, stdout=log, stderr=log, cwd=ROOT)
        self.kept = (0, 0)
        if self.status == 0:
            for seed in seeds_of(self.entry).iterdir():
                self._drop(seed.read_bytes())
            try:
                self.kept = pack(self.entry, self.merged)
            except ValueError as error:
                self.status = 1
                self.log.write_text(str(error))
        return self

    def _drop(self, seed):
        """What lies readable beside the archive is not in it as well."""
        for path in self.merged.iterdir():
            if path.stat().st_size == len(seed) and path.read_bytes() == seed:
                path.unlink()

    @staticmethod
    def head():
        return "%-13s %9s %9s" % ("entry", "inputs", "bytes")

    def row(self):
        return "%-13s %9d %9d  %s" % (self.entry, *self.kept,
                                      "ok" if self.status == 0 else "FAILED: %s" % self.log)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path)
    parser.add_argument("--seconds", type=int, default=30)
    parser.add_argument("--jobs", type=int, default=2)
    way = parser.add_mutually_exclusive_group()
    way.add_argument("--afl", action="store_const", dest="way", const=AflRun)
    way.add_argument("--keep", action="store_const", dest="way", const=Merge)
    parser.add_argument("entries", nargs="*", metavar="ENTRY", help="all, when none is named")
    parser.set_defaults(way=Run)
    options = parser.parse_args()
    build = options.build or ROOT / ("build/fuzz-afl" if options.way is AflRun else "build/fuzz")
    known = sorted(path.stem[len("fuzz_"):] for path in (ROOT / "tests/fuzz").glob("fuzz_*.cpp"))
    unknown = set(options.entries) - set(known)
    if unknown:
        parser.error("no fuzzer '%s'; there are %s" % ("', '".join(unknown), ", ".join(known)))
    runs = [options.way(build.resolve(), entry, options.seconds)
            for entry in options.entries or known]
    print(options.way.head(), flush=True)
    failed = False
    with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
        for run in pool.map(lambda run: run.wait(), runs):
            print(run.row(), flush=True)
            failed = failed or run.status != 0
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
