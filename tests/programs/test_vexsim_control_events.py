"""Actions and events of vexsim's devices."""

import socket
import threading
import time
import unittest
import xml.etree.ElementTree as ElementTree
from xml.sax.saxutils import escape

from support import Message, OWN_ADDRESS, SimulatorTest, get, wait_until

SWITCH = "urn:schemas-upnp-org:service:SwitchPower:1"
DIMMING = "urn:schemas-upnp-org:service:Dimming:1"
RENDERING = "urn:schemas-upnp-org:service:RenderingControl:1"
TRANSPORT = "urn:schemas-upnp-org:service:AVTransport:1"
CONNECTIONS = "urn:schemas-upnp-org:service:ConnectionManager:1"
CONTENT = "urn:schemas-upnp-org:service:ContentDirectory:1"
ENVELOPE = "{http://schemas.xmlsoap.org/soap/envelope/}"
CONTROL = "{urn:schemas-upnp-org:control-1-0}"
DIDL = "{urn:schemas-upnp-org:metadata-1-0/DIDL-Lite/}"
DC = "{http://purl.org/dc/elements/1.1/}"


class UpnpError(Exception):
    def __init__(self, code, description):
        super().__init__("%d %s" % (code, description))
        self.code = code
        self.description = description


def base_of(device):
    return device["locations"][0].rsplit("/", 1)[0]


def call(device, service, action, **arguments):
    """Carries out an action; a dictionary of results, in order."""
    body = ('<?xml version="1.0"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/" '
            's:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body>'
            '<u:%s xmlns:u="%s">%s</u:%s></s:Body></s:Envelope>'
            % (action, service, "".join("<%s>%s</%s>" % (name, escape(str(value)), name)
                                        for name, value in arguments.items()), action))
    answer = get("%s/control/%s" % (base_of(device), service.split(":")[-2]), method="POST",
                 headers='SOAPACTION: "%s#%s"\r\n' % (service, action), body=body)
    content = ElementTree.fromstring(answer.body).find(ENVELOPE + "Body")[0]
    if answer.status == 500:
        error = content.find(".//" + CONTROL + "UPnPError")
        raise UpnpError(int(error.findtext(CONTROL + "errorCode")),
                        error.findtext(CONTROL + "errorDescription"))
    assert content.tag == "{%s}%sResponse" % (service, action), content.tag
    return {child.tag: child.text or "" for child in content}


class Subscriber:
    """Takes events on a port of its own and notes them with the time of their arrival."""

    def __init__(self, status=200):
        self.status = status
        self.events = []
        self.listener = socket.create_server((OWN_ADDRESS, 0))
        self.url = "http://%s:%d/events" % self.listener.getsockname()
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.thread.join()

    def _serve(self):
        while True:
            try:
                connection, _ = self.listener.accept()
            except OSError:
                return
            with connection:
                data = b""
                while b"\r\n\r\n" not in data:
                    data += connection.recv(65536)
                message = Message(data)
                body = data.partition(b"\r\n\r\n")[2]
                while len(body) < int(message["CONTENT-LENGTH"]):
                    body += connection.recv(65536)
                connection.sendall(b"HTTP/1.1 %d Status\r\nConnection: close\r\n\r\n"
                                   % self.status)
            property_set = ElementTree.fromstring(body)
            message.property_count = len(property_set)
            message.properties = {child.tag: child.text or "" for property_ in property_set
                                  for child in property_}
            message.time = time.monotonic()
            self.events.append(message)

    def wait(self, count):
        assert wait_until(lambda: len(self.events) >= count), self.events
        return self.events


def subscribe(device, service, url=None, timeout="Second-1800", extra=""):
    headers = "TIMEOUT: %s\r\n%s" % (timeout, extra)
    if url:
        headers += "CALLBACK: <%s>\r\nNT: upnp:event\r\n" % url
    return get("%s/event/%s" % (base_of(device), service), method="SUBSCRIBE", headers=headers)


