"""Refused commands on a running edge: each one says why, word for word, and leaves nothing behind."""

import re
import unittest
from pathlib import Path

from lab import Edge, Lab, two_sites

from .base import TwoSites

GRAMMAR = Path(__file__).resolve().parent.parent.parent / "platform" / "grammar" / "lum.cli"
MAC, GROUP_MAC = "10/02:00:00:00:0e:01", "10/01:00:5e:01:01:01"
OVERLAY, CORE = "interface Overlay1", "interface eth0"

# Mode, line, what is said. The modes are entered from configure mode; None is exec mode.
NOT_A_GROUP, NO_GROUP = "Illegal group address", "No such group"
LINK_LOCAL, RESERVED = "Cannot be link-local group address", "Cannot be SSM reserved group 232.0.0.0"
NO_RANGE, SHORT_RANGE = "Group not configured, command rejected", "Mask-length can be >- 96, command rejected"
BAD_MAC, BAD_NEXT_HOP = "Illegal VLAN-id", "Invalid next-hop for multicast MAC address"
NO_MORE_HOPS = "Maximum supported next-hops for static entries is 4"
LIST_IS_FULL = "Can only store 8 anycast-arp addresses, command rejected"
MANY_RANGES = ",".join(str(n) for n in range(101, 135, 2))               # 17
REFUSED = [
    (OVERLAY, "no lum vpn-name red", "Invalid overlay name"),
    (OVERLAY, "lum vpn-mgroup-addr 10.1.1.1", NOT_A_GROUP),
    (OVERLAY, "lum vpn-mgroup-addr 240.0.0.1", NOT_A_GROUP),
    (OVERLAY, "no lum vpn-mgroup-addr 10.1.1.1", NOT_A_GROUP),
    (OVERLAY, "lum vpn-mgroup-addr 224.0.0.5", LINK_LOCAL),
    (OVERLAY, "lum vpn-mgroup-addr 232.0.0.0", RESERVED),
    (OVERLAY, "no lum vpn-mgroup-addr 239.9.9.9", NO_GROUP),
    (OVERLAY, "no lum vpn-mgroup-addr ff05::9", NO_GROUP),
    (OVERLAY, f"lum vpn-vlan {MANY_RANGES}", "Too many vlan ranges"),
    (OVERLAY, f"no lum vpn-vlan {MANY_RANGES}", "Too many vlan ranges"),
    (OVERLAY, "no lum core-group 239.77.0.0/16", NO_RANGE),
    (OVERLAY, "no lum core-group ff15::/100", NO_RANGE),
    (OVERLAY, "lum core-group ff15::/95", SHORT_RANGE),
    (CORE, "lum vlan 10", "LUM can be configured on switchports only"),
    (CORE, "lum vlan 10 trunk-port", "LUM can be configured on switchports only"),
    ("", f"lum route 4096/{MAC[3:]} interface eth1", BAD_MAC),
    ("", f"no lum route 4096/{MAC[3:]} interface eth1", BAD_MAC),
    ("", f"lum route {GROUP_MAC} interface Overlay1 next-hop 198.18.2.1", BAD_NEXT_HOP),
    ("", f"lum route {GROUP_MAC} interface Overlay1 next-hop 2001:db8::1", BAD_NEXT_HOP),
    ("", f"lum route {GROUP_MAC}", BAD_NEXT_HOP),
    ("", f"no lum route {GROUP_MAC}", BAD_NEXT_HOP),
    ("", f"lum route {MAC} interface Overlay1 next-hop 198.18.9.5", NO_MORE_HOPS),
    ("", f"lum route {MAC} interface Overlay1 next-hop 198.18.9.1", NO_MORE_HOPS),
    ("", "lum mroute 10 ff05::1 interface eth1", "To be implemented"),
    ("", "no lum mroute 10 ff05::1 source 2001:db8::1 interface eth1", "To be implemented"),
    ("", "lum mroute 10 239.1.1.1 interface down0", "Interface down"),
    ("", "no lum mroute 10 239.1.1.1 interface down0", "Interface down"),
    ("", "lum mroute 10 239.1.1.1 interface absent0", "Interface down"),
    ("", "lum anycast-arp 10.0.0.9", LIST_IS_FULL),
    ("", "lum anycast-arp 2001:db8::9", LIST_IS_FULL),
    ("", "no lum anycast-arp 10.0.0.9", "Anycast-ARP address 10.0.0.9 not found"),
    ("", "no lum anycast-arp 2001:db8::9", "Anycast-ARP address 2001:db8::9 not found"),
    (None, f"test lum rtab add 4096/{MAC[3:]} interface eth1", BAD_MAC),
    (None, f"test lum rtab delete 4096/{MAC[3:]}", BAD_MAC),
]
# The grammar lets no line through that brings these about.
OUT_OF_REACH = {"No such overlay", "Error in getting vlan range"}


