"""ARP and neighbour discovery: the edge answers for hosts that it knows, and keeps what must stay at its site."""

import ipaddress
import unittest

from lab import Capture, frames, wait_until
from lab.capture import Sender

from .base import TwoSites

NO_MAC = "00:00:00:00:00:00"
NEIGHBOUR_SOLICITATION = 135


class ArpAndNeighbours(TwoSites):
    def setUp(self):
        self.one, self.other = self.top.host(1, 10), self.top.host(2, 10)
        self.edge = self.edges[1]
        # Both ends have spoken: the edges have seen who they are.
        self.assertEqual(self.one.ping(self.other.ipv4, count=1), 1)
        self.assertEqual(self.one.ping(self.other.ipv6, count=1), 1)

    def requests_on_core(self, capture):
        """ARP requests and neighbour solicitations that left edge1 for the core."""
        found = []
        for packet in capture.overlay(outgoing=False):
            arp, ip = packet.inner.arp(), packet.inner.ip()
            if arp and arp.operation == 1:
                found.append(arp.target_ip)
            elif ip and ip.protocol == frames.ICMP6 and ip.payload[0] == NEIGHBOUR_SOLICITATION:
                found.append(str(ipaddress.ip_address(ip.payload[8:24])))
        return found

    def request(self, target, sender_ip=None, host=None):
        host = host or self.one
        body = frames.arp(1, host.mac, sender_ip or host.ipv4, NO_MAC, target)
        return frames.ethernet(frames.BROADCAST, host.mac, frames.ETH_ARP, body)

    def test_a_request_for_a_known_remote_host_is_answered_by_the_edge(self):
        self.one.forget_neighbours()
        with self.core() as core:
            self.assertEqual(self.one.ping(self.other.ipv4), 3)
        self.assertNotIn(self.other.ipv4, self.requests_on_core(core))

    def test_a_solicitation_for_a_known_remote_host_is_answered_by_the_edge(self):
        self.one.forget_neighbours()
        with self.core() as core:
            self.assertEqual(self.one.ping(self.other.ipv6), 3)
        self.assertNotIn(self.other.ipv6, self.requests_on_core(core))

    def test_the_answer_is_one_frame_from_the_host_that_was_asked_for(self):
        with Capture(self.one.ns, "eth0") as capture, Sender(self.one.ns) as sender:
            sender.send(self.request(self.other.ipv4))
        replies = [f for f in capture.decoded(outgoing=False) if f.ethertype == frames.ETH_ARP]
        self.assertEqual([(f.src, f.dst, f.tag) for f in replies], [(self.other.mac, self.one.mac, None)])
        arp = replies[0].arp()
        self.assertEqual((arp.operation, arp.sender_mac, arp.sender_ip, arp.target_mac, arp.target_ip),
                         (2, self.other.mac, self.other.ipv4, self.one.mac, self.one.ipv4))

    def test_the_cache_is_shown(self):
        shown = self.edge.corvsh("show lum arp-nd-cache")
        self.assertRegex(shown, rf"10/{self.other.mac}\s+\S+\s+{self.other.ipv4}\n")
        self.assertRegex(shown, rf"10/{self.other.mac}\s+\S+\s+{self.other.ipv6}\n")

    def test_a_request_for_an_unknown_host_is_flooded(self):
        with self.core() as core, Sender(self.one.ns) as sender:
            sender.send(self.request("10.1.77.77"))
        self.assertEqual(self.requests_on_core(core), ["10.1.77.77"])

    def test_without_suppression_requests_cross(self):
        self.edge.configure("interface Overlay1", "no lum suppress-arp")
        self.addCleanup(self.edge.configure, "interface Overlay1", "lum suppress-arp")
        with self.core() as core, Sender(self.one.ns) as sender:
            sender.send(self.request(self.other.ipv4))
        self.assertIn(self.other.ipv4, self.requests_on_core(core))

    def test_an_address_probe_crosses_and_is_not_cached(self):
        probe = self.request(self.other.ipv4, sender_ip="0.0.0.0")
        with self.core() as core, Capture(self.other.ns, "eth0") as far, Sender(self.one.ns) as sender:
            sender.send(probe)
        self.assertIn(self.other.ipv4, self.requests_on_core(core))
        self.assertIn(probe.hex(), [f.hex() for f in far.frames(outgoing=False)])
        self.assertNotRegex(self.edge.corvsh("show lum arp-nd-cache"), r"\s0\.0\.0\.0\n")

    def test_duplicate_address_detection_crosses_and_is_not_cached(self):
        self.one.ns.sysctl("net.ipv6.conf.eth0.accept_dad", 1)
        self.addCleanup(self.one.ns.sysctl, "net.ipv6.conf.eth0.accept_dad", 0)
        with self.core() as core:
            self.one.ns.ip("addr add fd00:1::dad/64 dev eth0")
            self.addCleanup(self.one.ns.ip, "addr del fd00:1::dad/64 dev eth0")
            # The host waits up to a second before it asks.
            wait_until(lambda: "fd00:1::dad" in self.requests_on_core(core), 4, "the solicitation is on the core")
        self.assertNotRegex(self.edge.corvsh("show lum arp-nd-cache"), r"\s::\n")

    def test_an_announcement_by_reply_reaches_the_other_site_and_its_cache(self):
        address, old, new = "10.1.88.88", "02:00:00:00:88:01", "02:00:00:00:88:02"
        for mac in (old, new):
            body = frames.arp(2, mac, address, mac, address)
            announcement = frames.ethernet(frames.BROADCAST, mac, frames.ETH_ARP, body)
            with Capture(self.other.ns, "eth0") as far, Capture(self.one.ns, "eth0") as near, \
                    Sender(self.one.ns) as sender:
                sender.send(announcement)
            self.assertIn(announcement.hex(), [f.hex() for f in far.frames(outgoing=False)])
            self.assertEqual([f for f in near.decoded(outgoing=False) if f.arp()], [])
            for edge in self.edges.values():
                self.assertRegex(edge.corvsh("show lum arp-nd-cache"), rf"10/{mac}\s+\S+\s+{address}\n")

    def test_arping_and_ndisc6_are_answered_by_the_edge(self):
        with self.core() as core:
            asked = self.one.ns.run("arping", "-c", "2", "-i", "eth0", self.other.ipv4, check=False).stdout
            solicited = self.one.ns.run("ndisc6", "-1", "-w", "2000", self.other.ipv6, "eth0", check=False).stdout
        self.assertIn(self.other.mac, asked.lower())
        self.assertIn(self.other.mac, solicited.lower())
        self.assertEqual(self.requests_on_core(core), [])

    def test_a_probe_with_arping_reaches_the_host_and_is_answered_by_it(self):
        with Capture(self.other.ns, "eth0") as far:
            found = self.one.ns.run("arping", "-0", "-c", "2", "-i", "eth0", self.other.ipv4, check=False)
        self.assertEqual(found.returncode, 0, found.stdout)
        self.assertIn(self.other.mac, found.stdout.lower())
        probes = [f.arp() for f in far.decoded(outgoing=False) if f.arp() and f.arp().operation == 1]
        self.assertIn(("0.0.0.0", self.other.ipv4), [(arp.sender_ip, arp.target_ip) for arp in probes])

    def test_a_solicitation_for_an_anycast_address_stays_at_its_site(self):
        self.edge.configure("lum anycast-arp fd00:1::a")
        self.addCleanup(self.edge.configure, "no lum anycast-arp fd00:1::a")
        before = self.edge.drops().get("request for an anycast address", 0)
        ask = lambda target: frames.ethernet("33:33:ff:00:00:0a", self.one.mac, frames.ETH_IPV6,
                                             frames.neighbour_solicitation(self.one.ipv6, self.one.mac, target))
        with self.core() as core, Sender(self.one.ns) as sender:
            sender.send(ask("fd00:1::a"), ask("fd00:1::b"))
        self.assertEqual(self.requests_on_core(core), ["fd00:1::b"])
        self.assertEqual(self.edge.drops().get("request for an anycast address", 0), before + 1)

    def test_a_request_for_an_anycast_address_stays_at_its_site(self):
        self.edge.configure("lum anycast-arp 10.1.200.1")
        self.addCleanup(self.edge.configure, "no lum anycast-arp 10.1.200.1")
        with self.core() as core, Sender(self.one.ns) as sender:
            sender.send(self.request("10.1.200.1"), self.request("10.1.200.2"))
        self.assertEqual(self.requests_on_core(core), ["10.1.200.2"])


if __name__ == "__main__":
    unittest.main()
