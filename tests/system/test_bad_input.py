"""What the core, the sites and the bus may send that they should not: a counted drop or a message, and on it goes."""

import random
import socket
import unittest

from lab import frames, wait_until
from lab.capture import Sender

from .base import TwoSites, sanitized

SHORT = ("core packet shorter than its headers", "site frame shorter than its headers")


class BadInput(TwoSites):
    def setUp(self):
        self.edge = self.edges[1]
        self.pid = self.edge.lum_pid()
        self.assertTrue(self.pid)

    def assert_unharmed(self):
        """The same process still does its job."""
        self.assert_stretched(10)
        self.assertEqual(self.edge.lum_pid(), self.pid)

    def core_socket(self, family=socket.AF_INET):
        sock = self.top.core.ns.socket(family, socket.SOCK_DGRAM)
        self.addCleanup(sock.close)
        return sock, (self.edge.node.ipv6 if family == socket.AF_INET6 else self.edge.node.ipv4, 8472)

    def short_packets(self):
        drops = self.edge.drops()
        return sum(drops.get(reason, 0) for reason in SHORT)

    def test_datagrams_of_every_length_from_0_up(self):
        for family in (socket.AF_INET, socket.AF_INET6):
            sock, edge = self.core_socket(family)
            before = self.short_packets()
            # Shim and Ethernet header are 18 bytes: what is shorter holds no frame.
            for length in range(18):
                sock.sendto(bytes(length), edge)
            with self.subTest(family=family):
                wait_until(lambda: self.short_packets() == before + 18, 5, "short packets are counted")
            for length in (*range(18, 200), 1400, 1500, 1518, 1522, 1523, 2000, 2999, 3000, 3001, 4000, 9000, 65000):
                sock.sendto(bytes(length), edge)
        self.assert_unharmed()

    def test_datagrams_of_garbage(self):
        chance = random.Random(8472)
        for family in (socket.AF_INET, socket.AF_INET6):
            sock, edge = self.core_socket(family)
            for _ in range(2000):
                sock.sendto(chance.randbytes(chance.randrange(1600)), edge)
        self.assert_unharmed()

    def test_overlay_packets_whose_frame_is_cut_at_every_length(self):
        sock, edge = self.core_socket()
        one, other = self.top.host(1, 10), self.top.host(2, 10)
        for whole in (frames.udp_frame(other.mac, one.mac, other.ipv4, one.ipv4, b"x" * 60),
                      frames.udp_frame(other.mac, one.mac, other.ipv6, one.ipv6, b"x" * 60),
                      frames.ethernet(frames.BROADCAST, other.mac, frames.ETH_ARP,
                                      frames.arp(1, other.mac, other.ipv4, "00:00:00:00:00:00", one.ipv4))):
            inner = frames.overlay_tagged(whole, 10)
            for length in range(len(inner) + 1):
                sock.sendto(bytes(4) + inner[:length], edge)
        self.assert_unharmed()

    def test_a_packet_for_a_vlan_that_no_overlay_carries_is_counted(self):
        sock, edge = self.core_socket()
        reason = "core frame: VLAN without overlay"
        before = self.edge.drops().get(reason, 0)
        frame = frames.ethernet(self.top.host(1, 10).mac, "02:00:00:00:00:99", 0x88B5, bytes(60))
        sock.sendto(bytes(4) + frames.overlay_tagged(frame, 999), edge)
        wait_until(lambda: self.edge.drops().get(reason, 0) == before + 1, 5, "the packet is counted")
        self.assert_unharmed()

    def test_site_frames_of_every_length(self):
        host = self.top.host(1, 10)
        whole = self.site_frame(1514)
        with Sender(host.ns) as sender:
            for length in (*range(14, 120), 1510, 1513, 1514):
                sender.send(whole[:length])
                sender.send(frames.ethernet(frames.BROADCAST, host.mac, length & 0x3FF, whole[14:length]))
                sender.send((frames.ethernet(frames.BROADCAST, host.mac, frames.ETH_ARP, b"") + whole)[:length])
                sender.send((frames.ethernet(frames.BROADCAST, host.mac, frames.ETH_IPV4, b"") + whole)[:length])
        self.assert_unharmed()

    def test_site_frames_too_long_for_a_tag_are_counted(self):
        host = self.top.host(1, 10)
        host.ns.ip("link set eth0 mtu 1600")
        self.edge.ns.ip(f"link set {host.port} mtu 1600")
        before = self.edge.drops().get("frame longer than the scratch buffer", 0)
        with Sender(host.ns) as sender:
            for size in (1515, 1518, 1519, 1600):
                sender.send(self.site_frame(size))
        wait_until(lambda: self.edge.drops().get("frame longer than the scratch buffer", 0) == before + 4, 5,
                   "long frames are counted")
        self.assert_unharmed()

    def test_unknown_opcodes_on_the_bus(self):
        for opcode in ("0", "1", "0x99999", "0xffffffff"):
            for payload in ("", "00", "ff" * 100):
                self.edge.corvbus("send", "442", opcode, *([payload] if payload else []), check=False)
        self.edge.wait_log("unknown major mtype")
        self.assert_unharmed()

    def test_unknown_opcodes_on_the_packet_queue(self):
        self.edge.corvbus("send", "440", "0x12345", "00" * 64, check=False)
        self.edge.wait_log("lum_pm_main(): unknown MBUS OPC type: 74565")
        self.assert_unharmed()

    def test_commands_that_make_no_sense_are_rejected(self):
        for command in ("show lum nonsense", "show lum overlay Overlay99999999999", "lum route 5000/zz", "x" * 5000,
                        "debug lum packet source 9999/02:00:00:00:00:01", "\x1b[2J\x00".replace("\x00", "\x01")):
            self.edge.corvsh(command, check=False)
            self.edge.corvsh("configure terminal", command, check=False)
        self.assert_unharmed()


@unittest.skipIf(sanitized(), "a sanitizer's own memory is no measure")
class ManyRoutes(TwoSites):
    ROUTES = 10_000
    LIMIT_KIB = 64 * 1024

    def test_lum_stays_under_64_mib_with_10000_routes(self):
        edge = self.edges[1]
        commands = edge.dir / "routes.cfg"
        commands.write_text("configure terminal\n" + "".join(
            f"lum route 10/02:10:00:00:{n >> 8:02x}:{n & 255:02x} interface Overlay1 next-hop 198.18.2.1\n"
            for n in range(self.ROUTES)))
        edge.ns.run(edge.programs / "corvsh", "--root", edge.root, "-f", commands, timeout=120)
        self.assertGreaterEqual(len(edge.routes()), self.ROUTES)
        self.assertLess(edge.resident_kib(), self.LIMIT_KIB)
        self.assert_stretched(10)


if __name__ == "__main__":
    unittest.main()
