"""Hellos and control frames of a site that must not cross: they reach the ports of their site and stop at the core."""

import contextlib
import struct
import unittest

from lab import Capture, frames
from lab.capture import Sender

from .base import TwoSites

FILTERED = "filtered before the core"
VRRP = 112


def udp_hello(src, dst, port, body):
    return frames.udp(src, dst, port, port, body)


class Hello:
    """A hello as its protocol sends it, and the same packet changed in nothing but what tells a hello."""

    def __init__(self, name, mac, source_mac, ethertype, hello, neighbour):
        self.name, self.ethertype = name, ethertype
        self.hello, self.neighbour, self.macs = hello, neighbour, (mac, source_mac)


def hellos(one):
    """First-hop redundancy hellos of the host `one`, by the layouts of their protocols."""
    v4, v6 = one.ipv4, "fe80::1"
    vrrp4 = bytes([0x31, 10, 100, 1, 0, 100, 0, 0]) + frames.ip_bytes("10.1.0.1")           # version 3
    vrrp6 = bytes([0x31, 10, 100, 1, 0, 100, 0, 0]) + frames.ip_bytes("fe80::99")
    # Version, hello, active, hello and hold time, priority, group, authentication, virtual address.
    hsrp = bytes([0, 0, 16, 3, 10, 100, 1, 0]) + b"secret\0\0" + frames.ip_bytes("10.1.0.1")
    glbp = bytes([1, 0, 0, 1, 0, 0]) + bytes.fromhex(one.mac.replace(":", "")) + bytes([1, 28]) + bytes(26)
    packet4 = lambda dst, protocol, body: frames.ipv4(v4, dst, protocol, body, ttl=255, tos=0xC0)
    packet6 = lambda dst, protocol, body: frames.ipv6(v6, dst, protocol, body, hop_limit=255)
    rows = [("VRRP over IPv4", "01:00:5e:00:00:12", "00:00:5e:00:01:0a", frames.ETH_IPV4,
             lambda near: packet4("224.0.0.18", VRRP + near, vrrp4)),
            ("HSRP over IPv4", "01:00:5e:00:00:02", "02:00:00:07:ac:01", frames.ETH_IPV4,
             lambda near: packet4("224.0.0.2", frames.UDP, udp_hello(v4, "224.0.0.2", 1985 + near, hsrp))),
            ("GLBP over IPv4", "01:00:5e:00:00:66", "02:00:00:b4:01:01", frames.ETH_IPV4,
             lambda near: packet4("224.0.0.102", frames.UDP, udp_hello(v4, "224.0.0.102", 3222 - near, glbp))),
            ("VRRP over IPv6", "33:33:00:00:00:12", "00:00:5e:00:02:0a", frames.ETH_IPV6,
             lambda near: packet6("ff02::12", VRRP - near, vrrp6)),
            ("HSRP over IPv6", "33:33:00:00:00:66", "02:00:00:a0:00:01", frames.ETH_IPV6,
             lambda near: packet6("ff02::66", frames.UDP, udp_hello(v6, "ff02::66", 1985 - near, hsrp))),
            ("GLBP over IPv6", "33:33:00:00:00:66", "02:00:00:b4:02:01", frames.ETH_IPV6,
             lambda near: packet6("ff02::66", frames.UDP, udp_hello(v6, "ff02::66", 3222 + near, glbp)))]
    return [Hello(name, mac, source, kind, build(0), build(1)) for name, mac, source, kind, build in rows]


