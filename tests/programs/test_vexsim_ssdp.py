"""What vexsim says over SSDP, as UPnP Device Architecture 1.0 has it."""

import subprocess
import time
import unittest

from support import (DEVICES_HOST, DEVICES_HOST_2, GroupSocket, SearchSocket,
                     SimulatorTest, on_devices, search_text, wait_until)

LAMP = "urn:schemas-upnp-org:device:DimmableLight:1"
SWITCH = "urn:schemas-upnp-org:service:SwitchPower:1"
DIMMING = "urn:schemas-upnp-org:service:Dimming:1"


class SearchTest(SimulatorTest):
    def setUp(self):
        self.client = SearchSocket()
        self.addCleanup(self.client.close)

    def search(self, target, count, **details):
        self.client.send(search_text(target, **details))
        return self.client.collect(count)

    def targets(self, target, count):
        return sorted((answer["ST"], answer["USN"]) for answer in self.search(target, count))

    def test_a_search_for_all_gets_every_target_of_the_device(self):
        udn = self.simulate("lamp", "--answers", "burst", "--no-announce").device()["udns"][0]
        expected = [("upnp:rootdevice", udn + "::upnp:rootdevice"), (udn, udn),
                    (LAMP, udn + "::" + LAMP), (SWITCH, udn + "::" + SWITCH),
                    (DIMMING, udn + "::" + DIMMING)]
        self.assertEqual(sorted(expected), self.targets("ssdp:all", 5))

    def test_embedded_devices_have_an_udn_and_a_type_and_no_rootdevice(self):
        udns = self.simulate("hub", "--answers", "burst", "--no-announce").device()["udns"]
        answers = self.targets("ssdp:all", 16)
        # Root 3; three embedded devices 2 each; their services 2 + 3 + 2.
        self.assertEqual(3 + 3 * 2 + 7, len(answers))
        self.assertEqual([("upnp:rootdevice", udns[0] + "::upnp:rootdevice")],
                         [answer for answer in answers if answer[0] == "upnp:rootdevice"])
        self.assertEqual(sorted((udn, udn) for udn in udns),
                         sorted(answer for answer in answers if answer[0].startswith("uuid:")))

    def test_the_answer_has_all_headers(self):
        simulator = self.simulate("lamp", "--answers", "burst", "--no-announce", "--max-age", "77")
        device = simulator.device()
        answer, = self.search("upnp:rootdevice", 1)
        self.assertEqual("HTTP/1.1 200 OK", answer.start)
        self.assertEqual("max-age=77", answer["CACHE-CONTROL"])
        self.assertEqual("", answer["EXT"])
        self.assertEqual(device["locations"][0], answer["LOCATION"])
        self.assertIn("UPnP/1.0", answer["SERVER"])
        self.assertRegex(answer["DATE"], r"^\w{3}, \d\d \w{3} \d{4} \d\d:\d\d:\d\d GMT$")
        self.assertEqual((DEVICES_HOST, 1900), answer.sender)

    def test_the_location_carries_the_address_of_the_network_it_was_asked_on(self):
        self.simulate("lamp", "--answers", "burst", "--no-announce")
        other = SearchSocket("10.78.1.1")
        self.addCleanup(other.close)
        other.send(search_text("upnp:rootdevice"))
        answer, = other.collect(1)
        self.assertIn("http://" + DEVICES_HOST_2 + ":", answer["LOCATION"])
        self.assertEqual(DEVICES_HOST_2, answer.sender[0])

    def test_only_the_device_with_that_udn_answers(self):
        simulator = self.simulate("lamp", "--count", "3", "--answers", "burst", "--no-announce")
        udn = simulator.device(1)["udns"][0]
        self.assertEqual([(udn, udn)], self.targets(udn, 1))

    def test_types_of_a_higher_version_answer_a_lower_one_with_the_searched_text(self):
        udn = self.simulate("mediaserver", "--answers", "burst",
                            "--no-announce").device()["udns"][0]
        version_1 = "urn:schemas-upnp-org:service:ContentDirectory:1"
        self.assertEqual([(version_1, udn + "::" + version_1)], self.targets(version_1, 1))
        self.assertEqual([], self.search("urn:schemas-upnp-org:service:ContentDirectory:2", 0))
        version_0 = "urn:schemas-upnp-org:service:ContentDirectory:0"
        self.assertEqual([(version_0, udn + "::" + version_0)], self.targets(version_0, 1))

    def test_improper_searches_go_unanswered(self):
        simulator = self.simulate("lamp", "--answers", "burst", "--no-announce")
        for data in (search_text("upnp:rootdevice", man="ssdp:discover"),
                     search_text("upnp:rootdevice", mx="0"),
                     search_text("upnp:rootdevice", mx="soon"),
                     search_text(""), search_text("upnp:somedevice"),
                     b"M-SEARCH * HTTP/1.1\r\n", b"", b"\x00\xff" * 500,
                     b"NOTIFY * HTTP/1.1\r\nST: upnp:rootdevice\r\nMX: 1\r\n\r\n"):
            self.client.send(data)
        self.assertEqual([], self.client.collect(0))
        self.assertEqual(1, len(self.search("upnp:rootdevice", 1)))
        self.assertEqual(1, simulator.do("stats")["answers"])

    def test_answers_spread_over_mx_seconds(self):
        self.simulate("lamp", "--count", "60", "--no-announce")
        started = time.monotonic()
        times = []
        self.client.send(search_text("upnp:rootdevice", mx="2"))
        for _ in range(60):
            self.client.socket.settimeout(5)
            self.client.socket.recvfrom(65536)
            times.append(time.monotonic() - started)
        # 60 even draws leave the last half-second empty once in a million runs.
        self.assertLess(times[0], 1.5)
        self.assertGreater(times[-1], 1.5)
        self.assertLess(times[-1], 10)

    def test_answers_spread_over_a_window_whatever_mx_says(self):
        simulator = self.simulate("lamp", "--count", "50", "--answers", "off", "--no-announce")
        self.assertEqual([], self.search("upnp:rootdevice", 0))
        simulator.do("answers window=200")
        started = time.monotonic()
        self.client.send(search_text("upnp:rootdevice", mx="5"))
        last = 0
        for _ in range(50):
            self.client.socket.settimeout(5)
            self.client.socket.recvfrom(65536)
            last = time.monotonic() - started
        self.assertGreater(last, 0.1)
        self.assertLess(last, 3.0)

    def test_a_thousand_devices_answer_in_one_burst(self):
        self.simulate("generated", "--count", "1000", "--answers", "burst", "--no-announce")
        # Two hundred of them at a time fit into an ordinary receive buffer; this one is larger.
        self.client.socket.setsockopt(1, 33, 8 << 20)
        answers = self.search("upnp:rootdevice", 1000)
        self.assertEqual(1000, len({answer["USN"] for answer in answers}))

    def test_equal_searches_within_the_merge_time_are_answered_once(self):
        self.simulate("lamp", "--answers", "burst", "--merge", "5000", "--no-announce")
        for _ in range(3):
            self.client.send(search_text("upnp:rootdevice"))
        self.assertEqual(1, len(self.client.collect(1)))
        self.client.send(search_text("ssdp:all"))
        self.assertEqual(5, len(self.client.collect(5)))