class ActionTest(SimulatorTest):
    def assert_error(self, code, device, service, action, **arguments):
        with self.assertRaises(UpnpError) as raised:
            call(device, service, action, **arguments)
        self.assertEqual(code, raised.exception.code)

    def test_a_lamp_is_switched_and_dimmed(self):
        lamp = self.simulate("lamp", "--no-announce").device()
        self.assertEqual({"ResultStatus": "0"}, call(lamp, SWITCH, "GetStatus"))
        self.assertEqual({}, call(lamp, SWITCH, "SetTarget", newTargetValue=1))
        self.assertEqual({"ResultStatus": "1"}, call(lamp, SWITCH, "GetStatus"))
        self.assertEqual({"RetTargetValue": "1"}, call(lamp, SWITCH, "GetTarget"))
        call(lamp, DIMMING, "SetLoadLevelTarget", newLoadlevelTarget=35)
        call(lamp, DIMMING, "StepUp")
        self.assertEqual({"retLoadlevelStatus": "45"}, call(lamp, DIMMING, "GetLoadLevelStatus"))
        call(lamp, DIMMING, "SetStepDelta", newStepDelta=50)
        call(lamp, DIMMING, "StepDown")
        self.assertEqual({"retLoadlevelStatus": "0"}, call(lamp, DIMMING, "GetLoadLevelStatus"))

    def test_wrong_calls_get_the_errors_of_the_architecture(self):
        lamp = self.simulate("lamp", "--no-announce").device()
        self.assert_error(401, lamp, SWITCH, "Explode")
        self.assert_error(402, lamp, SWITCH, "SetTarget")
        self.assert_error(600, lamp, SWITCH, "SetTarget", newTargetValue="perhaps")
        self.assert_error(601, lamp, DIMMING, "SetLoadLevelTarget", newLoadlevelTarget=101)
        self.assert_error(600, lamp, DIMMING, "SetLoadLevelTarget", newLoadlevelTarget="half")
        self.assert_error(600, lamp, DIMMING, "SetOnEffect", newOnEffect="Sometimes")

    def test_calls_that_are_no_proper_soap_get_401(self):
        lamp = self.simulate("lamp", "--no-announce").device()
        url = base_of(lamp) + "/control/SwitchPower"
        for headers, body in (("", "<a/>"), ('SOAPACTION: "x#y"\r\n', "<a/>"),
                              ('SOAPACTION: "%s#GetStatus"\r\n' % SWITCH, "nonsense"),
                              ('SOAPACTION: %s#GetStatus\r\n' % SWITCH, "")):
            answer = get(url, method="POST", headers=headers, body=body)
            self.assertEqual(500, answer.status)
            self.assertIn(b"<errorCode>401</errorCode>", answer.body)
        self.assertEqual(405, get(url).status)

    def test_a_renderer_plays(self):
        renderer = self.simulate("renderer", "--no-announce").device()

        def state():
            return call(renderer, TRANSPORT, "GetTransportInfo",
                        InstanceID=0)["CurrentTransportState"]

        self.assertEqual("NO_MEDIA_PRESENT", state())
        self.assert_error(701, renderer, TRANSPORT, "Play", InstanceID=0, Speed=1)
        uri, metadata = "http://10.78.0.2/a&b.wav", '<DIDL-Lite a="1">&amp;</DIDL-Lite>'
        call(renderer, TRANSPORT, "SetAVTransportURI", InstanceID=0, CurrentURI=uri,
             CurrentURIMetaData=metadata)
        self.assertEqual("STOPPED", state())
        call(renderer, TRANSPORT, "Play", InstanceID=0, Speed=1)
        self.assertEqual("PLAYING", state())
        call(renderer, TRANSPORT, "Seek", InstanceID=0, Unit="REL_TIME", Target="00:01:05")
        position = call(renderer, TRANSPORT, "GetPositionInfo", InstanceID=0)
        self.assertIn(position["RelTime"], ("00:01:05", "00:01:06"))
        self.assertEqual((uri, metadata), (position["TrackURI"], position["TrackMetaData"]))
        call(renderer, TRANSPORT, "Pause", InstanceID=0)
        self.assertEqual("PAUSED_PLAYBACK", state())
        call(renderer, TRANSPORT, "Stop", InstanceID=0)
        self.assertEqual("STOPPED", state())
        self.assert_error(718, renderer, TRANSPORT, "Stop", InstanceID=1)
        self.assert_error(711, renderer, TRANSPORT, "Seek", InstanceID=0, Unit="REL_TIME",
                          Target="09:00:00")

    def test_a_renderer_has_volume_and_presets(self):
        renderer = self.simulate("renderer", "--no-announce").device()
        call(renderer, RENDERING, "SetVolume", InstanceID=0, Channel="Master", DesiredVolume=77)
        self.assertEqual({"CurrentVolume": "77"}, call(renderer, RENDERING, "GetVolume",
                                                       InstanceID=0, Channel="Master"))
        call(renderer, RENDERING, "SelectPreset", InstanceID=0, PresetName="FactoryDefaults")
        self.assertEqual({"CurrentVolume": "30"}, call(renderer, RENDERING, "GetVolume",
                                                       InstanceID=0, Channel="Master"))
        self.assertEqual({"MinValue": "-7680", "MaxValue": "0"},
                         call(renderer, RENDERING, "GetVolumeDBRange", InstanceID=0,
                              Channel="Master"))
        self.assert_error(702, renderer, RENDERING, "GetVolume", InstanceID=5, Channel="Master")
        self.assert_error(706, renderer, CONNECTIONS, "GetCurrentConnectionInfo", ConnectionID=3)
        info = call(renderer, CONNECTIONS, "GetCurrentConnectionInfo", ConnectionID=0)
        self.assertEqual(("Input", "-1"), (info["Direction"], info["PeerConnectionID"]))

    def browse(self, server, object_id, flag="BrowseDirectChildren", first=0, count=0):
        results = call(server, CONTENT, "Browse", ObjectID=object_id, BrowseFlag=flag, Filter="*",
                       StartingIndex=first, RequestedCount=count, SortCriteria="")
        return results, ElementTree.fromstring(results["Result"])

    def test_a_media_server_is_browsed_and_its_media_fetched(self):
        server = self.simulate("mediaserver", "--no-announce").device()
        results, top = self.browse(server, "0")
        self.assertEqual(("3", "3", "1"), (results["NumberReturned"], results["TotalMatches"],
                                           results["UpdateID"]))
        self.assertEqual(["Music", "Pictures", "A thousand tones"],
                         [child.findtext(DC + "title") for child in top])
        _, music = self.browse(server, "music")
        self.assertEqual("Tone & t\u00e9 <1>", music[0].findtext(DC + "title"))
        resource = music[0].find(DIDL + "res")
        whole = get(resource.text)
        self.assertEqual(int(resource.get("size")), len(whole.body))
        self.assertTrue(whole.body.startswith(b"RIFF"))
        part = get(resource.text, headers="Range: bytes=4-9\r\n")
        self.assertEqual((206, whole.body[4:10]), (part.status, part.body))
        self.assertEqual("bytes 4-9/%d" % len(whole.body), part.message["CONTENT-RANGE"])
        self.assertEqual(416, get(resource.text, headers="Range: bytes=99999-\r\n").status)

    def test_a_long_container_comes_in_pieces(self):
        server = self.simulate("mediaserver", "--no-announce").device()
        results, tones = self.browse(server, "many", first=995, count=10)
        self.assertEqual(("5", "1000"), (results["NumberReturned"], results["TotalMatches"]))
        self.assertEqual(["tone-%d" % n for n in range(996, 1001)],
                         [tone.get("id") for tone in tones])
        _, metadata = self.browse(server, "many", flag="BrowseMetadata")
        self.assertEqual("1000", metadata[0].get("childCount"))
        self.assert_error(701, server, CONTENT, "Browse", ObjectID="none",
                          BrowseFlag="BrowseMetadata", Filter="*", StartingIndex=0,
                          RequestedCount=0, SortCriteria="")

    def search(self, server, criteria, container="0", first=0, count=0):
        results = call(server, CONTENT, "Search", ContainerID=container, SearchCriteria=criteria,
                       Filter="*", StartingIndex=first, RequestedCount=count, SortCriteria="")
        return results["TotalMatches"], [child.get("id") for child in
                                         ElementTree.fromstring(results["Result"])]

    def test_a_media_server_is_searched(self):
        server = self.simulate("mediaserver", "--no-announce").device()
        for criteria, expected in (
                ('upnp:class derivedfrom "object.item.imageItem"', ["icon"]),
                ('upnp:class derivedfrom "object.item.imageIte"', []),
                ('dc:title contains "MUSIC"', ["music"]),
                ('dc:title = "Tone & t\u00e9 <1>"', ["tone"]),
                ('upnp:artist = "Sine \\"&\\" Wave"', ["tone"]),
                ('upnp:artist exists true', ["tone"]),
                ('dc:title = "Icon" or dc:title = "Music" and @id = "none"', ["icon"]),
                ('(dc:title = "Icon" or dc:title = "Music") and @id != "icon"', ["music"]),
                ('dc:title doesNotContain "tone" and upnp:artist exists false',
                 ["music", "pictures", "icon"])):
            self.assertEqual((str(len(expected)), expected), self.search(server, criteria),
                             criteria)
        self.assertEqual("1005", self.search(server, "*")[0])
        self.assertEqual(("1", ["icon"]), self.search(server, "*", container="pictures"))
        self.assertEqual(("1000", ["tone-999", "tone-1000"]),
                         self.search(server, 'dc:title contains "tone"', container="many",
                                     first=998, count=10))

    def test_improper_searches_are_refused(self):
        server = self.simulate("mediaserver", "--no-announce").device()
        for criteria in ("", "dc:title", 'dc:title like "x"', 'dc:title = x', 'dc:title = "x',
                         '(dc:title = "x"', 'dc:title = "x")', 'dc:title = "x" and', "* or *"):
            with self.assertRaises(UpnpError, msg=criteria) as raised:
                self.search(server, criteria)
            self.assertEqual(708, raised.exception.code)
        for container in ("none", "tone"):
            with self.assertRaises(UpnpError) as raised:
                self.search(server, "*", container=container)
            self.assertEqual(710, raised.exception.code)

    def test_actions_fail_on_command(self):
        simulator = self.simulate("lamp", "--no-announce")
        lamp = simulator.device()
        simulator.do('action 1/SwitchPower.* error=501 description="No <current>" times=2')
        with self.assertRaises(UpnpError) as raised:
            call(lamp, SWITCH, "GetStatus")
        self.assertEqual((501, "No <current>"),
                         (raised.exception.code, raised.exception.description))
        call(lamp, DIMMING, "StepUp")
        self.assert_error(501, lamp, SWITCH, "SetTarget", newTargetValue=1)
        self.assertEqual({"ResultStatus": "0"}, call(lamp, SWITCH, "GetStatus"))
        simulator.do("action 1/Dimming.StepUp error=799")
        self.assert_error(799, lamp, DIMMING, "StepUp")
        simulator.do("action clear")
        call(lamp, DIMMING, "StepUp")

    def test_variables_are_set_and_read_on_command(self):
        simulator = self.simulate("lamp", "--no-announce")
        simulator.do("set 1 SwitchPower.Status 1")
        self.assertEqual({"ResultStatus": "1"}, call(simulator.device(), SWITCH, "GetStatus"))
        self.assertEqual("1", simulator.do("get 1 SwitchPower.Status")["value"])
        for command in ("set 1 SwitchPower.Colour red", "set 1 Status 1", "get 1 Heater.Status",
                        "set 2 SwitchPower.Status 1", "set 1 SwitchPower.Status"):
            self.assertFalse(simulator.ask(command)["ok"], command)