class Rejections(TwoSites):
    @classmethod
    def setUpClass(cls):
        cls.lab = cls.enterClassContext(Lab())
        cls.top = two_sites(cls.lab, group_routes=False)
        cls.edge = Edge(cls.top, 1)
        cls.edges = {1: cls.edge}
        cls.edge.ns.ip("link add down0 type veth peer name down1")
        cls.edge.start(cls.edge.config(remote_routes=False) + "".join(
            [f"lum anycast-arp 10.0.0.{n}\n" for n in range(1, 9)]
            + [f"lum route {MAC} interface Overlay1 next-hop 198.18.9.{n}\n" for n in range(1, 5)]))
        cls.edge.wait_overlay()

    def state(self):
        """All that a command could change, as text."""
        commands = ("show running-config", "show lum overlay", "show lum vlan detail", "show lum interface")
        tables = [self.edge.corvbus("sdb"), self.edge.configured_routes()]
        return [self.edge.corvsh(command) for command in commands] + tables

    def enter(self, mode, line):
        """Exit status and what was said to the line."""
        lines = [line] if mode is None else ["configure terminal", *([mode] if mode else []), line]
        argv = [item for entered in lines for item in ("-c", entered)]
        done = self.edge.ns.run(self.edge.programs / "corvsh", "--root", self.edge.root, *argv, check=False)
        return done.returncode, done.stdout + done.stderr

    def test_each_says_why_and_leaves_nothing_behind(self):
        before = self.state()
        for mode, line, text in REFUSED:
            with self.subTest(mode=mode, line=line):
                self.assertEqual(self.enter(mode, line), (1, f"{text}\n"))
                self.assertEqual(self.state(), before)

    def test_every_reason_that_the_grammar_documents_was_heard_here(self):
        documented = set(re.findall(r'^  reject  "([^"]*)"', GRAMMAR.read_text(), re.M))
        heard = {re.sub(r"(?<=address )\S+(?= not found)", "ADDRESS", text) for _, _, text in REFUSED}
        self.assertEqual(documented, heard | OUT_OF_REACH)

    def test_a_trace_for_a_malformed_address_is_told_and_is_no_error(self):
        self.assertEqual(self.enter(None, "debug lum packet source 4096/02:00:00:00:00:01"), (0, BAD_MAC + "\n"))

    def test_taking_a_vlan_from_what_is_no_port_is_silent(self):
        before = self.state()
        self.assertEqual(self.enter(CORE, "no lum vlan 10"), (0, ""))
        self.assertEqual(self.state(), before)

    def test_the_configuration_that_they_left_is_what_is_saved(self):
        for mode, line, _ in REFUSED:
            self.enter(mode, line)
        running = self.edge.corvsh("show running-config")
        self.edge.corvsh("write")
        saved = self.edge.config_file.read_text()
        self.assertEqual([line for line in saved.splitlines() if not line.startswith("!")], running.splitlines())
        self.edge.stop()
        self.edge.start_with(["--config", self.edge.config_file])
        self.edge.wait_overlay()
        self.assertEqual(self.edge.corvsh("show configuration-errors"), "")
        self.assertEqual(self.edge.corvsh("show running-config"), running)


if __name__ == "__main__":
    unittest.main()
