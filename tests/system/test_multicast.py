"""Multicast: a receiver at the far site gets each packet exactly once, over the data group that the overlay derives."""

import unittest

from lab import Capture, frames
from lab.capture import Sender

from .base import TwoSites


class MulticastOverIpv4(TwoSites):
    FAMILY = 4
    GROUP, GROUP_MAC, DATA_GROUP = "239.20.0.3", "01:00:5e:14:00:03", "239.2.0.3"
    OTHER_GROUP, OTHER_MAC = "239.20.0.9", "01:00:5e:14:00:09"
    JOINED = ("239.2.0.3",)

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        near, far = cls.edges[1], cls.edges[2]
        near.configure(f"lum mroute 10 {cls.GROUP} interface Overlay1")
        far.configure(f"lum mroute 10 {cls.GROUP} interface {cls.top.host(2, 10).port}")
        far.configure("interface eth0", *(f"join-group {group}" for group in cls.JOINED))

    def datagram(self, number, group=None, mac=None):
        one = self.top.host(1, 10)
        source = one.ipv6 if ":" in (group or self.GROUP) else one.ipv4
        return frames.udp_frame(one.mac, mac or self.GROUP_MAC, source, group or self.GROUP, b"number %03d" % number)

    def test_each_packet_arrives_exactly_once(self):
        sent = [self.datagram(n) for n in range(50)]
        with Capture(self.top.host(2, 10).ns, "eth0") as far, Sender(self.top.host(1, 10).ns) as sender:
            sender.send(*sent)
        self.assertEqual([f.hex() for f in far.frames(outgoing=False) if b"number" in f], [f.hex() for f in sent])

    def test_the_core_carries_it_to_the_data_group_of_the_mac(self):
        with self.core() as core, Sender(self.top.host(1, 10).ns) as sender:
            sender.send(self.datagram(1))
        packets = [p for p in core.overlay(outgoing=False) if b"number" in p.packet]
        self.assertEqual([(p.ip.dst, p.vlan) for p in packets], [(self.DATA_GROUP, 10)])

    def test_a_group_without_a_route_is_dropped_and_counted(self):
        before = self.edges[1].drops().get("multicast: no route", 0)
        with self.core() as core, Sender(self.top.host(1, 10).ns) as sender:
            sender.send(self.datagram(1, self.OTHER_GROUP, self.OTHER_MAC))
        self.assertEqual([p for p in core.overlay(outgoing=False) if b"number" in p.packet], [])
        self.assertEqual(self.edges[1].drops().get("multicast: no route", 0), before + 1)

    def test_link_local_multicast_is_flooded_to_the_group(self):
        one, other = self.top.host(1, 10), self.top.host(2, 10)
        local = frames.udp_frame(one.mac, "01:00:5e:00:00:05", one.ipv4, "224.0.0.5", b"number 000")
        with self.core() as core, Capture(other.ns, "eth0") as far, Sender(one.ns) as sender:
            sender.send(local)
        packets = [p for p in core.overlay(outgoing=False) if b"number" in p.packet]
        self.assertEqual([p.ip.dst for p in packets], [self.top.group])
        self.assertEqual([f.hex() for f in far.frames(outgoing=False) if b"number" in f], [local.hex()])


if __name__ == "__main__":
    unittest.main()
