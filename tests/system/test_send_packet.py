"""Frames that clients have the edge send: flooded to the site ports of a VLAN, each port in its way."""

import struct
import unittest

from lab import Capture, Lab, frames, two_sites, wait_until
from lab.edge import Edge

from .base import TwoSites, is_test_frame

MAIN_SAP, SEND_PACKET = "442", "78860"
VLAN = 300


class SendPacket(TwoSites):
    """Site 1: two hosts of the VLAN, one of another VLAN, and a trunk."""

    @classmethod
    def setUpClass(cls):
        cls.lab = cls.enterClassContext(Lab())
        cls.top = two_sites(cls.lab, vlans=(10, VLAN), hosts_per_vlan=2, trunks=True, group_routes=False)
        cls.edge = Edge(cls.top, 1)
        cls.edges = {1: cls.edge}
        cls.edge.start()
        cls.edge.wait_overlay()
        cls.hosts = {"one": cls.top.host(1, VLAN), "two": cls.top.host(1, VLAN, 2), "other": cls.top.host(1, 10),
                     "trunk": cls.top.host(1, "trunk")}
        members = lambda: [line for line in cls.edge.corvsh("show lum interface").splitlines() if "eth" in line]
        wait_until(lambda: len(members()) >= 5, 5, "the ports are served")

    def setUp(self):
        self.frame = frames.ethernet(self.hosts["two"].mac, "02:00:00:00:77:07", 0x88B5, bytes(range(100)))
        self.tagged = frames.ethernet(self.hosts["two"].mac, "02:00:00:00:77:07", 0x88B5, bytes(range(100)), VLAN)

    def iod(self, host):
        return next(int(line.split()[1]) for line in self.edge.corvsh("show interface").splitlines()
                    if line.startswith(f"{host.port} "))

    def request(self, frame, vlan=VLAN, skip=0, length=None):
        head = struct.pack("=II6s6sBBI", vlan, skip, frame[:6], frame[6:12], 0, 0, len(frame) if length is None else length)
        self.edge.corvbus("send", MAIN_SAP, SEND_PACKET, (head + frame).hex())

    def received(self, *requests):
        """What each host receives when the requests are sent: {host: [frame, ...]}."""
        captures = {name: Capture(host.ns, "eth0") for name, host in self.hosts.items()}
        core = Capture(self.top.core.ns, "r1")
        for capture in (*captures.values(), core):
            capture.__enter__()
        for request in requests:
            request()
        for capture in (*captures.values(), core):
            capture.stop()
        self.assertEqual([f for f in core.frames() if b"\x88\xb5" in f], [], "it is for the site alone")
        seen = lambda capture: [f for f in capture.frames(outgoing=False) if is_test_frame(f) or is_test_frame(f[4:])]
        return {name: seen(capture) for name, capture in captures.items()}

    def test_a_frame_reaches_every_port_of_its_vlan_and_has_its_tag_on_a_trunk(self):
        got = self.received(lambda: self.request(self.frame))
        self.assertEqual(got, {"one": [self.frame], "two": [self.frame], "other": [], "trunk": [self.tagged]})

    def test_a_port_can_be_left_out(self):
        for left_out in ("one", "trunk"):
            with self.subTest(left_out=left_out):
                got = self.received(lambda: self.request(self.frame, skip=self.iod(self.hosts[left_out])))
                wanted = {"one": [self.frame], "two": [self.frame], "other": [], "trunk": [self.tagged], left_out: []}
                self.assertEqual(got, wanted)

    def test_requests_that_are_wrong_send_nothing_and_are_counted(self):
        count = lambda: self.edge.drops().get("bus: malformed message", 0)
        before = count()
        got = self.received(lambda: self.request(self.frame, length=len(self.frame) + 1),
                            lambda: self.request(self.frame, length=0xFFFFFFFF),
                            lambda: self.request(self.frame, length=13),
                            lambda: self.request(self.frame[:20], length=21),
                            lambda: self.request(self.frame, vlan=77),           # these two name no VLAN in use
                            lambda: self.request(self.frame, vlan=0xFFFFFFFF))
        self.assertEqual(set(map(tuple, got.values())), {()})
        self.assertEqual(count(), before + 4)


if __name__ == "__main__":
    unittest.main()
