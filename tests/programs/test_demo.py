"""The demo shows what it promises, and says so when it does not."""

import hashlib
import os
import subprocess
import tempfile
import time
import unittest

from support import BINARY_DIR, ROOT

DEMO = os.path.join(ROOT, "tools", "demo.sh")
TONE = os.path.join(ROOT, "apps", "vexsim", "devices", "mediaserver", "media", "tone.wav")


def run(*arguments):
    return subprocess.run([DEMO, *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                          text=True, timeout=120)


class DemoTest(unittest.TestCase):
    def test_it_shows_devices_coming_a_lamp_switched_and_a_tree_in_time(self):
        started = time.monotonic()
        result = run("--build", os.path.abspath(BINARY_DIR))
        self.assertEqual(0, result.returncode, result.stdout + result.stderr)
        self.assertLess(time.monotonic() - started, 60)
        for part in ("+ Lamp  DimmableLight:1", "- Lamp  DimmableLight:1", "+ Media & more",
                     "\n`-Hub library", "\n  `-Hub backlight", "* AVTransport:1", "All of it"):
            self.assertIn(part, result.stdout)
        # The lamp is off, is switched, and says so.
        self.assertRegex(result.stdout,
                         r"(?s)SwitchPower:1  Status = 0\n.*newTargetValue=1.*\ndone\n"
                         r".*SwitchPower:1  Status = 1\n.*- Lamp  DimmableLight:1")
        # The media server's file arrived whole.
        with open(TONE, "rb") as tone:
            self.assertIn(hashlib.sha256(tone.read()).hexdigest() + "  tone.wav", result.stdout)

    def test_it_fails_when_nothing_is_found(self):
        with tempfile.TemporaryDirectory() as build:
            os.symlink(os.path.abspath(os.path.join(BINARY_DIR, "vexsim")),
                       os.path.join(build, "vexsim"))
            blind = os.path.join(build, "vexcp")
            with open(blind, "w", encoding="utf-8") as file:
                file.write("#!/bin/sh\nexec sleep 30\n")
            os.chmod(blind, 0o755)
            result = run("--build", build)
        self.assertEqual(1, result.returncode)
        self.assertIn("did not happen", result.stderr)
        self.assertNotIn("All of it", result.stdout)

    def test_it_says_what_is_missing_and_how_it_is_used(self):
        with tempfile.TemporaryDirectory() as empty:
            result = run("--build", empty)
        self.assertEqual(1, result.returncode)
        self.assertIn("./dev build", result.stderr)
        result = run("--fast")
        self.assertEqual(2, result.returncode)
        self.assertIn("--real", result.stdout)


if __name__ == "__main__":
    unittest.main()
