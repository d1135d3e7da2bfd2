"""What vexsim serves over HTTP, and what goes wrong when it is told so."""

import socket
import time
import unittest
import xml.etree.ElementTree as ElementTree

from support import (SimulatorTest, connect, get, read_to_end, search_text, split_url, SearchSocket)

DEVICE = "{urn:schemas-upnp-org:device-1-0}"
SERVICE = "{urn:schemas-upnp-org:service-1-0}"


def resolve(location, root, url):
    base = root.findtext(DEVICE + "URLBase") or location.rsplit("/", 1)[0] + "/"
    if url.startswith("http://"):
        return url
    host, port, _ = split_url(location)
    return "http://%s:%d%s" % (host, port, url) if url.startswith("/") else base + url


class DescriptionTest(SimulatorTest):
    def test_every_shipped_device_serves_all_that_its_description_names(self):
        simulator = self.simulate("lamp", "renderer", "mediaserver", "hub", "generated",
                                  "--no-announce")
        expected_services = {"lamp": 2, "renderer": 3, "mediaserver": 2, "hub": 7, "generated": 3}
        for device in simulator.devices():
            with self.subTest(device["folder"]):
                location = device["locations"][0]
                root = ElementTree.fromstring(get(location).body)
                self.assertEqual(device["udns"], [e.text for e in root.iter(DEVICE + "UDN")])
                services = list(root.iter(DEVICE + "service"))
                self.assertEqual(expected_services[device["folder"]], len(services))
                for service in services:
                    self.check_service(location, root, service)
                for icon in root.iter(DEVICE + "icon"):
                    answer = get(resolve(location, root, icon.findtext(DEVICE + "url")))
                    self.assertTrue(answer.body.startswith(b"\x89PNG\r\n\x1a\n"))
                    self.assertEqual("image/png", answer.message["CONTENT-TYPE"])

    def check_service(self, location, root, service):
        answer = get(resolve(location, root, service.findtext(DEVICE + "SCPDURL")))
        self.assertEqual(200, answer.status)
        scpd = ElementTree.fromstring(answer.body)
        self.assertEqual(SERVICE + "scpd", scpd.tag)
        variables = {e.text for e in scpd.findall(".//%sstateVariable/%sname" % (SERVICE, SERVICE))}
        for related in scpd.iter(SERVICE + "relatedStateVariable"):
            self.assertIn(related.text, variables)
        for name in ("controlURL", "eventSubURL"):
            self.assertTrue(service.findtext(DEVICE + name))

    def test_generated_devices_have_as_many_services_as_asked(self):
        device = self.simulate("generated", "--services", "0", "--no-announce").device()
        root = ElementTree.fromstring(get(device["locations"][0]).body)
        self.assertIsNone(root.find(".//" + DEVICE + "serviceList"))

    def test_the_url_base_has_the_address_that_the_client_used(self):
        device = self.simulate("mediaserver", "--no-announce").device()
        for location in device["locations"]:
            root = ElementTree.fromstring(get(location).body)
            self.assertEqual(location.rsplit("/", 1)[0] + "/", root.findtext(DEVICE + "URLBase"))

    def test_unknown_paths_methods_and_devices(self):
        device = self.simulate("lamp", "--no-announce").device()
        base = device["locations"][0][:-len("/1/description.xml")]
        for path, status in (("/1/none.xml", 404), ("/2/description.xml", 404), ("/", 404),
                             ("/x/description.xml", 404), ("/1", 404),
                             ("/1/../description.xml", 404)):
            self.assertEqual(status, get(base + path).status, path)
        self.assertEqual(405, get(device["locations"][0], method="DELETE").status)

    def test_two_slashes_count_as_one(self):
        location = self.simulate("lamp", "--no-announce").device()["locations"][0]
        self.assertEqual(200, get(location.replace("/1/", "/1//")).status)

    def test_head_gets_the_headers_only(self):
        device = self.simulate("lamp", "--no-announce").device()
        whole = get(device["locations"][0])
        head = get(device["locations"][0], method="HEAD")
        self.assertEqual(b"", head.body)
        self.assertEqual(str(len(whole.body)), head.message["CONTENT-LENGTH"])

    def test_connections_are_kept_and_pipelined_requests_answered_in_order(self):
        device = self.simulate("lamp", "--no-announce").device()
        with connect(device["locations"][0]) as connection:
            connection.sendall(b"GET /1/description.xml HTTP/1.1\r\n\r\n"
                               b"GET /1/none HTTP/1.1\r\n\r\n"
                               b"GET /1/icon.png HTTP/1.1\r\nConnection: close\r\n\r\n")
            data = read_to_end(connection).data
        self.assertEqual([200, 404, 200],
                         [int(part[:3]) for part in data.decode("latin-1").split("HTTP/1.1 ")[1:]])

    def test_a_request_may_come_byte_by_byte(self):
        device = self.simulate("lamp", "--no-announce").device()
        with connect(device["locations"][0]) as connection:
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            for byte in b"GET /1/icon.png HTTP/1.0\r\n\r\n":
                connection.sendall(bytes([byte]))
            self.assertEqual(200, read_to_end(connection).status)

    def test_close_ends_the_connection_after_one_answer(self):
        device = self.simulate("lamp", "--no-announce", "--close").device()
        with connect(device["locations"][0]) as connection:
            connection.sendall(b"GET /1/icon.png HTTP/1.1\r\nConnection: Keep-Alive\r\n\r\n")
            self.assertEqual("close", read_to_end(connection).message["CONNECTION"])

    def test_nonsense_gets_400(self):
        device = self.simulate("lamp", "--no-announce").device()
        for data in (b"hello\r\n\r\n", b"GET /\r\n\r\n", b"GET / HTTP/1.1\r\nno colon\r\n\r\n",
                     b"GET / HTTP/1.1\r\nContent-Length: -1\r\n\r\n",
                     b"GET / HTTP/1.1\r\nContent-Length: 99999999999\r\n\r\n"):
            with connect(device["locations"][0]) as connection:
                connection.sendall(data)
                self.assertEqual(400, read_to_end(connection).status, data)


