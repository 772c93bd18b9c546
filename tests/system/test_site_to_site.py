"""The main job: VLANs stretched between two sites, over an IPv4 and over an IPv6 core."""

import contextlib
import struct

from lab import Capture, frames
from lab.capture import Sender
from lab.topology import core_mac

from .base import VLANS, TwoSites, is_test_frame

FRAME_SIZES = (60, 61, 100, 1000, 1514)


def mac_hash(frame):
    """The UDP source port: both MACs as three little-endian words, XORed and folded."""
    one, two, three = struct.unpack("<III", frame[:12])
    mixed = one ^ two ^ three
    return (mixed ^ mixed >> 16) & 0xFFFF


def fields(*rows):
    """Bytes of a header given as rows of (offset, width, value); rows must follow each other without a gap."""
    out = b""
    for offset, width, value in rows:
        assert offset == len(out), f"row at {offset}, {len(out)} bytes so far"
        out += value if isinstance(value, bytes) else value.to_bytes(width, "big")
        assert len(out) == offset + width
    return out


def ipv4_packet(src, dst, inner):
    """The whole packet on the core that carries the inner frame over IPv4."""
    head = fields((0, 1, 0x45), (1, 1, 0xC0), (2, 2, 32 + len(inner)), (4, 2, 0), (6, 2, 0), (8, 1, 128), (9, 1, 17),
                  (10, 2, 0), (12, 4, frames.ip_bytes(src)), (16, 4, frames.ip_bytes(dst)))
    head = head[:10] + frames.checksum(head).to_bytes(2, "big") + head[12:]
    return head + fields((0, 2, mac_hash(inner)), (2, 2, 8472), (4, 2, 12 + len(inner)), (6, 2, 0), (8, 4, 0)) + inner


def ipv6_packet(src, dst, inner):
    """The whole packet on the core that carries the inner frame over IPv6."""
    return fields((0, 4, 0x60000000), (4, 2, 12 + len(inner)), (6, 1, 17), (7, 1, 128),
                  (8, 16, frames.ip_bytes(src)), (24, 16, frames.ip_bytes(dst)),
                  (40, 2, mac_hash(inner)), (42, 2, 8472), (44, 2, 12 + len(inner)), (46, 2, 0), (48, 4, 0)) + inner


