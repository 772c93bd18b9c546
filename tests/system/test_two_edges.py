"""A site with two edges on one segment: elected VLAN by VLAN, one of them forwards; no loop, no duplicate."""

import struct
import time
import unittest

from lab import Capture, Lab, Topology, frames, wait_until
from lab.capture import Sender
from lab.edge import start_edges

from .base import TwoSites

MAIN_SAP, ADD_ADJACENCY, DELETE_ADJACENCY = "442", "78858", "78859"
SYSTEM_IDS = {1: "02:00:00:00:ed:01", 3: "02:00:00:00:ed:03"}


class TwoEdges(TwoSites):
    """Edges 1 and 3 share a segment: the bridge in the namespace of host 3 has a port to each of them.

        host2 --- edge2 ---- core ---- edge1 eth2 ---+
                              |                      bridge, host 3
                              +------- edge3 eth1 ---+
    """

    @classmethod
    def setUpClass(cls):
        cls.lab = cls.enterClassContext(Lab())
        cls.top = Topology(cls.lab, sites=3, vlans=(10,), core_mtu=1600)
        cls.shared, cls.far = cls.top.host(3, 10), cls.top.host(2, 10)
        ns, node = cls.shared.ns, cls.top.nodes[1]
        device = node.add_port(10)
        cls.lab.link(ns, "port1", node.ns, device)
        ns.link_down("port1")                                # until the edges know of each other it would be a loop
        ns.ip("link add br0 type bridge", "addr flush dev eth0", "link set eth0 master br0",
              "link set port1 master br0", "link set br0 up")
        cls.edges = start_edges(cls.top, local_routes=True)
        for site in (1, 3):
            cls.tell_adjacencies(site, ADD_ADJACENCY, SYSTEM_IDS)
        wait_until(lambda: cls.authoritative(1) and not cls.authoritative(3), 5, "the election")
        ns.link_up("port1")

    @classmethod
    def tell_adjacencies(cls, site, opcode, system_ids):
        """What the adjacency protocol would say: who is on the site, oneself included."""
        for number, system_id in system_ids.items():
            payload = struct.pack("=I6sB28xII", cls.iod(site), frames.mac_bytes(system_id), 0, 1, int(number == site))
            cls.edges[site].corvbus("send", MAIN_SAP, opcode, payload.hex())

    @classmethod
    def iod(cls, site):
        row = next(line for line in cls.edges[site].corvsh("show lum overlay summary").splitlines() if "Overlay1" in line)
        return int(row.split()[2])

    @classmethod
    def authoritative(cls, site):
        return any(line.startswith("10 ") for line in cls.edges[site].corvsh("show lum vlan authoritative").splitlines())

    def copies(self, sender_ns, sender_device, watcher_ns, watcher_device, number):
        """How often a broadcast frame arrives. The wait is long enough for a loop to show many times over."""
        frame = frames.ethernet(frames.BROADCAST, "02:00:00:00:77:%02x" % number, 0x88B5, bytes([number]) * 60)
        with Capture(watcher_ns, watcher_device) as capture, Sender(sender_ns, sender_device) as sender:
            sender.send(frame)
            time.sleep(0.5)
        return len([f for f in capture.frames(outgoing=False) if f == frame])

    def test_1_a_broadcast_of_the_shared_segment_arrives_once_at_the_far_site(self):
        self.assertEqual(self.copies(self.shared.ns, "br0", self.far.ns, "eth0", 1), 1)

    def test_2_a_broadcast_of_the_far_site_arrives_once_on_the_shared_segment(self):
        self.assertEqual(self.copies(self.far.ns, "eth0", self.shared.ns, "br0", 2), 1)

    def test_3_a_broadcast_does_not_come_back_to_the_segment_that_sent_it(self):
        self.assertEqual(self.copies(self.shared.ns, "br0", self.shared.ns, "br0", 3), 0)

    def test_4_what_is_held_back_is_counted(self):
        self.copies(self.far.ns, "eth0", self.shared.ns, "br0", 4)
        self.assertIn("VLAN's authoritative edge is another device", self.edges[3].corvsh("show drops"))

    def test_5_the_vlan_moves_when_the_authoritative_edge_is_gone(self):
        self.edges[1].stop()
        self.tell_adjacencies(3, DELETE_ADJACENCY, {1: SYSTEM_IDS[1]})
        wait_until(lambda: self.authoritative(3), 5, "the election")
        wait_until(lambda: self.copies(self.shared.ns, "br0", self.far.ns, "eth0", 5) == 1, 10, "the way to the far site")
        self.assertEqual(self.copies(self.far.ns, "eth0", self.shared.ns, "br0", 6), 1)


if __name__ == "__main__":
    unittest.main()