class PortTest(SimulatorTest):
    def test_killing_closes_the_own_port_of_a_device(self):
        simulator = self.simulate("lamp", "--count", "2", "--no-announce")
        first, second = (device["locations"][0] for device in simulator.devices())
        self.assertNotEqual(split_url(first)[1], split_url(second)[1])
        kept = connect(first)
        self.addCleanup(kept.close)
        simulator.do("kill 1")
        with self.assertRaises(ConnectionRefusedError):
            get(first)
        self.assertEqual(b"", read_to_end(kept).data)
        self.assertEqual(200, get(second).status)
        simulator.do("revive 1")
        self.assertEqual(200, get(first).status)

    def test_many_devices_share_one_port(self):
        simulator = self.simulate("generated", "--count", "101", "--no-announce")
        self.assertEqual(1, len({device["port"] for device in simulator.devices()}))
        location = simulator.device(7)["locations"][0]
        self.assertEqual(200, get(location).status)
        simulator.do("kill 8")
        self.assertEqual(404, get(location).status)

    def test_ports_can_be_chosen(self):
        shared = self.simulate("lamp", "--count", "3", "--ports", "shared", "--port", "5100",
                               "--no-announce")
        self.assertEqual([5100] * 3, [device["port"] for device in shared.devices()])
        own = self.simulate("lamp", "--count", "3", "--port", "5200", "--no-announce")
        self.assertEqual([5200, 5201, 5202], [device["port"] for device in own.devices()])


