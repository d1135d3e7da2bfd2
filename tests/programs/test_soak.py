"""The soak, for seconds instead of hours: it runs, and it sees what it is there to see."""

import argparse
import csv
import json
import os
import subprocess
import sys
import tempfile
import unittest

from support import BINARY_DIR, ROOT

SOAK = os.path.join(ROOT, "tests", "soak")
sys.path.insert(0, SOAK)
import run as soak_run  # noqa: E402


def options(out, hours):
    return argparse.Namespace(hours=hours, build=BINARY_DIR, out=out, devices=20, speed=8.0,
                              rate=40, seed=1, malloc="plain")


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
            soak = in_a_quiet_house(self.out, 0.002, work)
            told = []

            def change():
                device = next(device for device in soak.house.home.devices
                              if device.kind == "lamp")
                # When all have long been subscribed, two changes come as one.
                device.changes += 1 if len(told) == 60 else 0
                device.change()
                told.append(device.udn)

            soak.house._change = change
            soak.run()
        self.assertTrue(any("told change 62 behind 60" in failure for failure in soak.failures),
                        soak.failures)


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
