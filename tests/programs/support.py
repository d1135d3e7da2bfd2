"""Two hosts made by tools/two_hosts: this one, and "devices", on which vexsim runs.

A test run that was started elsewhere starts again on them.
"""

import json
import os
import re
import shlex
import socket
import subprocess
import sys
import time
import unittest

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
if "ON_DEVICES" not in os.environ:
    TWO_HOSTS = os.path.join(ROOT, "tools", "two_hosts")
    os.execv(TWO_HOSTS, [TWO_HOSTS, sys.executable, *sys.orig_argv[1:]])

BINARY_DIR = os.path.abspath(os.environ.get("VEX_BINARY_DIR") or os.environ.get("VEX_BUILD_DIR") or
                             os.path.join(ROOT, "build", "debug"))
DEVICES_HOST = "10.78.0.2"
DEVICES_HOST_2 = "10.78.1.2"
OWN_ADDRESS = "10.78.0.1"
GROUP = ("239.255.255.250", 1900)
# Reached by failing tests only.
LIMIT_S = 20.0


def on_devices(arguments):
    return shlex.split(os.environ["ON_DEVICES"]) + arguments


def wait_until(condition, limit=LIMIT_S):
    """Waits for a state; the last value of the condition."""
    end = time.monotonic() + limit
    while True:
        value = condition()
        if value or time.monotonic() > end:
            return value
        time.sleep(0.005)


class Simulator:
    """A running vexsim with its command channel."""

    def __init__(self, *arguments):
        command = [os.path.join(BINARY_DIR, "vexsim"), "--json", "--exit-with-stdin", *arguments]
        self.process = subprocess.Popen(
            on_devices(command), stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.ready = self._read()

    def _read(self):
        line = self.process.stdout.readline()
        if not line:
            raise AssertionError("vexsim ended with status %s" % self.process.wait())
        return json.loads(line)

    def ask(self, command):
        self.process.stdin.write(command + "\n")
        self.process.stdin.flush()
        return self._read()

    def do(self, command):
        answer = self.ask(command)
        if not answer["ok"]:
            raise AssertionError("%s: %s" % (command, answer))
        return answer

    def devices(self):
        return self.do("list")["devices"]

    def device(self, number=0):
        return self.devices()[number]

    def stop(self):
        self.process.stdin.close()
        self.process.wait(LIMIT_S)
        self.process.stdout.close()
        return self.process.returncode

    def kill(self):
        self.process.kill()
        self.process.wait(LIMIT_S)
        self.process.stdin.close()
        self.process.stdout.close()


class SimulatorTest(unittest.TestCase):
    """Gives a test its simulators and takes them down again."""

    def simulate(self, *arguments):
        simulator = Simulator(*arguments)
        self.addCleanup(simulator.stop)
        return simulator


class Message:
    """A start line and headers; names in capitals."""

    def __init__(self, data, sender=None):
        head = data.decode("latin-1").split("\r\n\r\n")[0].split("\r\n")
        self.start = head[0]
        self.sender = sender
        self.headers = {}
        for line in head[1:]:
            name, _, value = line.partition(":")
            self.headers[name.strip().upper()] = value.strip()

    def __getitem__(self, name):
        return self.headers[name]


def search_text(target, mx="1", man='"ssdp:discover"'):
    return ("M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: %s\r\nMX: %s\r\n"
            "ST: %s\r\n\r\n" % (man, mx, target)).encode()


class SearchSocket:
    """An SSDP client on the first network."""

    def __init__(self, address=OWN_ADDRESS):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        self.socket.bind((address, 0))

    def close(self):
        self.socket.close()

    def send(self, data):
        self.socket.sendto(data, GROUP)

    def collect(self, count, quiet=0.3):
        """`count` messages, and whatever comes within `quiet` seconds behind them."""
        messages = []
        end = time.monotonic() + LIMIT_S
        while time.monotonic() < end:
            self.socket.settimeout(quiet if len(messages) >= count else end - time.monotonic())
            try:
                data, sender = self.socket.recvfrom(65536)
            except socket.timeout:
                break
            messages.append(Message(data, sender))
        return messages


class GroupSocket(SearchSocket):
    """Hears what is announced on the first network."""

    def __init__(self, address=OWN_ADDRESS):
        self.socket = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4 << 20)
        self.socket.bind(("239.255.255.250", 1900))
        self.socket.setsockopt(socket.IPPROTO_IP, socket.IP_ADD_MEMBERSHIP,
                               socket.inet_aton(GROUP[0]) + socket.inet_aton(address))


class HttpAnswer:
    """Everything that came back until the connection ended."""

    def __init__(self, data, reset):
        self.data = data
        self.reset = reset
        head, _, self.body = data.partition(b"\r\n\r\n")
        self.message = Message(head) if data.startswith(b"HTTP/") else None
        match = re.match(rb"HTTP/1\.1 (\d+) ", data)
        self.status = int(match.group(1)) if match else None


def read_to_end(connection):
    data = b""
    try:
        while True:
            piece = connection.recv(65536)
            if not piece:
                return HttpAnswer(data, False)
            data += piece
    except ConnectionResetError:
        return HttpAnswer(data, True)


def split_url(url):
    match = re.match(r"http://([0-9.]+):(\d+)(/.*)$", url)
    return match.group(1), int(match.group(2)), match.group(3)


def connect(url):
    host, port, _ = split_url(url)
    return socket.create_connection((host, port), timeout=LIMIT_S)


def get(url, method="GET", headers="", body=""):
    """One request on a connection of its own."""
    host, port, path = split_url(url)
    with socket.create_connection((host, port), timeout=LIMIT_S) as connection:
        connection.sendall(("%s %s HTTP/1.1\r\nHOST: %s:%d\r\nConnection: close\r\n%s"
                            "Content-Length: %d\r\n\r\n%s"
                            % (method, path, host, port, headers, len(body.encode()), body)
                            ).encode())
        return read_to_end(connection)
