"""What the suites of lum have in common: a topology with its edges up for the whole suite, and small proofs."""

import unittest

from lab import Capture, Lab, LabError, frames, programs_dir, two_sites, wait_until
from lab.edge import Edge, start_edges

VLANS = (10, 20)


class TwoSites(unittest.TestCase):
    """Two sites with lum edges, made once a suite. Class variables say what kind; `top`, `edges` are there for tests."""

    FAMILY, CORE_MTU, TRUNKS = 4, 1600, False
    CONFIG = {"local_routes": True}                          # nobody here waits for learning

    @classmethod
    def setUpClass(cls):
        cls.lab = cls.enterClassContext(Lab())
        cls.top = two_sites(cls.lab, vlans=VLANS, core_family=cls.FAMILY, core_mtu=cls.CORE_MTU, trunks=cls.TRUNKS)
        cls.edges = start_edges(cls.top, **cls.CONFIG)

    def tearDown(self):
        """A test that failed shows what the edges logged last."""
        outcome = self._outcome.result
        problem = getattr(outcome, "_problem", None)
        if problem and problem[0] == "failed":
            tails = "".join(f"\n-- {edge.name}, end of its log:\n{edge.log_tail(15)}" for edge in self.edges.values())
            outcome._problem = ("failed", problem[1] + tails)

    # ---- proofs

    def assert_stretched(self, vlan=10, timeout=10):
        """Hosts of the VLAN at both sites answer each other."""
        one, other = self.top.host(1, vlan), self.top.host(2, vlan)
        for a, b in ((one, other), (other, one)):
            try:
                wait_until(lambda: a.ping(b.ipv4, count=1, wait=0.5), timeout, f"{a.name} reaches {b.name}")
            except LabError as late:
                self.fail(str(late))

    def core(self):
        """Capture of what edge1 exchanges with the core."""
        return Capture(self.top.core.ns, "r1")

    def site_frame(self, size, vlan=10, ethertype=0x88B5, dst=None):
        """An untagged frame of `size` bytes from the VLAN's host at site 1 to the one at site 2."""
        one, other = self.top.host(1, vlan), self.top.host(2, vlan)
        payload = bytes((size + i) & 0xFF for i in range(size - 14))
        return frames.ethernet(dst or other.mac, one.mac, ethertype, payload)


class OneEdge(TwoSites):
    """Edge 1 alone, as `edge`, with its overlay up and nothing that routes groups."""

    @classmethod
    def setUpClass(cls):
        cls.lab = cls.enterClassContext(Lab())
        cls.top = two_sites(cls.lab, group_routes=False)
        cls.edge = Edge(cls.top, 1)
        cls.edges = {1: cls.edge}
        cls.edge.start()
        cls.edge.wait_overlay()


def sanitized():
    """Whether the programs carry a sanitizer, with the memory and time that it takes."""
    return any(mark in (programs_dir() / "lum").read_bytes() for mark in (b"__asan_init", b"__tsan_init"))


def is_test_frame(data):
    """Frames of the IEEE's type for local experiments: nothing but a test sends them."""
    return data[12:14] == b"\x88\xb5"
