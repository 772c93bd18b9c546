"""A core interface too small for an overlay's full frames is named in the log: once, with both numbers."""

import time
import unittest

from lab import wait_until

from .base import TwoSites

TICKS_S = 0.5                                                # the platform looks ten times a second


class SizeNotices(TwoSites):
    """What the suites below have in common; it has no test of its own."""

    def notices(self, site=1):
        """What the log of an edge says about the size, without time and process."""
        lines = self.edges[site].output().splitlines()
        return [line[line.index("Overlay1"):] for line in lines if "full frames take" in line]

    @staticmethod
    def notice(needed, mtu):
        return f"Overlay1: full frames take packets of {needed} bytes, the MTU of eth0 is {mtu}: they leave in fragments"

    def wait_notices(self, expected, site=1):
        wait_until(lambda: len(self.notices(site)) >= len(expected), 5, f"edge {site} says {expected[-1]!r}")
        time.sleep(TICKS_S)
        self.assertEqual(self.notices(site), expected)


class SmallCore(SizeNotices):
    CORE_MTU = 1500

    def test_it_is_said_once_and_again_when_a_number_changes(self):
        first, edge = self.notice(1550, 1500), self.edges[1]
        self.wait_notices([first])
        edge.configure("interface Overlay1", "shutdown")
        edge.wait_overlay("DOWN")
        edge.configure("interface Overlay1", "no shutdown")
        edge.wait_overlay()
        self.wait_notices([first])

        edge.ns.ip("link set eth0 mtu 1549")
        self.wait_notices([first, self.notice(1550, 1549)])
        edge.ns.ip("link set eth0 mtu 1550")
        time.sleep(TICKS_S)
        self.assertEqual(len(self.notices()), 2)
        edge.ns.ip("link set eth0 mtu 1500")
        self.wait_notices([first, self.notice(1550, 1549), first])

    def test_a_daemon_that_comes_back_says_it_once_more(self):
        edge = self.edges[2]
        self.wait_notices([self.notice(1550, 1500)], site=2)
        old = edge.kill_lum()
        wait_until(lambda: edge.lum_pid() not in (None, old), 15, "lum is back")
        edge.wait_overlay()
        self.wait_notices([self.notice(1550, 1500)] * 2, site=2)


class SmallIpv6Core(SizeNotices):
    FAMILY, CORE_MTU = 6, 1569

    def test_the_larger_headers_count(self):
        self.wait_notices([self.notice(1570, 1569)])

    def test_what_fits_in_another_format_is_not_mentioned(self):
        edge = self.edges[2]
        self.wait_notices([self.notice(1570, 1569)], site=2)
        edge.configure("interface Overlay1", "lum vpn-encap-format gre ipv6")       # 1562 bytes
        time.sleep(TICKS_S)
        self.assertEqual(len(self.notices(2)), 1)


class LargeCore(SizeNotices):
    CORE_MTU = 1550

    def test_nothing_is_said_of_a_core_that_just_suffices(self):
        time.sleep(TICKS_S)
        self.assertEqual(self.notices(), [])


if __name__ == "__main__":
    unittest.main()
