"""The demo as a user runs it, with the programs under test in place of a build of its own."""

import os
import re
import signal
import subprocess
import unittest
from pathlib import Path

from lab import programs_dir, wait_until
from lab.netns import LAB_DIR, NETNS_DIR

ROOT = Path(__file__).resolve().parents[2]
TIME_LIMIT_S = 90


def demo(*arguments):
    environment = {**os.environ, "LUM_BIN": str(programs_dir())}
    return subprocess.Popen([ROOT / "demo", *arguments], cwd="/", env=environment, text=True, stdin=subprocess.DEVNULL,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)


class DemoCase(unittest.TestCase):
    def run_demo(self, *arguments):
        program = demo(*arguments)
        output, _ = program.communicate(timeout=TIME_LIMIT_S)
        return program.returncode, output

    def assert_good(self, status, output):
        self.assertEqual(status, 0, output)
        self.assertIn("Verdict: the VLANs are stretched across the core", output)
        self.assertNotIn("FAIL", output)


class DemoOverIpv6(DemoCase):
    def test_it_shows_two_sites_over_an_ipv6_core(self):
        self.assert_good(*self.run_demo("--core6"))


class DemoOverIpv4(DemoCase):
    def test_it_shows_two_sites(self):
        self.assert_good(*self.run_demo())

    def test_it_removes_everything_when_interrupted(self):
        program = demo()
        output = ""
        while "Edges:" not in output:
            line = program.stdout.readline()
            self.assertTrue(line, output)
            output += line
        own = f"lab{program.pid}x"                           # the demo becomes the program that was started
        self.assertTrue(list(LAB_DIR.glob(f"{own}*")))
        os.kill(program.pid, signal.SIGINT)
        rest, _ = program.communicate(timeout=30)
        self.assertEqual(program.returncode, 128 + signal.SIGINT)
        self.assertIn("everything is removed", rest)
        wait_until(lambda: not list(NETNS_DIR.glob(f"{own}*")) + list(LAB_DIR.glob(f"{own}*")), 5, "nothing is left")


class DemoThatStays(DemoCase):
    @unittest.skipIf((LAB_DIR / "demo").exists(), "a demo that was kept is running")
    def test_it_can_be_entered_and_removed(self):
        self.addCleanup(self.run_demo, "--down")
        status, output = self.run_demo("--keep")
        self.assert_good(status, output)
        self.assertIn("./demo shell edge1", output)
        status, output = self.run_demo("shell", "edge1", "corvsh", "-c", "show lum overlay summary")
        self.assertEqual(status, 0)
        self.assertTrue(re.search(r"Overlay1\s+blue\s+\d+\s+UP", output), output)
        self.assertEqual(self.run_demo("--down")[0], 0)
        self.assertEqual(list(NETNS_DIR.glob("demo-*")), [])


if __name__ == "__main__":
    unittest.main()
