"""Two lum processes under one corvaned: who serves, who stands by, and what hosts notice when that changes."""

import os
import re
import signal
import time
from pathlib import Path

from lab import LabError, wait_until

from .base import TwoSites as _TwoSites

TRANSPORT_PORT = 8472


def udp_sockets(pid):
    table = Path(f"/proc/{pid}/net/udp").read_text().splitlines()[1:]
    inodes = {fields[9] for fields in map(str.split, table) if fields[1].endswith(f":{TRANSPORT_PORT:04X}")}
    own = {os.readlink(link) for link in Path(f"/proc/{pid}/fd").iterdir()}
    return {inode for inode in inodes if f"socket:[{inode}]" in own}


def rings(pid):
    table = Path(f"/proc/{pid}/net/packet").read_text().splitlines()[1:]
    inodes = {fields[8] for fields in map(str.split, table)}
    own = {os.readlink(link) for link in Path(f"/proc/{pid}/fd").iterdir()}
    return {inode for inode in inodes if f"socket:[{inode}]" in own}


def threads(pid):
    names = []
    for task in Path(f"/proc/{pid}/task").iterdir():
        names.append((task / "comm").read_text().strip())
    return names


class Standby(_TwoSites):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        edge = cls.edges[1]
        edge.stop()
        edge.start(edge.config(local_routes=True), options=["--standby"])
        edge.wait_overlay()

    def setUp(self):
        self.edge = self.edges[1]
        self.active = wait_until(self.edge.lum_pid, 10, "a lum is active")
        self.standby = self.standing_by()

    def standing_by(self, but=()):
        """Process id of the lum that stands by, once it has registered its commands."""
        def ready():
            try:
                pid = int((self.edge.root / "lum-standby.pid").read_text().split()[0])
                return pid not in but and "lum-cli-thread" in threads(pid) and pid
            except (OSError, ValueError, IndexError):
                return None
        return wait_until(ready, 20, "a lum stands by")

    def assert_taken_over(self, timeout=10):
        """The one that stood by is active, works, and another one stands by."""
        wait_until(lambda: self.edge.lum_pid() == self.standby, timeout, "the standing-by lum is active")
        self.edge.wait_overlay()
        for vlan in self.top.vlans:
            self.assert_stretched(vlan)
        self.assertEqual(len(udp_sockets(self.standby)), 1)
        self.standing_by(but=(self.active, self.standby))

    def test_the_one_that_stands_by_has_its_commands_and_nothing_else(self):
        self.assertEqual(udp_sockets(self.standby), set())
        self.assertEqual(rings(self.standby), set())
        self.assertNotIn("lum-pm-thread", threads(self.standby))
        self.assertEqual(len(udp_sockets(self.active)), 1)
        self.assertGreaterEqual(len(rings(self.active)), 2)
        self.assertIn("lum-pm-thread", threads(self.active))

    def test_switchover_makes_it_the_active_one(self):
        self.edge.configure("lum anycast-arp 10.1.9.9")      # after it came up
        try:
            self.edge.corvsh("switchover")
            self.assert_taken_over()
            self.assertIn("lum anycast-arp 10.1.9.9", self.edge.corvsh("show running-config"))
            self.assertIn(f"lum (process {self.active}) ended with status 0", self.edge.output())
        finally:
            self.edge.configure("no lum anycast-arp 10.1.9.9")

    def test_it_takes_over_from_one_that_was_killed(self):
        os.kill(self.active, signal.SIGKILL)
        self.assert_taken_over()

    def test_it_takes_over_from_one_that_hangs(self):
        os.kill(self.active, signal.SIGSTOP)
        self.assert_taken_over(15)
        self.assertTrue(re.search(rf"lum \(process {self.active}\).*heartbeat", self.edge.output()),
                        self.edge.log_tail(15))

    def test_one_that_dies_while_standing_by_is_replaced_and_hosts_notice_nothing(self):
        os.kill(self.standby, signal.SIGKILL)
        self.assertEqual(self.top.host(1, 10).ping(self.top.host(2, 10).ipv4), 3)
        self.standing_by(but=(self.standby,))
        self.assertEqual(self.edge.lum_pid(), self.active)

    def test_a_second_switchover_before_one_stands_by_is_refused_and_harmless(self):
        self.edge.corvsh("switchover")
        with self.assertRaises(LabError) as refused:
            for _ in range(20):
                self.edge.corvsh("switchover")
        self.assertRegex(str(refused.exception), "There is no standing-by lum|lum is stopping already")
        wait_until(lambda: self.edge.lum_pid() not in (None, self.active), 10, "another lum is active")
        self.edge.wait_overlay()
        self.assert_stretched(10)
        self.standing_by(but=(self.edge.lum_pid(),))



class Feature(_TwoSites):
    """`stop lum` and `start lum`: the feature manager's requests, as their user makes them."""

    def test_starting_one_that_runs_tells_it_and_changes_nothing(self):
        edge = self.edges[1]
        before = edge.lum_pid()
        edge.corvsh("debug lum internal", "start lum", "no debug lum internal")
        edge.wait_log("Feature enable request received")
        edge.wait_log(f"process {before} answered for feature 581: status 0")
        edge.wait_log("feature 581 enabled, status 0")
        self.assertEqual(edge.lum_pid(), before)
        self.assert_stretched(10)

    def test_stopping_ends_the_process_in_order_with_all_that_it_held(self):
        edge = self.edges[2]
        pid, net = edge.lum_pid(), Path(f"/proc/{edge.process.pid}/net")
        held = udp_sockets(pid) | rings(pid)
        files = len(list(Path(f"/proc/{pid}/fd").iterdir()))
        self.assertGreaterEqual(len(held), 3)
        edge.corvsh("stop lum")
        edge.wait_log(f"lum (process {pid}) ended with status 0")
        self.assertIn(f"process {pid} answered for feature 581: status 0", edge.output())
        self.assertFalse(Path(f"/proc/{pid}").exists())
        left = {fields[9] for fields in map(str.split, (net / "udp").read_text().splitlines()[1:])}
        left |= {fields[8] for fields in map(str.split, (net / "packet").read_text().splitlines()[1:])}
        self.assertEqual(held & left, set())
        with self.assertRaises(LabError) as refused:
            edge.corvsh("stop lum")
        self.assertIn("lum is not running", str(refused.exception))
        time.sleep(1)
        self.assertIsNone(edge.lum_pid(), "it stays away")
        edge.corvsh("start lum")
        # The next one binds the same SAPs and the same port, and needs as many descriptors.
        following = wait_until(lambda: edge.lum_pid() not in (None, pid) and edge.lum_pid(), 15, "another lum is up")
        edge.wait_overlay()
        self.assert_stretched(10)
        self.assertLessEqual(abs(len(list(Path(f"/proc/{following}/fd").iterdir())) - files), 1)
