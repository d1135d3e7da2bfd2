"""Actions and events with independent UPnP programs, each on a host of its own.

What the library makes of an answer is compared with the same answer asked for and read without it.
With VEX_LAB_KEEP=FOLDER in the environment, the bodies that the devices sent are written there; those
in tests/data/real_devices were made so.
"""

import json
import os
import signal
import subprocess
import time
import unittest
import urllib.error
import urllib.request
import xml.etree.ElementTree as ElementTree
from xml.sax.saxutils import escape

from lab_support import VEXCP, Described, LabCase, wait_until

ENVELOPE = "{http://schemas.xmlsoap.org/soap/envelope/}"
DIDL = "{urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/}"
DC = "{http://purl.org/dc/elements/1.1/}"
LIMIT_S = 20.0


def ask(described, service, action, arguments):
    """The outputs of an action, without the library; the UPnP error code when it fails."""
    entry = next(s for s in described.services() if ":%s:" % service in s["type"])
    body = ('<?xml version="1.0"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
            's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body>'
            '<u:%s xmlns:u="%s">%s</u:%s></s:Body></s:Envelope>'
            % (action, entry["type"], "".join("<%s>%s</%s>" % (name, escape(value), name)
                                              for name, value in arguments), action))
    request = urllib.request.Request(entry["control"], body.encode(), {
        "Content-Type": 'text/xml; charset="utf-8"',
        "SOAPACTION": '"%s#%s"' % (entry["type"], action)})
    try:
        with urllib.request.urlopen(request, timeout=10) as answer:
            content = ElementTree.fromstring(answer.read()).find(ENVELOPE + "Body")[0]
    except urllib.error.HTTPError as error:
        content = ElementTree.fromstring(error.read())
        return int(content.findtext(".//{urn:schemas-upnp-org:control-1-0}errorCode"))
    return {child.tag: child.text or "" for child in content}


