"""What the tests with independent UPnP programs share."""

import json
import os
import shutil
import subprocess
import tempfile
import time
import unittest
import urllib.parse
import urllib.request
import xml.etree.ElementTree as ElementTree

from devices import Device

VEXCP = os.path.join(os.environ["VEX_BINARY_DIR"], "vexcp")
NAMESPACE = "{urn:schemas-upnp-org:device-1-0}"
FOUND_S = 25.0


def wait_until(condition, limit):
    end = time.monotonic() + limit
    while True:
        value = condition()
        if value or time.monotonic() > end:
            return value
        time.sleep(0.02)


class Watcher:
    """A running `vexcp discover --watch --json`."""

    def __init__(self, *arguments):
        self.process = subprocess.Popen([VEXCP, "discover", "--watch", "--json", *arguments],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        os.set_blocking(self.process.stdout.fileno(), False)
        self.rest = b""
        self.events = []

    def read(self):
        self.rest += self.process.stdout.read() or b""
        *lines, self.rest = self.rest.split(b"\n")
        self.events += [json.loads(line) for line in lines]
        return self.events

    def of(self, event, udn, interface):
        return [e["device"] for e in self.read() if e["event"] == event and
                e["device"]["udn"] == udn and e["device"]["interface"] == interface]

    def wait_for(self, event, udn, interface, times=1, limit=FOUND_S):
        found = wait_until(lambda: self.of(event, udn, interface)[times - 1:], limit)
        if not found:
            raise AssertionError("no %s of %s on %s; there were %s" % (
                event, udn, interface,
                [(e["event"], e["device"]["udn"], e["device"]["interface"]) for e in self.events]))
        return found[0]

    def stop(self):
        if self.process.poll() is None:
            self.process.terminate()
        self.process.wait(30)
        self.process.stdout.close()


class Described:
    """A device's own description, read without the library."""

    def __init__(self, location):
        with urllib.request.urlopen(location, timeout=10) as answer:
            self.xml = answer.read()
        root = ElementTree.fromstring(self.xml)
        self.device = root.find(NAMESPACE + "device")
        self.base = root.findtext(NAMESPACE + "URLBase") or location
        self.udn = self.text("UDN")
        self.type = self.text("deviceType")

    def text(self, name):
        return (self.device.findtext(NAMESPACE + name) or "").strip()

    def services(self):
        return [{"type": service.findtext(NAMESPACE + "serviceType").strip(),
                 "id": service.findtext(NAMESPACE + "serviceId").strip(),
                 "scpd": urllib.parse.urljoin(self.base,
                                              service.findtext(NAMESPACE + "SCPDURL").strip()),
                 "control": urllib.parse.urljoin(self.base, service.findtext(
                     NAMESPACE + "controlURL").strip())}
                for service in self.device.findall("%sserviceList/%sservice"
                                                   % (NAMESPACE, NAMESPACE))]


class LabCase(unittest.TestCase):
    def setUp(self):
        self.work = tempfile.mkdtemp(prefix="vex-lab-")
        self.addCleanup(shutil.rmtree, self.work)

    def start(self, name, host):
        device = Device(name, host, self.work)
        self.addCleanup(device.kill)
        device.start()
        return device

    def watch(self, *arguments):
        watcher = Watcher(*arguments)
        self.addCleanup(watcher.stop)
        return watcher
