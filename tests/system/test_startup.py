"""Start, stop and configuration of an edge: orders, mistakes, things that are missing or in the way."""

import os
import shutil
import signal
import socket
import time
import unittest

from lab import Edge, Lab, programs_dir, two_sites, wait_until

from .base import TwoSites


class StartUp(unittest.TestCase):
    """One edge, started anew by each test."""

    def setUp(self):
        self.lab = self.enterContext(Lab())
        self.top = two_sites(self.lab, group_routes=False)
        self.edge = Edge(self.top, 1)

    def test_the_overlay_is_up_from_a_startup_file(self):
        self.edge.start()
        self.edge.wait_overlay("UP")

    def test_an_orderly_stop_ends_with_status_0_and_takes_lum_along(self):
        self.edge.start()
        pid = self.edge.lum_pid()
        self.assertEqual(self.edge.stop(), 0)
        self.assertFalse(os.path.exists(f"/proc/{pid}"))
        self.assertIn("Shutting down LUM process", self.edge.output())

    def test_what_is_written_is_there_at_the_next_start(self):
        self.edge.start()
        self.edge.configure("interface Overlay1", "lum vpn-name red", "end", "write")
        self.assertEqual(self.edge.stop(), 0)
        self.edge.start_with(["--config", self.edge.config_file])
        self.edge.wait_overlay("UP")
        self.assertEqual(self.edge.overlay()["VPN Name"], "red")

    def test_an_edge_needs_no_startup_file(self):
        self.edge.start_with([])
        self.edge.configure("interface Overlay1", "lum vpn-name red", "lum vpn-ext-if eth0",
                            f"lum vpn-mgroup-addr {self.top.group}", "end", "write")
        self.edge.wait_overlay("UP")
        self.assertEqual(self.edge.stop(), 0)
        self.edge.start_with([])
        self.edge.wait_overlay("UP")
        self.assertEqual(self.edge.overlay()["VPN Name"], "red")

    def test_configuration_works_in_any_order(self):
        blocks, block = [], []
        for line in self.edge.config(local_routes=True).splitlines():
            if block and not line.startswith(" "):
                blocks.append(block)
                block = []
            block.append(line)
        blocks.append(block)
        # The lines of each block turned round too, but for the one that opens it.
        turned = [line for block in reversed(blocks) for line in (block[0], *reversed(block[1:]))]
        self.edge.start("\n".join(turned) + "\n")
        self.edge.wait_overlay("UP")
        shown = self.edge.corvsh("show running-config")
        for line in ("lum vpn-name blue", "lum vpn-vlan 10,20", "lum vpn-ext-if eth0"):
            self.assertIn(line, shown)

    def test_the_overlay_comes_up_when_its_missing_core_interface_appears(self):
        config = self.edge.config().replace("vpn-ext-if eth0", "vpn-ext-if late0")
        self.edge.start(config)
        self.edge.wait_overlay("DOWN")
        self.assertIn("Incomplete Parameters", self.edge.corvsh("show lum overlay Overlay1"))
        self.edge.ns.ip("link add late0 type veth peer name late1", "addr add 198.51.100.7/24 dev late0",
                        "link set late0 up", "link set late1 up")
        self.edge.wait_overlay("UP")
        self.assertEqual(self.edge.overlay()["External IPv4 address"], "198.51.100.7")

    def test_a_configured_port_that_is_missing_is_reported_kept_and_taken_when_it_appears(self):
        config = "interface eth7\n  switchport\n  switchport access vlan 10\n  lum vlan 10\n" + self.edge.config()
        self.edge.start(config)
        self.edge.wait_overlay("UP")
        self.assertIn("eth7", self.edge.output())
        self.assertIn("interface eth7", self.edge.corvsh("show running-config"))
        other = self.lab.namespace("late")
        self.lab.link(other, "eth0", self.edge.ns, "eth7")
        wait_until(lambda: "eth7" in self.edge.corvsh("show lum interface"), 10, "eth7 is served")

    def test_a_busy_udp_port_is_named_and_everything_else_runs(self):
        busy = self.edge.ns.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.addCleanup(busy.close)
        busy.bind(("0.0.0.0", 8472))
        self.edge.start()
        self.edge.wait_log("bind() on lum_ip_udp_sid failed: Address already in use")
        self.assertIn("8472", self.edge.output())
        self.edge.wait_overlay("UP")

    def test_garbage_in_the_configuration_is_reported_and_the_rest_is_taken(self):
        garbage = "\x01\x02\xff%s%n" * 30 + "\n" + "interface\n  \n" + "x" * 70000 + "\nlum lum lum\n  switchport\n"
        self.edge.start(garbage + self.edge.config())
        self.edge.wait_overlay("UP")
        self.assertRegex(self.edge.output(), r"lum lum lum|line \d+")

    def test_a_configuration_of_random_bytes_leaves_an_edge_that_can_be_configured(self):
        self.edge.start("", wait=False).stop()
        self.edge.config_file.write_bytes(os.urandom(100_000))
        self.edge.start_with(["--config", self.edge.config_file])
        self.edge.configure("interface Overlay1", "lum vpn-name blue")
        self.assertEqual(self.edge.overlay()["VPN Name"], "blue")

    def test_a_missing_configuration_file_is_named(self):
        self.edge.start_with(["--config", "/nonexistent/startup.cfg"], wait=False)
        self.edge.wait_log("/nonexistent/startup.cfg")

    def test_a_garbage_grammar_is_reported_and_the_platform_goes_on(self):
        programs = self.lab.path / "programs"
        shutil.copytree(programs_dir(), programs, symlinks=True, ignore=shutil.ignore_patterns("*_tests", "contract*"))
        grammars = list(programs.glob("*.cli"))
        self.assertTrue(grammars)
        for grammar in grammars:
            if grammar.name == "lum.cli":
                grammar.write_bytes(os.urandom(5000) + b"\n\n{{{<<<\n")
        edge = Edge(self.top, 1, programs)
        edge.start()
        self.assertIn("lum.cli", edge.output())
        self.assertIn("eth0", edge.corvsh("show interface"))

    def test_two_edges_on_one_machine_do_not_touch_each_other(self):
        other = Edge(self.top, 2)
        self.edge.start()
        other.start()
        self.edge.configure("interface Overlay1", "lum vpn-name red")
        self.assertEqual(self.edge.overlay()["VPN Name"], "red")
        self.assertEqual(other.overlay()["VPN Name"], "blue")