class ControlTest(LabCase):
    def begin(self, name, host):
        self.described = Described(self.start(name, host).location)
        self.name = name
        return self.described

    def keep(self, name, text):
        folder = os.environ.get("VEX_LAB_KEEP")
        if folder:
            with open(os.path.join(folder, name), "w", encoding="utf-8", newline="") as file:
                file.write(text.removesuffix("\n"))

    def vexcp(self, command, *arguments, status=0):
        result = subprocess.run([VEXCP, command, self.described.udn, *arguments, "--wait", "20"],
                                stdin=subprocess.DEVNULL, capture_output=True, timeout=60)
        self.assertEqual(status, result.returncode, result.stderr)
        return result.stdout.decode()

    def call(self, service, action, *arguments, compare=True):
        """The results of an action, which are those that the device gives without the library."""
        words = ["%s=%s" % pair for pair in arguments]
        answer = json.loads(self.vexcp("call", service, action, *words, "--json"))["results"]
        if compare:
            self.assertEqual(ask(self.described, service, action, arguments), answer)
        return answer

    def keep_call(self, file, service, action, *arguments, status=0):
        words = ["%s=%s" % pair for pair in arguments]
        self.keep("%s_%s.xml" % (self.name, file),
                  self.vexcp("call", service, action, *words, "--xml", status=status))

    def check_browse(self, container):
        """The level as vexcp shows it, against the same level read without it."""
        arguments = (("ObjectID", container), ("BrowseFlag", "BrowseDirectChildren"),
                     ("Filter", "*"), ("StartingIndex", "0"), ("RequestedCount", "0"),
                     ("SortCriteria", ""))
        plain = ask(self.described, "ContentDirectory", "Browse", arguments)
        expected = [(child.get("id"), child.findtext(DC + "title"), child.tag == DIDL + "container")
                    for child in ElementTree.fromstring(plain["Result"])]
        shown = json.loads(self.vexcp("browse", container, "--json", "--page", "2"))
        if container != "0":
            shown = shown[0].get("children", [])
        self.assertGreater(len(expected), 0, container)
        self.assertEqual(expected, [(o["id"], o["title"], o["container"]) for o in shown])
        return shown

    def wait_for_the_end_of_the_scan(self):
        """Until the sound is there and two seconds have passed in which nothing changed."""
        def found():
            try:
                return self.find_tone()
            except AssertionError:
                return None
        self.assertTrue(wait_until(found, LIMIT_S))
        browse = (("ObjectID", "0"), ("BrowseFlag", "BrowseDirectChildren"), ("Filter", "*"),
                  ("StartingIndex", "0"), ("RequestedCount", "0"), ("SortCriteria", ""))
        seen = [None, 0.0]

        def settled():
            state = (ask(self.described, "ContentDirectory", "GetSystemUpdateID", ()),
                     ask(self.described, "ContentDirectory", "Browse", browse))
            if state != seen[0]:
                seen[:] = state, time.monotonic()
            return time.monotonic() - seen[1] > 2
        self.assertTrue(wait_until(settled, LIMIT_S))

    def find_tone(self):
        """The only sound, found by opening one container after the other."""
        def walk(objects):
            for entry in objects:
                if not entry["container"] and entry["title"].startswith("tone"):
                    return entry
                found = walk(entry.get("children", []))
                if found:
                    return found
            return None
        tree = json.loads(self.vexcp("browse", "--json", "--depth", "6"))
        return walk(tree)

    def check_search(self, criteria):
        arguments = (("ContainerID", "0"), ("SearchCriteria", criteria), ("Filter", "*"),
                     ("StartingIndex", "0"), ("RequestedCount", "0"), ("SortCriteria", ""))
        plain = ask(self.described, "ContentDirectory", "Search", arguments)
        expected = [child.get("id") for child in ElementTree.fromstring(plain["Result"])]
        shown = json.loads(self.vexcp("browse", "--search", criteria, "--json"))
        self.assertEqual(expected, [entry["id"] for entry in shown])
        self.keep_call("search", "ContentDirectory", "Search", *arguments)
        return shown

    def check_media_server(self, searches=True, missing_object=701):
        self.wait_for_the_end_of_the_scan()
        for action in ("GetSearchCapabilities", "GetSortCapabilities", "GetSystemUpdateID"):
            self.call("ContentDirectory", action)
        self.assertIn("http-get:*:", self.call("ConnectionManager", "GetProtocolInfo")["Source"])
        self.check_browse("0")
        tone = self.find_tone()
        self.assertIn("t\u00e9", tone["title"])
        siblings = self.check_browse(tone["parent"])
        self.assertIn(tone["title"], [entry["title"] for entry in siblings])
        with urllib.request.urlopen(tone["resources"][0]["url"], timeout=10) as media:
            self.assertEqual(b"RIFF", media.read(4))
        if searches:
            found = self.check_search('upnp:class derivedfrom "object.item.audioItem"')
            self.assertIn(tone["title"], [entry["title"] for entry in found])
        browse = (("ObjectID", tone["parent"]), ("BrowseFlag", "BrowseDirectChildren"),
                  ("Filter", "*"), ("StartingIndex", "0"), ("RequestedCount", "0"),
                  ("SortCriteria", ""))
        self.keep_call("browse", "ContentDirectory", "Browse", *browse)
        missing = (("ObjectID", "987654321"),) + browse[1:]
        self.assertEqual(missing_object,
                         ask(self.described, "ContentDirectory", "Browse", missing))
        self.keep_call("browse_fault", "ContentDirectory", "Browse", *missing, status=5)
        self.keep_call("protocol_info", "ConnectionManager", "GetProtocolInfo")

    def check_first_events(self, services):
        """The first event of each service, once as lines and once as it came."""
        text = self.vexcp("events", *services, "--count", str(len(services)), "--json",
                          "--seconds", "20")
        events = [json.loads(line) for line in text.splitlines()]
        self.assertEqual(set(services), {event["service"].split(":")[-2] for event in events})
        for service in services:
            body = self.vexcp("events", service, "--count", "1", "--xml", "--seconds", "20")
            plain = ElementTree.fromstring(body)
            self.assertEqual(sorted(child.tag for property_ in plain for child in property_),
                             sorted(event["variable"] for event in events
                                    if event["service"].split(":")[-2] == service))
            self.keep("%s_event_%s.xml" % (self.name, service.lower()), body)

    def test_minidlna(self):
        self.begin("minidlna", "dev1")
        self.check_media_server()
        # It grants subscriptions and opens connections for its events, on which nothing comes, to
        # other subscribers neither.
        self.assertEqual("", self.vexcp("events", "--seconds", "1", "--json"))

    def test_gerbera(self):
        self.begin("gerbera", "dev2")
        self.check_media_server(searches=False, missing_object=501)
        # It offers no search, neither in its description nor to those who ask all the same.
        self.vexcp("call", "ContentDirectory", "Search", status=1)
        self.vexcp("browse", "--search", "*", status=5)
        self.check_first_events(["ContentDirectory", "ConnectionManager",
                                 "X_MS_MediaReceiverRegistrar"])

    def test_rygel_media_server(self):
        self.begin("rygel", "dev3")
        self.name = "rygelserver"
        self.check_media_server()
        self.check_first_events(["ContentDirectory", "ConnectionManager"])

    def listen(self, *arguments):
        """Follows events; gives a function for what has come so far."""
        process = subprocess.Popen([VEXCP, "events", self.described.udn, *arguments, "--json"],
                                   stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)

        def end():
            process.send_signal(signal.SIGINT)
            self.assertEqual(0, process.wait(30))
            process.stdout.close()
        self.addCleanup(end)
        os.set_blocking(process.stdout.fileno(), False)
        received = []

        def read():
            received.append(process.stdout.read() or b"")
            return [json.loads(line) for line in b"".join(received).split(b"\n")[:-1]]
        return read

    def test_a_network_light_is_switched_and_tells_so(self):
        self.begin("light", "dev2")
        events = self.listen("SwitchPower")

        def states():
            return [event["value"] for event in events() if event["variable"] == "Status"]
        first = self.call("SwitchPower", "GetStatus")["ResultStatus"]
        self.assertTrue(wait_until(lambda: states() == [first], LIMIT_S), states())
        other = "0" if first == "1" else "1"
        self.assertEqual("done\n", self.vexcp("call", "SwitchPower", "SetTarget",
                                              "newTargetValue=" + other))
        self.assertEqual(other, self.call("SwitchPower", "GetStatus")["ResultStatus"])
        self.assertTrue(wait_until(lambda: states() == [first, other], LIMIT_S), states())
        self.keep_call("getstatus", "SwitchPower", "GetStatus")
        self.keep_call("settarget", "SwitchPower", "SetTarget", ("newTargetValue", "0"))
        self.check_first_events(["SwitchPower", "Dimming"])

    def test_a_rygel_renderer_plays_and_tells_so(self):
        self.start("rygel", "dev3")
        found = []
        watcher = self.watch("--type", "MediaRenderer")
        wait_until(lambda: found or found.extend(e["device"] for e in watcher.read()), LIMIT_S)
        self.described = Described(found[0]["location"])
        self.name = "rygel"
        events = self.listen()

        def changes(variable):
            return [change["value"] for event in events() for change in event.get("changes", [])
                    if change["variable"] == variable]
        self.assertTrue(wait_until(lambda: changes("TransportState") and changes("Volume"),
                                   LIMIT_S), events())
        volume = self.call("RenderingControl", "GetVolume", ("InstanceID", "0"),
                           ("Channel", "Master"))["CurrentVolume"]
        self.assertEqual(volume, changes("Volume")[0])
        other = "33" if volume != "33" else "44"
        self.vexcp("call", "RenderingControl", "SetVolume", "InstanceID=0", "Channel=Master",
                   "DesiredVolume=" + other)
        self.assertTrue(wait_until(lambda: changes("Volume")[-1] == other, LIMIT_S))
        self.check_playing(changes)
        self.check_first_events(["AVTransport", "RenderingControl", "ConnectionManager"])

    def check_playing(self, changes):
        states = changes("TransportState")
        self.vexcp("call", "AVTransport", "SetAVTransportURI", "InstanceID=0",
                   "CurrentURI=file://%s/music/tone%%20%%26%%20t%%C3%%A9.wav"
                   % os.path.join(self.work, "media"), "CurrentURIMetaData=")
        self.vexcp("call", "AVTransport", "Play", "InstanceID=0", "Speed=1")
        self.assertTrue(wait_until(lambda: "PLAYING" in changes("TransportState")[len(states):],
                                   LIMIT_S), changes("TransportState"))
        self.call("AVTransport", "GetMediaInfo", ("InstanceID", "0"))
        self.keep_call("transportinfo", "AVTransport", "GetTransportInfo", ("InstanceID", "0"))
        self.keep_call("mediainfo", "AVTransport", "GetMediaInfo", ("InstanceID", "0"))
        self.keep_call("play_fault", "AVTransport", "Play", ("InstanceID", "7"), ("Speed", "1"),
                       status=5)
        self.vexcp("call", "AVTransport", "Stop", "InstanceID=0")
        self.assertTrue(wait_until(lambda: changes("TransportState")[-1] == "STOPPED", LIMIT_S),
                        changes("TransportState"))


if __name__ == "__main__":
    unittest.main()
