#!/usr/bin/env python3
"""How long, and with how much CPU and memory, many devices are found by one search.

  run.py [--build DIR] [--repeat N] [--quick] [--json FILE]

To be run as root by tools/two_hosts, so that the receive buffer may exceed what the kernel grants
to everybody. Programs side by side: ready_vexupnpcp of the build, and the peers that it has
(ready_gupnp, ready_libupnp). They take turns, each as a process of its own, against the same
simulated devices with three services each.
"""

import argparse
import json
import os
import shlex
import statistics
import subprocess
import sys
import time

PROGRAMS = ("vexupnpcp", "gupnp", "libupnp")
QUIET_MS = 5000
SERVICES = 3

# name, devices, answers, soft limit of descriptors, programs
CASES = [
    ("100 spread", 100, "window=200", 16384, PROGRAMS),
    ("300 spread", 300, "window=200", 16384, PROGRAMS),
    ("1000 spread", 1000, "window=200", 16384, PROGRAMS),
    ("1000 burst", 1000, "burst", 16384, PROGRAMS),
    ("2000 spread", 2000, "window=200", 16384, PROGRAMS),
    ("2000 burst", 2000, "burst", 16384, PROGRAMS),
    ("1000 spread, 1024 fds", 1000, "window=200", 1024, PROGRAMS),
    ("1000 burst, 1024 fds", 1000, "burst", 1024, PROGRAMS),
    ("200 spread (memory)", 200, "window=200", 16384, PROGRAMS),
]
QUICK = ("100 spread", "1000 spread", "1000 burst")


class Devices:
    """A vexsim on the other host."""

    def __init__(self, build, count, answers):
        command = shlex.split(os.environ["ON_DEVICES"]) + [
            os.path.join(build, "vexsim"), "generated", "--count", str(count), "--services",
            str(SERVICES), "--answers", answers, "--no-announce", "--json", "--exit-with-stdin"]
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        text=True)
        self.process.stdout.readline()

    def stats(self):
        self.process.stdin.write("stats reset\n")
        self.process.stdin.flush()
        return json.loads(self.process.stdout.readline())

    def stop(self):
        self.process.stdin.close()
        self.process.wait(20)
        self.process.stdout.close()


def spare_ports():
    """Keeps the thousands of closed connections off the ports on which the peers want to listen."""
    for name, value in (("ip_local_port_range", "1100 32000"), ("tcp_tw_reuse", "1")):
        with open("/proc/sys/net/ipv4/" + name, "w", encoding="ascii") as file:
            file.write(value)


def measure(build, program, count, descriptors, quiet_ms):
    command = ["prlimit", "--nofile=%d:%d" % (descriptors, descriptors), "--",
               os.path.join(build, "ready_" + program), "eth0", str(count), str(quiet_ms)]
    output = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                            stdin=subprocess.DEVNULL, timeout=180 + quiet_ms / 1000, check=False)
    if output.returncode != 0:
        print("%s ended with %d: %s" % (program, output.returncode,
                                        output.stderr[:200].decode("utf-8", "replace")),
              file=sys.stderr, flush=True)
        if program == "vexupnpcp":
            sys.exit(1)
        return None
    result = json.loads(output.stdout)
    result["cpu_us_per_device"] = 1000.0 * result["cpu_ms"] / max(result["ready"], 1)
    return result


def run_case(build, case, repeat, available, quiet_ms):
    name, count, answers, descriptors, programs = case
    programs = [program for program in programs if program in available]
    runs = {program: [] for program in programs}
    devices = Devices(build, count, answers)
    try:
        for turn in range(repeat):
            # Nobody always runs first.
            for program in programs[turn % len(programs):] + programs[:turn % len(programs)]:
                devices.stats()
                result = measure(build, program, count, descriptors, quiet_ms)
                if result is None:
                    continue
                result["simulator"] = devices.stats()
                runs[program].append(result)
                time.sleep(0.3)
    finally:
        devices.stop()
    return {"case": name, "devices": count, "answers": answers, "descriptors": descriptors,
            "runs": runs}


def median(runs, key):
    return statistics.median(run[key] for run in runs)


def print_case(result):
    own = result["runs"].get("vexupnpcp")
    for program, runs in result["runs"].items():
        if not runs:
            print("%-22s %-10s every run failed" % (result["case"], program), flush=True)
            continue
        values = {key: median(runs, key) for key in
                  ("ready", "wall_ms", "cpu_ms", "cpu_us_per_device", "private_kb")}
        line = "%-22s %-10s %5d/%-5d %9.0f %9.0f %12.0f %11.0f" % (
            result["case"], program, values["ready"], result["devices"], values["wall_ms"],
            values["cpu_ms"], values["cpu_us_per_device"], values["private_kb"])
        if program != "vexupnpcp" and own:
            line += "   wall x%.2f  cpu x%.2f" % (
                values["wall_ms"] / median(own, "wall_ms"),
                values["cpu_us_per_device"] / median(own, "cpu_us_per_device"))
        print(line, flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/release")
    parser.add_argument("--repeat", type=int, default=5)
    parser.add_argument("--quick", action="store_true", help="three cases, three turns")
    parser.add_argument("--only", help="cases whose name contains this text")
    parser.add_argument("--programs", help="only these, with commas")
    parser.add_argument("--quiet", type=int, default=QUIET_MS, metavar="MS",
                        help="how long a program waits for one more device before it ends")
    parser.add_argument("--json", help="file for all single results")
    options = parser.parse_args()
    if "ON_DEVICES" not in os.environ:
        sys.exit("run.py: to be started by tools/two_hosts")
    available = [program for program in PROGRAMS
                 if os.path.exists(os.path.join(options.build, "ready_" + program))]
    if options.programs:
        available = [program for program in available if program in options.programs.split(",")]
    spare_ports()
    cases = [case for case in CASES if not options.quick or case[0] in QUICK]
    if options.only:
        cases = [case for case in cases if options.only in case[0]]
    print("%-22s %-10s %11s %9s %9s %12s %11s   %s" % (
        "case", "program", "ready", "wall ms", "cpu ms", "cpu us/dev", "private KiB",
        "peer / own"))
    results = []
    for case in cases:
        results.append(run_case(options.build, case, 3 if options.quick else options.repeat,
                                available, options.quiet))
        print_case(results[-1])
    if options.json:
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump({"date": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()),
                       "kernel": os.uname().release, "cpus": os.cpu_count(),
                       "results": results}, file, indent=1)


if __name__ == "__main__":
    main()
