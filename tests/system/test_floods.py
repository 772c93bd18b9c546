"""Floods from a host: tables stay within their bounds, what is refused is counted, known hosts keep forwarding."""

import os
import random
import unittest
from unittest import mock

from lab import frames, wait_until
from lab.capture import Sender

from .base import TwoSites, sanitized

CAP_BYTES = 64 * 1024
LEARN_BUFFER = 1000                                          # hosts that one flush can carry


class Floods(TwoSites):
    @classmethod
    def setUpClass(cls):
        caps = {"CORVANE_MEMORY_CAPS": f"LUM_MEM_TYPE_ARP_ND_CACHE={CAP_BYTES}"}
        with mock.patch.dict(os.environ, caps):
            super().setUpClass()
        cls.edge, cls.one, cls.other = cls.edges[1], cls.top.host(1, 10), cls.top.host(2, 10)
        cls.random = random.Random(1)

    def some_mac(self):
        return "02:f0:" + ":".join(f"{self.random.randrange(256):02x}" for _ in range(4))

    def some_ip(self):
        return f"10.1.{self.random.randrange(128, 250)}.{self.random.randrange(1, 255)}"

    def cache_entries(self):
        return sum("10.1." in line for line in self.edge.corvsh("show lum arp-nd-cache").splitlines())

    def test_random_arp_senders_fill_the_cache_up_to_its_cap_and_known_hosts_go_on(self):
        self.assert_stretched(10)
        resident = self.edge.resident_kib()
        with Sender(self.one.ns) as sender:
            for _ in range(10000):
                mac = self.some_mac()
                sender.send(frames.ethernet(frames.BROADCAST, mac, frames.ETH_ARP,
                                            frames.arp(1, mac, self.some_ip(), "00:00:00:00:00:00", "10.1.255.254")))
        wait_until(lambda: self.edge.drops().get("ARP/ND cache: entry refused", 0) > 0, 5, "refusals are counted")
        entries = self.cache_entries()
        self.assertGreater(entries, 50)
        self.assertLess(entries, CAP_BYTES // 32)            # no entry is smaller than its addresses
        if not sanitized():
            self.assertLess(self.edge.resident_kib(), resident + 8 * 1024)
        self.assert_stretched(10)
        self.assertEqual(self.one.ping(self.other.ipv4), 3)

    def test_random_macs_fill_the_learn_buffer_and_nothing_else(self):
        self.assert_stretched(10)
        before, routes = self.edge.drops(), len(self.edge.routes())
        with Sender(self.one.ns) as sender:
            for _ in range(20000):
                sender.send(frames.ethernet("02:f1:00:00:00:01", self.some_mac(), 0x88B5, bytes(46)))
            self.assertEqual(self.one.ping(self.other.ipv4, interval=0.05), 3)
        full = "learning: buffer full"
        wait_until(lambda: self.edge.drops().get(full, 0) > before.get(full, 0), 5, "the full buffer is counted")
        after = self.edge.drops()
        moved = {reason for reason in after if after[reason] > before.get(reason, 0)} - {full}
        self.assertIn("unknown unicast: no route", moved)
        self.assertLessEqual(moved, {"unknown unicast: no route", "receive ring full"})
        # A flush carries a buffer of hosts and not one more; two may have passed meanwhile.
        wait_until(lambda: len(self.edge.routes()) > routes, 20, "the flush")
        self.assertLessEqual(len(self.edge.routes()), routes + 2 * LEARN_BUFFER)
        self.assertEqual(self.one.ping(self.other.ipv4), 3)
        self.assertEqual(self.other.ping(self.one.ipv4), 3)


if __name__ == "__main__":
    unittest.main()
