"""The library's log lines in a process that has no sink for them: what VEXUPNPCP_LOG opens."""

import os
import re
import subprocess
import unittest

from support import BINARY_DIR, SimulatorTest

PROGRAM = os.path.join(BINARY_DIR, "vexcp")
# "TAG LEVEL FILE: FUNCTION(LINE) > TEXT"; a text may have lines of its own.
LINE = re.compile(r"^(VEX_CORE_\w+) (16|4|2) (\w+\.(?:cpp|h)): (~?\w+)\(\d+\) > (.*)$", re.MULTILINE)
FRAMEWORK = "VEX_CORE_FRAMEWORK_CONTROLLER"


class LogTest(SimulatorTest):
    def setUp(self):
        self.simulate("lamp", "--answers", "burst")

    def lines(self, opened):
        """(tag, level, text) of each line of a search."""
        environment = {name: value for name, value in os.environ.items() if name != "VEXUPNPCP_LOG"}
        if opened is not None:
            environment["VEXUPNPCP_LOG"] = opened
        result = subprocess.run([PROGRAM, "discover", "--wait", "1"], stdin=subprocess.DEVNULL,
                                capture_output=True, text=True, timeout=60, env=environment)
        self.assertNotIn(" > ", result.stdout)
        found = [(tag, int(level), text) for tag, level, _, _, text in LINE.findall(result.stderr)]
        if not found:
            self.assertNotIn("VEX_CORE_", result.stderr)
        return found

    def test_nothing_is_printed_unless_asked_for(self):
        self.assertEqual([], self.lines(None))
        self.assertEqual([], self.lines(""))
        self.assertEqual([], self.lines("VEX_CORE"))

    def test_sixteen_opens_the_important_lines(self):
        lines = self.lines("16")
        self.assertIn((FRAMEWORK, 16, "Entering InitFrameworkCore "), lines)
        self.assertEqual({16}, {level for _, level, _ in lines})

    def test_four_opens_the_steps_too(self):
        lines = self.lines("4")
        self.assertIn((FRAMEWORK, 16, "Entering InitFrameworkCore "), lines)
        self.assertIn((FRAMEWORK, 4, "Exiting InitFrameworkCore "), lines)
        self.assertEqual({16, 4}, {level for _, level, _ in lines})

    def test_a_tag_opens_its_own_lines_whatever_their_level(self):
        lines = self.lines(FRAMEWORK)
        self.assertIn((FRAMEWORK, 16, "Entering InitFrameworkCore "), lines)
        self.assertIn((FRAMEWORK, 4, "Exiting InitFrameworkCore "), lines)
        self.assertEqual({FRAMEWORK}, {tag for tag, _, _ in lines})

    def test_a_level_and_a_tag_open_what_either_opens(self):
        lines = self.lines("16, " + FRAMEWORK)
        self.assertIn((FRAMEWORK, 4, "Exiting InitFrameworkCore "), lines)
        self.assertEqual({16}, {level for tag, level, _ in lines if tag != FRAMEWORK})


if __name__ == "__main__":
    unittest.main()
