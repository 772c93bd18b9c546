"""The lab itself: what it builds, what it removes, and its own decoding. Everything else here relies on it."""

import os
import signal
import subprocess
import sys
import unittest
from pathlib import Path

from lab import Capture, Lab, VxlanEdge, frames, two_sites, wait_until
from lab.capture import Sender
from lab.netns import LAB_DIR, NETNS_DIR

ROOT = Path(__file__).resolve().parents[2]


def left_of(name):
    return [str(p) for p in (*NETNS_DIR.glob(f"{name}-*"), *LAB_DIR.glob(name))]


class LabRemovesItself(unittest.TestCase):
    PROGRAM = """
import sys, time
from lab import Lab, two_sites
from lab.netns import signals_raise
signals_raise()
with Lab() as lab:
    top = two_sites(lab)
    top.host(1, 10).ns.spawn("sleep", "1000")
    print(lab.name, flush=True)
    {end}
"""

    def start(self, end):
        program = subprocess.Popen([sys.executable, "-c", self.PROGRAM.format(end=end)], cwd=ROOT, text=True,
                                   stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.addCleanup(program.stdout.close)
        name = program.stdout.readline().strip()
        self.assertTrue(name)
        return program, name

    def test_nothing_is_left_after_an_exception(self):
        program, name = self.start("raise ValueError")
        self.assertEqual(program.wait(20), 1)
        self.assertEqual(left_of(name), [])

    def test_nothing_is_left_after_a_signal(self):
        for signum in (signal.SIGTERM, signal.SIGINT):
            program, name = self.start("time.sleep(100)")
            os.kill(program.pid, signum)
            program.wait(20)
            self.assertEqual(left_of(name), [])

    def test_a_lab_whose_owner_was_killed_is_removed_by_the_next(self):
        program, name = self.start("time.sleep(100)")
        program.kill()
        program.wait(20)
        self.assertNotEqual(left_of(name), [])
        with Lab():
            self.assertEqual(left_of(name), [])


class LabCore(unittest.TestCase):
    """The kernel's VXLAN over the same core: unicast, groups, capture and decoding work without lum."""

    def stretched(self, family):
        with Lab() as lab:
            top = two_sites(lab, core_family=family, core_mtu=1600)
            for site in (1, 2):
                VxlanEdge(top, site).start()
            one, other, apart = top.host(1, 10), top.host(2, 10), top.host(2, 20)
            wait_until(lambda: one.ping(other.ipv4, count=1), 10, "first answer")
            with Capture(top.core.ns, "r1") as capture:
                self.assertEqual(one.ping(other.ipv4), 3)
            self.assertEqual(one.ping(apart.ipv4, count=1), 0)
            crossed = capture.overlay(port=VxlanEdge.PORT)
            self.assertGreaterEqual(len(crossed), 6)
            self.assertEqual({(p.ip.src, p.ip.dst) for p in crossed if not p.ip.dst == top.group},
                             {(top.edge_address(1), top.edge_address(2)), (top.edge_address(2), top.edge_address(1))})

    def test_the_ipv4_core_routes_unicast_and_groups(self):
        self.stretched(4)

    def test_the_ipv6_core_routes_unicast_and_groups(self):
        self.stretched(6)


class LabFrames(unittest.TestCase):
    """The decoder against bytes written out by hand, and against the builders."""

    OVERLAY = bytes.fromhex(
        "02c00000 01fe 02c00000 0101 0800"
        "45c0 0054 0000 0000 8011 ADAB c6120101 c6120201"      # 84 bytes from 198.18.1.1 to 198.18.2.1
        "abcd 2118 0040 0000 00000000"                         # port 8472, no checksum, shim
        "020000020a01 020000010a01 8100 0a00 0806".replace(" ", "")) + bytes(34)

    def test_an_overlay_packet_is_taken_apart(self):
        data = bytearray(self.OVERLAY)
        data[24:26] = frames.checksum(bytes(data[14:24]) + b"\0\0" + bytes(data[26:34])).to_bytes(2, "big")
        packet, = frames.overlay_packets([bytes(data)])
        self.assertEqual((packet.ip.src, packet.ip.dst, packet.ip.hop_limit, packet.ip.traffic_class),
                         ("198.18.1.1", "198.18.2.1", 128, 0xC0))
        self.assertEqual((packet.udp.src_port, packet.udp.checksum, packet.shim), (0xABCD, 0, bytes(4)))
        self.assertEqual((packet.vlan, packet.inner.ethertype, packet.inner.src),
                         (10, frames.ETH_ARP, "02:00:00:01:0a:01"))

    def test_a_wrong_header_checksum_is_an_error(self):
        with self.assertRaisesRegex(frames.FrameError, "checksum"):
            frames.overlay_packets([self.OVERLAY])

    def test_checksums_of_built_datagrams_hold_and_fail_when_a_byte_changes(self):
        for src, dst in (("10.1.0.1", "10.1.0.2"), ("fd00::1", "fd00::2")):
            frame = bytearray(frames.udp_frame("02:00:00:00:00:01", "02:00:00:00:00:02", src, dst, b"odd"))
            self.assertTrue(frames.decode_ethernet(bytes(frame)).ip().transport_checksum_ok())
            frame[-1] ^= 1
            self.assertFalse(frames.decode_ethernet(bytes(frame)).ip().transport_checksum_ok())

    def test_fragments_are_put_together_in_any_order(self):
        body = bytes(range(256)) * 12
        pieces = [frames.decode_ipv4(frames.ipv4("10.0.0.1", "10.0.0.2", 17, body[at:at + 1024], identification=7,
                                                 flags=at // 8 | (0x2000 if at + 1024 < len(body) else 0)))
                  for at in range(0, len(body), 1024)]
        for order in ((0, 1, 2), (2, 0, 1), (1, 2, 0)):
            whole = frames.Reassembler()
            results = [whole.add(pieces[i]) for i in order]
            self.assertEqual(results[:2], [None, None])
            self.assertEqual(results[2].payload, body)

    def test_a_frame_that_is_sent_is_captured_once_with_its_tag(self):
        frame = frames.udp_frame("02:00:00:00:00:01", "02:00:00:00:00:02", "10.0.0.1", "10.0.0.2", b"x" * 20, vlan=300)
        with Lab() as lab:
            one, other = lab.namespace("one"), lab.namespace("other")
            lab.link(one, "eth0", other, "eth0")
            with Capture(other, "eth0") as capture, Sender(one) as sender:
                sender.send(frame)
            seen = [f for f in capture.decoded(outgoing=False) if f.ethertype == frames.ETH_IPV4]
        self.assertEqual([(f.vlan, f.raw) for f in seen], [(300, frame)])


if __name__ == "__main__":
    unittest.main()
