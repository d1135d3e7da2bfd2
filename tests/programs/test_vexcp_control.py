"""Actions, events and browsing of the command-line control point against simulated devices."""

import json
import os
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import unittest

from support import BINARY_DIR, LIMIT_S, ROOT, SimulatorTest, wait_until

PROGRAM = os.path.join(BINARY_DIR, "vexcp")
SWITCH = "urn:schemas-upnp-org:service:SwitchPower:1"
WITHOUT_CONTROL = """<?xml version="1.0"?>
<root xmlns="urn:schemas-upnp-org:device-1-0"><device>
<deviceType>urn:example-org:device:Odd:1</deviceType><friendlyName>Odd\x1b[2J</friendlyName>
<UDN>uuid:{{udn}}</UDN><serviceList><service><serviceType>%s</serviceType>
<serviceId>urn:upnp-org:serviceId:SwitchPower.0</serviceId><SCPDURL>SwitchPower.xml</SCPDURL>
<controlURL></controlURL><eventSubURL></eventSubURL></service></serviceList></device></root>
""" % SWITCH


# Two services of one type, "A" and "B".
TWINS = """<?xml version="1.0"?>
<root xmlns="urn:schemas-upnp-org:device-1-0"><device>
<deviceType>urn:example-org:device:Twins:1</deviceType><friendlyName>Twins</friendlyName>
<UDN>uuid:{{udn}}</UDN><serviceList>%s</serviceList></device></root>
""" % "".join("""<service><serviceType>%s</serviceType>
<serviceId>urn:upnp-org:serviceId:SwitchPower.%s</serviceId><SCPDURL>SwitchPower.xml</SCPDURL>
<controlURL>control/%s</controlURL><eventSubURL>event/%s</eventSubURL></service>
""" % (SWITCH, name, name, name) for name in "AB")


def lamp_folder(test, description):
    """A folder for vexsim with the lamp's switch under another description."""
    folder = tempfile.TemporaryDirectory()
    test.addCleanup(folder.cleanup)
    shutil.copy(os.path.join(ROOT, "apps", "vexsim", "devices", "lamp", "SwitchPower.xml"),
                folder.name)
    with open(os.path.join(folder.name, "description.xml"), "w", encoding="utf-8") as file:
        file.write(description)
    return folder.name


def run(*arguments):
    return subprocess.run([PROGRAM, *arguments, "-i", "eth0"], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=60)


def rows(text):
    return [re.split("  +", line) for line in text.splitlines()]


