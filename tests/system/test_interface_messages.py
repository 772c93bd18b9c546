"""What the interface manager tells lum of real devices: each kind of message, as lum traces its arrival."""

import unittest

from lab import LabError, wait_until

from .base import OneEdge

DEVICE, PEER = "late0", "late1"
L3_STATE = "change mask 0x800000000"                        # bit 35 alone
ENCAPSULATION = 1 << 42


class InterfaceMessages(OneEdge):
    """Edge 1 with the tracing of events on; a device of the test's own comes, changes and goes."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.edge.corvsh("debug lum event")

    def setUp(self):
        self.ns = self.edge.ns
        self.addCleanup(self.ns.run, "ip", "link", "del", DEVICE, check=False)
        self.mark()

    def mark(self):
        self.seen = len(self.edge.log_file.read_text(errors="replace"))

    def said(self):
        return self.edge.log_file.read_text(errors="replace")[self.seen:]

    def wait_said(self, *texts):
        """Waits for texts behind the last mark, in their order; then the mark is moved behind them."""
        def found():
            at, log = 0, self.said()
            for text in texts:
                at = log.find(text, at) + 1
                if at == 0:
                    return False
            return True
        try:
            wait_until(found, 5, f"{texts}")
        except LabError as late:
            self.fail(f"{late}\n{self.said()}")
        self.mark()

    def add(self):
        self.ns.ip(f"link add {DEVICE} type veth peer name {PEER}", f"link set {PEER} up")

    def use(self):
        """The device as the external interface of an overlay, so that its addresses matter."""
        self.edge.configure("interface Overlay5", f"lum vpn-ext-if {DEVICE}")
        self.addCleanup(self.edge.configure, "no interface Overlay5")

    def test_an_overlay_interface_is_made_shut_down_and_removed(self):
        self.edge.configure("interface Overlay6")
        self.wait_said("Creating overlay Overlay6", "Overlay Overlay6 (DOWN) sending status notification")
        self.edge.configure("interface Overlay6", "shutdown")
        self.wait_said("Received interface L3 protocol state change notification",
                       f"Received notification for Overlay6, {L3_STATE}", "Updating overlay state:")
        self.edge.configure("no interface Overlay6")
        self.wait_said("Received interface delete notification", "Trigger deletion for overlay Overlay6")

    def test_a_device_goes_up_down_and_away(self):
        self.add()
        for state in ("up", "down"):
            self.ns.ip(f"link set {DEVICE} {state}")
            self.wait_said(f"Received notification for {DEVICE}, {L3_STATE}",
                           "overlay not locally found, ignore notification")
        self.ns.ip(f"link del {DEVICE}")
        self.wait_said("Received interface delete notification")

    def test_addresses_of_ipv4_are_added_changed_and_removed(self):
        self.add()
        self.ns.ip(f"link set {DEVICE} up")
        self.use()
        for command, address in (("add 192.0.2.9/24", "192.0.2.9"), ("del 192.0.2.9/24", "0.0.0.0"),
                                 ("add 192.0.2.10/24", "192.0.2.10")):
            self.ns.ip(f"addr {command} dev {DEVICE}")
            self.wait_said("Received IP msg (4/13)")
            wait_until(lambda: self.edge.overlay("Overlay5")["External IPv4 address"] == address, 5, address)

    def test_addresses_of_ipv6_are_added_changed_and_removed(self):
        self.add()
        self.ns.ip(f"link set {DEVICE} up")
        self.use()
        self.ns.ip(f"addr add 2001:db8:99::9/64 dev {DEVICE} nodad")
        self.wait_said("IPv6 address change, old :: new 2001:db8:99::9")
        self.ns.ip(f"addr add 2001:db8:99::77/64 dev {DEVICE} nodad")
        addresses = lambda: self.ns.run("ip", "addr", "show", "dev", DEVICE).stdout
        wait_until(lambda: "tentative" not in addresses(), 5, "it is usable")
        self.ns.ip(f"addr del 2001:db8:99::9/64 dev {DEVICE}")
        self.wait_said("IPv6 address change, old 2001:db8:99::9 new 2001:db8:99::77")
        self.ns.ip(f"addr del 2001:db8:99::77/64 dev {DEVICE}")
        self.wait_said("IPv6 address change, old 2001:db8:99::77 new ::")

    def test_a_tunnel_whose_encapsulation_changes_is_told_of(self):
        self.ns.ip(f"link add {DEVICE} type vxlan id 5 dev eth0 dstport 4789", f"link set {DEVICE} up")
        self.wait_said(f"Received notification for {DEVICE}, {L3_STATE}")    # of a device that is down nobody is told
        self.ns.ip(f"link set {DEVICE} type vxlan ageing 77")
        self.wait_said("Received interface L3 protocol param change notification",
                       f"Received notification for {DEVICE}, change mask {ENCAPSULATION:#x}", "Received ENCAP TLV")


if __name__ == "__main__":
    unittest.main()