class EventTest(SimulatorTest):
    def subscriber(self, status=200):
        subscriber = Subscriber(status)
        self.addCleanup(subscriber.close)
        return subscriber

    def test_two_simulators_give_out_different_subscriptions(self):
        sids = []
        for seed in ("one", "two"):
            lamp = self.simulate("lamp", "--no-announce", "--seed", seed).device()
            sids.append(subscribe(lamp, "SwitchPower", "http://10.78.0.1:9/").message["SID"])
        self.assertNotEqual(sids[0], sids[1])

    def test_a_subscriber_gets_all_variables_first_and_then_each_change(self):
        lamp = self.simulate("lamp", "--no-announce").device()
        subscriber = self.subscriber()
        answer = subscribe(lamp, "SwitchPower", subscriber.url)
        self.assertEqual((200, "Second-1800"), (answer.status, answer.message["TIMEOUT"]))
        first, = subscriber.wait(1)
        self.assertEqual("NOTIFY /events HTTP/1.1", first.start)
        self.assertEqual({"Status": "0"}, first.properties)
        self.assertEqual(("upnp:event", "upnp:propchange", answer.message["SID"], "0"),
                         (first["NT"], first["NTS"], first["SID"], first["SEQ"]))
        self.assertEqual(subscriber.url.split("/")[2], first["HOST"])
        for value in (1, 1, 0, 1):
            call(lamp, SWITCH, "SetTarget", newTargetValue=value)
        events = subscriber.wait(4)
        self.assertEqual(["0", "1", "0", "1"], [e.properties["Status"] for e in events])
        self.assertEqual(["0", "1", "2", "3"], [e["SEQ"] for e in events])

    def test_changes_of_one_action_come_in_one_message(self):
        simulator = self.simulate("lamp", "--no-announce")
        subscriber = self.subscriber()
        subscribe(simulator.device(), "Dimming", subscriber.url)
        first, = subscriber.wait(1)
        self.assertEqual({"LoadLevelStatus": "0", "StepDelta": "10", "RampRate": "0",
                          "IsRamping": "0", "RampPaused": "0"}, first.properties)
        call(simulator.device(), DIMMING, "SetLoadLevelTarget", newLoadlevelTarget=5)
        self.assertEqual({"LoadLevelStatus": "5"}, subscriber.wait(2)[1].properties)

    def test_last_change_is_gathered(self):
        renderer = self.simulate("renderer", "--no-announce").device()
        subscriber = self.subscriber()
        subscribe(renderer, "RenderingControl", subscriber.url)
        first, = subscriber.wait(1)
        event = ElementTree.fromstring(first.properties["LastChange"])
        instance = event.find("{urn:schemas-upnp-org:metadata-1-0/RCS/}InstanceID")
        self.assertEqual("0", instance.get("val"))
        volume = instance.find("{urn:schemas-upnp-org:metadata-1-0/RCS/}Volume")
        self.assertEqual(("Master", "30"), (volume.get("channel"), volume.get("val")))
        started = time.monotonic()
        for value in range(31, 61):
            call(renderer, RENDERING, "SetVolume", InstanceID=0, Channel="Master",
                 DesiredVolume=value)
        self.assertTrue(wait_until(lambda: 'val="60"' in
                                   subscriber.events[-1].properties["LastChange"]))
        # One in 0.2 s at most.
        changes = subscriber.events[1:]
        self.assertLessEqual(len(changes), (changes[-1].time - started) / 0.2 + 2)

    def test_improper_subscriptions_are_refused(self):
        lamp = self.simulate("lamp", "--no-announce").device()
        subscriber = self.subscriber()
        self.assertEqual(412, subscribe(lamp, "SwitchPower").status)
        self.assertEqual(412, subscribe(lamp, "SwitchPower", "ftp://10.78.0.1/x").status)
        self.assertEqual(412, subscribe(lamp, "SwitchPower", extra="SID: uuid:none\r\n").status)
        self.assertEqual(400, subscribe(lamp, "SwitchPower", subscriber.url,
                                        extra="SID: uuid:none\r\n").status)
        url = base_of(lamp) + "/event/SwitchPower"
        self.assertEqual(412, get(url, method="UNSUBSCRIBE").status)
        self.assertEqual(405, get(url).status)
        self.assertEqual([], subscriber.events)

    def test_renewal_and_end(self):
        simulator = self.simulate("lamp", "--no-announce")
        lamp = simulator.device()
        subscriber = self.subscriber()
        sid = "SID: %s\r\n" % subscribe(lamp, "SwitchPower", subscriber.url).message["SID"]
        subscriber.wait(1)
        renewed = subscribe(lamp, "SwitchPower", timeout="Second-60", extra=sid)
        self.assertEqual((200, "Second-60"), (renewed.status, renewed.message["TIMEOUT"]))
        self.assertEqual(1, simulator.do("stats")["renewals"])
        self.assertEqual(412, subscribe(lamp, "Dimming", extra=sid).status)
        url = base_of(lamp) + "/event/SwitchPower"
        self.assertEqual(200, get(url, method="UNSUBSCRIBE", headers=sid).status)
        self.assertEqual(412, get(url, method="UNSUBSCRIBE", headers=sid).status)
        self.assertEqual(412, subscribe(lamp, "SwitchPower", extra=sid).status)
        simulator.do("set 1 SwitchPower.Status 1")
        self.assertEqual(0, simulator.do("events")["subscriptions"])
        self.assertEqual(1, len(subscriber.events))

    def test_all_variables_come_in_one_property_on_request(self):
        simulator = self.simulate("lamp", "--no-announce")
        simulator.do("events merged")
        subscriber = self.subscriber()
        subscribe(simulator.device(), "Dimming", subscriber.url)
        first, = subscriber.wait(1)
        self.assertEqual((1, 5), (first.property_count, len(first.properties)))
        simulator.do("events apart")
        subscribe(simulator.device(), "Dimming", subscriber.url)
        self.assertEqual(5, subscriber.wait(2)[1].property_count)

    def test_a_subscription_lapses(self):
        simulator = self.simulate("lamp", "--no-announce")
        simulator.do("events timeout=1")
        subscriber = self.subscriber()
        answer = subscribe(simulator.device(), "SwitchPower", subscriber.url, "Second-infinite")
        self.assertEqual("Second-1", answer.message["TIMEOUT"])
        subscriber.wait(1)
        sid = "SID: %s\r\n" % answer.message["SID"]
        time.sleep(1.1)
        self.assertEqual(412, subscribe(simulator.device(), "SwitchPower", extra=sid).status)

    def test_a_subscriber_that_answers_412_gets_no_more(self):
        simulator = self.simulate("lamp", "--no-announce")
        subscriber = self.subscriber(412)
        subscribe(simulator.device(), "SwitchPower", subscriber.url)
        subscriber.wait(1)
        self.assertTrue(wait_until(lambda: simulator.do("events")["subscriptions"] == 0))

    def test_the_second_callback_is_used_when_the_first_is_dead(self):
        simulator = self.simulate("lamp", "--no-announce")
        subscriber = self.subscriber()
        subscribe(simulator.device(), "SwitchPower",
                  "http://%s:1/x><%s" % (OWN_ADDRESS, subscriber.url))
        self.assertEqual({"Status": "0"}, subscriber.wait(1)[0].properties)

    def test_the_first_event_comes_before_after_late_or_never(self):
        simulator = self.simulate("lamp", "--no-announce")
        lamp = simulator.device()

        def first_event(word):
            """Its time since the request and since the answer."""
            simulator.do("events " + word)
            subscriber = self.subscriber()
            asked = time.monotonic()
            subscribe(lamp, "SwitchPower", subscriber.url)
            answered = time.monotonic()
            event = subscriber.wait(1)[0].time
            return event - asked, event - answered
        # On a busy machine the one that reads the event may get its turn late.
        self.assertTrue(any(first_event("before")[1] < -0.1 for _ in range(3)))
        first_event("after")
        self.assertGreaterEqual(first_event("late=400")[0], 0.4)
        simulator.do("events never")
        subscriber = self.subscriber()
        subscribe(lamp, "SwitchPower", subscriber.url)
        simulator.do("set 1 SwitchPower.Status 1")
        first, = subscriber.wait(1)
        self.assertEqual(("0", {"Status": "1"}), (first["SEQ"], first.properties))

    def test_many_subscribers_are_told(self):
        simulator = self.simulate("lamp", "--no-announce")
        subscriber = self.subscriber()
        for _ in range(50):
            subscribe(simulator.device(), "SwitchPower", subscriber.url)
        subscriber.wait(50)
        simulator.do("set 1 SwitchPower.Status 1")
        subscriber.wait(100)
        self.assertEqual(50, len({event["SID"] for event in subscriber.events}))
        self.assertTrue(wait_until(lambda: simulator.do("stats")["events"] == 100))
        self.assertEqual(50, simulator.do("stats")["subscriptions"])

    def test_a_killed_device_forgets_its_subscribers_and_settings(self):
        simulator = self.simulate("lamp", "--no-announce")
        subscriber = self.subscriber()
        subscribe(simulator.device(), "SwitchPower", subscriber.url)
        simulator.do("set 1 SwitchPower.Status 1")
        subscriber.wait(2)
        simulator.do("kill 1")
        self.assertEqual(0, simulator.do("events")["subscriptions"])
        simulator.do("revive 1")
        self.assertEqual({"ResultStatus": "0"}, call(simulator.device(), SWITCH, "GetStatus"))


if __name__ == "__main__":
    unittest.main()