class FaultTest(SimulatorTest):
    def setUp(self):
        self.simulator = self.simulate("lamp", "--no-announce")
        self.location = self.simulator.device()["locations"][0]
        self.body = get(self.location).body

    def fault(self, words):
        self.simulator.do("fault */description.xml " + words)

    def test_status(self):
        self.fault("status=500")
        answer = get(self.location)
        self.assertEqual((500, b""), (answer.status, answer.body))
        self.assertEqual(200, get(self.location.replace("description", "Dimming")).status)

    def test_times(self):
        self.fault("status=503 times=2")
        self.assertEqual([503, 503, 200], [get(self.location).status for _ in range(3)])

    def test_delay(self):
        self.fault("delay=300")
        started = time.monotonic()
        self.assertEqual(self.body, get(self.location).body)
        self.assertGreaterEqual(time.monotonic() - started, 0.3)

    def test_a_delayed_answer_holds_up_nobody_else(self):
        self.fault("delay=5000")
        with connect(self.location) as waiting:
            waiting.sendall(b"GET /1/description.xml HTTP/1.1\r\n\r\n")
            started = time.monotonic()
            self.assertEqual(200, get(self.location.replace("description", "Dimming")).status)
            self.assertLess(time.monotonic() - started, 2)

    def test_cut(self):
        self.fault("cut=100")
        answer = get(self.location)
        self.assertEqual(100, len(answer.data))
        self.assertFalse(answer.reset)

    def test_cut_with_reset(self):
        self.fault("cut=0 reset")
        self.assertTrue(get(self.location).reset)

    def test_chunked(self):
        self.fault("chunked=100")
        answer = get(self.location)
        self.assertEqual("chunked", answer.message["TRANSFER-ENCODING"])
        self.assertNotIn("CONTENT-LENGTH", answer.message.headers)
        sizes, rest, body = [], answer.body, b""
        while rest:
            line, _, rest = rest.partition(b"\r\n")
            size = int(line, 16)
            sizes.append(size)
            body += rest[:size]
            self.assertEqual(b"\r\n", rest[size:size + 2])
            rest = rest[size + 2:]
        self.assertEqual(self.body, body)
        self.assertEqual({100}, set(sizes[:-2]))
        self.assertEqual(0, sizes[-1])

    def test_no_length(self):
        self.fault("no-length")
        with connect(self.location) as connection:
            connection.sendall(b"GET /1/description.xml HTTP/1.1\r\n\r\n")
            answer = read_to_end(connection)
        self.assertNotIn("CONTENT-LENGTH", answer.message.headers)
        self.assertNotIn("TRANSFER-ENCODING", answer.message.headers)
        self.assertEqual(self.body, answer.body)

    def test_garbage(self):
        self.fault("garbage=500")
        answer = get(self.location)
        self.assertEqual(500, len(answer.data))
        self.assertIsNone(answer.status)

    def test_silence(self):
        self.fault("silent")
        with connect(self.location) as connection:
            connection.sendall(b"GET /1/description.xml HTTP/1.1\r\n\r\n")
            connection.settimeout(0.3)
            with self.assertRaises(socket.timeout):
                connection.recv(1)

    def test_rate(self):
        self.fault("rate=2000")
        started = time.monotonic()
        answer = get(self.location)
        self.assertEqual(self.body, answer.body)
        self.assertGreater(time.monotonic() - started, len(answer.data) / 2000 - 0.3)

    def test_clear(self):
        self.fault("status=500")
        self.simulator.do("fault /1/* status=404")
        self.assertEqual(404, get(self.location).status)
        self.assertEqual(1, self.simulator.do("fault clear /1/*")["cleared"])
        self.assertEqual(500, get(self.location).status)
        self.assertEqual(1, self.simulator.do("fault clear")["cleared"])
        self.assertEqual(200, get(self.location).status)

    def test_searches_go_on_during_a_fault(self):
        self.fault("silent")
        self.simulator.do("answers burst")
        client = SearchSocket()
        self.addCleanup(client.close)
        client.send(search_text("upnp:rootdevice"))
        self.assertEqual(1, len(client.collect(1)))


if __name__ == "__main__":
    unittest.main()
