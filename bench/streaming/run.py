#!/usr/bin/env python3
"""Media over HTTP between two hosts, side by side with curl and nginx.

  run.py [--build DIR] [--repeat N] [--quick] [--size MIB] [--json FILE] [--only TEXT]

To be run by tools/two_hosts. The client `vexcp get` beside curl, both against one nginx on the other
host; the server `vexcp serve` beside nginx, both for curl on the other host, for 1, 8 and 64
clients at a time that fetch the same amount together. Programs take turns; files lie in memory.
CPU is that of the measured program, memory its highest resident size. Needs nginx-light and curl.
"""

import argparse
import json
import os
import re
import resource
import shlex
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time

HERE = "10.78.0.1"
THERE = "10.78.0.2"
MIB = 1 << 20
NGINX_CONF = """
worker_processes auto; daemon off; pid {folder}/nginx.pid; error_log /dev/null;
events {{ worker_connections 1024; }}
http {{
  access_log off; sendfile on; tcp_nopush on; types {{ }} default_type application/octet-stream;
  client_body_temp_path {folder}; proxy_temp_path {folder}; fastcgi_temp_path {folder};
  uwsgi_temp_path {folder}; scgi_temp_path {folder};
  server {{ listen {address}:{port}; root {folder}/media; }}
}}
"""


def on_devices(arguments):
    return shlex.split(os.environ["ON_DEVICES"]) + arguments


def children(pid):
    with open("/proc/%d/task/%d/children" % (pid, pid), encoding="ascii") as file:
        return [int(child) for child in file.read().split()]


def family(pid):
    return [pid] + [one for child in children(pid) for one in family(child)]


def cpu_seconds(pid):
    """User and system time of a process and those it started."""
    total = 0
    for one in family(pid):
        with open("/proc/%d/stat" % one, encoding="ascii", errors="replace") as file:
            fields = file.read().rpartition(")")[2].split()
        total += int(fields[11]) + int(fields[12])
    return total / os.sysconf("SC_CLK_TCK")


def status_kib(pid, name):
    total = 0
    for one in family(pid):
        with open("/proc/%d/status" % one, encoding="ascii", errors="replace") as file:
            total += int(re.search(name + r":\s+(\d+)", file.read())[1])
    return total


class Server:
    def __init__(self, command):
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.DEVNULL, text=True)

    def wait_for(self, address, port, prefix):
        for _ in range(400):
            if subprocess.run(prefix + ["curl", "-s", "-o", "/dev/null",
                                        "http://%s:%d/1" % (address, port)],
                              check=False).returncode == 0:
                return
            time.sleep(0.02)
        sys.exit("run.py: no server on %s:%d" % (address, port))

    def stop(self):
        self.process.send_signal(signal.SIGINT)
        self.process.wait(20)
        self.process.stdout.close()


class Nginx(Server):
    """On the host that `prefix` runs things on."""

    def __init__(self, folder, address, port, prefix=()):
        conf = os.path.join(folder, "nginx-%s.conf" % address)
        with open(conf, "w", encoding="ascii") as file:
            file.write(NGINX_CONF.format(folder=folder, address=address, port=port))
        super().__init__(list(prefix) + ["nginx", "-c", conf, "-p", folder])
        self.wait_for(address, port, list(prefix))
        self.url = "http://%s:%d/" % (address, port)


class Vexcp(Server):
    def __init__(self, build, folder, port):
        super().__init__([os.path.join(build, "vexcp"), "serve", "--quiet", "--interface", "eth0",
                          "--port", str(port), os.path.join(folder, "media")])
        self.url = self.process.stdout.readline().strip()


