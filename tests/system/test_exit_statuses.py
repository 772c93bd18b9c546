"""How the daemon ends when it cannot start: its exit status, and what it says on the way."""

import os
import subprocess
import tempfile
import unittest

from lab import Edge, Lab, programs_dir, two_sites

USAGE = "<<%LUM-6-USAGE>> Usage: lum [-h] [-d] [-m <memory-in-mb>]"
BAD_COMMAND_LINE = "<<%LUM-3-API_FAILED>> cmdopt_dispatch() failed"
NO_INITIALISATION = ["<<%LUM-3-API_FAILED>> lum_init() failed",
                     "<<%LUM-6-SHUTDOWN>> Shutting down LUM process start",
                     "<<%LUM-6-SHUTDOWN>> Shutting down LUM process done"]


def run_lum(*argv, root, before=(), **environment):
    """Exit status and lines of a lum that is not expected to come up."""
    done = subprocess.run([*before, programs_dir() / "lum", *argv], capture_output=True, text=True, timeout=60,
                          check=False, env={**os.environ, "CORVANE_ROOT": str(root), **environment})
    return done.returncode, (done.stdout + done.stderr).splitlines()


class ExitStatuses(unittest.TestCase):
    """No platform is there: what is logged goes to stderr."""

    def setUp(self):
        self.root = self.enterContext(tempfile.TemporaryDirectory())

    def test_help_prints_the_usage_and_ends_with_status_1(self):
        self.assertEqual(run_lum("-h", root=self.root), (1, [USAGE, BAD_COMMAND_LINE]))

    def test_the_option_that_the_usage_advertises_is_refused_with_status_1(self):
        for argv in (("-m", "64"), ("-m",), ("-d", "-x"), ("stray",)):
            self.assertEqual(run_lum(*argv, root=self.root), (1, [BAD_COMMAND_LINE]), argv)

    def test_a_tag_is_an_option_like_any_other(self):
        self.assertEqual(run_lum("-t", "anything", "-h", root=self.root), (1, [USAGE, BAD_COMMAND_LINE]))

    def test_a_tag_is_traced_and_the_start_is_not(self):
        status, lines = run_lum("-d", "-t", "anything", "-h", root=self.root)
        self.assertEqual((status, lines), (1, ["Tag is anything", USAGE, BAD_COMMAND_LINE]))

    def test_a_priority_that_cannot_be_set_ends_it_with_status_255(self):
        powerless = ("setpriv", "--bounding-set", "-sys_nice", "prlimit", "--rtprio=0")
        self.assertEqual(run_lum(root=self.root, before=powerless, CORVANE_REALTIME="1"),
                         (255, ["<<%LUM-3-NO_SET_PRIORITY>> Failed to set policy or priority"]))

    def test_without_a_bus_it_cleans_up_and_ends_with_status_255(self):
        status, lines = run_lum(root=self.root)
        self.assertEqual(status, 255)
        self.assertRegex(lines[0], r"Error returned from mbus_bind\(\) for main mbus-q mbus queue, errno: \w+")
        self.assertEqual(lines[1:], NO_INITIALISATION)


class SecondOfItsKind(unittest.TestCase):
    """A lum started beside the one that corvaned runs."""

    def test_it_finds_the_main_queue_taken_and_leaves_the_first_one_alone(self):
        lab = self.enterContext(Lab())
        edge = Edge(two_sites(lab, group_routes=False), 1).start()
        first = edge.lum_pid()
        status, _ = run_lum(root=edge.root)
        self.assertEqual(status, 255)
        edge.wait_log("mbus_bind() for main mbus-q mbus queue, errno: Address already in use")
        edge.wait_log("lum_init() failed")
        edge.wait_overlay("UP")
        self.assertEqual(edge.lum_pid(), first)