class SiteToSiteOverIpv4(TwoSites):
    FAMILY = 4

    def packet(self, dst, inner):
        build = ipv6_packet if self.FAMILY == 6 else ipv4_packet
        return build(self.top.edge_address(1), dst, inner)

    def group_mac(self):
        address = frames.ip_bytes(self.top.group)
        if self.FAMILY == 6:
            return frames.mac_text(b"\x33\x33" + address[-4:])
        return frames.mac_text(b"\x01\x00\x5e" + bytes([address[1] & 0x7F]) + address[2:])

    # ---- hosts

    def test_hosts_of_a_vlan_reach_each_other_across_the_core(self):
        for vlan in VLANS:
            one, other = self.top.host(1, vlan), self.top.host(2, vlan)
            with self.subTest(vlan=vlan):
                self.assertEqual(one.ping(other.ipv4, count=5), 5)
                self.assertEqual(other.ping(one.ipv4, count=5), 5)
                self.assertEqual(one.ping(other.ipv6, count=5), 5)

    def test_full_sized_frames_cross_both_ways(self):
        for vlan in VLANS:
            one, other = self.top.host(1, vlan), self.top.host(2, vlan)
            with self.subTest(vlan=vlan):
                self.assertEqual(one.ping(other.ipv4, size=1472, options=("-M", "do")), 3)

    def test_tcp_crosses_with_the_offloads_that_the_system_sets(self):
        for vlan in VLANS:
            with self.subTest(vlan=vlan):
                report = self.top.host(1, vlan).tcp(self.top.host(2, vlan), seconds=2)
                self.assertGreater(report["end"]["sum_received"]["bytes"], 1_000_000)

    def test_tcp_crosses_over_ipv6_of_the_hosts(self):
        report = self.top.host(2, 10).tcp(self.top.host(1, 10), seconds=2, ipv6=True)
        self.assertGreater(report["end"]["sum_received"]["bytes"], 1_000_000)

    def test_hosts_of_different_vlans_stay_apart(self):
        hosts = list(self.top.hosts.values())
        pairs = [(a, b) for a in hosts for b in hosts if a.vlan != b.vlan]
        with contextlib.ExitStack() as stack:
            captures = {host: stack.enter_context(Capture(host.ns, "eth0")) for host in hosts}
            for a, b in pairs:
                self.assertEqual(a.ping(b.ipv4, count=1, wait=0.2), 0, f"{a.name} to {b.name}")
                a.neighbour(b.ipv4, b.mac)                   # now as unicast, without asking
                self.assertEqual(a.ping(b.ipv4, count=1, wait=0.2), 0, f"{a.name} to {b.name} as unicast")
        vlan_of = {host.mac: host.vlan for host in hosts}
        for host, capture in captures.items():
            senders = {vlan_of[f.src] for f in capture.decoded(outgoing=False) if f.src in vlan_of}
            self.assertLessEqual(senders, {host.vlan}, f"seen by {host.name}")

    # ---- bytes on the core

    def sent_and_captured(self, *sent):
        """Sends frames from the host of VLAN 10 at site 1: Ethernet frames on the core, frames at the far host."""
        one, other = self.top.host(1, 10), self.top.host(2, 10)
        with self.core() as core, Capture(other.ns, "eth0") as far, Sender(one.ns) as sender:
            sender.send(*sent)
        core_frames = [f for f in core.decoded(outgoing=False) if f.payload.find(b"\x88\xb5") > 0]
        return core_frames, [f for f in far.frames(outgoing=False) if is_test_frame(f)]

    def test_a_unicast_frame_is_one_packet_with_every_byte_as_laid_down(self):
        for size in FRAME_SIZES:
            with self.subTest(size=size):
                sent = self.site_frame(size)
                core, far = self.sent_and_captured(sent)
                expected = self.packet(self.top.edge_address(2), frames.overlay_tagged(sent, 10))
                self.assertEqual([f.payload.hex() for f in core], [expected.hex()])
                self.assertEqual((core[0].dst, core[0].src), (core_mac(1, False), core_mac(1, True)))
                self.assertEqual(core[0].ethertype, frames.ETH_IPV6 if self.FAMILY == 6 else frames.ETH_IPV4)
                self.assertEqual([f.hex() for f in far], [sent.hex()])

    def test_a_broadcast_frame_is_one_packet_to_the_group_with_every_byte_as_laid_down(self):
        sent = self.site_frame(100, dst=frames.BROADCAST)
        core, far = self.sent_and_captured(sent)
        expected = self.packet(self.top.group, frames.overlay_tagged(sent, 10))
        self.assertEqual([f.payload.hex() for f in core], [expected.hex()])
        self.assertEqual((core[0].dst, core[0].src), (self.group_mac(), core_mac(1, True)))
        self.assertEqual([f.hex() for f in far], [sent.hex()])

    def test_a_snap_frame_is_tagged_behind_its_snap_header(self):
        one, other, body = self.top.host(1, 10), self.top.host(2, 10), bytes(range(80))
        with self.core() as core, Sender(one.ns) as sender:
            sender.send(frames.snap(other.mac, one.mac, 0x88B5, body))
        # The length field goes down by 4 although the frame grew by 4.
        inner = (frames.mac_bytes(other.mac) + frames.mac_bytes(one.mac) + (88 - 4).to_bytes(2, "big")
                 + b"\xaa\xaa\x03\0\0\0\x81\x00" + b"\x0a\x00\x88\xb5" + body)
        self.assertEqual([p.inner.raw.hex() for p in core.overlay(outgoing=False) if p.inner.snap], [inner.hex()])

    def test_a_frame_to_an_unknown_host_is_dropped_and_counted(self):
        before = self.edges[1].drops().get("unknown unicast: no route", 0)
        core, far = self.sent_and_captured(self.site_frame(80, dst="02:00:00:99:99:99"))
        self.assertEqual((core, far), ([], []))
        self.assertEqual(self.edges[1].drops().get("unknown unicast: no route", 0), before + 1)

    def test_unfinished_checksums_of_hosts_are_finished_before_the_core(self):
        one, other = self.top.host(1, 10), self.top.host(2, 10)
        with self.core() as core:
            one.ns.run("bash", "-c", f"echo hello >/dev/udp/{other.ipv4}/4001")
        datagrams = [p.inner.ip() for p in core.overlay(outgoing=False) if p.inner.ethertype == frames.ETH_IPV4]
        datagrams = [ip for ip in datagrams if ip.protocol == frames.UDP and ip.udp().dst_port == 4001]
        self.assertEqual([ip.udp().payload for ip in datagrams], [b"hello\n"])
        self.assertTrue(datagrams[0].transport_checksum_ok())

    def test_every_frame_of_a_tcp_transfer_fits_the_host_mtu_and_has_a_good_checksum(self):
        one, other = self.top.host(1, 10), self.top.host(2, 10)
        with self.core() as core:
            one.tcp(other, size="8M")
        segments = [p.inner for p in core.overlay(outgoing=False) if p.inner.ethertype == frames.ETH_IPV4]
        self.assertGreater(len(segments), 200)
        self.assertLessEqual(max(len(f.raw) for f in segments), 1518)
        self.assertEqual([f.raw.hex() for f in segments if not f.ip().transport_checksum_ok()], [])

    # ---- state

    def test_the_overlay_shows_what_the_startup_file_says(self):
        shown = self.edges[1].overlay()
        self.assertEqual(shown["VPN Name"], "blue")
        self.assertEqual(shown["State"], "UP")
        self.assertEqual(shown["External interface(s)"], "eth0")
        self.assertEqual(shown["External IPv4 address"], "198.18.1.1")
        self.assertEqual(shown["Encapsulation format"], f"UDP/IPv{self.FAMILY}")
        self.assertEqual(shown[f"IPv{self.FAMILY} multicast group"], self.top.group)


