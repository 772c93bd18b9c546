"""Which edges tunnelled packets are taken from: all of them, or with `lum core-peers known-only` the known ones."""

import os
import signal
import socket
import struct
import unittest

from lab import Capture, LabError, frames, wait_until

from .base import TwoSites, is_test_frame

MAIN_SAP, ADD_ADJACENCY, DELETE_ADJACENCY = 442, 78858, 78859
REASON = "core packet from an unknown peer"


class CorePeers(TwoSites):
    """The stranger is the core's router: it can reach the edge, and nobody has named it."""

    def setUp(self):
        self.edge = self.edges[1]
        self.stranger = f"198.18.{self.edge.node.site}.254"
        self.socket = self.open_socket()
        self.addCleanup(self.socket.close)
        self.assert_stretched(10)                            # a tunnel takes packets a moment after its overlay is up

    def tearDown(self):
        self.edge.corvsh("configure terminal", "no lum core-peers known-only", check=False)
        super().tearDown()

    def open_socket(self):
        return self.top.core.ns.socket(socket.AF_INET6 if self.FAMILY == 6 else socket.AF_INET, socket.SOCK_DGRAM)

    def send(self, frame):
        address = self.edge.node.ipv6 if self.FAMILY == 6 else self.edge.node.ipv4
        self.socket.sendto(bytes(4) + frames.overlay_tagged(frame, 10), (address, 8472))

    def count(self):
        return self.edge.drops().get(REASON, 0)

    def passes(self):
        """Whether a frame that the stranger tunnels comes out at the host; a refused one must have been counted."""
        host, before = self.top.host(1, 10), self.count()
        frame = frames.ethernet(host.mac, "02:00:00:00:05:05", 0x88B5, os.urandom(60))
        with Capture(host.ns, "eth0") as capture:
            self.send(frame)
            try:
                wait_until(lambda: frame in capture.frames(False) or self.count() > before, 5, "a verdict")
            except LabError as late:
                self.fail(str(late))
        arrived = [data for data in capture.frames(outgoing=False) if is_test_frame(data)]
        self.assertIn((arrived, self.count() - before), (([frame], 0), ([], 1)))
        return bool(arrived)

    def wait_passes(self, wanted):
        wait_until(lambda: self.passes() == wanted, 5, f"packets of the stranger {'pass' if wanted else 'are refused'}")

    def known_only(self):
        self.edge.configure("lum core-peers known-only")

    def test_a_stranger_is_heard_unless_configured_otherwise(self):
        self.assertTrue(self.passes())

    def test_with_known_only_a_stranger_is_refused_and_counted_and_the_sites_go_on(self):
        self.known_only()
        self.assertFalse(self.passes())
        before = self.count()
        self.assert_stretched(10)
        self.assertEqual(self.count(), before)
        self.edge.configure("no lum core-peers known-only")
        self.assertTrue(self.passes())

    def test_many_packets_of_a_stranger_hold_nothing_up(self):
        self.known_only()
        before = self.count()
        for _ in range(1000):
            self.send(self.site_frame(100))
        wait_until(lambda: self.count() >= before + 900, 5, "they are counted")
        self.assert_stretched(10)

    def test_a_route_of_another_process_makes_its_next_hop_known_while_it_is_there(self):
        self.known_only()
        self.edge.corvbus("rtab-set", "10", "02:00:00:00:0e:0e", "ip", "Overlay1", self.stranger)
        self.wait_passes(True)
        self.edge.corvbus("rtab-unset", "10", "02:00:00:00:0e:0e")
        self.wait_passes(False)

    def test_a_configured_route_makes_its_next_hop_known(self):
        self.known_only()
        line = f"lum route 10/02:00:00:00:0e:0f interface Overlay1 next-hop {self.stranger}"
        self.addCleanup(self.edge.corvsh, "configure terminal", f"no {line}", check=False)
        self.edge.configure(line)
        self.wait_passes(True)
        self.edge.configure(f"no {line}")
        self.wait_passes(False)

    def test_a_static_tunnel_makes_its_end_known(self):
        self.known_only()
        self.edge.configure(f"lum static-tunnel {self.stranger} interface eth0")
        self.wait_passes(True)
        self.edge.configure(f"no lum static-tunnel {self.stranger} interface eth0")
        self.wait_passes(False)

    def test_an_adjacency_is_known(self):
        self.known_only()
        word = struct.unpack(">I", frames.ip_bytes(self.stranger))[0]
        payload = (struct.pack("=I6sB", int(self.edge.overlay()["VPN ID"]), frames.mac_bytes("02:00:00:00:ed:03"), 0)
                   + struct.pack("=II12x8xII", 4, word, 0, 0)).hex()
        self.edge.corvbus("send", str(MAIN_SAP), str(ADD_ADJACENCY), payload)
        self.wait_passes(True)
        self.edge.corvbus("send", str(MAIN_SAP), str(DELETE_ADJACENCY), payload)
        self.wait_passes(False)

    def test_the_setting_outlives_corvaned_and_lum(self):
        self.known_only()
        self.assertIn("lum core-peers known-only\n", self.edge.corvsh("show running-config"))
        os.kill(self.edge.process.pid, signal.SIGKILL)
        self.edge.process.wait(5)
        self.edge.start_with(["--config", self.edge.config_file])
        self.edge.wait_overlay()
        self.assertFalse(self.passes())
        self.assert_stretched(10)
        killed = self.edge.kill_lum()
        wait_until(lambda: self.edge.lum_pid() not in (None, killed), 15, "lum is back")
        self.edge.wait_overlay()
        self.assert_stretched(10)
        self.assertFalse(self.passes())


class CorePeersOverIpv6(CorePeers):
    FAMILY = 6

    def setUp(self):
        super().setUp()
        self.stranger = f"2001:db8:{self.edge.node.site:x}::fe"

    test_an_adjacency_is_known = None                        # of IPv4


class CorePeersOverGre(CorePeers):
    CONFIG = {"local_routes": True, "overlay_lines": ("lum vpn-encap-format gre ip", "lum vlan 10 trunk-port")}

    def open_socket(self):
        return self.top.core.ns.socket(socket.AF_INET, socket.SOCK_RAW, frames.GRE)

    def send(self, frame):
        tagged = frame[:12] + b"\x81\x00\x00\x0a" + frame[12:]
        self.socket.sendto(b"\x00\x00\x65\x58" + tagged, (self.edge.node.ipv4, 0))


if __name__ == "__main__":
    unittest.main()
