"""Learning as hosts and operators see it: nothing in the configuration names the site's own hosts."""

import unittest

from lab import Capture, frames
from lab.capture import Sender

from .base import TwoSites, is_test_frame


class Learning(TwoSites):
    CONFIG = {"local_routes": False}

    def test_a_host_that_speaks_is_in_the_route_table_after_the_next_flush(self):
        host, edge = self.top.host(1, 10), self.edges[1]
        host.speak()
        row = edge.wait_route(10, host.mac, timeout=17)[0]
        self.assertRegex(row, r"^(lum|581)\s+iod \d+")

    def test_a_frame_from_the_core_teaches_nothing(self):
        stranger, edge = "02:00:00:77:77:77", self.edges[2]
        with Sender(self.top.host(1, 10).ns) as sender:
            sender.send(frames.ethernet(frames.BROADCAST, stranger, 0x88B5, bytes(60)))
        self.edges[1].wait_route(10, stranger, timeout=17)
        self.edges[1].wait_route(10, stranger)
        self.assertNotIn(f"10/{stranger}", edge.routes())

    def test_hosts_that_were_learnt_reach_each_other(self):
        for site in (1, 2):
            self.top.host(site, 20).speak()
        for site in (1, 2):
            self.edges[site].wait_route(20, self.top.host(site, 20).mac, timeout=17)
        self.assert_stretched(20, timeout=2)

    def test_a_host_that_moves_is_followed(self):
        mover, edge = "02:00:00:66:66:66", self.edges[1]
        first, second = self.top.host(1, 10), self.top.host(1, 20)
        with Sender(first.ns) as sender:
            sender.send(frames.ethernet(frames.BROADCAST, mover, 0x88B5, bytes(60)))
        rows = edge.wait_route(10, mover, timeout=17)
        edge.configure(f"interface {second.port}", "switchport access vlan 10", "lum vlan 10")
        self.addCleanup(edge.configure, f"interface {second.port}", "switchport access vlan 20", "lum vlan 20")
        with Sender(second.ns) as sender:
            sender.send(frames.ethernet(frames.BROADCAST, mover, 0x88B5, bytes(60)))
        port = rows[0].split()[1:3]                          # "iod N"; behind it stands the route's age
        edge._wait(lambda: edge.routes()[f"10/{mover}"][0].split()[1:3] != port, 17, "the route to the mover changes")
        with Capture(second.ns, "eth0") as capture, Sender(first.ns) as sender:
            sender.send(frames.ethernet(mover, first.mac, 0x88B5, bytes(60)))
        self.assertEqual(len([f for f in capture.frames(outgoing=False) if is_test_frame(f)]), 1)


if __name__ == "__main__":
    unittest.main()