class Filters(TwoSites):
    TRUNKS = True

    def setUp(self):
        self.one, self.trunk, self.edge = self.top.host(1, 10), self.top.host(1, "trunk"), self.edges[1]

    def forms(self, hello, packet):
        """(sender, frame) for each form of frame: untagged and tagged, Ethernet II and SNAP."""
        dst, src = hello.macs
        plain = frames.ethernet(dst, src, hello.ethertype, packet)
        snap = frames.snap(dst, src, hello.ethertype, packet)
        tag = struct.pack("!HH", frames.ETH_VLAN, 6 << 13 | 10)
        return [(self.one, plain), (self.one, snap), *((self.trunk, f[:12] + tag + f[12:]) for f in (plain, snap))]

    def where_they_go(self, sent, *marks):
        """For each mark how often it is seen at the site's other port, on the core and at the far site; and what is
        counted as filtered."""
        before = self.edge.drops().get(FILTERED, 0)
        with contextlib.ExitStack() as stack:
            watch = lambda ns, device="eth0": stack.enter_context(Capture(ns, device))
            places = (watch(self.one.ns), watch(self.trunk.ns)), (self.core(),), (watch(self.top.host(2, 10).ns),)
            stack.enter_context(places[1][0])
            for host, frame in sent:
                with Sender(host.ns) as out:
                    out.send(frame)
        count = lambda place, mark: sum(mark in data for capture in place for data in capture.frames(outgoing=False))
        return ([tuple(count(place, mark) for place in places) for mark in marks],
                self.edge.drops().get(FILTERED, 0) - before)

    def test_every_hello_stays_at_its_site_in_every_form_and_its_neighbour_crosses(self):
        for hello in hellos(self.one):
            with self.subTest(hello=hello.name):
                sent = self.forms(hello, hello.hello) + self.forms(hello, hello.neighbour)
                self.assertEqual(self.where_they_go(sent, hello.hello[6:], hello.neighbour[6:]),
                                 ([(4, 0, 0), (4, 4, 4)], 4))

    def test_discovery_and_spanning_tree_frames_stay_at_their_site(self):
        for kind in (0x2000, 0x4242):
            with self.subTest(kind=hex(kind)):
                frame_of = lambda type: Hello("", "03:00:00:00:00:01", self.one.mac, type, b"", b"")
                body, neighbour = bytes(range(60)), bytes(range(60, 120))
                sent = self.forms(frame_of(kind), body) + self.forms(frame_of(kind + 1), neighbour)
                self.assertEqual(self.where_they_go(sent, body, neighbour), ([(4, 0, 0), (4, 4, 4)], 4))

    def test_frames_that_their_standards_keep_on_the_link_are_not_even_taken(self):
        before = self.edge.drops().get("link-local by its standard", 0)
        bridge = frames.mac_bytes("01:80:c2:00:00:00") + frames.mac_bytes(self.one.mac) + struct.pack("!H", 38)
        isis = frames.mac_bytes("01:80:c2:00:00:14") + frames.mac_bytes(self.one.mac) + struct.pack("!H", 38)
        bridge, isis = bridge + b"\x42\x42\x03" + bytes(range(43)), isis + b"\xfe\xfe\x03" + bytes(range(43))
        sent = [(self.one, bridge), (self.one, isis)]
        self.assertEqual(self.where_they_go(sent, bytes(range(43))), ([(0, 0, 0)], 0))
        self.assertEqual(self.edge.drops()["link-local by its standard"], before + 2)

    def test_without_the_filter_hellos_of_ipv4_cross_and_those_of_ipv6_do_not(self):
        self.edge.configure("no lum filter-fhrp")
        self.addCleanup(self.edge.configure, "lum filter-fhrp")
        for hello in hellos(self.one):
            with self.subTest(hello=hello.name):
                crosses = hello.ethertype == frames.ETH_IPV4
                self.assertEqual(self.where_they_go(self.forms(hello, hello.hello), hello.hello[6:]),
                                 ([(4, 4, 4)], 0) if crosses else ([(4, 0, 0)], 4))

    def test_a_hello_to_one_host_stops_at_the_core_and_reaches_a_local_port(self):
        hello = hellos(self.one)[1]
        to = lambda host: [(self.one, frames.ethernet(host.mac, self.one.mac, hello.ethertype, hello.hello))]
        self.assertEqual(self.where_they_go(to(self.top.host(2, 10)), hello.hello[6:]), ([(0, 0, 0)], 1))
        self.assertEqual(self.where_they_go(to(self.trunk), hello.hello[6:]), ([(1, 0, 0)], 0))


if __name__ == "__main__":
    unittest.main()
