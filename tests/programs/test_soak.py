"""The soak, for seconds instead of hours: it runs, and it sees what it is there to see."""

import argparse
import csv
import json
import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest

from support import BINARY_DIR, ROOT

SOAK = os.path.join(ROOT, "tests", "soak")
sys.path.insert(0, SOAK)
import run as soak_run  # noqa: E402


def options(out, hours, build=BINARY_DIR):
    return argparse.Namespace(hours=hours, build=build, out=out, devices=20, speed=8.0,
                              rate=40, seed=1, malloc="trimmed")


def in_a_quiet_house(out, hours, work):
    """Nobody comes, goes or stops."""
    soak = soak_run.Soak(options(out, hours), work)
    for name in ("_change_room", "_change_guest", "_stop"):
        setattr(soak.house, name, lambda: None)
    return soak


class SoakTest(unittest.TestCase):
    def setUp(self):
        out = tempfile.TemporaryDirectory()
        self.addCleanup(out.cleanup)
        self.out = out.name

    def test_a_house_changes_and_nothing_is_missed(self):
        result = subprocess.run(
            [sys.executable, os.path.join(SOAK, "run.py"), "0.005", "--speed", "8", "--devices",
             "30", "--build", BINARY_DIR, "--out", self.out, "--no-plot"],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=240)
        self.assertEqual(0, result.returncode, result.stdout[-4000:] + result.stderr)
        with open(os.path.join(self.out, "soak.csv"), encoding="ascii", newline="") as file:
            rows = list(csv.DictReader(file))
        self.assertGreaterEqual(len(rows), 2)
        for row in rows:
            for column in ("rss_kib", "pss_kib", "private_dirty_kib", "descriptors", "threads",
                           "devices"):
                self.assertGreater(float(row[column]), 0, column)
        for column in ("actions", "action_p50_us", "events", "event_p50_us"):
            self.assertGreater(max(float(row[column] or 0) for row in rows), 0, column)
        with open(os.path.join(self.out, "soak.json"), encoding="ascii") as file:
            told = json.load(file)
        self.assertEqual([], told["failures"])
        for name in ("joined", "byebye", "died", "stopped", "changes"):
            self.assertGreater(told["house"][name], 0, name)
        for name in ("actions", "changes", "added", "removed", "downloads", "served", "rescans"):
            self.assertGreater(told["host"][name], 0, name)
        self.assertEqual(told["host"]["actions"],
                         told["host"]["outcomes"] + told["host"]["cancelled"])

    def test_a_change_that_is_not_told_is_a_failure(self):
        with tempfile.TemporaryDirectory() as work:
            soak = in_a_quiet_house(self.out, 0.0005, work)
            device = next(device for device in soak.house.home.devices if device.kind == "lamp")
            # One change of which nobody is told.
            device.changes += 1
            # The next numbers would show it before the checkpoint does.
            soak.house._change = lambda: None
            soak.run()
        self.assertTrue(any(device.udn in failure and "missed" in failure
                            for failure in soak.failures), soak.failures)

    def test_a_gap_between_changes_is_a_violation(self):
        with tempfile.TemporaryDirectory() as work:
            # Far longer than it takes; it ends when the host has told the gap.
            soak = in_a_quiet_house(self.out, 0.05, work)
            soak.is_over = lambda: soak.host.violations or soak_run.Soak.is_over(soak)
            expected = []

            def change():
                device = next(device for device in soak.house.home.devices
                              if device.kind == "lamp")
                asked = "expect %s %d" % (device.udn, device.changes)
                if not expected and soak.host.ask(asked, 60)["seen"] == "told":
                    # It is subscribed, and up to date; now two changes come as one.
                    device.changes += 1
                    expected.append("told change %d behind %d" %
                                    (device.changes + 1, device.changes - 1))
                device.change()

            soak.house._change = change
            soak.run()
        self.assertEqual(1, len(expected), "the host was never told a change")
        self.assertTrue(any(expected[0] in failure for failure in soak.failures), soak.failures)


def children():
    """The processes that this one has started and not yet seen the end of."""
    found = set()
    for task in os.listdir("/proc/self/task"):
        try:
            with open("/proc/self/task/%s/children" % task, encoding="ascii") as file:
                found.update(file.read().split())
        except FileNotFoundError:
            pass  # The thread has ended.
    return found


