"""What other processes see of lum: notifications byte by byte, deletion in two phases, adjacencies, address changes."""

import re
import struct
import time
import unittest

from lab import Lab, frames, two_sites, wait_until
from lab.edge import start_edges

from .base import TwoSites

CREATED, DELETED, STATE, PARAMETERS, ADJACENCY, VLANS = 78851, 78852, 78853, 78854, 78856, 78857
ADD_ADJACENCY, DELETE_ADJACENCY = 78858, 78859
MAIN_SAP = 442
DOWN, UP = 1, 2
ADMIN_DOWN, DELETE_HOLDDOWN = 2, 3


def status(payload):
    """Fields of a status notification."""
    iod, ifindex, again, state, reason, name = struct.unpack("=IIIII101s3x", payload)
    return {"iod": iod, "ifindex": ifindex, "again": again, "state": state, "reason": reason,
            "name": name.split(b"\0")[0].decode()}


class ControlPlane(TwoSites):
    """Edge 1 alone, started anew for each test: these tests leave nothing as it was."""

    @classmethod
    def setUpClass(cls):
        cls.lab = cls.enterClassContext(Lab())
        cls.top = two_sites(cls.lab, core_mtu=1600)

    def setUp(self):
        self.edges = start_edges(self.top, local_routes=True)
        self.edge = self.edges[1]
        self.iod = int(self.edge.overlay()["VPN ID"])

    def tearDown(self):
        super().tearDown()
        for edge in self.edges.values():
            edge.stop()

    class Monitor:
        """`corvbus monitor` on an edge: a client that is told everything."""

        def __init__(self, edge):
            self.log = edge.dir / f"monitor-{time.monotonic_ns()}"
            self.process = edge.ns.spawn(edge.programs / "corvbus", "--root", edge.root, "monitor", log=self.log)
            time.sleep(0.5)                                  # until it has subscribed

        def notifications(self, opcode=None):
            found = [(int(a), bytes.fromhex(b)) for a, b in re.findall(r"^(\d+) ?([0-9a-f]*)$", self.log.read_text(), re.M)]
            return [payload for number, payload in found if number == opcode] if opcode else [n for n, _ in found]

        def wait(self, opcode, count=1):
            wait_until(lambda: len(self.notifications(opcode)) >= count, 5, f"notification {opcode}")
            return self.notifications(opcode)

        def __enter__(self):
            return self

        def __exit__(self, *_):
            self.process.stop()

    # ---- state

    def test_an_overlay_that_goes_down_and_up_is_told_with_every_byte(self):
        with self.Monitor(self.edge) as monitor:
            self.edge.configure("interface Overlay1", "shutdown")
            self.edge.wait_overlay("DOWN")
            self.assertIn("Admin Down", self.edge.corvsh("show lum overlay"))
            down, = monitor.wait(STATE)
            self.edge.configure("interface Overlay1", "no shutdown")
            self.edge.wait_overlay("UP")
            up = monitor.wait(STATE, 2)[1]
        self.assertEqual((len(down), len(up)), (124, 124))
        ifindex = status(down)["ifindex"]
        name = b"blue".ljust(101, b"\0")
        for payload, state, reason in ((down, DOWN, ADMIN_DOWN), (up, UP, status(up)["reason"])):
            expected = struct.pack("=IIIII", self.iod, ifindex, self.iod, state, reason) + name + bytes(3)
            self.assertEqual(payload.hex(), expected.hex())
        self.assert_stretched(10)

    def test_a_change_of_the_group_is_told_with_every_byte(self):
        with self.Monitor(self.edge) as monitor:
            self.edge.configure("interface Overlay1", "lum vpn-mgroup-addr 239.7.7.7")
            payload = monitor.wait(PARAMETERS)[-1]
        self.assertEqual(len(payload), 280)
        field = lambda at, kind: struct.unpack_from(f"={kind}", payload, at)[0]
        self.assertEqual(field(0, "I"), self.iod)
        self.assertEqual(payload[48:149], b"blue".ljust(101, b"\0"))
        self.assertEqual(field(152, "I").to_bytes(4, "big"), frames.ip_bytes("239.7.7.7"))
        self.assertEqual(payload[156:172], bytes(16))
        self.assertEqual((field(240, "I"), field(256, "I").to_bytes(4, "big")), (UP, frames.ip_bytes("198.18.1.1")))
        self.assertEqual(payload[260:276], frames.ip_bytes("2001:db8:1::1"))

    def test_the_groups_are_joined_in_the_kernel(self):
        joined = self.edge.ns.run("cat", "/proc/net/igmp").stdout
        self.assertIn(bytes(reversed(frames.ip_bytes(self.top.group))).hex().upper(), joined)

    # ---- addresses and links of the core interface

    def test_an_overlay_without_addresses_is_down_and_up_with_a_new_one(self):
        ns, node = self.edge.ns, self.edge.node
        ns.ip(f"addr del {node.ipv4}/24 dev eth0", f"addr del {node.ipv6}/64 dev eth0")
        wait_until(lambda: self.edge.overlay()["External IPv4 address"] != node.ipv4, 5, "the address is gone")
        ns.ip(f"addr add {node.ipv4}/24 dev eth0", f"addr add {node.ipv6}/64 dev eth0 nodad",
              f"route replace default via 198.18.{node.site}.254")
        wait_until(lambda: self.edge.overlay()["External IPv4 address"] == node.ipv4, 5, "the address is back")
        self.edge.wait_overlay("UP")
        self.assert_stretched(10)

    def test_a_second_address_changes_nothing(self):
        self.edge.ns.ip("addr add 198.18.1.77/24 dev eth0")
        time.sleep(0.5)
        self.assertEqual(self.edge.overlay()["External IPv4 address"], self.edge.node.ipv4)
        self.assert_stretched(10)

    def test_a_core_interface_that_is_made_anew_is_taken_again(self):
        self.edge.ns.ip("link del eth0")
        self.top.core.connect(self.edge.node, 1600)
        self.edge.wait_overlay("UP")
        wait_until(lambda: self.edge.overlay()["External IPv4 address"] == self.edge.node.ipv4, 5, "the address")
        # The router's end is a new device too: smcroute knows the old one.
        self.top.core.smcroute.stop()
        self.top.core.route_groups([self.top.group])
        self.assert_stretched(10)

    def test_a_site_port_that_flaps_serves_again(self):
        port = self.top.host(1, 10).port
        for _ in range(3):
            self.edge.ns.link_down(port)
            self.edge.ns.link_up(port)
        self.assert_stretched(10)

    # ---- deletion

    def test_a_deletion_is_told_with_every_byte(self):
        with self.Monitor(self.edge) as monitor:
            self.edge.configure("no interface Overlay1")
            payload, = monitor.wait(DELETED)
        expected = struct.pack("=IIIII", self.iod, status(payload)["ifindex"], self.iod, DOWN, DELETE_HOLDDOWN)
        self.assertEqual(payload.hex(), (expected + b"blue".ljust(101, b"\0") + bytes(3)).hex())

    def test_without_a_client_a_deleted_overlay_is_gone_at_once(self):
        self.edge.configure("no interface Overlay1")
        wait_until(lambda: "Overlay1" not in self.edge.corvsh("show lum overlay"), 5, "the overlay is gone")
        self.assertNotIn("\ninterface Overlay1", self.edge.corvsh("show running-config"))

    def test_a_deleted_overlay_can_be_made_again(self):
        self.edge.configure("no interface Overlay1")
        wait_until(lambda: "Overlay1" not in self.edge.corvsh("show lum overlay"), 5, "the overlay is gone")
        lines = [line.strip() for line in self.edge.config(local_routes=True).splitlines()]
        start = lines.index("interface Overlay1")
        self.edge.configure(*lines[start:])
        self.edge.wait_overlay("UP")
        self.assert_stretched(10)

    # ---- adjacencies

    def adjacency(self, system_id, address, site=0, own=0):
        word = struct.unpack(">I", frames.ip_bytes(address))[0]
        return struct.pack("=I6sB", self.iod, frames.mac_bytes(system_id), 0) + struct.pack(
            "=II12x8xII", 4, word, site, own)

    def test_adjacencies_come_and_go_by_the_bus(self):
        payload = self.adjacency("02:00:00:00:ed:02", "198.18.2.1").hex()
        with self.Monitor(self.edge) as monitor:
            self.edge.corvbus("send", str(MAIN_SAP), str(ADD_ADJACENCY), payload)
            added, = monitor.wait(ADJACENCY)
            self.assertRegex(self.edge.corvsh("show lum adjacency"), r"0200.0000.ed02|02:00:00:00:ed:02")
            self.edge.corvbus("send", str(MAIN_SAP), str(DELETE_ADJACENCY), payload)
            deleted = monitor.wait(ADJACENCY, 2)[1]
        self.assertEqual((len(added), len(deleted)), (48, 48))
        self.assertEqual(added[36:42], frames.mac_bytes("02:00:00:00:ed:02"))
        self.assertEqual(deleted[36:48], bytes(12))
        self.assertNotRegex(self.edge.corvsh("show lum adjacency"), r"ed02|ed:02")

    def test_short_adjacency_messages_are_dropped(self):
        whole = self.adjacency("02:00:00:00:ed:02", "198.18.2.1")
        pid = self.edge.lum_pid()
        for length in (0, 1, 4, 10, 11, 38, 39, 46):
            self.edge.corvbus("send", str(MAIN_SAP), str(ADD_ADJACENCY), *([whole[:length].hex()] if length else []),
                              check=False)
        self.assertNotRegex(self.edge.corvsh("show lum adjacency"), r"ed02|ed:02")
        self.assertEqual(self.edge.lum_pid(), pid)


if __name__ == "__main__":
    unittest.main()
