"""Frames that hosts leave unfinished, as their metadata says: what goes into the core is whole."""

import os
import socket
import struct
import unittest

from lab import frames

from .base import TwoSites

PORT = 4500
SOL_PACKET, PACKET_VNET_HDR, SOL_UDP, UDP_SEGMENT = 263, 15, 17, 103
NEEDS_CSUM, GSO_TCPV4, GSO_TCPV6 = 1, 1, 4


class Offloads(TwoSites):
    TRUNKS = True

    def inner(self, capture, protocol):
        """Inner IP packets of a protocol that edge1 sent into the core, with their frames."""
        found = []
        for packet in capture.overlay(outgoing=False):
            ip = packet.inner.ip()
            if ip and ip.protocol == protocol:
                found.append((packet.inner, ip))
        return found

    def assert_whole(self, found):
        self.assertLessEqual(max(len(frame.raw) for frame, _ in found), 1518)
        self.assertEqual([frame.raw.hex() for frame, ip in found if not ip.transport_checksum_ok()], [])

    def test_every_segment_of_tcp_over_ipv6_leaves_whole_with_a_valid_checksum(self):
        one, other = self.top.host(1, 10), self.top.host(2, 10)
        with self.core() as core:
            one.tcp(other, size="8M", ipv6=True)
        found = self.inner(core, frames.TCP)
        self.assertGreater(len(found), 200)
        self.assert_whole(found)

    def udp_segments(self, host, target, six):
        """Sends 40 datagrams of 1200 bytes as one super-frame."""
        def inside():
            with socket.socket(socket.AF_INET6 if six else socket.AF_INET, socket.SOCK_DGRAM) as sock:
                sock.setsockopt(SOL_UDP, UDP_SEGMENT, 1200)
                sock.sendto(b"".join(bytes([n]) * 1200 for n in range(40)), (target, PORT))
        host.ns.enter(inside)

    def test_udp_super_frames_are_cut_into_their_datagrams(self):
        one, other = self.top.host(1, 10), self.top.host(2, 10)
        for six, target in ((False, other.ipv4), (True, other.ipv6)):
            with self.subTest(ipv6=six), self.core() as core:
                one.ping(target, count=1)
                self.udp_segments(one, target, six)
                core.stop()
                found = [(f, ip) for f, ip in self.inner(core, frames.UDP) if ip.udp().dst_port == PORT]
                self.assertEqual([ip.udp().payload for _, ip in found], [bytes([n]) * 1200 for n in range(40)])
                self.assert_whole(found)

    def test_datagrams_larger_than_the_mtu_arrive(self):
        one, other = self.top.host(1, 10), self.top.host(2, 10)
        sent = os.urandom(20000)
        for family, target in ((socket.AF_INET, other.ipv4), (socket.AF_INET6, other.ipv6)):
            with self.subTest(family=family):
                one.ping(target, count=1)
                server = other.ns.socket(family, socket.SOCK_DGRAM)
                self.addCleanup(server.close)
                server.settimeout(3)
                server.bind((target, PORT))
                client = one.ns.socket(family, socket.SOCK_DGRAM)
                self.addCleanup(client.close)
                client.sendto(sent, (target, PORT))
                self.assertEqual(server.recv(65536), sent)

    def send_with_metadata(self, host, frame, meta):
        """A frame with the virtio header that says what is left to do."""
        def inside():
            with socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0) as sock:
                sock.setsockopt(SOL_PACKET, PACKET_VNET_HDR, 1)
                sock.bind(("eth0", 0))
                sock.send(meta + frame)
        host.ns.enter(inside)

    def super_frame(self, six, vlan, payload):
        """A tagged TCP super-frame with an unfinished checksum, and its metadata."""
        trunk, other = self.top.host(1, "trunk"), self.top.host(2, 10)
        src, dst = ("fd00:1::77", other.ipv6) if six else ("10.1.77.77", other.ipv4)
        pseudo = frames.Ip(6 if six else 4, src, dst, frames.TCP, 0, 0, b"", b"").pseudo_header(20 + len(payload))
        tcp = struct.pack("!HHIIBBHHH", 5000, PORT, 1000, 0, 5 << 4, 0x18, 1000, ~frames.checksum(pseudo) & 0xFFFF, 0)
        packet = (frames.ipv6 if six else frames.ipv4)(src, dst, frames.TCP, tcp + payload)
        kind = frames.ETH_IPV6 if six else frames.ETH_IPV4
        frame = frames.ethernet(other.mac, trunk.mac, kind, packet, vlan, 5)
        start = 18 + (40 if six else 20)
        return frame, struct.pack("=BBHHHH", NEEDS_CSUM, GSO_TCPV6 if six else GSO_TCPV4, start + 20, 1400, start, 16)

    def test_tagged_super_frames_are_cut_and_each_segment_has_the_tag(self):
        trunk, payload = self.top.host(1, "trunk"), os.urandom(30000)
        for six in (False, True):
            with self.subTest(ipv6=six), self.core() as core:
                self.send_with_metadata(trunk, *self.super_frame(six, 10, payload))
                core.stop()
                found = self.inner(core, frames.TCP)
                self.assertEqual(b"".join(ip.payload[20:] for _, ip in found), payload)
                self.assertEqual([int.from_bytes(ip.payload[4:8], "big") for _, ip in found],
                                 [1000 + 1400 * n for n in range(22)])
                self.assertEqual({frame.tag for frame, _ in found}, {(5 << 13 | 10).to_bytes(2, "little")})
                self.assert_whole(found)


if __name__ == "__main__":
    unittest.main()