class CallTest(SimulatorTest):
    def start(self, *arguments):
        self.simulator = self.simulate(*arguments, "--answers", "burst", "--no-announce")
        self.udn = self.simulator.device()["udns"][0]
        return self.udn

    def call(self, *arguments, status=0):
        result = run("call", self.udn, *arguments)
        self.assertEqual(status, result.returncode, result.stdout + result.stderr)
        return result

    def test_results_come_as_a_table_or_as_json(self):
        self.start("renderer")
        result = self.call("RenderingControl", "GetVolumeDBRange", "InstanceID=0",
                           "Channel=Master")
        self.assertEqual([["MinValue", "-7680"], ["MaxValue", "0"]], rows(result.stdout))
        result = self.call("RenderingControl", "GetVolumeDBRange", "InstanceID=0",
                           "Channel=Master", "--json")
        self.assertEqual({"status": 200, "succeeded": True,
                          "results": {"MinValue": "-7680", "MaxValue": "0"}},
                         json.loads(result.stdout))

    def test_an_action_without_results_is_done(self):
        self.start("lamp")
        self.assertEqual("done\n", self.call("SwitchPower", "SetTarget", "newTargetValue=1").stdout)
        self.assertEqual("1", self.simulator.do("get 1 SwitchPower.Status")["value"])
        answer = json.loads(self.call("SwitchPower", "SetTarget", "newTargetValue=0",
                                      "--json").stdout)
        self.assertEqual({"status": 200, "succeeded": True, "results": {}}, answer)

    def test_xml_is_the_answer_as_it_came(self):
        self.start("lamp")
        text = self.call("SwitchPower", "GetStatus", "--xml").stdout
        self.assertIn("<u:GetStatusResponse xmlns:u=\"%s\"><ResultStatus>0</ResultStatus>"
                      "</u:GetStatusResponse>" % SWITCH, text)

    def test_values_arrive_as_they_were_given(self):
        self.start("renderer")
        uri = "http://10.78.0.2/a&b=c.wav?x='1'"
        metadata = '<DIDL-Lite a="1">&amp; caf\u00e9\n\t</DIDL-Lite>'
        self.call("AVTransport", "SetAVTransportURI", "CurrentURIMetaData=" + metadata,
                  "InstanceID=0", "CurrentURI=" + uri)
        answer = json.loads(self.call("AVTransport", "GetMediaInfo", "InstanceID=0",
                                      "--json").stdout)["results"]
        self.assertEqual((uri, metadata), (answer["CurrentURI"], answer["CurrentURIMetaData"]))
        self.assertIn("caf\u00e9??</DIDL-Lite>",
                      self.call("AVTransport", "GetMediaInfo", "InstanceID=0").stdout)

    def test_an_empty_value_arrives(self):
        self.start("renderer")
        self.call("AVTransport", "SetAVTransportURI", "InstanceID=0", "CurrentURI=",
                  "CurrentURIMetaData=")
        self.assertEqual("", self.simulator.do("get 1 AVTransport.AVTransportURI")["value"])

    def test_a_service_is_named_by_a_part_of_its_type_in_any_case(self):
        self.start("lamp")
        for word in ("switchpower", "SwitchPower:1", SWITCH):
            self.call(word, "GetStatus")

    def test_wrong_arguments_are_named_and_nothing_is_sent(self):
        self.start("lamp")
        for arguments, text in (
                ([], "SetTarget takes newTargetValue; missing: newTargetValue"),
                (["target=1"], "SetTarget takes newTargetValue; missing: newTargetValue; "
                               "unknown: target"),
                (["newTargetValue=1", "newTargetValue=0"], "given twice: newTargetValue"),
                (["newTargetValue"], '"newTargetValue" is no argument: write name=value'),
                (["=1"], '"=1" is no argument')):
            result = self.call("SwitchPower", "SetTarget", *arguments, status=2)
            self.assertIn(text, result.stderr)
            self.assertEqual("", result.stdout)
        result = self.call("SwitchPower", "GetStatus", "x=1", status=2)
        self.assertIn("GetStatus takes no arguments; unknown: x", result.stderr)
        self.assertEqual(0, self.simulator.do("stats")["actions"])

    def test_an_unknown_action_or_service_ends_with_1(self):
        self.start("lamp")
        result = self.call("SwitchPower", "Explode", status=1)
        self.assertIn("SwitchPower:1 has no action Explode; it has SetTarget, GetTarget, GetStatus",
                      result.stderr)
        result = self.call("Heating", "GetStatus", status=1)
        self.assertIn("Lamp has no service Heating; it has", result.stderr)
        self.assertEqual(0, self.simulator.do("stats")["actions"])

    def test_a_service_without_a_control_url_is_told_and_a_name_cannot_command_the_terminal(self):
        self.start(lamp_folder(self, WITHOUT_CONTROL))
        result = self.call("SwitchPower", "GetStatus", status=1)
        self.assertEqual("vexcp: Odd?[2J has left the network, or gives no control URL for that "
                         "service\n", result.stderr)

    def test_an_error_is_told_in_words(self):
        self.start("renderer")
        result = self.call("AVTransport", "Play", "InstanceID=0", "Speed=1", status=5)
        self.assertIn("Renderer did not carry out Play: error 701", result.stderr)
        self.assertIn("the transport cannot do this in its present state", result.stderr)
        self.assertEqual("", result.stdout)
        result = self.call("RenderingControl", "GetVolume", "InstanceID=5", "Channel=Master",
                           "--json", status=5)
        self.assertEqual({"status": 500, "succeeded": False,
                          "error": {"code": 702, "description": "Invalid InstanceID",
                                    "meaning": "there is no instance with this InstanceID"}},
                         json.loads(result.stdout))
        self.simulator.do('action 1/AVTransport.Stop error=801 description="Odd \x1b[2J<&>"')
        result = self.call("AVTransport", "Stop", "InstanceID=0", status=5)
        self.assertIn('error 801 "Odd ?[2J<&>": the device gave no answer for 30 seconds, or an error '
                      "of its maker\n", result.stderr)
        self.simulator.do("action clear")
        self.simulator.do("action 1/AVTransport.Stop error=799")
        result = self.call("AVTransport", "Stop", "InstanceID=0", "--json", status=5)
        self.assertEqual("an error that this service defines",
                         json.loads(result.stdout)["error"]["meaning"])

    def test_one_code_means_another_thing_in_another_service(self):
        self.start("mediaserver")
        result = self.call("ContentDirectory", "Browse", "ObjectID=none",
                           "BrowseFlag=BrowseMetadata", "Filter=*", "StartingIndex=0",
                           "RequestedCount=0", "SortCriteria=", status=5)
        self.assertIn("there is no object with this id", result.stderr)

    def test_answers_that_are_none_are_told(self):
        self.start("lamp")
        for fault, text in (("status=404", "HTTP status 404 without a UPnP error"),
                            ("cut=0", "it closed the connection without an answer"),
                            ("cut=0 reset", "or the connection to the device broke"),
                            ("status=200", "its answer cannot be read; --xml shows it as it is"),
                            ("garbage=500", "Lamp did not carry out GetStatus")):
            self.simulator.do("fault /1/control/* " + fault)
            result = self.call("SwitchPower", "GetStatus", status=5)
            self.assertIn(text, result.stderr, fault)
            self.simulator.do("fault clear")

    def test_without_a_description_the_arguments_go_out_as_they_are(self):
        self.start("lamp")
        self.simulator.do("fault /1/SwitchPower.xml cut=400")
        result = self.call("SwitchPower", "SetTarget", "newTargetValue=1")
        self.assertEqual("done\n", result.stdout)
        self.assertIn("the description of this service cannot be read, so the arguments go out as "
                      "they are\n", result.stderr)
        self.assertEqual("1", self.simulator.do("get 1 SwitchPower.Status")["value"])

    def test_odd_ways_to_answer_are_understood(self):
        self.start("lamp")
        for fault in ("chunked=5", "no-length", "delay=300", "rate=4000"):
            self.simulator.do("fault /1/control/* " + fault)
            self.assertEqual([["ResultStatus", "0"]],
                             rows(self.call("SwitchPower", "GetStatus").stdout), fault)

    def test_a_signal_ends_the_wait_for_an_answer(self):
        udn = self.start("lamp")
        self.simulator.do("fault /1/control/* silent")
        before = self.simulator.do("stats")["actions"]
        process = subprocess.Popen([PROGRAM, "call", udn, "SwitchPower", "GetStatus"],
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        # An action counts although its answer is kept back.
        self.assertTrue(wait_until(lambda: self.simulator.do("stats")["actions"] > before))
        process.send_signal(signal.SIGINT)
        _, error = process.communicate(timeout=LIMIT_S)
        self.assertEqual(5, process.returncode)
        self.assertIn("before", error)


class Events:
    """A running `vexcp events --json`."""

    def __init__(self, *arguments):
        self.process = subprocess.Popen([PROGRAM, "events", "--json", "-i", "eth0", *arguments],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE)
        os.set_blocking(self.process.stdout.fileno(), False)
        os.set_blocking(self.process.stderr.fileno(), False)
        self.events = []
        self.rest = b""
        self.remarks = b""

    def read(self):
        self.rest += self.process.stdout.read() or b""
        self.remarks += self.process.stderr.read() or b""
        *lines, self.rest = self.rest.split(b"\n")
        self.events += [json.loads(line) for line in lines]
        return self.events

    def values(self, variable):
        return [event["value"] for event in self.read() if event["variable"] == variable]

    def wait_for(self, variable, values):
        if not wait_until(lambda: self.values(variable) == values):
            raise AssertionError("%s: %s, %s" % (variable, self.events, self.remarks))

    def stop(self, number=signal.SIGINT):
        if self.process.poll() is None:
            self.process.send_signal(number)
        status = self.process.wait(LIMIT_S)
        self.process.stdout.close()
        self.process.stderr.close()
        return status


class Wire:
    """What passes on eth0, as the payloads of TCP segments."""

    def __init__(self):
        all_protocols, tcp_over_ip = 3, 6
        self.tcp = tcp_over_ip
        self.socket = socket.socket(socket.AF_PACKET, socket.SOCK_DGRAM,
                                    socket.htons(all_protocols))
        self.socket.bind(("eth0", all_protocols))
        self.socket.setblocking(False)
        self.payloads = []

    def read(self):
        while select.select([self.socket], [], [], 0)[0]:
            packet = self.socket.recv(65536)
            header = (packet[0] & 15) * 4
            if packet[0] >> 4 != 4 or packet[9] != self.tcp:
                continue
            length = struct.unpack("!H", packet[2:4])[0]
            segment = packet[header:length]
            payload = segment[(segment[12] >> 4) * 4:]
            if payload:
                self.payloads.append(payload.decode("latin-1"))
        return self.payloads

    def close(self):
        self.socket.close()


class EventsTest(SimulatorTest):
    def start(self, *arguments):
        self.simulator = self.simulate(*arguments, "--answers", "burst", "--no-announce")
        self.udn = self.simulator.device()["udns"][0]

    def listen(self, *arguments):
        events = Events(self.udn, *arguments)
        self.addCleanup(events.stop)
        return events

    def subscriptions(self):
        return self.simulator.do("events")["subscriptions"]

    def test_values_at_the_start_and_every_change_of_all_services(self):
        self.start("lamp")
        events = self.listen()
        events.wait_for("Status", ["0"])
        events.wait_for("LoadLevelStatus", ["0"])
        self.simulator.do("set 1 SwitchPower.Status 1")
        self.simulator.do("set 1 Dimming.LoadLevelStatus 40")
        self.simulator.do("set 1 SwitchPower.Status 0")
        events.wait_for("Status", ["0", "1", "0"])
        events.wait_for("LoadLevelStatus", ["0", "40"])
        self.assertEqual({"event": "changed", "service": SWITCH, "variable": "Status",
                          "value": "0"},
                         [event for event in events.events if event["variable"] == "Status"][0])
        self.assertEqual(2, self.subscriptions())
        self.assertEqual(0, events.stop())
        self.assertTrue(wait_until(lambda: self.subscriptions() == 0))

    def test_only_the_services_that_were_named(self):
        self.start("lamp")
        events = self.listen("Dimming", "dimming:1")
        events.wait_for("LoadLevelStatus", ["0"])
        self.assertEqual(1, self.subscriptions())
        self.simulator.do("set 1 SwitchPower.Status 1")
        self.simulator.do("set 1 Dimming.LoadLevelStatus 7")
        events.wait_for("LoadLevelStatus", ["0", "7"])
        self.assertEqual([], events.values("Status"))
        self.assertEqual(0, events.stop(signal.SIGTERM))

    def test_text_lines_begin_with_the_time_and_the_service(self):
        self.start("lamp")
        result = run("events", self.udn, "SwitchPower", "--count", "1")
        self.assertEqual(0, result.returncode, result.stderr)
        self.assertRegex(result.stdout, r"\A\d\d:\d\d:\d\d SwitchPower:1  Status = 0\n\Z")
        self.assertTrue(wait_until(lambda: self.subscriptions() == 0))

    def test_a_time_ends_it(self):
        self.start("lamp")
        result = run("events", self.udn, "SwitchPower", "--seconds", "10", "--json")
        self.assertEqual((0, 1), (result.returncode, len(result.stdout.splitlines())))

    def test_last_change_is_taken_apart(self):
        self.start("renderer")
        result = run("events", self.udn, "RenderingControl", "--count", "1")
        self.assertRegex(result.stdout, r"(?m) RenderingControl:1  "
                                        r"LastChange\[0\]\.Volume\(Master\) = 30$")
        events = self.listen("RenderingControl")
        self.assertTrue(wait_until(lambda: len(events.read()) == 1),
                        (events.events, events.remarks))
        self.simulator.do("set 1 RenderingControl.Volume 55")
        self.assertTrue(wait_until(lambda: len(events.read()) == 2),
                        (events.events, events.remarks))
        self.assertEqual([{"instance": "0", "variable": "Volume", "channel": "Master",
                           "value": "55"}], events.events[1]["changes"])
        self.assertIn('val="55"', events.events[1]["value"])

    def test_variables_that_share_a_property_are_all_shown(self):
        self.start("lamp")
        self.simulator.do("events merged")
        result = run("events", self.udn, "Dimming", "--count", "1")
        self.assertEqual(["LoadLevelStatus", "StepDelta", "RampRate", "IsRamping", "RampPaused"],
                         [line.split()[2] for line in result.stdout.splitlines()])

    def test_xml_is_the_event_as_it_came(self):
        self.start("lamp")
        result = run("events", self.udn, "SwitchPower", "--count", "1", "--xml")
        self.assertTrue(result.stdout.startswith('<?xml version="1.0"?>\n<e:propertyset '))
        self.assertIn("<e:property><Status>0</Status></e:property>", result.stdout)

    def test_values_from_the_network_cannot_command_the_terminal(self):
        self.start("renderer")
        self.simulator.do('set 1 AVTransport.CurrentTrackMetaData "a\x1b[2Jb &amp; \u00e9"')
        result = run("events", self.udn, "AVTransport", "--count", "1")
        self.assertIn("CurrentTrackMetaData = a?[2Jb &amp; \u00e9\n", result.stdout)

    def test_a_first_event_that_comes_late_is_shown(self):
        self.start("lamp")
        self.simulator.do("events late=200")
        events = self.listen("SwitchPower")
        events.wait_for("Status", ["0"])

    def test_renewals_pass_on_the_wire_and_events_go_on(self):
        self.start("lamp")
        self.simulator.do("events timeout=8")
        wire = Wire()
        self.addCleanup(wire.close)
        events = self.listen("SwitchPower")
        events.wait_for("Status", ["0"])

        def renewals():
            return [text for text in wire.read()
                    if text.startswith("SUBSCRIBE ") and "\r\nSID: " in text]
        self.assertTrue(wait_until(lambda: len(renewals()) >= 3))
        sid, = re.findall(r"\r\nSID: *(uuid:[^\r]+)\r\n",
                          next(text for text in wire.read() if text.startswith("HTTP/1.1 200") and
                               "SID:" in text))
        port = self.simulator.device()["port"]
        for renewal in renewals():
            self.assertEqual("SUBSCRIBE /1/event/SwitchPower HTTP/1.1\r\nHOST:10.78.0.2:%d\r\n"
                             "SID: %s\r\nTIMEOUT: Second-1800\r\nUSER-AGENT: DLNADOC/1.50 "
                             "TMK_HHP_Tolmark Mobile/1.0 UPnP/1.0\r\n\r\n" % (port, sid), renewal)
        self.simulator.do("set 1 SwitchPower.Status 1")
        events.wait_for("Status", ["0", "1"])
        self.assertLessEqual(3, self.simulator.do("stats")["renewals"])
        self.assertEqual(1, self.simulator.do("stats")["subscriptions"])
        self.assertEqual(0, events.stop())
        self.assertTrue(wait_until(lambda: [text for text in wire.read() if text ==
                                            "UNSUBSCRIBE /1/event/SwitchPower HTTP/1.1\r\n"
                                            "HOST:10.78.0.2:%d\r\nSID: %s\r\n\r\n" % (port, sid)]))

    def test_a_refused_subscription_is_told_after_three_attempts(self):
        self.start("lamp")
        self.simulator.do("fault /1/event/* status=503")
        before = self.simulator.do("stats")["requests"]
        result = run("events", self.udn, "SwitchPower")
        self.assertEqual((5, ""), (result.returncode, result.stdout))
        self.assertIn("the subscription to SwitchPower:1 failed three times: HTTP/1.1 503",
                      result.stderr)
        self.assertLessEqual(3, self.simulator.do("stats")["requests"] - before)

    def test_one_refused_subscription_does_not_end_the_others(self):
        self.start("lamp")
        self.simulator.do("fault /1/event/Dimming status=503")
        events = self.listen()
        events.wait_for("Status", ["0"])
        self.assertTrue(wait_until(lambda: events.read() and b"Dimming:1 failed" in events.remarks))
        self.simulator.do("set 1 SwitchPower.Status 1")
        events.wait_for("Status", ["0", "1"])
        self.assertEqual(0, events.stop())

    def test_a_device_that_comes_back_is_subscribed_again(self):
        self.start("lamp")
        events = self.listen("SwitchPower")
        events.wait_for("Status", ["0"])
        self.simulator.stop()
        self.assertTrue(wait_until(lambda: events.read() and
                                   b"Lamp has left the network" in events.remarks))
        self.simulator = self.simulate("lamp", "--answers", "burst", "--no-announce")
        self.simulator.do("announce all")
        events.wait_for("Status", ["0", "0"])
        self.assertIn(b"Lamp has come back", events.remarks)

    def test_services_of_one_type_stay_apart_when_their_device_comes_back(self):
        wire = Wire()
        self.addCleanup(wire.close)

        def paths():
            return sorted(text.split()[1] for text in wire.read()
                          if text.startswith("SUBSCRIBE ") and "\r\nCALLBACK: " in text)
        folder = lamp_folder(self, TWINS)
        self.start(folder)
        events = self.listen()
        self.assertTrue(wait_until(lambda: paths() == ["/1/event/A", "/1/event/B"]), paths())
        self.simulator.stop()
        self.assertTrue(wait_until(lambda: events.read() is not None and
                                   b"Twins has left the network" in events.remarks))
        self.simulator = self.simulate(folder, "--answers", "burst", "--no-announce")
        self.simulator.do("announce all")
        self.assertTrue(wait_until(lambda: len(paths()) == 4), paths())
        self.assertEqual(["/1/event/A", "/1/event/A", "/1/event/B", "/1/event/B"], paths())
        self.assertEqual(0, events.stop())

    def test_an_event_that_cannot_be_read_is_told(self):
        self.start("lamp")
        wire = Wire()
        self.addCleanup(wire.close)
        events = self.listen("SwitchPower")
        events.wait_for("Status", ["0"])
        sent = "".join(wire.read())
        host, port, path = re.search(r"CALLBACK: <http://([^:]+):(\d+)(/[^>]*)>", sent).groups()
        sid = re.search(r"SID: *(uuid:[^\r]+)", sent).group(1)
        with socket.create_connection((host, int(port))) as device:
            device.sendall(("NOTIFY %s HTTP/1.1\r\nHOST: %s:%s\r\nNT: upnp:event\r\n"
                            "NTS: upnp:propchange\r\nSID: %s\r\nSEQ: 9\r\nCONTENT-LENGTH: 7"
                            "\r\n\r\n<broken" % (path, host, port, sid)).encode())
            self.assertTrue(device.recv(4096).startswith(b"HTTP/1.1 200 OK\r\n"))
        self.assertTrue(wait_until(lambda: events.read() and
                                   b"an event of SwitchPower:1 cannot be read; --xml shows it as "
                                   b"it is\n" in events.remarks), events.remarks)
        events.wait_for("Status", ["0"])
        self.assertEqual(0, events.stop())

    def test_a_device_without_events_ends_with_1(self):
        self.start(lamp_folder(self, WITHOUT_CONTROL))
        result = run("events", self.udn)
        self.assertEqual((1, "vexcp: Odd?[2J has no service that tells events\n"),
                         (result.returncode, result.stderr))

    def test_a_subscription_that_cannot_be_sent_ends_with_5(self):
        self.start(lamp_folder(self, WITHOUT_CONTROL.replace(
            "<eventSubURL></eventSubURL>", "<eventSubURL>http://nobody.invalid:80/e</eventSubURL>")))
        result = run("events", self.udn)
        self.assertEqual(5, result.returncode)
        self.assertIn("the subscription to SwitchPower:1 could not be sent to "
                      "http://nobody.invalid:80/e (5001)\n", result.stderr)

    def test_an_unknown_service_ends_with_1(self):
        self.start("lamp")
        result = run("events", self.udn, "Heating")
        self.assertEqual(1, result.returncode)
        self.assertIn("Lamp has no service Heating", result.stderr)


class BrowseTest(SimulatorTest):
    def setUp(self):
        self.simulator = self.simulate("mediaserver", "lamp", "--answers", "burst",
                                       "--no-announce")
        self.udn = self.simulator.device()["udns"][0]

    def browse(self, *arguments, status=0):
        result = run("browse", self.udn, *arguments)
        self.assertEqual(status, result.returncode, result.stdout + result.stderr)
        return result

    def test_the_first_level_is_shown(self):
        self.assertEqual("+ Music (1)  [music]\n+ Pictures (1)  [pictures]\n"
                         "+ A thousand tones (1000)  [many]\n", self.browse().stdout)

    def test_deeper_levels_are_shown_as_a_tree(self):
        lines = self.browse("--depth", "2").stdout.splitlines()
        self.assertEqual(["+ Music (1)  [music]",
                          '  - Tone & t\u00e9 <1>, Sine "&" Wave  0:00:01.000  [tone]',
                          "+ Pictures (1)  [pictures]", "  - Icon  [icon]",
                          "+ A thousand tones (1000)  [many]",
                          "  - Tone 1  0:00:01.000  [tone-1]"], lines[:6])
        self.assertEqual(5 + 1000, len(lines))

    def test_a_long_container_comes_page_by_page(self):
        self.simulator.do("stats reset")
        lines = self.browse("many", "--page", "300").stdout.splitlines()
        self.assertEqual(["+ A thousand tones (1000)  [many]"] +
                         ["  - Tone %d  0:00:01.000  [tone-%d]" % (n, n) for n in range(1, 1001)],
                         lines)
        # The container itself, and 300, 300, 300 and 100.
        self.assertEqual(5, self.simulator.do("stats")["actions"])

    def test_pages_that_end_with_the_total_are_the_last(self):
        self.simulator.do("stats reset")
        self.browse("many", "--page", "500")
        self.assertEqual(3, self.simulator.do("stats")["actions"])

    def test_a_limit_ends_the_list_and_says_so(self):
        result = self.browse("many", "--limit", "10", "--page", "4")
        self.assertEqual(10, len(result.stdout.splitlines()))
        self.assertIn("only the first 10 objects are shown; a larger --limit shows more", result.stderr)

    def test_an_item_is_shown_with_its_resources(self):
        location = self.simulator.device()["locations"][0]
        url = location.rsplit("/", 1)[0] + "/media/tone.wav"
        lines = self.browse("tone").stdout.splitlines()
        self.assertEqual(['- Tone & t\u00e9 <1>, Sine "&" Wave  0:00:01.000  [tone]',
                          "    http-get:*:audio/wav:*  8044 bytes  " + url], lines)

    def test_json_nests_what_containers_hold(self):
        tree = json.loads(self.browse("--json", "--depth", "2").stdout)
        self.assertEqual(["music", "pictures", "many"], [entry["id"] for entry in tree])
        song, = tree[0]["children"]
        self.assertEqual(("tone", "music", "Tone & t\u00e9 <1>", False, 'Sine "&" Wave'),
                         (song["id"], song["parent"], song["title"], song["container"],
                          song["artist"]))
        self.assertEqual("http-get:*:audio/wav:*", song["resources"][0]["protocol_info"])
        self.assertEqual(1000, len(tree[2]["children"]))

    def test_a_search_is_paged_too(self):
        lines = self.browse("--search", 'dc:title contains "tone 99"', "--page", "4").stdout
        self.assertEqual(["- Tone %d  0:00:01.000  [tone-%d]" % (n, n)
                          for n in [99] + list(range(990, 1000))], lines.splitlines())
        result = self.browse("--search", "title ~ x", status=5)
        self.assertIn("the device cannot search by these criteria", result.stderr)

    def test_what_is_not_there_is_told(self):
        result = self.browse("nothing", status=5)
        self.assertIn("there is no object with this id", result.stderr)
        lamp = self.simulator.device(1)["udns"][0]
        result = run("browse", lamp)
        self.assertEqual(1, result.returncode)
        self.assertIn("Lamp has no service", result.stderr)

    def test_wrong_numbers_end_with_2(self):
        for option in ("--depth", "--page", "--limit"):
            self.assertEqual(2, run("browse", self.udn, option, "0").returncode)


if __name__ == "__main__":
    unittest.main()