class Restart(TwoSites):
    """What survives the end of a process, planned or not."""

    def test_lum_that_was_killed_comes_back_with_its_configuration(self):
        self.assert_stretched(10)
        edge = self.edges[1]
        before = edge.corvsh("show running-config")
        killed = edge.kill_lum()
        pid = wait_until(lambda: edge.lum_pid() not in (None, killed) and edge.lum_pid(), 15, "lum is back")
        self.assertNotEqual(pid, killed)
        edge.wait_overlay("UP")
        self.assert_stretched(10)
        self.assert_stretched(20)
        self.assertEqual(edge.corvsh("show running-config"), before)

    def test_restart_lum_does_the_same_in_order(self):
        edge = self.edges[2]
        before = edge.lum_pid()
        edge.corvsh("restart lum")
        wait_until(lambda: edge.lum_pid() not in (None, before), 15, "lum is back")
        edge.wait_overlay("UP")
        self.assert_stretched(10)

    def test_lum_that_is_killed_again_and_again_still_comes_back(self):
        edge = self.edges[1]
        for _ in range(3):
            killed = edge.kill_lum()
            wait_until(lambda: edge.lum_pid() not in (None, killed), 30, "lum is back")
        edge.wait_overlay("UP")
        self.assert_stretched(20)

    def test_a_corvaned_that_was_held_up_blames_no_lum_for_it(self):
        edge = self.edges[1]
        before = edge.lum_pid()
        os.kill(edge.process.pid, signal.SIGSTOP)
        time.sleep(6)                                        # more than a lum may be silent
        os.kill(edge.process.pid, signal.SIGCONT)
        time.sleep(1.5)                                      # the next look at heartbeats
        self.assertEqual(edge.lum_pid(), before)
        self.assertNotIn("sends no heartbeats", edge.output())

    def test_hosts_talk_on_while_corvaned_is_gone_and_it_takes_over_again(self):
        edge = self.edges[1]
        os.kill(edge.process.pid, signal.SIGKILL)
        edge.process.wait(5)
        self.assertEqual(self.top.host(1, 10).ping(self.top.host(2, 10).ipv4), 3)
        edge.start_with(["--config", edge.config_file])
        edge.wait_overlay("UP")
        self.assert_stretched(10)
        self.assert_stretched(20)


if __name__ == "__main__":
    unittest.main()
