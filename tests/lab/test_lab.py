"""The control point against independent UPnP programs, each on a host of its own.

Everything asserted here was read from the device itself by other means: its description and service
descriptions are fetched and parsed apart from the library.
"""

import subprocess
import unittest
import urllib.request

from lab_support import FOUND_S, VEXCP, Described, LabCase, wait_until

# A rescan, its answers, the connection check and one rescan in between.
GONE_S = 60.0


class LabTest(LabCase):
    def check_described(self, found, location):
        """What the library tells of a device is what the device tells of itself."""
        described = Described(location)
        self.assertEqual(location, found["location"])
        self.assertEqual(described.udn, found["udn"])
        self.assertEqual(described.type, found["type"])
        for ours, theirs in (("name", "friendlyName"), ("manufacturer", "manufacturer"),
                             ("model_name", "modelName"), ("model_number", "modelNumber"),
                             ("serial_number", "serialNumber")):
            self.assertEqual(described.text(theirs), found[ours].strip(), ours)
        services = described.services()
        self.assertGreater(len(services), 0)
        self.assertEqual([(s["type"], s["id"]) for s in services],
                         [(s["type"], s["id"]) for s in found["services"]])
        self.check_service_descriptions(found, services)

    def check_service_descriptions(self, found, services):
        for service in services:
            with urllib.request.urlopen(service["scpd"], timeout=10) as answer:
                expected = answer.read()
            result = subprocess.run([VEXCP, "scpd", found["key"], service["type"], "--xml",
                                     "--wait", "20"], capture_output=True, timeout=60)
            self.assertEqual(0, result.returncode, result.stderr)
            self.assertEqual(expected.strip(), result.stdout.strip(), service["type"])

    def check_life(self, name, host, interface, says_byebye=True):
        """Found and described; gone and found again when restarted; gone when it dies."""
        device = self.start(name, host)
        described = Described(device.location)
        # A concrete type, since all devices at once are searched for at most every two minutes.
        watcher = self.watch("--type", described.type, "--rescan", "9")
        found = watcher.wait_for("added", described.udn, interface)
        self.check_described(found, device.location)
        device.stop()
        watcher.wait_for("removed", described.udn, interface,
                         limit=FOUND_S if says_byebye else GONE_S)
        again = Described(device.start())
        times = 2 if again.udn == described.udn else 1
        watcher.wait_for("added", again.udn, interface, times=times)
        device.kill()
        watcher.wait_for("removed", again.udn, interface, times=times, limit=GONE_S)

    def test_minidlna(self):
        self.check_life("minidlna", "dev1", "eth0")

    def test_gerbera(self):
        self.check_life("gerbera", "dev2", "eth0")

    def test_rygel_media_server(self):
        self.check_life("rygel", "dev3", "eth1")

    def test_network_light_that_never_says_byebye(self):
        self.check_life("light", "dev2", "eth0", says_byebye=False)

    def test_rygel_media_renderer(self):
        self.start("rygel", "dev3")
        watcher = self.watch("--type", "MediaRenderer")
        found = wait_until(lambda: [e["device"] for e in watcher.read()
                                    if e["event"] == "added"], FOUND_S)
        self.assertTrue(found)
        self.check_described(found[0], found[0]["location"])
        self.assertEqual({"AVTransport", "ConnectionManager", "RenderingControl"},
                         {service["type"].split(":")[-2] for service in found[0]["services"]})

    def test_a_device_on_two_networks_is_two_entries(self):
        device = self.start("minidlna", "dev4")
        udn = Described(device.location).udn
        watcher = self.watch("--type", "MediaServer", "--rescan", "9")
        for interface, address in (("eth0", "10.90.1.14"), ("eth1", "10.90.2.14")):
            found = watcher.wait_for("added", udn, interface)
            self.assertEqual(udn + "+" + interface, found["key"])
            self.assertEqual(address, found["address"])
            self.check_described(found, "http://%s:8200/rootDesc.xml" % address)
        device.stop()
        for interface in ("eth0", "eth1"):
            watcher.wait_for("removed", udn, interface)

    def test_all_of_them_at_once(self):
        started = [self.start("minidlna", "dev1"), self.start("gerbera", "dev2"),
                   self.start("rygel", "dev3"), self.start("minidlna", "dev4")]
        watcher = self.watch()
        for device in started:
            interface = "eth1" if device.host == "dev3" else "eth0"
            watcher.wait_for("added", Described(device.location).udn, interface)
        # The second root device of rygel, and dev4 once more on its other network.
        self.assertTrue(wait_until(lambda: len(watcher.read()) >= 6, FOUND_S))


if __name__ == "__main__":
    unittest.main()