class SiteToSiteOverIpv6(SiteToSiteOverIpv4):
    FAMILY = 6


class SiteToSiteOverASmallCore(TwoSites):
    """A core whose MTU is smaller than a full frame and its headers."""

    CORE_MTU = 1500

    def test_full_frames_are_fragmented_on_the_core_and_whole_at_the_host(self):
        one, other = self.top.host(1, 10), self.top.host(2, 10)
        sent = self.site_frame(1514)
        with self.core() as core, Capture(other.ns, "eth0") as far, Sender(one.ns) as sender:
            sender.send(sent)
        pieces = [f for f in core.decoded(outgoing=False) if f.ethertype == frames.ETH_IPV4 and f.ip().fragment]
        self.assertEqual(len(pieces), 2)
        self.assertLessEqual(max(len(f.payload) for f in pieces), 1500)
        packet, = (p for p in core.overlay(outgoing=False) if p.inner.ethertype == 0x88B5)
        self.assertEqual(packet.inner.raw.hex(), frames.overlay_tagged(sent, 10).hex())
        self.assertEqual([f.hex() for f in far.frames(outgoing=False) if is_test_frame(f)], [sent.hex()])

    def test_the_largest_frame_that_fits_is_not_fragmented(self):
        one = self.top.host(1, 10)
        with self.core() as core, Sender(one.ns) as sender:
            sender.send(self.site_frame(1500 - 32 - 4))
        packets = [f for f in core.decoded(outgoing=False) if b"\x88\xb5" in f.payload[:100]]
        self.assertEqual([(len(f.payload), f.ip().fragment) for f in packets], [(1500, False)])

    def test_tcp_crosses_in_fragments(self):
        report = self.top.host(1, 10).tcp(self.top.host(2, 10), seconds=2)
        self.assertGreater(report["end"]["sum_received"]["bytes"], 1_000_000)


class SiteToSiteOverASmallIpv6Core(SiteToSiteOverASmallCore):
    FAMILY = 6

    def test_full_frames_are_fragmented_on_the_core_and_whole_at_the_host(self):
        one, other = self.top.host(1, 10), self.top.host(2, 10)
        sent = self.site_frame(1514)
        with self.core() as core, Capture(other.ns, "eth0") as far, Sender(one.ns) as sender:
            sender.send(sent)
        pieces = [f for f in core.decoded(outgoing=False) if f.ethertype == frames.ETH_IPV6 and f.ip().fragment]
        self.assertEqual(len(pieces), 2)
        packet, = (p for p in core.overlay(outgoing=False) if p.inner.ethertype == 0x88B5)
        self.assertEqual(packet.inner.raw.hex(), frames.overlay_tagged(sent, 10).hex())
        self.assertEqual([f.hex() for f in far.frames(outgoing=False) if is_test_frame(f)], [sent.hex()])

    def test_the_largest_frame_that_fits_is_not_fragmented(self):
        one = self.top.host(1, 10)
        with self.core() as core, Sender(one.ns) as sender:
            sender.send(self.site_frame(1500 - 52 - 4))
        packets = [f for f in core.decoded(outgoing=False) if b"\x88\xb5" in f.payload[:100]]
        self.assertEqual([(len(f.payload), f.ip().fragment) for f in packets], [(1500, False)])
