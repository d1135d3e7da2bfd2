"""The demo shows what it promises, and says so when it does not."""

import hashlib
import os
import pty
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


def stub(folder, name, text):
    path = os.path.join(folder, name)
    with open(path, "w", encoding="utf-8") as file:
        file.write("#!/bin/sh\n" + text)
    os.chmod(path, 0o755)


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

    def pauses_on_a_terminal(self, seconds_a_look):
        """The pauses for somebody who reads, in seconds. They take no time here, and each look at the
        clock shows it that much later."""
        with tempfile.TemporaryDirectory() as folder:
            taken = os.path.join(folder, "taken")
            stub(folder, "sleep", '[ "$1" != 0.05 ] || exec /bin/sleep 0.05\necho "$1" >>"%s"\n' % taken)
            stub(folder, "date", 'echo . >>"%s/looks"\necho $(($(wc -l <"%s/looks") * %d))\n'
                 % (folder, folder, seconds_a_look))
            screen, terminal = pty.openpty()
            process = subprocess.Popen(
                ["timeout", "120", DEMO, "--build", os.path.abspath(BINARY_DIR)], stdin=subprocess.DEVNULL,
                stdout=terminal, stderr=subprocess.PIPE,
                env=dict(os.environ, PATH=folder + ":" + os.environ["PATH"]))
            os.close(terminal)
            shown = b""
            try:
                while True:
                    shown += os.read(screen, 65536)
            except OSError:  # The terminal is nobody's any more.
                pass
            os.close(screen)
            self.assertEqual(0, process.wait(120), shown + process.stderr.read())
            process.stderr.close()
            self.assertIn(b"All of it was seen.", shown)
            with open(taken, encoding="ascii") as file:
                return [float(line) for line in file]

    def test_somebody_who_watches_gets_time_to_read_but_not_more_than_there_is(self):
        # Without pauses it takes five to seven seconds, of twenty.
        pauses = self.pauses_on_a_terminal(0)
        self.assertGreater(len(pauses), 5)
        self.assertGreaterEqual(min(pauses), 1)
        self.assertLessEqual(sum(pauses), 13)
        # A machine that is slow makes none after 17 seconds.
        self.assertEqual(4, len(self.pauses_on_a_terminal(4)))

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
