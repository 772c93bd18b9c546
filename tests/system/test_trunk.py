"""Trunk ports: 802.1Q on the wire as the standard has it, several VLANs on one port, access ports beside it."""

import struct
import unittest

from lab import Capture, Lab, frames, two_sites
from lab.capture import Sender
from lab.edge import start_edges

from .base import TwoSites

VLANS = (1, 100, 300, 4094)


class Trunks(TwoSites):
    @classmethod
    def setUpClass(cls):
        cls.lab = cls.enterClassContext(Lab())
        cls.top = two_sites(cls.lab, vlans=VLANS, core_mtu=1600, trunks=True)
        cls.edges = start_edges(cls.top, local_routes=True)
        cls.one, cls.other = cls.top.host(1, "trunk"), cls.top.host(2, "trunk")

    def frame(self, vlan, dst, payload=b"\x88\xb5" + bytes(range(80)), priority=0):
        kind = int.from_bytes(payload[:2], "big")
        return frames.ethernet(dst, self.one.mac, kind, payload[2:], vlan, priority)

    def through(self, sent, host=None):
        """Sends from the trunk of site 1; what the given host (the trunk of site 2) gets of it."""
        with Capture((host or self.other).ns, "eth0") as far, Sender(self.one.ns) as sender:
            sender.send(sent)
        return [f.hex() for f in far.frames(outgoing=False) if b"\x88\xb5" in f[12:24]]

    def test_every_vlan_crosses_from_trunk_to_trunk_with_its_tag(self):
        for vlan in VLANS:
            with self.subTest(vlan=vlan):
                sent = self.frame(vlan, self.other.mac)
                self.assertEqual(self.through(sent), [sent.hex()])

    def test_priority_bits_are_kept(self):
        for vlan in (1, 300, 4094):
            for priority in (1, 5, 7):
                with self.subTest(vlan=vlan, priority=priority):
                    sent = self.frame(vlan, self.other.mac, priority=priority)
                    self.assertEqual(self.through(sent), [sent.hex()])

    def test_a_trunk_and_an_access_port_of_a_vlan_meet_across_the_core(self):
        for vlan in VLANS:
            with self.subTest(vlan=vlan):
                access = self.top.host(2, vlan)
                sent = self.frame(vlan, access.mac)
                untagged = sent[:12] + sent[16:]
                self.assertEqual(self.through(sent, access), [untagged.hex()])

    def test_broadcast_of_a_vlan_reaches_its_members_only(self):
        sent = self.frame(300, frames.BROADCAST)
        self.assertEqual(self.through(sent), [sent.hex()])
        self.assertEqual(self.through(sent, self.top.host(2, 300)), [(sent[:12] + sent[16:]).hex()])
        self.assertEqual(self.through(sent, self.top.host(1, 300)), [(sent[:12] + sent[16:]).hex()])
        self.assertEqual(self.through(sent, self.top.host(2, 100)), [])

    def test_a_vlan_that_the_trunk_does_not_carry_goes_nowhere(self):
        for host in (self.other, self.top.host(2, 100)):
            self.assertEqual(self.through(self.frame(2000, frames.BROADCAST), host), [])

    def test_a_second_tag_inside_passes_unharmed(self):
        inner = struct.pack("!HHH", frames.ETH_VLAN, 77, 0x88B5) + bytes(range(60))
        sent = self.frame(100, self.other.mac, inner)
        self.assertEqual(self.through(sent), [sent.hex()])

    def test_a_second_tag_inside_leaves_an_access_port_as_the_only_one(self):
        access = self.top.host(2, 100)
        inner = struct.pack("!HHH", frames.ETH_VLAN, 5 << 13 | 77, 0x88B5) + bytes(range(60))
        sent = self.frame(100, access.mac, inner)
        self.assertEqual(self.through(sent, access), [(sent[:12] + sent[16:]).hex()])

    def test_snap_frames_cross_both_ways_between_trunks_and_access_ports(self):
        for vlan in VLANS:
            for one, other in ((self.one, self.other), (self.other, self.one), (self.one, self.top.host(2, vlan)),
                               (self.top.host(2, vlan), self.one), (self.top.host(1, vlan), self.top.host(2, vlan))):
                with self.subTest(vlan=vlan, sender=one.name, receiver=other.name):
                    plain = frames.snap(other.mac, one.mac, 0x88B5, bytes(range(80)))
                    priority = 0 if one.vlan else 5 << 13                    # an untagged frame has none
                    tag = struct.pack("!HH", frames.ETH_VLAN, priority | vlan)
                    sent = plain[:12] + (b"" if one.vlan else tag) + plain[12:]
                    expected = plain[:12] + (b"" if other.vlan else tag) + plain[12:]
                    with Capture(other.ns, "eth0") as far, Sender(one.ns) as sender:
                        sender.send(sent)
                    got = [f.hex() for f in far.frames(outgoing=False) if b"\x88\xb5" in f[12:26]]
                    self.assertEqual(got, [expected.hex()])

    def test_the_edge_answers_a_solicitation_of_a_host_on_a_trunk_in_its_vlan(self):
        for vlan in (1, 300, 4094):
            with self.subTest(vlan=vlan):
                near, far = self.top.host(1, vlan), self.top.host(2, vlan)
                self.assertEqual(near.ping(far.ipv6, count=1), 1)        # now the edge knows the far host
                asker = f"fd00:1::99:{vlan:x}"
                with Capture(self.one.ns, "eth0") as got, self.core() as core, Sender(self.one.ns) as sender:
                    sender.send(frames.ethernet("33:33:ff:00:00:01", self.one.mac, frames.ETH_IPV6,
                                                frames.neighbour_solicitation(asker, self.one.mac, far.ipv6), vlan))
                kind = lambda frame: frame.ip().icmp().type if frame.ip() and frame.ip().icmp() else None
                replies = [f for f in got.decoded(outgoing=False) if kind(f) == 136]
                self.assertEqual([(f.src, f.dst, f.tag, f.ip().src, f.ip().dst) for f in replies],
                                 [(far.mac, self.one.mac, vlan.to_bytes(2, "big"), far.ipv6, asker)])
                self.assertTrue(replies[0].ip().transport_checksum_ok())
                self.assertEqual([p for p in core.overlay(outgoing=False) if kind(p.inner) == 135], [])

    def test_the_edge_answers_a_host_on_a_trunk_in_its_vlan(self):
        for vlan in (1, 300, 4094):
            with self.subTest(vlan=vlan):
                near, far = self.top.host(1, vlan), self.top.host(2, vlan)
                self.assertEqual(near.ping(far.ipv4, count=1), 1)        # now the edge knows the far host
                asker = f"10.{vlan % 250}.99.1"
                body = frames.arp(1, self.one.mac, asker, "00:00:00:00:00:00", far.ipv4)
                with Capture(self.one.ns, "eth0") as got, self.core() as core, Sender(self.one.ns) as sender:
                    sender.send(frames.ethernet(frames.BROADCAST, self.one.mac, frames.ETH_ARP, body, vlan))
                replies = [f for f in got.decoded(outgoing=False) if f.arp() and f.arp().operation == 2]
                self.assertEqual([(f.src, f.dst, f.tag) for f in replies],
                                 [(far.mac, self.one.mac, vlan.to_bytes(2, "big"))])
                self.assertEqual([p for p in core.overlay(outgoing=False) if p.inner.arp()], [])

    def test_on_the_core_the_tag_stands_low_byte_first(self):
        with self.core() as core, Sender(self.one.ns) as sender:
            sender.send(self.frame(300, self.other.mac, priority=5))
        packet, = (p for p in core.overlay(outgoing=False) if p.inner.ethertype == 0x88B5)
        self.assertEqual(packet.inner.tag, (5 << 13 | 300).to_bytes(2, "little"))


if __name__ == "__main__":
    unittest.main()