def timed(commands):
    """Runs them at the same time: wall seconds, CPU seconds, the largest resident size in KiB."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    start = time.monotonic()
    processes = [subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL) for command in commands]
    largest = 0
    for process in processes:
        # Not the resource usage of the wait: it counts what this script had when it forked.
        while process.poll() is None:
            try:
                largest = max(largest, status_kib(process.pid, "VmHWM"))
            except (OSError, TypeError):
                pass
            time.sleep(0.002)
        if process.returncode != 0:
            sys.exit("run.py: %s ended with %d" % (process.args, process.returncode))
    wall = time.monotonic() - start
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    cpu = after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime
    return wall, cpu, largest


def client_run(program, build, url):
    if program == "curl":
        command = ["curl", "-sf", "-o", "/dev/null", url]
    else:
        command = [os.path.join(build, "vexcp"), "get", url, "-o", "/dev/null"]
    return timed([command])


def server_run(server, count, name):
    fetch = on_devices(["curl", "-sf", "-o", "/dev/null", server.url + name])
    before = cpu_seconds(server.process.pid)
    wall, _, _ = timed([fetch] * count)
    return wall, cpu_seconds(server.process.pid) - before, status_kib(server.process.pid, "VmHWM")


def interleaved(repeat, programs, measure):
    runs = {program: [] for program in programs}
    for turn in range(repeat):
        # Nobody always runs first.
        order = programs if turn % 2 == 0 else programs[::-1]
        for program in order:
            runs[program].append(measure(program))
    return runs


def report(results, case, mib, runs, peer):
    line = {}
    for program, values in runs.items():
        wall, cpu, memory = (statistics.median(value[i] for value in values) for i in range(3))
        line[program] = {"mib_per_s": mib / wall, "cpu_s_per_gib": cpu * 1024 / mib,
                         "highest_kib": memory, "runs": values}
    own = line["vexcp"]
    for program, value in line.items():
        text = "%-26s %-6s %9.0f %13.3f %12d" % (case, program, value["mib_per_s"],
                                                value["cpu_s_per_gib"], value["highest_kib"])
        if program == "vexcp":
            text += "   rate x%.2f  cpu x%.2f" % (
                own["mib_per_s"] / line[peer]["mib_per_s"],
                own["cpu_s_per_gib"] / max(line[peer]["cpu_s_per_gib"], 0.001))
        print(text, flush=True)
    results.append({"case": case, "mib": mib, "programs": line})


def make_files(folder, size):
    media = os.path.join(folder, "media")
    os.mkdir(media)
    for count in (1, 8, 64):
        with open(os.path.join(media, str(count)), "wb") as file:
            block = os.urandom(MIB)
            for _ in range(size // count):
                file.write(block)
    with open(os.path.join(media, "small"), "wb") as file:
        file.write(os.urandom(MIB))


def two_hundred(results, server, folder):
    """200 transfers at once by one curl, each compared by its length."""
    urls = []
    for i in range(200):
        urls += ["-o", os.path.join(folder, "copy%d" % i), server.url + "small"]
    start = time.monotonic()
    subprocess.run(on_devices(["curl", "-sf", "-Z", "--no-progress-meter", "--parallel-max", "200"] + urls), check=True)
    wall = time.monotonic() - start
    sizes = {os.path.getsize(os.path.join(folder, "copy%d" % i)) for i in range(200)}
    memory = status_kib(server.process.pid, "VmHWM")
    print("%-26s %-6s %9.0f %13s %12d   every copy of %s bytes" % (
        "server, 200 at once", "vexcp", 200 / wall, "", memory, sizes), flush=True)
    if sizes != {MIB}:
        sys.exit("run.py: copies are not whole")
    results.append({"case": "server, 200 at once", "mib_per_s": 200 / wall, "highest_kib": memory})


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default="build/release")
    parser.add_argument("--repeat", type=int, default=7)
    parser.add_argument("--size", type=int, default=1024, metavar="MIB")
    parser.add_argument("--quick", action="store_true", help="256 MiB, three turns")
    parser.add_argument("--only", default="", help="cases whose name contains this text")
    parser.add_argument("--json", help="file for all single results")
    options = parser.parse_args()
    if "ON_DEVICES" not in os.environ:
        sys.exit("run.py: to be started by tools/two_hosts")
    for program in ("nginx", "curl"):
        if shutil.which(program) is None:
            sys.exit("run.py: %s is missing" % program)
    repeat, size = (3, 256) if options.quick else (options.repeat, options.size)
    folder = tempfile.mkdtemp(dir="/dev/shm")
    results = []
    print("%-26s %-6s %9s %13s %12s" % ("case", "", "MiB/s", "CPU s/GiB", "highest KiB"))
    try:
        make_files(folder, size)
        os.chmod(folder, 0o755)
        if options.only in "client":
            nginx = Nginx(folder, THERE, 8101, on_devices([]))
            for name, mib in (("1", size), ("64", size // 64)):
                report(results, "client, %d MiB" % mib, mib, interleaved(
                    repeat, ["curl", "vexcp"],
                    lambda program: client_run(program, options.build, nginx.url + name)), "curl")
            nginx.stop()
        if options.only in "server":
            servers = {"nginx": Nginx(folder, HERE, 8102), "vexcp": Vexcp(options.build, folder, 8103)}
            for count in (1, 8, 64):
                report(results, "server, %d at once" % count, size, interleaved(
                    repeat, ["nginx", "vexcp"],
                    lambda program: server_run(servers[program], count, str(count))), "nginx")
            two_hundred(results, servers["vexcp"], folder)
            for server in servers.values():
                server.stop()
    finally:
        shutil.rmtree(folder)
    if options.json:
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump({"date": time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime()),
                       "kernel": os.uname().release, "cpus": os.cpu_count(),
                       "results": results}, file, indent=1)


if __name__ == "__main__":
    main()
