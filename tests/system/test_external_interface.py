"""The external interface of an overlay while it comes, goes and changes, and the groups that the kernel is a member of."""

import re
import struct
import unittest

from lab import frames, wait_until

from .base import OneEdge

OVERLAY_RECORD = 2
DEVICE = "late0"


class ExternalInterface(OneEdge):
    """Edge 1, with an overlay of its own for each test over a device that the test makes."""

    def setUp(self):
        self.ns = self.edge.ns
        self.edge.configure("interface Overlay5", "lum vpn-name late", f"lum vpn-ext-if {DEVICE}",
                            "lum vpn-mgroup-addr 239.5.5.5", "lum vpn-mgroup-addr ff05::5:5")
        self.addCleanup(self.clear)
        self.wait("State", "DOWN")

    def clear(self):
        self.ns.run("ip", "link", "del", DEVICE, check=False)
        self.edge.configure("no interface Overlay5")
        wait_until(lambda: "Overlay5" not in self.edge.corvsh("show lum overlay summary"), 5, "the overlay is gone")

    def make(self, *addresses):
        self.ns.ip(f"link add {DEVICE} type veth peer name late1", *(f"addr add {a} dev {DEVICE}" for a in addresses),
                   f"link set {DEVICE} up", "link set late1 up")

    def shown(self, label):
        return self.edge.overlay("Overlay5").get(label)

    def wait(self, label, value):
        wait_until(lambda: self.shown(label) == value, 5, f"{label} is {value}")

    def record(self):
        """External iod, state, IPv4 and IPv6 address in the overlay's record."""
        key = struct.pack("=BI", OVERLAY_RECORD, int(self.shown("VPN ID"))).hex()
        value = next(bytes.fromhex(line.split()[1]) for line in self.edge.corvbus("sdb").splitlines()
                     if line.startswith(key))
        iod, state, ipv4 = (struct.unpack_from("=I", value, at)[0] for at in (12, 272, 288))
        return iod, state, ipv4.to_bytes(4, "big"), value[292:308]

    def joined(self):
        """Groups that the kernel has for the device, as {family: {hexadecimal, ...}}."""
        table = lambda path: self.ns.run("cat", path).stdout
        four = re.search(rf"^\d+\s+{DEVICE}\s.*\n((?:\t.*\n)*)", table("/proc/net/igmp"), re.M)
        six = re.findall(rf"^\d+\s+{DEVICE}\s+([0-9a-f]{{32}})", table("/proc/net/igmp6"), re.M)
        return {4: {line.split()[0] for line in four.group(1).splitlines()} if four else set(), 6: set(six)}

    @staticmethod
    def group4(address):
        return bytes(reversed(frames.ip_bytes(address))).hex().upper()

    @staticmethod
    def group6(address):
        return frames.ip_bytes(address).hex()

    def ifindex(self):
        return self.ns.ip_json("link", "show", "dev", DEVICE)[0]["ifindex"]

    # ---- coming and going

    def test_an_interface_that_appears_later_is_taken_with_its_groups(self):
        self.assertEqual(self.record()[:2], (0, 1))
        self.make("192.0.2.9/24")
        self.wait("State", "UP")
        wait_until(lambda: self.group4("239.5.5.5") in self.joined()[4], 5, "the IPv4 group")
        wait_until(lambda: self.group6("ff05::5:5") in self.joined()[6], 5, "the IPv6 group")
        iod, state, ipv4, _ = self.record()
        self.assertEqual((state, ipv4), (2, frames.ip_bytes("192.0.2.9")))
        self.assertIn(f"{DEVICE} ", self.edge.corvsh("show interface"))
        self.assertNotEqual(iod, 0)

    def test_one_that_comes_back_with_another_index_keeps_its_number_and_gets_its_groups_again(self):
        self.make("192.0.2.9/24")
        self.wait("State", "UP")
        iod, first = self.record()[0], self.ifindex()
        self.ns.ip(f"link del {DEVICE}")
        self.wait("External IPv4 address", "0.0.0.0")
        self.make("192.0.2.10/24")
        self.assertNotEqual(self.ifindex(), first)
        self.wait("External IPv4 address", "192.0.2.10")
        self.wait("State", "UP")
        wait_until(lambda: self.record() == (iod, 2, frames.ip_bytes("192.0.2.10"), bytes(16)), 5, "its record")
        wait_until(lambda: self.group4("239.5.5.5") in self.joined()[4], 5, "the IPv4 group")
        wait_until(lambda: self.group6("ff05::5:5") in self.joined()[6], 5, "the IPv6 group")

    def test_one_that_comes_back_under_another_name_is_another(self):
        self.make("192.0.2.9/24")
        self.wait("State", "UP")
        self.ns.ip(f"link set {DEVICE} down", f"link set {DEVICE} name other0", "link set other0 up")
        self.addCleanup(self.ns.ip, "link del other0")
        self.wait("External IPv4 address", "0.0.0.0")
        self.edge.configure("interface Overlay5", "lum vpn-ext-if other0")
        self.wait("External IPv4 address", "192.0.2.9")
        self.wait("State", "UP")

    # ---- addresses

    def test_addresses_of_both_families_are_followed(self):
        self.make()
        for label, address, length, other in (("External IPv4 address", "192.0.2.9", 24, "192.0.2.77"),
                                              ("External IPv6 address", "2001:db8:99::9", 64, "2001:db8:99::77")):
            with self.subTest(label):
                # The next one takes over when the one in use goes.
                flags = " nodad" if ":" in address else ""
                self.ns.ip(f"addr add {address}/{length} dev {DEVICE}{flags}")
                self.wait(label, address)
                self.wait("State", "UP")
                self.ns.ip(f"addr add {other}/{length if ':' in other else 32} dev {DEVICE}{flags}",
                           f"addr del {address}/{length} dev {DEVICE}")
                self.wait(label, other)
                self.wait("State", "UP")
        self.assertEqual(self.record()[2:], (frames.ip_bytes("192.0.2.77"), frames.ip_bytes("2001:db8:99::77")))

    def test_without_its_last_address_of_ipv6_the_overlay_goes_down(self):
        self.make()
        self.ns.ip(f"addr add 2001:db8:99::9/64 dev {DEVICE} nodad")
        self.wait("State", "UP")
        self.ns.ip(f"addr del 2001:db8:99::9/64 dev {DEVICE}")
        self.wait("State", "DOWN")
        self.assertEqual(self.shown("State reasons"), ["Incomplete Parameters"])
        self.assertEqual(self.record()[3], bytes(16))

    # ---- groups

    def test_a_new_group_is_joined_beside_the_one_before(self):
        self.make("192.0.2.9/24")
        self.wait("State", "UP")
        self.edge.configure("interface Overlay5", "lum vpn-mgroup-addr 239.5.5.6", "lum vpn-mgroup-addr ff05::5:6")
        wait_until(lambda: {self.group4("239.5.5.5"), self.group4("239.5.5.6")} <= self.joined()[4], 5, "both of IPv4")
        wait_until(lambda: {self.group6("ff05::5:5"), self.group6("ff05::5:6")} <= self.joined()[6], 5, "both of IPv6")


if __name__ == "__main__":
    unittest.main()
