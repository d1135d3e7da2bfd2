"""The example programs against simulated devices."""

import os
import subprocess
import unittest

from support import BINARY_DIR, SimulatorTest

LAMP = "urn:schemas-upnp-org:device:DimmableLight:1"


def program(name):
    return os.path.join(BINARY_DIR, "examples", name)


def run(name, *arguments):
    return subprocess.run([program(name), *arguments], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=60)


class ExamplesTest(SimulatorTest):
    def setUp(self):
        self.simulator = self.simulate("lamp", "--answers", "burst", "--no-announce")

    def test_devices_are_listed_with_their_services(self):
        result = run("list_devices", "3")
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertIn("+ Lamp (%s)\n" % LAMP, result.stdout)
        # It is met on two networks.
        self.assertIn("2 found\n", result.stdout)
        self.assertRegex(result.stdout, r"  Lamp at 10\.78\.0\.2:\d+, on eth0\n"
                                        r"    urn:schemas-upnp-org:service:\w+:1\n")

    def test_an_action_is_carried_out(self):
        result = run("send_action", LAMP, "SwitchPower", "SetTarget", "newTargetValue=1")
        self.assertEqual((0, "", ""), (result.returncode, result.stdout, result.stderr))
        self.assertEqual("1", self.simulator.do("get 1 SwitchPower.Status")["value"])
        result = run("send_action", LAMP, "SwitchPower", "GetStatus")
        self.assertEqual((0, "ResultStatus = 1\n", ""),
                         (result.returncode, result.stdout, result.stderr))

    def test_an_action_that_fails_is_told(self):
        result = run("send_action", LAMP, "SwitchPower", "Explode")
        self.assertEqual(1, result.returncode)
        self.assertRegex(result.stdout, r"^failed: .+\n$")
        result = run("send_action", LAMP, "Heating", "Explode")
        self.assertEqual((1, "", "send_action: not sent (15004)\n"),
                         (result.returncode, result.stdout, result.stderr))

    def expect(self, stream, lines):
        """Reads until all of the lines have come; the stream ends with the program."""
        seen = []
        while not lines <= set(seen):
            seen.append(stream.readline())
            self.assertNotEqual("", seen[-1], seen)

    def test_events_are_shown_as_they_come(self):
        with subprocess.Popen([program("watch_events"), LAMP, "SwitchPower", "30"],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True) as process:
            self.addCleanup(process.kill)
            udn = self.simulator.device()["udns"][0]
            self.expect(process.stdout, {"%s+eth%d: Status = 0\n" % (udn, n) for n in (0, 1)})
            self.simulator.do("set 1 SwitchPower.Status 1")
            self.expect(process.stdout, {"%s+eth%d: Status = 1\n" % (udn, n) for n in (0, 1)})
            process.kill()


if __name__ == "__main__":
    unittest.main()