class FailedStartTest(unittest.TestCase):
    """Whatever does not start, nothing of what did start before it is left."""

    def setUp(self):
        for name in ("build", "out", "work"):
            folder = tempfile.TemporaryDirectory()
            self.addCleanup(folder.cleanup)
            setattr(self, name, folder.name)
        self.before = children()

    def program(self, name, text=None):
        """The real one, or a script."""
        path = os.path.join(self.build, name)
        if text is None:
            os.symlink(os.path.join(BINARY_DIR, name), path)
            return
        with open(path, "w", encoding="ascii") as file:
            file.write("#!/bin/sh\n" + text)
        os.chmod(path, 0o755)

    def soak(self):
        return soak_run.Soak(options(self.out, 0.0005, self.build), self.work)

    def assert_nothing_is_left(self):
        self.assertEqual(set(), children() - self.before)

    def test_without_a_host_the_house_ends(self):
        self.program("vexsim")
        with self.assertRaises(FileNotFoundError):
            self.soak()
        self.assert_nothing_is_left()

    def test_a_host_that_ends_at_once_takes_the_house_with_it(self):
        self.program("vexsim")
        self.program("soak_host", "exit 3\n")
        soak = self.soak()
        self.assertNotEqual(set(), children() - self.before)
        with self.assertRaisesRegex(RuntimeError, "did not start"):
            soak.run()
        self.assert_nothing_is_left()

    def test_a_host_that_is_killed_while_it_lives_is_told_and_nothing_is_left(self):
        soak = in_a_quiet_house(self.out, 0.002, self.work)
        soak.house._change = soak.host.process.kill
        soak.run()
        self.assertTrue(any("ended by itself" in failure for failure in soak.failures),
                        soak.failures)
        self.assert_nothing_is_left()

    def test_a_house_of_which_a_part_does_not_come_up_ends(self):
        # The first process is the real one, and each later one ends without a word.
        self.program("vexsim", 'mkdir "%s/first" 2>/dev/null && exec "%s" "$@"\n' % (
            self.build, os.path.join(BINARY_DIR, "vexsim")))
        with self.assertRaises((BrokenPipeError, ValueError)):
            self.soak()
        self.assert_nothing_is_left()

    def test_what_fails_in_the_middle_leaves_nothing(self):
        soak = in_a_quiet_house(self.out, 0.002, self.work)

        def change():
            soak.house.sleeper.process.send_signal(signal.SIGSTOP)
            soak.house.sleeper.stopped = True
            raise RuntimeError("in the middle")

        soak.house._change = change
        with self.assertRaisesRegex(RuntimeError, "in the middle"):
            soak.run()
        self.assert_nothing_is_left()


class WarmUpTest(unittest.TestCase):
    """In a long run the house changes faster at first."""

    def speed(self, hours, seconds_ago):
        soak = object.__new__(soak_run.Soak)
        soak.options = argparse.Namespace(hours=hours, speed=2.0)
        soak.house = argparse.Namespace(speed=None)
        soak.begun = time.monotonic() - seconds_ago
        soak.set_speed()
        return soak.house.speed

    def test_the_house_rushes_through_four_minutes(self):
        self.assertEqual(16.0, self.speed(0.5, 0))
        self.assertEqual(16.0, self.speed(0.5, 230))
        self.assertEqual(2.0, self.speed(0.5, 240))

    def test_a_short_run_has_no_rush(self):
        self.assertEqual(2.0, self.speed(0.08, 0))


class JudgementTest(unittest.TestCase):
    """Growth, in rows of two hours that nobody had to wait for."""

    def rows(self, kib_per_hour):
        return [{"t_s": second, "rss_kib": 10000 + kib_per_hour * second / 3600}
                for second in range(10, 7200, 10)]

    def test_what_stays_does_not_grow(self):
        growth = soak_run.growth(self.rows(0), "rss_kib")
        self.assertEqual(0, growth["growth"])
        self.assertAlmostEqual(0, growth["trend_per_hour"])

    def test_a_steady_leak_is_told_with_its_trend(self):
        growth = soak_run.growth(self.rows(1000), "rss_kib")
        self.assertGreater(growth["growth"], 0.15)
        self.assertAlmostEqual(0.099, growth["trend_per_hour"], places=3)

    def test_the_warm_up_does_not_count(self):
        rows = [dict(row, rss_kib=row["rss_kib"] - (5000 if row["t_s"] < 250 else 0))
                for row in self.rows(0)]
        self.assertEqual(0, soak_run.growth(rows, "rss_kib")["growth"])


if __name__ == "__main__":
    unittest.main()
