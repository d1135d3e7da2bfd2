"""The command-line control point against simulated devices."""

import json
import os
import re
import shlex
import signal
import socket
import subprocess
import tempfile
import time
import unittest

from support import BINARY_DIR, LIMIT_S, SimulatorTest, get, wait_until

PROGRAM = os.path.join(BINARY_DIR, "vexcp")
ESCAPED_NAMES = """<?xml version="1.0"?>
<root xmlns="urn:schemas-upnp-org:device-1-0"><device>
<deviceType>urn:example-org:device:Odd:1</deviceType>
<friendlyName>%s{{number}}</friendlyName><UDN>uuid:{{udn}}</UDN></device></root>
"""
# A device that is embedded in one with its own UDN.
TWINS = """<?xml version="1.0"?>
<root xmlns="urn:schemas-upnp-org:device-1-0"><device>
<deviceType>urn:example-org:device:Top:1</deviceType><friendlyName>Top</friendlyName>
<UDN>uuid:{{udn}}</UDN><deviceList><device><deviceType>urn:example-org:device:Twin:1</deviceType>
<friendlyName>Twin</friendlyName><UDN>uuid:same</UDN><deviceList><device>
<deviceType>urn:example-org:device:Twin:1</deviceType><friendlyName>Other twin</friendlyName>
<UDN>uuid:same</UDN></device></deviceList></device></deviceList><x>{{udn}}{{udn}}</x></device></root>
"""


def run(*arguments, prefix=()):
    return subprocess.run([*prefix, PROGRAM, *arguments], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=60)


def run_until(least, *arguments):
    """Runs `vexcp discover --wait 1` until that many lines have come: on a busy machine the second
    may be over before the descriptions are there."""
    results = []

    def enough():
        results[:] = [run("discover", "--wait", "1", *arguments)]
        return len(results[0].stdout.splitlines()) >= least
    wait_until(enough)
    return results[0]


def discover(*arguments, least=1, interface="eth0"):
    """The devices as JSON, as soon as there are so many."""
    results = []
    choice = ["--interface", interface] if interface else []

    def enough():
        results[:] = [run("discover", "--json", "--wait", "1", *choice, *arguments)]
        return len(json.loads(results[0].stdout or "[]")) >= least
    wait_until(enough)
    if results[0].returncode != 0:
        raise AssertionError(results[0].stderr)
    return json.loads(results[0].stdout)


def takes_signals(pid):
    """Whether the program waits for SIGINT and SIGTERM in its own way, instead of being ended."""
    with open("/proc/%d/status" % pid, encoding="ascii", errors="replace") as status:
        blocked = next(int(line.split()[1], 16) for line in status if line.startswith("SigBlk:"))
    return all(blocked >> (number - 1) & 1 for number in (signal.SIGINT, signal.SIGTERM))