class AnnouncementTest(SimulatorTest):
    def setUp(self):
        self.group = GroupSocket()
        self.addCleanup(self.group.close)

    def test_a_device_announces_its_whole_set_at_start_and_says_byebye_at_the_end(self):
        simulator = self.simulate("lamp")
        udn = simulator.device()["udns"][0]
        location = simulator.device()["locations"][0]
        expected = [("upnp:rootdevice", udn + "::upnp:rootdevice"), (udn, udn),
                    (LAMP, udn + "::" + LAMP), (SWITCH, udn + "::" + SWITCH),
                    (DIMMING, udn + "::" + DIMMING)]
        alive = self.group.collect(5)
        self.assertEqual(expected, [(m["NT"], m["USN"]) for m in alive])
        for message in alive:
            self.assertEqual("NOTIFY * HTTP/1.1", message.start)
            self.assertEqual("239.255.255.250:1900", message["HOST"])
            self.assertEqual("ssdp:alive", message["NTS"])
            self.assertEqual("max-age=1800", message["CACHE-CONTROL"])
            self.assertEqual(location, message["LOCATION"])
        self.assertEqual(0, simulator.stop())
        byebye = self.group.collect(5)
        self.assertEqual(expected, [(m["NT"], m["USN"]) for m in byebye])
        for message in byebye:
            self.assertEqual("ssdp:byebye", message["NTS"])
            self.assertNotIn("LOCATION", message.headers)

    def test_no_announce_and_silent_exit_say_nothing(self):
        simulator = self.simulate("lamp", "--no-announce", "--silent-exit")
        self.assertEqual(0, simulator.stop())
        self.assertEqual([], self.group.collect(0))

    def test_copies_repeat_every_announcement(self):
        self.simulate("lamp", "--copies", "3")
        self.assertEqual(15, len(self.group.collect(15)))

    def test_announcements_come_again_after_the_interval(self):
        self.simulate("lamp", "--announce-interval", "1")
        self.assertGreaterEqual(len(self.group.collect(10, quiet=0.1)), 10)

    def test_removal_says_byebye_and_killing_does_not(self):
        simulator = self.simulate("lamp", "--count", "2", "--no-announce")
        first, second = (device["udns"][0] for device in simulator.devices())
        simulator.do("kill 2")
        simulator.do("remove 1")
        byebye = self.group.collect(5)
        self.assertEqual({first}, {m["USN"].split("::")[0] for m in byebye})
        self.assertEqual({"ssdp:byebye"}, {m["NTS"] for m in byebye})
        simulator.do("revive 2")
        alive = self.group.collect(5)
        self.assertEqual({second}, {m["USN"].split("::")[0] for m in alive})
        self.assertEqual({"ssdp:alive"}, {m["NTS"] for m in alive})

    def test_a_killed_device_answers_no_search(self):
        simulator = self.simulate("lamp", "--count", "2", "--answers", "burst", "--no-announce")
        simulator.do("kill 1")
        client = SearchSocket()
        self.addCleanup(client.close)
        client.send(search_text("upnp:rootdevice"))
        answer, = client.collect(1)
        self.assertIn(simulator.device(1)["udns"][0], answer["USN"])

    def test_added_devices_announce_themselves_with_udns_of_their_own(self):
        simulator = self.simulate("lamp", "--no-announce")
        self.assertEqual([2, 3], simulator.do("add lamp count=2")["ids"])
        heard = {m["USN"].split("::")[0] for m in self.group.collect(10)}
        self.assertEqual({d["udns"][0] for d in simulator.devices()[1:]}, heard)
        self.assertEqual(3, len({d["udns"][0] for d in simulator.devices()}))
        self.assertEqual(["Lamp", "Lamp 2", "Lamp 3"], [d["name"] for d in simulator.devices()])

    def test_a_device_comes_back_with_the_same_udn_and_another_seed_gives_others(self):
        simulator = self.simulate("hub", "--no-announce")
        before = simulator.device()["udns"]
        simulator.stop()
        self.assertEqual(before, self.simulate("hub", "--no-announce").device()["udns"])
        other = self.simulate("hub", "--no-announce", "--seed", "other").device()["udns"]
        self.assertEqual(set(), set(before) & set(other))

    def test_a_new_interface_is_used_after_the_command(self):
        simulator = self.simulate("lamp", "--no-announce", "-i", "eth0", "-i", "extra0",
                                  "--answers", "burst")
        self.assertEqual(["eth0 " + DEVICES_HOST], simulator.ready["interfaces"])
        subprocess.run("ip link add extra0 type veth peer name extra0 netns devices && "
                       "ip addr add 10.78.7.1/24 dev extra0 && ip link set extra0 up", shell=True,
                       check=True)
        self.addCleanup(subprocess.run, ["ip", "link", "del", "extra0"], check=True)
        subprocess.run(on_devices(["ip", "addr", "add", "10.78.7.2/24", "dev", "extra0"]),
                       check=True)
        subprocess.run(on_devices(["ip", "link", "set", "extra0", "up"]), check=True)
        self.assertEqual(["eth0 " + DEVICES_HOST, "extra0 10.78.7.2"],
                         simulator.do("interfaces")["interfaces"])
        show = ["ip", "-o", "link", "show", "dev", "extra0"]
        for command in (show, on_devices(show)):
            self.assertTrue(wait_until(lambda: " state UP " in subprocess.run(
                command, capture_output=True, text=True, check=True).stdout))
        client = SearchSocket("10.78.7.1")
        self.addCleanup(client.close)
        client.send(search_text("upnp:rootdevice"))
        answer, = client.collect(1)
        self.assertIn("http://10.78.7.2:", answer["LOCATION"])


if __name__ == "__main__":
    unittest.main()
