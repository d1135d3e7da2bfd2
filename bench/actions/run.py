#!/usr/bin/env python3
"""Actions and events of a fast device, side by side: the library, a bare client, other control points.

  run.py [--build DIR] [--repeat N] [--quick] [--only TEXT] [--json FILE]

To be run as root by tools/two_hosts. The programs take turns, each as a process of its own, against
one fast device on the other host; medians are compared. "control" is the library too, through
vex_upnp::cp_control, whose callback may send the next action itself. The bare client is the limit of
one connection for each action or event.
"""

import argparse
import json
import os
import shlex
import statistics
import subprocess
import sys
import time

ADDRESS, PORT = "10.78.0.2", 49200
PEERS = ("libupnp", "gupnp")
# name, kind, width, count, services of the device
CASES = [("actions, one at a time", "actions", 1, 8000, 3),
         ("actions, 64 in flight", "actions", 64, 16000, 3),
         ("events, 1 subscription", "events", 1, 8000, 3),
         ("events, 50 subscriptions", "events", 50, 20000, 50)]
PROGRAMS = {"actions": ("bare", "vexupnpcp", "control", "libupnp", "gupnp"),
            "events": ("bare", "vexupnpcp", "gupnp")}
ATTEMPTS = 3
LIMIT_S = 30


def on_devices(arguments):
    return shlex.split(os.environ["ON_DEVICES"]) + arguments


def spare_ports():
    """Room for thousands of connections a second, on both hosts."""
    script = ("echo 1100 46000 >/proc/sys/net/ipv4/ip_local_port_range;"
              "echo 1 >/proc/sys/net/ipv4/tcp_tw_reuse")
    subprocess.run(["sh", "-c", script], check=True)
    subprocess.run(on_devices(["sh", "-c", script]), check=True)


def measure(build, kind, program, width, count):
    command = [os.path.join(build, "%s_%s" % (kind, program)), "eth0", ADDRESS, str(PORT),
               str(width), str(count)]
    # A peer may hit upon a port that is still taken, and try no other.
    for _ in range(ATTEMPTS):
        try:
            output = subprocess.run(command, capture_output=True, stdin=subprocess.DEVNULL,
                                    timeout=LIMIT_S, check=False)
        except subprocess.TimeoutExpired:
            print("%s: no end after %d s" % (" ".join(command), LIMIT_S), file=sys.stderr)
            continue
        if output.returncode == 0:
            return json.loads(output.stdout)
        time.sleep(0.5)
    print("%s failed" % " ".join(command), file=sys.stderr)
    return None


def run_case(build, case, repeat):
    name, kind, width, count, services = case
    # Against 50 subscriptions at full speed GUPnP loses events and does not come to an end.
    programs = [program for program in PROGRAMS[kind]
                if not (program == "gupnp" and kind == "events" and width > 1) and
                os.path.exists(os.path.join(build, "%s_%s" % (kind, program)))]
    runs = {program: [] for program in programs}
    device = subprocess.Popen(on_devices([os.path.join(build, "fast_device"), ADDRESS, str(PORT),
                                          str(services)]),
                              stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    device.stdout.readline()
    for turn in range(repeat):
        for program in programs[turn % len(programs):] + programs[:turn % len(programs)]:
            result = measure(build, kind, program, width, count)
            if result is not None:
                runs[program].append(result)
    device.stdin.close()
    device.wait()
    device.stdout.close()
    return {"case": name, "kind": kind, "width": width, "runs": runs}


def median(runs, key):
    return statistics.median(run[key] for run in runs)


def print_case(result):
    runs = {program: values for program, values in result["runs"].items() if values}
    peers = [program for program in PEERS if program in runs]
    best_rate = max((median(runs[peer], "per_second") for peer in peers), default=None)
    best_cpu = min((median(runs[peer], "cpu_us") for peer in peers), default=None)
    for program, values in runs.items():
        rate, cpu = median(values, "per_second"), median(values, "cpu_us")
        line = "%-26s %-10s %9.0f /s %8.1f us CPU" % (result["case"], program, rate, cpu)
        failures = sum(run["failures"] for run in values)
        if failures:
            line += "  %d FAILED" % failures
        if program in ("vexupnpcp", "control"):
            if best_rate:
                line += "   x%.2f of the better peer, CPU x%.2f" % (rate / best_rate,
                                                                    cpu / best_cpu)
            if "bare" in runs:
                line += "   x%.2f of the limit" % (rate / median(runs["bare"], "per_second"))
        print(line, flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/release")
    parser.add_argument("--repeat", type=int, default=7)
    parser.add_argument("--quick", action="store_true", help="three turns")
    parser.add_argument("--only", default="", help="cases whose name contains this text")
    parser.add_argument("--json", help="file for all single results")
    options = parser.parse_args()
    if "ON_DEVICES" not in os.environ:
        sys.exit("run.py: to be started by tools/two_hosts")
    spare_ports()
    results = []
    for case in CASES:
        if options.only in case[0]:
            results.append(run_case(options.build, case, 3 if options.quick else options.repeat))
            print_case(results[-1])
    if options.json:
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump({"date": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()),
                       "kernel": os.uname().release, "cpus": os.cpu_count(),
                       "results": results}, file, indent=1)
    sys.exit(0 if all(all(result["runs"].values()) for result in results) else 1)


if __name__ == "__main__":
    main()