class Watcher:
    """A running `vexcp discover --watch --json`."""

    def __init__(self, *arguments):
        self.process = subprocess.Popen([PROGRAM, "discover", "--watch", "--json", *arguments],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        os.set_blocking(self.process.stdout.fileno(), False)
        self.events = []
        self.rest = b""

    def read(self):
        self.rest += self.process.stdout.read() or b""
        *lines, self.rest = self.rest.split(b"\n")
        self.events += [json.loads(line) for line in lines]
        return self.events

    def wait_for(self, event, udn, interface="eth0", limit=LIMIT_S):
        def seen():
            return [e for e in self.read() if e["event"] == event and e["device"]["udn"] == udn and
                    e["device"]["interface"] == interface]
        found = wait_until(seen, limit)
        if not found:
            raise AssertionError("no %s of %s on %s in %s" % (event, udn, interface, self.events))
        return found

    def stop(self, number=signal.SIGINT):
        if self.process.poll() is None:
            self.process.send_signal(number)
        status = self.process.wait(LIMIT_S)
        self.process.stdout.close()
        return status


class DiscoverTest(SimulatorTest):
    def test_the_table_shows_embedded_devices_under_their_roots(self):
        simulator = self.simulate("lamp", "hub", "--answers", "burst", "--no-announce")
        lamp, hub = simulator.devices()
        result = run_until(6, "--interface", "eth0")
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        lines = result.stdout.splitlines()
        self.assertEqual(["NAME", "TYPE", "ADDRESS", "INTERFACE", "UDN"], lines[0].split())
        rows = [re.split("  +", line.strip()) for line in lines[1:]]
        address = "10.78.0.2:%d"
        self.assertCountEqual(
            [["Lamp", "DimmableLight:1", address % lamp["port"], "eth0", lamp["udns"][0]],
             ["Hub", "Basic:1", address % hub["port"], "eth0", hub["udns"][0]],
             ["`-Hub library", "MediaServer:1", address % hub["port"], "eth0", hub["udns"][1]],
             ["`-Hub screen", "MediaRenderer:1", address % hub["port"], "eth0", hub["udns"][2]],
             ["`-Hub backlight", "DimmableLight:1", address % hub["port"], "eth0",
              hub["udns"][3]]], rows)
        names = [line[:line.index("  ", 3)].rstrip() for line in lines[1:]]
        at = names.index("Hub")
        self.assertEqual(["Hub", "`-Hub library", "`-Hub screen", "  `-Hub backlight"],
                         names[at:at + 4])

    def test_services_are_shown_on_request(self):
        self.simulate("lamp", "--answers", "burst", "--no-announce")
        result = run_until(4, "--services", "-i", "eth0")
        self.assertEqual(["* SwitchPower:1  (urn:upnp-org:serviceId:SwitchPower.0)",
                          "* Dimming:1  (urn:upnp-org:serviceId:Dimming.0)"],
                         [line.strip() for line in result.stdout.splitlines()[2:]])

    def test_json_holds_everything(self):
        device = self.simulate("renderer", "--answers", "burst", "--no-announce").device()
        found, = discover()
        expected = {"key": device["udns"][0] + "+eth0", "udn": device["udns"][0],
                    "name": "Renderer", "display_name": "Renderer",
                    "type": "urn:schemas-upnp-org:device:MediaRenderer:1", "interface": "eth0",
                    "address": "10.78.0.2", "port": device["port"], "local_address": "10.78.0.1",
                    "location": device["locations"][0], "url_base": "", "manufacturer": "vexsim",
                    "model_name": "Media renderer", "model_number": "1.0", "serial_number": "R-1",
                    "domain": 2}
        self.assertEqual(expected, {key: found[key] for key in expected})
        self.assertEqual(["RenderingControl", "ConnectionManager", "AVTransport"],
                         [service["type"].split(":")[-2] for service in found["services"]])
        self.assertEqual({"type": "urn:schemas-upnp-org:service:AVTransport:1",
                          "id": "urn:upnp-org:serviceId:AVTransport",
                          "scpd_url": "/1/AVTransport.xml", "control_url": "/1/control/AVTransport",
                          "event_sub_url": "/1/event/AVTransport"}, found["services"][2])
        self.assertEqual([{"mimetype": "image/png", "width": "48", "height": "48", "depth": "24",
                           "url": "http://10.78.0.2:%d/1/icon.png" % device["port"]}],
                         found["icons"])

    def test_a_type_selects_roots_and_embedded_devices(self):
        self.simulate("lamp", "renderer", "hub", "--answers", "burst", "--no-announce")
        for word in ("MediaRenderer", "MediaRenderer:1",
                     "urn:schemas-upnp-org:device:MediaRenderer:1"):
            self.assertEqual({"Renderer", "Hub screen"},
                             {device["name"] for device in discover("--type", word, least=2)})
        both = discover("--type", "MediaRenderer", "--type", "MediaServer", "-t", "MediaServer",
                        least=3)
        self.assertEqual(["Hub library", "Hub screen", "Renderer"],
                         sorted(device["name"] for device in both))

    def test_nothing_found_ends_with_1_and_says_what_to_look_at(self):
        self.simulate("lamp", "--answers", "burst", "--no-announce")
        result = run("discover", "--type", "MediaRenderer", "--wait", "1")
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertIn("nothing answered within 1 seconds", result.stderr)
        self.assertIn("firewall", result.stderr)
        result = run("discover", "--type", "Lamp", "--wait", "1", "--json")
        self.assertEqual((1, []), (result.returncode, json.loads(result.stdout)))

    def test_a_device_on_two_networks_is_two_entries(self):
        device = self.simulate("lamp", "--answers", "burst", "--no-announce").device()
        found = sorted(discover(least=2, interface=None), key=lambda entry: entry["key"])
        self.assertEqual([device["udns"][0] + "+eth0", device["udns"][0] + "+eth1"],
                         [entry["key"] for entry in found])
        self.assertEqual(device["locations"], [entry["location"] for entry in found])
        self.assertEqual(["10.78.0.1", "10.78.1.1"], [entry["local_address"] for entry in found])

    def test_only_the_chosen_interface_is_used(self):
        self.simulate("lamp", "--answers", "burst", "--no-announce")
        self.assertEqual(["eth1"], [entry["interface"] for entry in discover(interface="eth1")])

    def test_two_programs_at_once_both_find_everything(self):
        self.simulate("lamp", "--count", "20", "--answers", "window=500", "--no-announce")
        command = [PROGRAM, "discover", "--json", "--wait", "15", "-i", "eth0"]
        programs = [subprocess.Popen(command, stdout=subprocess.PIPE, text=True)
                    for _ in range(2)]
        for program in programs:
            output, _ = program.communicate(timeout=LIMIT_S)
            self.assertEqual(20, len(json.loads(output)))

    def test_names_from_the_network_cannot_command_the_terminal(self):
        with tempfile.TemporaryDirectory() as folder:
            with open(os.path.join(folder, "description.xml"), "w", encoding="utf-8") as file:
                file.write(ESCAPED_NAMES % "a\x1b[2Jb\x7fc &lt;&amp;&gt; \u00e9")
            self.simulate(folder, "--answers", "burst", "--no-announce")
        result = run_until(2, "-i", "eth0")
        self.assertTrue(result.stdout.splitlines()[1].startswith("a?[2Jb?c <&> \u00e9  "),
                        result.stdout)
        self.assertEqual("a\x1b[2Jb\x7fc <&> \u00e9", discover()[0]["name"])

    def test_a_description_that_names_one_device_twice_is_shown_without_a_circle(self):
        with tempfile.TemporaryDirectory() as folder:
            with open(os.path.join(folder, "description.xml"), "w", encoding="utf-8") as file:
                file.write(TWINS)
            self.simulate(folder, "--answers", "burst", "--no-announce")
        result = run_until(3, "-i", "eth0")
        self.assertEqual(0, result.returncode)
        self.assertIn("\nTop ", result.stdout)
        self.assertIn("`-Twin ", result.stdout)


class WatchTest(SimulatorTest):
    def watch(self, *arguments):
        watcher = Watcher(*arguments)
        self.addCleanup(watcher.stop)
        return watcher

    def test_devices_come_and_go(self):
        simulator = self.simulate("lamp", "--answers", "burst", "--no-announce")
        first = simulator.device()["udns"][0]
        watcher = self.watch("--interface", "eth0")
        watcher.wait_for("added", first)
        simulator.do("add renderer")
        second = simulator.device(1)["udns"][0]
        added, = watcher.wait_for("added", second)
        self.assertEqual(3, len(added["device"]["services"]))
        simulator.do("remove 1")
        removed, = watcher.wait_for("removed", first)
        self.assertEqual("Lamp", removed["device"]["name"])
        simulator.do("announce all")
        self.assertEqual(0, watcher.stop())
        self.assertEqual([("added", first), ("added", second), ("removed", first)],
                         [(e["event"], e["device"]["udn"]) for e in watcher.events])

    def test_embedded_devices_go_with_their_root(self):
        simulator = self.simulate("hub", "--answers", "burst", "--no-announce")
        udns = simulator.device()["udns"]
        watcher = self.watch("--interface", "eth0")
        for udn in udns:
            watcher.wait_for("added", udn)
        simulator.do("remove 1")
        for udn in udns:
            watcher.wait_for("removed", udn)

    def test_a_restarted_device_is_found_again(self):
        simulator = self.simulate("lamp", "--answers", "burst")
        udn = simulator.device()["udns"][0]
        watcher = self.watch("--interface", "eth0")
        watcher.wait_for("added", udn)
        simulator.stop()
        watcher.wait_for("removed", udn)
        self.simulate("lamp", "--answers", "burst")
        self.assertTrue(wait_until(lambda: [e["event"] for e in watcher.read()] ==
                                   ["added", "removed", "added"]))

    def test_a_device_that_dies_without_a_word_is_gone_after_a_rescan(self):
        simulator = self.simulate("lamp", "renderer", "--answers", "burst", "--no-announce")
        lamp, renderer = (device["udns"][0] for device in simulator.devices())
        watcher = self.watch("--interface", "eth0", "--type", "DimmableLight", "--type",
                             "MediaRenderer", "--rescan", "2")
        watcher.wait_for("added", lamp)
        watcher.wait_for("added", renderer)
        simulator.do("kill 1")
        watcher.wait_for("removed", lamp, limit=40)
        self.assertNotIn(("removed", renderer),
                         [(e["event"], e["device"]["udn"]) for e in watcher.events])
        simulator.do("revive 1")
        self.assertTrue(wait_until(lambda: len([e for e in watcher.read()
                                                if e["device"]["udn"] == lamp]) == 3))

    def test_an_interface_that_comes_up_later_is_searched(self):
        simulator = self.simulate("lamp", "--answers", "burst", "--no-announce")
        udn = simulator.device()["udns"][0]
        subprocess.run(["ip", "link", "set", "eth1", "down"], check=True)
        self.addCleanup(subprocess.run, ["ip", "link", "set", "eth1", "up"], check=True)
        watcher = self.watch()
        watcher.wait_for("added", udn, "eth0")
        subprocess.run(["ip", "link", "set", "eth1", "up"], check=True)
        watcher.wait_for("added", udn, "eth1")
        subprocess.run(["ip", "link", "set", "eth1", "down"], check=True)
        watcher.wait_for("removed", udn, "eth1")

    def test_text_lines_begin_with_the_time_and_a_sign(self):
        simulator = self.simulate("lamp", "--answers", "burst", "--no-announce")
        result = run_until(2, "--watch", "-i", "eth0", "--services")
        udn = simulator.device()["udns"][0]
        self.assertEqual(0, result.returncode)
        self.assertRegex(result.stdout, r"\A\d\d:\d\d:\d\d \+ Lamp  DimmableLight:1  "
                         r"10\.78\.0\.2:\d+  eth0  %s\n" % udn)
        self.assertIn("* SwitchPower:1\n", result.stdout)

    def test_signals_end_it_in_order_and_a_time_ends_it_too(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            watcher = self.watch()
            self.assertTrue(wait_until(lambda: takes_signals(watcher.process.pid)))
            self.assertEqual(0, watcher.stop(number))
        self.assertEqual(1, run("discover", "--watch", "--wait", "1").returncode)


class InfoTest(SimulatorTest):
    def setUp(self):
        self.simulator = self.simulate("lamp", "hub", "mediaserver", "--answers", "burst",
                                       "--no-announce")
        self.lamp, self.hub, self.server = self.simulator.devices()

    def test_a_device_is_named_with_and_without_interface_and_scheme(self):
        udn = self.lamp["udns"][0]
        for word in (udn, udn[len("uuid:"):], udn + "+eth0", udn[len("uuid:"):] + "+eth0"):
            result = run("info", word, "--interface", "eth0")
            self.assertEqual(0, result.returncode, result.stderr)
            self.assertIn("DimmableLight:1", result.stdout)
        result = run("info", udn + "+eth1", "--json")
        self.assertEqual("10.78.1.2", json.loads(result.stdout)["address"])

    def test_the_text_tells_all(self):
        result = run("info", self.server["udns"][0], "--interface", "eth0")
        base = self.server["locations"][0].rsplit("/", 1)[0] + "/"
        for label, value in (("name", "Media & more"), ("lies", "in our network"),
                             ("url base", base), ("reached through", "eth0, our address 10.78.0.1"),
                             ("icon", "48x48 image/png " + base + "/icon.png")):
            self.assertRegex(result.stdout, r"(?m)^%s  +%s$" % (label, re.escape(value)))
        self.assertRegex(result.stdout, r"ContentDirectory:1 +urn:upnp-org:serviceId:"
                                        r"ContentDirectory +control/ContentDirectory")

    def test_an_embedded_device_shows_its_family(self):
        result = run("info", self.hub["udns"][3], "--interface", "eth0")
        lines = result.stdout.splitlines()
        at = next(i for i, line in enumerate(lines) if line.startswith("DEVICES OF THIS"))
        self.assertEqual(["Hub", "  Hub library", "  Hub screen", "    Hub backlight"],
                         [line[:line.index("  ", 4)].rstrip() for line in lines[at + 1:]])
        self.assertIn("Hub backlight  <--", result.stdout)
        family = json.loads(run("info", self.hub["udns"][0], "--json").stdout)["described_devices"]
        self.assertEqual([-1, 0, 0, 2], [member["parent"] for member in family])

    def test_xml_is_the_document_as_it_was_served(self):
        result = run("info", self.hub["udns"][0] + "+eth0", "--xml")
        self.assertEqual(get(self.hub["locations"][0]).body.decode() + "\n", result.stdout)

    def test_an_unknown_device_ends_with_1(self):
        result = run("info", "uuid:nobody", "--wait", "1")
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertIn("no device uuid:nobody within 1 seconds", result.stderr)
        self.assertIn("vexcp discover", result.stderr)

    def test_it_waits_no_longer_than_needed(self):
        started = time.monotonic()
        run("info", self.lamp["udns"][0], "--wait", "60")
        self.assertLess(time.monotonic() - started, 10)


class ScpdTest(SimulatorTest):
    def setUp(self):
        self.renderer = self.simulate("renderer", "--answers", "burst", "--no-announce").device()
        self.udn = self.renderer["udns"][0]

    def test_actions_and_variables_are_listed(self):
        result = run("scpd", self.udn, "RenderingControl")
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertIn("  SetVolume(InstanceID: ui4, Channel: string, DesiredVolume: ui2)\n",
                      result.stdout)
        self.assertIn("  GetVolume(InstanceID: ui4, Channel: string) -> CurrentVolume: ui2\n",
                      result.stdout)
        self.assertRegex(result.stdout, r"(?m)^LastChange +string +yes +$")
        self.assertRegex(result.stdout, r"(?m)^Volume +ui2 +- +30 +0\.\.100$")
        self.assertRegex(result.stdout, r"(?m)^A_ARG_TYPE_Channel +string +- +Master +"
                                        r"Master\|LF\|RF$")

    def test_json(self):
        outline = json.loads(run("scpd", self.udn, "ConnectionManager:1", "--json").stdout)
        self.assertEqual(["GetProtocolInfo", "GetCurrentConnectionIDs", "GetCurrentConnectionInfo"],
                         [action["name"] for action in outline["actions"]])
        self.assertEqual({"name": "Source", "direction": "out", "variable": "SourceProtocolInfo"},
                         outline["actions"][0]["arguments"][0])
        self.assertEqual(10, len(outline["variables"]))

    def test_xml_is_the_document_as_it_was_served(self):
        result = run("scpd", self.udn + "+eth0", "AVTransport", "--xml")
        base = self.renderer["locations"][0].rsplit("/", 1)[0]
        self.assertEqual(get(base + "/AVTransport.xml").body.decode() + "\n", result.stdout)

    def test_an_unknown_service_ends_with_1_and_names_those_there_are(self):
        result = run("scpd", self.udn, "Heating")
        self.assertEqual(1, result.returncode)
        self.assertIn("Renderer has no service Heating; it has RenderingControl:1 "
                      "ConnectionManager:1 AVTransport:1", result.stderr)


class TroubleTest(SimulatorTest):
    def test_help_names_commands_and_exit_status(self):
        result = run("--help")
        self.assertEqual(0, result.returncode)
        for word in ("discover", "info", "scpd", "Exit status:", "no network interface",
                     "VEXUPNPCP_LOG"):
            self.assertIn(word, result.stdout)
        self.assertIn("--rescan", run("discover", "--help").stdout)

    def test_wrong_arguments_end_with_2(self):
        for arguments in ([], ["dance"], ["info"], ["scpd", "uuid:x"], ["discover", "--colour"],
                          ["discover", "--wait", "soon"]):
            result = run(*arguments)
            self.assertEqual(2, result.returncode, arguments)
            self.assertNotEqual("", result.stderr)

    def test_an_unknown_interface_ends_with_3_and_names_those_there_are(self):
        result = run("discover", "--interface", "wlan7")
        self.assertEqual(3, result.returncode)
        self.assertIn("wlan7", result.stderr)
        self.assertIn("eth0, eth1", result.stderr)

    def test_no_interface_ends_with_3(self):
        result = run("discover", prefix=shlex.split("unshare --net --"))
        self.assertEqual(3, result.returncode)
        self.assertIn("no network interface is up", result.stderr)

    def test_a_busy_port_1900_is_told_and_searching_goes_on(self):
        self.simulate("lamp", "--answers", "burst", "--no-announce")
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as holder:
            holder.bind(("0.0.0.0", 1900))
            result = run_until(2, "-i", "eth0")
        self.assertEqual(0, result.returncode)
        self.assertIn("UDP port 1900 is held by a program", result.stderr)
        self.assertIn("Lamp", result.stdout)

    def test_devices_with_faults_do_not_hide_the_others(self):
        simulator = self.simulate("lamp", "--count", "8", "--answers", "burst", "--no-announce")
        for number, fault in enumerate(("status=500", "cut=300", "garbage=300", "silent",
                                        "cut=0 reset", "chunked=7", "no-length"), 1):
            simulator.do("fault /%d/description.xml %s" % (number, fault))
        self.assertEqual(["Lamp 6", "Lamp 7", "Lamp 8"],
                         sorted(device["name"] for device in discover(least=3)))


if __name__ == "__main__":
    unittest.main()
