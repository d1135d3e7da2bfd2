"""The host under test as a process: commands to it, what it tells, and what the kernel tells of it."""

import json
import os
import queue
import re
import subprocess
import threading
import time

from simulated_house import end_process

# The thresholds are glibc's first ones, which it raises when a large block is freed.
PLAIN_MALLOC = ("glibc.malloc.arena_max=1:glibc.malloc.tcache_count=0:"
                "glibc.malloc.mmap_threshold=131072:glibc.malloc.trim_threshold=131072")


class HostProcess:
    def __init__(self, build, served, rate, malloc):
        command = [os.path.join(build, "soak_host"), "eth0", served, str(rate)]
        if malloc == "trimmed":
            command.append("--trim")
        environment = dict(os.environ)
        if malloc != "default":
            environment["GLIBC_TUNABLES"] = PLAIN_MALLOC
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True, env=environment)
        self.answers = queue.Queue()
        self.windows = queue.Queue()
        self.violations = []
        # When each device was last told, as added (1) or removed (2).
        self.told = {}
        self.on_added = lambda udn, when: None
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self.process.stdout:
            message = json.loads(line)
            if message["e"] == "device":
                self.told[message["udn"]] = (message["event"], message["t"])
                if message["event"] == 1:
                    self.on_added(message["udn"], message["t"])
            elif message["e"] == "violation":
                self.violations.append(message["text"])
                print("VIOLATION: " + message["text"], flush=True)
            elif message["e"] == "window":
                self.windows.put(message)
            else:
                self.answers.put(message)
        self.answers.put({"e": "over"})

    def tell(self, command):
        try:
            self.process.stdin.write(command + "\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            pass  # It has ended, which the reader tells.

    def ask(self, command, limit):
        """The answer, or None when none comes in time."""
        self.tell(command)
        try:
            return self.answers.get(timeout=limit)
        except queue.Empty:
            return None

    def is_gone(self, udn):
        return self.told.get(udn, (0, 0))[0] == 2

    def wait(self, limit):
        self._reader.join(limit)
        try:
            return self.process.wait(limit)
        except subprocess.TimeoutExpired:
            self.process.kill()
            return None

    def end(self):
        """Ends the process in whatever state it is; behind it nothing of it is left."""
        self.process.kill()
        self._reader.join()
        end_process(self.process)


SIZE = re.compile(r"^(Rss|Pss|Private_Dirty):\s+(\d+)")
MAPPING = re.compile(r"^([0-9a-f]+)-([0-9a-f]+) (....) \S+ \S+ \S+\s*(.*)$")
PAGE = 4096


def mappings(pid):
    """The resident memory of a process in KiB, by what it is mapped for."""
    sizes = {"rss_kib": 0, "pss_kib": 0, "private_dirty_kib": 0, "heap_kib": 0, "stacks_kib": 0,
             "files_kib": 0, "blocks_kib": 0}
    guard = None
    kind = ""
    with open("/proc/%d/smaps" % pid, encoding="ascii") as file:
        for line in file:
            begins = MAPPING.match(line)
            if begins:
                first, last = int(begins[1], 16), int(begins[2], 16)
                if begins[4] == "[heap]":
                    kind = "heap_kib"
                elif begins[4] == "[stack]" or guard == first:
                    kind = "stacks_kib"
                else:
                    kind = "files_kib" if begins[4] else "blocks_kib"
                # A thread's stack lies above a page that nobody may touch.
                guard = last if begins[3] == "---p" and last - first == PAGE else None
                continue
            size = SIZE.match(line)
            if size:
                sizes[size[1].lower() + "_kib"] += int(size[2])
                if size[1] == "Rss":
                    sizes[kind] += int(size[2])
    return sizes


def measure(pid):
    """Memory in KiB, descriptors, threads and used processor time in s of a process."""
    values = mappings(pid)
    values["descriptors"] = len(os.listdir("/proc/%d/fd" % pid))
    values["threads"] = len(os.listdir("/proc/%d/task" % pid))
    with open("/proc/%d/stat" % pid, encoding="ascii") as file:
        fields = file.read().rpartition(")")[2].split()
    values["cpu_s"] = (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
    return values


class Joins:
    """How long new devices take from being switched on to the host's callback."""

    def __init__(self):
        self._lock = threading.Lock()
        self._begun = {}
        self._added = {}
        self.window = []
        self.all = []

    def joined(self, udn, begun):
        with self._lock:
            self._begun[udn] = begun
            self._match(udn)

    def added(self, udn, when):
        with self._lock:
            self._added[udn] = when
            self._match(udn)

    def _match(self, udn):
        # A device told before it was switched on is one of an earlier life.
        if self._added.get(udn, 0) > self._begun.get(udn, float("inf")):
            latency = (self._added.pop(udn) - self._begun.pop(udn)) / 1e3
            self.window.append(latency)
            self.all.append(latency)

    def take(self):
        with self._lock:
            window, self.window = self.window, []
            return window


class Guest(threading.Thread):
    """Fetches the served file on the other host now and then, and compares it."""

    def __init__(self, command, url, digest, pause):
        super().__init__(daemon=True)
        self.url, self.digest, self.pause = url, digest, pause
        self.good = 0
        self.bad = []
        self.ended = threading.Event()
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True)

    def run(self):
        while not self.ended.wait(self.pause):
            self.process.stdin.write(self.url + "\n")
            self.process.stdin.flush()
            answer = self.process.stdout.readline().strip()
            if answer == self.digest:
                self.good += 1
            else:
                self.bad.append("%s: %s" % (time.strftime("%H:%M:%S"), answer))

    def stop(self):
        self.ended.set()
        # A fetch that is under way ends; one that hangs ends with its process.
        self.join(60)
        end_process(self.process)
        self.join()
