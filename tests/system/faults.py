"""One system call of lum fails, somewhere between its start and its end: an edge device gets over it by itself."""

import os
import unittest
from unittest import mock

from lab import Lab, LabError, programs_dir, two_sites, wait_until
from lab.edge import Edge

from .base import sanitized


@unittest.skipIf(sanitized(), "a sanitizer's runtime stands in front of the same functions")
class OneCallFails(unittest.TestCase):
    """What the tests of the n-th call share; `run_with(n)` is one scripted run."""

    @classmethod
    def setUpClass(cls):
        cls.lab = cls.enterClassContext(Lab())
        cls.top = two_sites(cls.lab, vlans=(10,), core_mtu=1600)
        cls.far = Edge(cls.top, 2)
        cls.far.start(cls.far.config(local_routes=True))
        cls.far.wait_overlay()
        cls.fault = cls.lab.path / "fault"
        cls.calls = cls.run_with(None)

    @classmethod
    def run_with(cls, number):
        """An edge's whole life while the call of that number fails (None: none). How many calls lum made in it."""
        edge, one, other = Edge(cls.top, 1), cls.top.host(1, 10), cls.top.host(2, 10)
        for suffix in ("", ".done", ".count"):
            cls.fault.with_name("fault" + suffix).unlink(missing_ok=True)
        if number is not None:
            cls.fault.write_text(f"{number}\n")
        shim = {"LD_PRELOAD": str(programs_dir() / "fault_shim.so"), "CORVANE_FAULT": str(cls.fault)}
        with mock.patch.dict(os.environ, shim):
            edge.start(edge.config(local_routes=True), wait=False)
        try:
            edge.wait_service()
            edge.wait_overlay()
            wait_until(lambda: one.ping(other.ipv4, count=1, wait=0.3), 12, "the far host answers")
            # Whatever failed, and whether lum was started again for it, is over: everything works now.
            wait_until(lambda: cls._configured(edge), 10, "a command is taken")
            wait_until(lambda: one.ping(other.ipv4, count=3, interval=0.05, wait=0.3) == 3, 15, "the far host answers")
            edge.wait_overlay()
        except LabError as error:
            raise AssertionError(f"call {number} ({cls.failed_call()}): {error}\n{edge.log_tail(40)}") from None
        finally:
            status = edge.stop()
        if status != 0:
            raise AssertionError(f"call {number} ({cls.failed_call()}): corvaned ended with {status}")
        return int(cls.fault.with_name("fault.count").read_text())

    @staticmethod
    def _configured(edge):
        try:
            edge.configure("no lum anycast-arp 10.1.9.9", "lum anycast-arp 10.1.9.9", "interface Overlay1", "shutdown",
                           "no shutdown")
        except LabError:
            return False
        return "anycast-arp 10.1.9.9" in edge.corvsh("show running-config", check=False)

    @classmethod
    def failed_call(cls):
        done = cls.fault.with_name("fault.done")
        return done.read_text().strip() if done.exists() else "not reached"

    def assert_recovers(self, numbers):
        reached = 0
        for number in numbers:
            with self.subTest(call=number):
                self.run_with(number)
                reached += self.failed_call() != "not reached"
        self.assertGreater(reached, 0)
