"""Three sites: broadcast reaches all, a frame for one host reaches its site only."""

import unittest

from lab import Capture, Lab, Topology, frames
from lab.capture import Sender
from lab.edge import start_edges

from .base import TwoSites


class ThreeSites(TwoSites):
    SITES = (1, 2, 3)

    @classmethod
    def setUpClass(cls):
        cls.lab = cls.enterClassContext(Lab())
        cls.top = Topology(cls.lab, sites=3, vlans=(10,), core_mtu=1600)
        cls.edges = start_edges(cls.top, local_routes=True)

    def seen_by_others(self, sent):
        """How often the frame, sent at site 1, is seen by the hosts of sites 2 and 3."""
        second, third = self.top.host(2, 10).ns, self.top.host(3, 10).ns
        with Capture(second, "eth0") as two, Capture(third, "eth0") as three, Sender(self.top.host(1, 10).ns) as sender:
            sender.send(sent)
        return [len([f for f in capture.frames(outgoing=False) if f == sent]) for capture in (two, three)]

    def test_all_pairs_of_hosts_reach_each_other(self):
        for a in self.SITES:
            for b in self.SITES:
                if a != b:
                    with self.subTest(a=a, b=b):
                        self.assertEqual(self.top.host(a, 10).ping(self.top.host(b, 10).ipv4), 3)

    def test_broadcast_reaches_every_other_site_once(self):
        self.assertEqual(self.seen_by_others(self.site_frame(100, dst=frames.BROADCAST)), [1, 1])

    def test_unicast_reaches_the_site_of_its_host_only(self):
        self.assertEqual(self.seen_by_others(self.site_frame(100, dst=self.top.host(3, 10).mac)), [0, 1])


if __name__ == "__main__":
    unittest.main()
