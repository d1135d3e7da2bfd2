"""Commands to vexsim, its arguments and its end."""

import json
import os
import signal
import socket
import subprocess
import tempfile
import unittest

from support import BINARY_DIR, LIMIT_S, SimulatorTest, get, on_devices

PROGRAM = os.path.join(BINARY_DIR, "vexsim")


class CommandTest(SimulatorTest):
    def test_wrong_commands_are_told_what_is_wrong(self):
        simulator = self.simulate("lamp", "--no-announce")
        for command, part in (("dance", "unknown command dance; vexsim --help lists them"), ("kill", "wants one id"),
                              ("kill 9", "no device 9"), ("kill x", "no device x"),
                              ("add", "wants a folder"), ("add nothing", "no device folder"),
                              ("add lamp size=3", "count=N"), ("add lamp count=many", "number"),
                              ("fault", "path pattern"), ("fault /x", "what goes wrong"),
                              ("fault /x explode", "unknown fault explode"),
                              ("fault /x delay=soon", "number"), ("answers later", "mx"),
                              ("action 1/A.B times=2", "action wants error=CODE"),
                              ("action 1/A.B error=0", "action wants error=CODE"),
                              ('""', "unknown command")):
            answer = simulator.ask(command)
            self.assertFalse(answer["ok"], command)
            self.assertIn(part, answer["error"], command)
        self.assertEqual(1, len(simulator.devices()))

    def test_statistics_count_and_start_anew(self):
        simulator = self.simulate("lamp")
        location = simulator.device()["locations"][0]
        get(location)
        get(location.replace("description", "Dimming"))
        get(location.replace("description", "none"))
        stats = simulator.do("stats reset")
        self.assertEqual((3, 3, 1, 1), (stats["connections"], stats["requests"],
                                        stats["descriptions"], stats["service_descriptions"]))
        # Five targets on each of two networks.
        self.assertEqual(10, stats["announcements"])
        self.assertEqual(0, simulator.do("stats")["requests"])

    def test_the_control_socket_serves_several_clients(self):
        path = os.path.join(tempfile.mkdtemp(), "control")
        simulator = self.simulate("lamp", "--no-announce", "--control", path)
        clients = []
        for _ in range(2):
            client = socket.socket(socket.AF_UNIX)
            client.settimeout(LIMIT_S)
            client.connect(path)
            self.addCleanup(client.close)
            clients.append(client.makefile("rw"))
            self.addCleanup(clients[-1].close)
        for number, client in enumerate(clients):
            client.write("add lamp\nlist\n")
            client.flush()
            self.assertEqual([number + 2], json.loads(client.readline())["ids"])
            self.assertEqual(number + 2, len(json.loads(client.readline())["devices"]))
        clients[0].write("quit\n")
        clients[0].flush()
        self.assertTrue(json.loads(clients[0].readline())["ok"])
        self.assertEqual(0, simulator.process.wait(LIMIT_S))
        self.assertFalse(os.path.exists(path))

    def test_a_script_on_standard_input_is_carried_out(self):
        with tempfile.TemporaryFile("w+") as script:
            script.write("add lamp\n\nlist\nquit\n")
            script.seek(0)
            result = subprocess.run(on_devices([PROGRAM, "lamp", "--json", "--no-announce"]),
                                    stdin=script, stdout=subprocess.PIPE, timeout=LIMIT_S,
                                    check=True)
        ready, added, listed, quitted = map(json.loads, result.stdout.splitlines())
        self.assertEqual("ready", ready["event"])
        self.assertEqual([2], added["ids"])
        self.assertEqual(2, len(listed["devices"]))
        self.assertTrue(quitted["ok"])

    def test_text_answers_are_one_line_each(self):
        result = subprocess.run(on_devices([PROGRAM, "lamp", "--no-announce"]),
                                input="kill 1\nkill 2\nquit\n", stdout=subprocess.PIPE, text=True,
                                timeout=LIMIT_S, check=True)
        self.assertRegex(result.stdout, r"\Aready devices=1 .*\nok ids=\[1\]\n"
                                        r"error: no device 2\nok\n\Z")


class ProgramTest(SimulatorTest):
    def run_program(self, *arguments):
        return subprocess.run(on_devices([PROGRAM, *arguments]), stdin=subprocess.DEVNULL,
                              capture_output=True, text=True, timeout=LIMIT_S)

    def test_help_tells_commands_and_status(self):
        result = self.run_program("--help")
        self.assertEqual(0, result.returncode)
        for word in ("fault PATTERN", "--answers", "Status:", "hub, lamp, mediaserver, renderer"):
            self.assertIn(word, result.stdout)

    def test_wrong_arguments_end_with_2(self):
        for arguments in (["--fly"], ["--count", "x"], ["--answers", "never"], ["--ports", "none"]):
            result = self.run_program(*arguments)
            self.assertEqual(2, result.returncode, arguments)
            self.assertNotEqual("", result.stderr)

    def test_an_unknown_folder_ends_with_1_and_names_those_there_are(self):
        result = self.run_program("toaster")
        self.assertEqual(1, result.returncode)
        self.assertIn("hub, lamp, mediaserver, renderer", result.stderr)

    def test_a_folder_that_is_no_device_is_told(self):
        for name, text, part in (
                (None, "", "cannot read"),
                ("description.xml", "hello", "holds no device"),
                ("description.xml", "<root><device><UDN>uuid:fix</UDN></device></root>", "{{udn}}"),
                ("description.xml", "<root><device>{{size}}</device></root>", "unknown place"),
                ("description.xml", "<root><device><UDN>uuid:{{udn}}</UDN><serviceList><service>"
                 "<SCPDURL>a.xml</SCPDURL></service></serviceList></device></root>",
                 "no service description a.xml")):
            with tempfile.TemporaryDirectory() as folder:
                if name:
                    with open(os.path.join(folder, name), "w", encoding="utf-8") as file:
                        file.write(text)
                result = self.run_program(folder)
                self.assertEqual(1, result.returncode, part)
                self.assertIn(part, result.stderr)

    def test_a_signal_ends_it_in_order(self):
        simulator = self.simulate("lamp")
        simulator.process.send_signal(signal.SIGTERM)
        self.assertEqual(0, simulator.process.wait(LIMIT_S))

    def test_the_end_of_standard_input_ends_it_only_when_asked(self):
        lasting = subprocess.Popen(on_devices([PROGRAM, "lamp", "--no-announce"]),
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.assertTrue(lasting.stdout.readline().startswith("ready"))
        lasting.stdin.close()
        with self.assertRaises(subprocess.TimeoutExpired):
            lasting.wait(0.5)
        lasting.send_signal(signal.SIGTERM)
        self.assertEqual(0, lasting.wait(LIMIT_S))
        lasting.stdout.close()


if __name__ == "__main__":
    unittest.main()
