"""What happens by the clock alone: routes that age out, and hellos for the routers of a site."""

import struct
import time
import unittest

from lab import Capture, Lab, frames, two_sites, wait_until
from lab.capture import Sender
from lab.edge import Edge

from .base import TwoSites

AGEING_S, ACTIVE_S, LEARN_S, HELLO_S = 120, 60, 15, 30
PIM, ALL_PIM_ROUTERS, ALL_PIM_ROUTERS_MAC = 103, "224.0.0.13", "01:00:5e:00:00:0d"


class Ageing(TwoSites):
    CONFIG = {"local_routes": False}
    WAITS = True

    def test_a_host_ages_out_when_it_falls_silent_and_not_while_it_talks(self):
        edge, host = self.edges[1], self.top.host(1, 10)
        silent, talker = "02:00:00:51:1e:17", "02:00:00:7a:1e:12"
        speak = lambda mac: sender.send(frames.ethernet("02:00:00:00:00:fe", mac, 0x88B5, bytes(46)))
        with Sender(host.ns) as sender:
            speak(silent)
            fell_silent = time.monotonic()
            speak(talker)
            edge.wait_route(10, silent, timeout=LEARN_S + 2)

            def gone():
                speak(talker)
                rows = edge.routes()
                self.assertTrue(f"10/{talker}" in rows or time.monotonic() < fell_silent + LEARN_S + 2, rows)
                return f"10/{silent}" not in rows

            wait_until(gone, AGEING_S + 2 * LEARN_S, "the silent host ages out", interval=1)
            # Longer than a learn period: a withdrawal that came by mistake would show.
            end = time.monotonic() + LEARN_S + 2
            while time.monotonic() < end:
                gone()
                time.sleep(1)
        self.assertGreaterEqual(time.monotonic() - fell_silent, ACTIVE_S)


class Hellos(unittest.TestCase):
    """One edge, whose VLANs 10 and 20 have an access port each and a trunk together."""

    WAITS = True
    HEAD = ""                                                # of the startup configuration

    @classmethod
    def setUpClass(cls):
        cls.lab = cls.enterClassContext(Lab())
        cls.top = two_sites(cls.lab, vlans=(10, 20), core_mtu=1600, trunks=True)
        cls.edge = Edge(cls.top, 1)
        cls.edge.start(cls.HEAD + cls.startup(cls.edge.config()))
        cls.edge.wait_overlay()
        cls.one, cls.other, cls.trunk = (cls.top.host(1, name) for name in (10, 20, "trunk"))

    @staticmethod
    def startup(config):
        return config

    def hellos(self, capture):
        """(time, frame) of each hello that came in on a host's device."""
        found = []
        for captured in capture.all():
            frame = frames.decode_ethernet(captured.data)
            ip = frame.ip() if frame.ethertype == frames.ETH_IPV4 else None
            if not captured.outgoing and ip and ip.protocol == PIM:
                found.append((captured.time, frame))
        return found

    def assert_valid(self, frame, vlan):
        """A hello to the routers of the link; `vlan` is that of its tag, None without one."""
        ip = frame.ip()
        self.assertEqual((frame.dst, frame.vlan), (ALL_PIM_ROUTERS_MAC, vlan))
        self.assertEqual((ip.dst, ip.hop_limit), (ALL_PIM_ROUTERS, 1))
        self.assertEqual(ip.payload[:2], b"\x20\x00")            # version 2, hello
        self.assertEqual(frames.checksum(ip.payload), 0)
        options, at = {}, 4
        while at < len(ip.payload):
            kind, length = struct.unpack_from("!HH", ip.payload, at)
            options[kind] = ip.payload[at + 4:at + 4 + length]
            at += 4 + length
        self.assertEqual(at, len(ip.payload))
        self.assertEqual(options.pop(1), (105).to_bytes(2, "big"))               # hold time: 3.5 hellos
        self.assertEqual({kind: len(value) for kind, value in options.items()}, {19: 4, 20: 4})

    def test_member_ports_get_a_hello_every_thirty_seconds(self):
        with Capture(self.one.ns, "eth0") as access, Capture(self.trunk.ns, "eth0") as tagged:
            wait_until(lambda: len(self.hellos(access)) == 2 and len(self.hellos(tagged)) >= 3, 2 * HELLO_S + 5,
                       "hellos on both ports", interval=0.5)
        (first, frame), (second, again) = self.hellos(access)
        self.assertAlmostEqual(second - first, HELLO_S, delta=1.5)
        self.assertEqual(frame, again)                           # the same generation: neighbours see no restart
        self.assert_valid(frame, None)
        self.assertEqual({frame.vlan for _, frame in self.hellos(tagged)}, {10, 20})
        for _, frame in self.hellos(tagged):
            self.assert_valid(frame, frame.vlan)

    def test_the_first_hello_of_a_vlan_comes_at_once(self):
        with Capture(self.one.ns, "eth0") as elsewhere, Capture(self.other.ns, "eth0") as capture:
            before = len(self.hellos(elsewhere)), len(self.hellos(capture))
            self.edge.configure(f"interface {self.other.port}", "lum vlan 30")
            self.addCleanup(self.edge.configure, f"interface {self.other.port}", "no lum vlan 30", "lum vlan 20")
            wait_until(lambda: self.hellos(capture), 2, "the first hello")
        self.assertEqual(before, (0, 0))
        self.assert_valid(self.hellos(capture)[0][1], None)


class HellosOnAGenericChassis(Hellos):
    """There the platform floods a hello on the VLAN: to ports that it put into the VLAN itself, and to all others."""

    HEAD = "chassis generic\n"

    @staticmethod
    def startup(config):
        return config.replace("  switchport access vlan 10\n", "")              # `lum vlan` alone speaks for it


if __name__ == "__main__":
    unittest.main()
