"""Overlays in GRE format: the packet service is the tunnel, the daemon builds no outer header."""

import unittest

from lab import Capture, frames, wait_until
from lab.capture import Sender

from .base import TwoSites, is_test_frame

TRANSPARENT_BRIDGING = 0x6558


class GreOverIpv4(TwoSites):
    FAMILY = 4
    CONFIG = {"local_routes": True, "overlay_lines": ("lum vpn-encap-format gre ip", "lum vlan 10 trunk-port")}

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        # The tunnel follows the overlay's record, a moment behind it.
        one, other = cls.top.host(1, 10), cls.top.host(2, 10)
        wait_until(lambda: one.ping(other.ipv4, count=1) and other.ping(one.ipv4, count=1), 10, "the tunnel")

    def gre_packets(self, capture):
        """(outer IP, inner frame) of GRE packets that edge1 sent into the core."""
        found = []
        for frame in capture.decoded(outgoing=False):
            ip = frame.ip()
            if ip and ip.protocol == frames.GRE:
                self.assertEqual(ip.payload[:4], TRANSPARENT_BRIDGING.to_bytes(4, "big"))
                found.append((ip, frames.decode_ethernet(ip.payload[4:])))
        return found

    def test_hosts_of_a_vlan_reach_each_other(self):
        for vlan in self.top.vlans:
            self.assert_stretched(vlan)

    def test_hosts_of_different_vlans_stay_apart(self):
        self.assertEqual(self.top.host(1, 10).ping(self.top.host(2, 20).ipv4, count=2, wait=0.3), 0)

    def test_a_unicast_frame_goes_to_its_edge_with_a_standard_tag(self):
        sent, other = self.site_frame(100), self.top.host(2, 10)
        with self.core() as core, Capture(other.ns, "eth0") as far, Sender(self.top.host(1, 10).ns) as sender:
            sender.send(sent)
        packets = [(ip, f) for ip, f in self.gre_packets(core) if f.ethertype == 0x88B5]
        self.assertEqual([(ip.src, ip.dst, f.vlan) for ip, f in packets],
                         [(self.top.edge_address(1), self.top.edge_address(2), 10)])
        self.assertEqual([f.hex() for f in far.frames(outgoing=False) if is_test_frame(f)], [sent.hex()])

    def test_a_broadcast_frame_goes_to_the_group_and_arrives_once(self):
        sent, other = self.site_frame(100, dst=frames.BROADCAST), self.top.host(2, 10)
        with self.core() as core, Capture(other.ns, "eth0") as far, Sender(self.top.host(1, 10).ns) as sender:
            sender.send(sent)
        packets = [(ip, f) for ip, f in self.gre_packets(core) if f.ethertype == 0x88B5]
        self.assertEqual([(ip.src, ip.dst, f.vlan) for ip, f in packets],
                         [(self.top.edge_address(1), self.top.group, 10)])
        self.assertEqual([f.hex() for f in far.frames(outgoing=False) if is_test_frame(f)], [sent.hex()])

    def test_tcp_crosses(self):
        report = self.top.host(1, 10).tcp(self.top.host(2, 10), seconds=2)
        self.assertGreater(report["end"]["sum_received"]["bytes"], 1_000_000)


class GreOverIpv6(GreOverIpv4):
    FAMILY = 6
    CONFIG = {"local_routes": True, "overlay_lines": ("lum vpn-encap-format gre ipv6", "lum vlan 10 trunk-port")}


class GreOverASmallCore(GreOverIpv4):
    """A core whose MTU is smaller than a full frame and its headers."""

    CORE_MTU = 1500

    def test_full_frames_are_fragmented_on_the_core_and_whole_at_the_host(self):
        one, other = self.top.host(1, 10), self.top.host(2, 10)
        sent = self.site_frame(1514)
        with self.core() as core, Capture(other.ns, "eth0") as far, Sender(one.ns) as sender:
            sender.send(sent)
        pieces = [ip for ip in (f.ip() for f in core.decoded(outgoing=False)) if ip and ip.protocol == frames.GRE]
        self.assertEqual([ip.fragment for ip in pieces], [True, True])
        self.assertEqual([f.hex() for f in far.frames(outgoing=False) if is_test_frame(f)], [sent.hex()])


class GreOverASmallIpv6Core(GreOverASmallCore):
    FAMILY = 6
    CONFIG = GreOverIpv6.CONFIG


if __name__ == "__main__":
    unittest.main()
