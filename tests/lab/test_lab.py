"""The control point against independent UPnP programs, each on a host of its own.

Everything asserted here was read from the device itself by other means: its description and service
descriptions are fetched and parsed apart from the library.
"""

import subprocess
import unittest
import urllib.request

from devices import MEDIA_RENDERER, MEDIA_SERVER
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

    def check_life(self, name, host, interface, says_byebye=True, target=None):
        """Found and described; gone and found again when restarted; gone when it dies. A target names
        one of the program's root devices. The device as it was found first."""
        device = self.start(name, host)

        def location():
            return device.location_of(target) if target else device.location

        described = Described(location())
        # A concrete type, since all devices at once are searched for at most every two minutes.
        watcher = self.watch("--type", described.type, "--rescan", "9")
        found = watcher.wait_for("added", described.udn, interface)
        self.check_described(found, location())
        device.stop()
        watcher.wait_for("removed", described.udn, interface,
                         limit=FOUND_S if says_byebye else GONE_S)
        device.start()
        again = Described(location())
        times = 2 if again.udn == described.udn else 1
        watcher.wait_for("added", again.udn, interface, times=times)
        device.kill()
        watcher.wait_for("removed", again.udn, interface, times=times, limit=GONE_S)
        return found

    def check_two_entries(self, name, target):
        """A device on both networks of dev4 is an entry on each, and leaves both."""
        device = self.start(name, "dev4")
        watcher = self.watch("--type", target, "--rescan", "9")
        udns = set()
        for interface, address in (("eth0", "10.90.1.14"), ("eth1", "10.90.2.14")):
            location = device.location_of(target, address)
            udn = Described(location).udn
            found = watcher.wait_for("added", udn, interface)
            self.assertEqual(udn + "+" + interface, found["key"])
            self.assertEqual(address, found["address"])
            self.check_described(found, location)
            udns.add(udn)
        # One device, not two that happen to be alike.
        self.assertEqual(1, len(udns))
        device.stop()
        for interface in ("eth0", "eth1"):
            watcher.wait_for("removed", udn, interface)

    def test_minidlna(self):
        self.check_life("minidlna", "dev1", "eth0")

    def test_gerbera(self):
        self.check_life("gerbera", "dev2", "eth0")

    def test_rygel_media_server(self):
        self.check_life("rygel", "dev3", "eth1")

    def test_network_light_that_never_says_byebye(self):
        self.check_life("light", "dev2", "eth0", says_byebye=False)

    def test_rygel_media_renderer(self):
        found = self.check_life("rygel", "dev3", "eth1", target=MEDIA_RENDERER)
        self.assertEqual({"AVTransport", "ConnectionManager", "RenderingControl"},
                         {service["type"].split(":")[-2] for service in found["services"]})

    def test_a_server_on_two_networks_is_two_entries(self):
        self.check_two_entries("minidlna", MEDIA_SERVER)

    def test_a_renderer_on_two_networks_is_two_entries(self):
        self.check_two_entries("rygel", MEDIA_RENDERER)

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
