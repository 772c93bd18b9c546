"""Multicast: a receiver at the far site gets each packet exactly once, over the data group that the overlay derives."""

import unittest

from lab import Capture, frames, wait_until
from lab.capture import Sender

from .base import TwoSites


class MulticastOverIpv4(TwoSites):
    FAMILY = 4
    GROUP, GROUP_MAC, DATA_GROUP = "239.20.0.3", "01:00:5e:14:00:03", "239.2.0.3"
    OTHER_GROUP, OTHER_MAC = "239.20.0.9", "01:00:5e:14:00:09"
    LOCAL_GROUP, LOCAL_MAC = "224.0.0.5", "01:00:5e:00:00:05"

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.add_routes(cls.edges[1], cls.edges[2])
        cls.edges[2].configure("interface eth0", f"join-group {cls.DATA_GROUP}")

    @classmethod
    def add_routes(cls, near, far):
        near.configure(f"lum mroute 10 {cls.GROUP} interface Overlay1")
        far.configure(f"lum mroute 10 {cls.GROUP} interface {cls.top.host(2, 10).port}")

    def datagram(self, number, group=None, mac=None):
        one = self.top.host(1, 10)
        source = one.ipv6 if ":" in (group or self.GROUP) else one.ipv4
        return frames.udp_frame(one.mac, mac or self.GROUP_MAC, source, group or self.GROUP, b"number %03d" % number)

    def to_groups(self, core):
        """(outer destination, VLAN) of the test's packets that edge1 sent into the core."""
        return [(p.ip.dst, p.vlan) for p in core.overlay(outgoing=False) if b"number" in p.packet]

    def test_each_packet_arrives_exactly_once(self):
        sent = [self.datagram(n) for n in range(50)]
        with Capture(self.top.host(2, 10).ns, "eth0") as far, Sender(self.top.host(1, 10).ns) as sender:
            sender.send(*sent)
        self.assertEqual([f.hex() for f in far.frames(outgoing=False) if b"number" in f], [f.hex() for f in sent])

    def test_the_core_carries_it_to_the_data_group_of_the_mac(self):
        with self.core() as core, Sender(self.top.host(1, 10).ns) as sender:
            sender.send(self.datagram(1))
        self.assertEqual(self.to_groups(core), [(self.DATA_GROUP, 10)])

    def test_a_group_without_a_route_is_dropped_and_counted(self):
        before = self.edges[1].drops().get("multicast: no route", 0)
        with self.core() as core, Sender(self.top.host(1, 10).ns) as sender:
            sender.send(self.datagram(1, self.OTHER_GROUP, self.OTHER_MAC))
        self.assertEqual(self.to_groups(core), [])
        self.assertEqual(self.edges[1].drops().get("multicast: no route", 0), before + 1)

    def test_link_local_multicast_is_flooded_to_the_group(self):
        one, other = self.top.host(1, 10), self.top.host(2, 10)
        local = self.datagram(0, self.LOCAL_GROUP, self.LOCAL_MAC)
        with self.core() as core, Capture(other.ns, "eth0") as far, Sender(one.ns) as sender:
            sender.send(local)
        self.assertEqual(self.to_groups(core), [(self.top.group, 10)])
        self.assertEqual([f.hex() for f in far.frames(outgoing=False) if b"number" in f], [local.hex()])


class MulticastOverIpv6(MulticastOverIpv4):
    """Groups of IPv6 have no command: their routes are those of the MAC, an operator's and another process's."""

    FAMILY = 6
    CONFIG = {"local_routes": True, "overlay_lines": ("lum core-group ff1e::/96",)}
    GROUP, GROUP_MAC, DATA_GROUP = "ff1e::5:2:3", "33:33:00:02:00:03", "ff1e::2:3"
    OTHER_GROUP, OTHER_MAC = "ff1e::5:2:9", "33:33:00:02:00:09"
    LOCAL_GROUP, LOCAL_MAC = "ff02::5", "33:33:00:00:00:05"

    @classmethod
    def add_routes(cls, near, far):
        near.configure(f"lum route 10/{cls.GROUP_MAC} interface Overlay1")
        row = far.routes()[f"10/{cls.top.host(2, 10).mac}"][0]                   # "lum iod N ..."
        far.corvbus("rtab-set", "10", cls.GROUP_MAC, "iod", row.split()[2])

    def test_a_solicited_node_group_is_flooded_to_the_group(self):
        solicitation = self.datagram(0, "ff02::1:ff77:7777", "33:33:ff:77:77:77")
        with self.core() as core, Sender(self.top.host(1, 10).ns) as sender:
            sender.send(solicitation)
        self.assertEqual(self.to_groups(core), [(self.top.group, 10)])


class MulticastOverGre(MulticastOverIpv4):
    CONFIG = {"local_routes": True, "overlay_lines": ("lum vpn-encap-format gre ip", "lum vlan 10 trunk-port")}

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        # The tunnel follows the overlay's record, a moment behind it.
        one, other = cls.top.host(1, 10), cls.top.host(2, 10)
        wait_until(lambda: one.ping(other.ipv4, count=1) and other.ping(one.ipv4, count=1), 10, "the tunnel")

    def to_groups(self, core):
        packets = [frame.ip() for frame in core.decoded(outgoing=False)]
        packets = [ip for ip in packets if ip and ip.protocol == frames.GRE and b"number" in ip.payload]
        return [(ip.dst, frames.decode_ethernet(ip.payload[4:]).vlan) for ip in packets]


if __name__ == "__main__":
    unittest.main()
