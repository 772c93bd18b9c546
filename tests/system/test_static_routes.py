"""Static routes, tunnels and the route table's test command as an operator sees them, on devices that come and go."""

import re
import struct
import unittest

from lab import Capture, Edge, Lab, LabError, Topology, frames, wait_until
from lab.capture import Sender
from lab.topology import core_mac

from .base import TwoSites

MAIN_SAP, ADD_ADJACENCY, DELETE_ADJACENCY = 442, 78858, 78859
EDGES = ("198.18.2.1", "198.18.3.1")                         # those of the sites 2 and 3: nothing runs there
TARGET = "02:00:00:00:0e:01"
GROUP, GROUP_MAC = "239.20.0.3", "01:00:5e:14:00:03"


class StaticRoutes(TwoSites):
    """One edge with two ports in VLAN 10; each test takes back what it configured."""

    @classmethod
    def setUpClass(cls):
        cls.lab = cls.enterClassContext(Lab())
        cls.top = Topology(cls.lab, sites=3, vlans=(10,), hosts_per_vlan=2, core_mtu=1600, group_routes=False)
        cls.edge = Edge(cls.top, 1)
        cls.edges = {1: cls.edge}
        cls.edge.start(cls.edge.config(remote_routes=False))
        cls.edge.wait_overlay()
        # Bursts here must not meet a next hop that is still being resolved: only some packets are held back for one.
        cls.edge.ns.ip(f"neigh replace 198.18.1.254 lladdr {core_mac(1, False)} dev eth0 nud permanent")
        cls.sender_host, cls.host = cls.top.host(1, 10, 1), cls.top.host(1, 10, 2)

    def configure(self, *lines, undo=True):
        self.edge.configure(*lines)
        for line in lines if undo else ():
            self.addCleanup(self.edge.corvsh, "configure terminal", f"no {line}", check=False)

    def rejected(self, *lines):
        """What a refused line of configure mode prints; it must leave table and configuration as they were."""
        state = lambda: (self.edge.configured_routes(), self.edge.corvsh("show running-config"))
        before = state()
        with self.assertRaises(LabError) as refusal:
            self.edge.configure(*lines)
        self.assertEqual(state(), before)
        return str(refusal.exception)

    def next_hops(self, mac=TARGET):
        """Next hops of a MAC: "eth1", "198.18.2.1 Overlay1", in the table's order."""
        texts = []
        for row in self.edge.routes().get(f"10/{mac}", []):
            found = re.fullmatch(r"lum (?:iod \d+|ip \d+ (\S+)) (\S+) static(.*)", row)
            self.assertTrue(found, row)
            texts.append(" ".join(part for part in (found[1], found[2]) if part) + found[3])
        return texts

    def wait_next_hops(self, *wanted, mac=TARGET):
        try:
            wait_until(lambda: self.next_hops(mac) == list(wanted), 5, f"next hops {wanted}")
        except LabError as late:
            self.fail(f"{late}; there are {self.next_hops(mac)}")

    def running_routes(self):
        return re.findall(r"^lum (?:route|mroute|static-tunnel) .*$", self.edge.corvsh("show running-config"), re.M)

    def remake_port(self):
        self.lab.link(self.host.ns, "eth0", self.edge.ns, self.host.port, 1500, self.host.mac)
        self.host.configure()

    def send(self, *data):
        with Sender(self.sender_host.ns) as sender:
            sender.send(*data)

    def reaches_host(self, mac=TARGET):
        """Whether a frame to the MAC comes out at the second host."""
        frame = frames.ethernet(mac, self.sender_host.mac, 0x88B5, bytes(60))
        with Capture(self.host.ns, "eth0") as capture:
            self.send(frame)
        return frame in capture.frames(outgoing=False)

    # ---- an interface that goes and comes

    def test_a_route_follows_its_interface_down_and_up(self):
        self.configure(f"lum route 10/{TARGET} interface {self.host.port}")
        self.assertTrue(self.reaches_host())
        self.edge.ns.link_down(self.host.port)
        self.wait_next_hops()
        self.edge.ns.link_up(self.host.port)
        self.wait_next_hops(self.host.port)
        wait_until(self.reaches_host, 5, "frames arrive again")

    def test_a_route_follows_a_device_that_is_deleted_and_made_again(self):
        self.configure(f"lum route 10/{TARGET} interface {self.host.port}")
        self.edge.ns.ip(f"link del {self.host.port}")
        self.wait_next_hops()
        self.assertEqual(self.running_routes(), [f"lum route 10/{TARGET} interface {self.host.port}"])
        self.remake_port()
        self.wait_next_hops(self.host.port)
        wait_until(self.reaches_host, 5, "frames arrive again")

    def test_a_route_is_configured_before_its_device_exists(self):
        self.configure(f"lum route 10/{TARGET} interface late9")
        self.assertEqual(self.next_hops(), [])
        far = self.lab.namespace("late")
        self.lab.link(far, "eth0", self.edge.ns, "late9")
        self.addCleanup(self.edge.ns.run, "ip", "link", "del", "late9", check=False)
        self.wait_next_hops("late9")

    def test_a_route_taken_back_while_its_device_is_gone_stays_away(self):
        line = f"lum route 10/{TARGET} interface {self.host.port}"
        self.configure(line, undo=False)
        self.edge.ns.ip(f"link del {self.host.port}")
        self.wait_next_hops()
        self.edge.configure(f"no {line}")
        self.assertEqual(self.running_routes(), [])
        witness = "02:00:00:00:0e:02"                        # once it is back the other one would be too
        self.configure(f"lum route 10/{witness} interface {self.host.port}")
        self.remake_port()
        self.wait_next_hops(self.host.port, mac=witness)
        self.assertEqual(self.next_hops(), [])

    def test_a_route_over_an_overlay_follows_shutdown_and_its_deletion(self):
        self.configure(f"lum route 10/{TARGET} interface Overlay7 next-hop {EDGES[0]}")
        self.assertEqual(self.next_hops(), [])
        self.edge.configure("interface Overlay7", "lum vpn-name seven")
        self.addCleanup(self.edge.corvsh, "configure terminal", "no interface Overlay7", check=False)
        self.wait_next_hops(f"{EDGES[0]} Overlay7")
        self.edge.configure("interface Overlay7", "shutdown")
        self.wait_next_hops()
        self.edge.configure("interface Overlay7", "no shutdown")
        self.wait_next_hops(f"{EDGES[0]} Overlay7")
        self.edge.configure("no interface Overlay7")
        self.wait_next_hops()

    def test_next_hops_of_one_mac_come_and_go_one_by_one(self):
        remote = f"lum route 10/{TARGET} interface Overlay1 next-hop {EDGES[0]}"
        self.configure(remote, f"lum route 10/{TARGET} interface {self.host.port}",
                       f"lum route 10/{TARGET} interface Overlay1 next-hop {EDGES[1]}")
        all_of_them = [f"{EDGES[0]} Overlay1", self.host.port, f"{EDGES[1]} Overlay1"]
        self.assertEqual(self.next_hops(), all_of_them)
        self.edge.ns.link_down(self.host.port)
        self.wait_next_hops(all_of_them[0], all_of_them[2])
        self.edge.ns.link_up(self.host.port)
        self.wait_next_hops(all_of_them[0], all_of_them[2], all_of_them[1])
        self.edge.configure(f"no {remote}")
        self.assertEqual(self.next_hops(), [all_of_them[2], all_of_them[1]])

    def test_a_next_hop_that_is_down_gets_no_flows_when_another_is_added(self):
        witness = "02:00:00:00:0e:02"                        # shows when the port is known to be down
        self.configure(f"lum route 10/{witness} interface {self.host.port}")
        self.edge.ns.link_down(self.host.port)
        self.wait_next_hops(mac=witness)
        self.configure(f"lum route 10/{TARGET} interface {self.host.port}", f"lum route 10/{TARGET} interface late9",
                       f"lum route 10/{TARGET} interface Overlay1 next-hop {EDGES[0]}")
        self.assertEqual(self.next_hops(), [f"{EDGES[0]} Overlay1"])
        self.edge.ns.link_up(self.host.port)
        self.wait_next_hops(f"{EDGES[0]} Overlay1", self.host.port)

    # ---- several next hops

    def spread(self, pairs):
        """Edge that each (source, destination) pair of MACs goes to, three frames a pair, with all it received."""
        data = [frames.ethernet(dst, src, 0x88B5, bytes([turn]) * 60) for turn in range(3) for src, dst in pairs]
        with self.core() as core:
            self.send(*data)
        to = {}
        for packet in core.overlay(outgoing=False):
            if packet.inner.ethertype == 0x88B5:
                to.setdefault((packet.inner.src, packet.inner.dst), []).append(packet.ip.dst)
        return to

    def test_flows_spread_over_equal_next_hops_and_each_keeps_its_path(self):
        self.configure(*(f"lum route 10/{TARGET} interface Overlay1 next-hop {edge}" for edge in EDGES))
        pairs = [(f"02:00:00:00:aa:{n:02x}", TARGET) for n in range(64)]
        went = self.spread(pairs)
        self.assertEqual(sorted(went), sorted(pairs))
        for pair, edges in went.items():
            self.assertEqual((len(edges), len(set(edges))), (3, 1), pair)
        shares = [sum(edges[0] == edge for edges in went.values()) for edge in EDGES]
        self.assertEqual(sum(shares), 64)
        self.assertGreaterEqual(min(shares), 16, shares)
        self.assertEqual(self.spread(pairs[:8]), {pair: went[pair] for pair in pairs[:8]})

    def test_the_next_hop_that_is_left_gets_every_flow(self):
        lines = [f"lum route 10/{TARGET} interface Overlay1 next-hop {edge}" for edge in EDGES]
        self.configure(*lines)
        self.edge.configure(f"no {lines[0]}")
        went = self.spread([(f"02:00:00:00:aa:{n:02x}", TARGET) for n in range(16)])
        self.assertEqual((len(went), {edge for edges in went.values() for edge in edges}), (16, {EDGES[1]}))

    def test_taking_a_route_back_takes_the_next_hop_that_is_named_and_none_where_none_is(self):
        line = f"lum route 10/{TARGET} interface Overlay1 next-hop {EDGES[0]}"
        self.configure(line, f"lum route 10/{TARGET}")
        self.edge.configure(f"no lum route 10/{TARGET}")
        self.assertEqual(self.next_hops(), [f"{EDGES[0]} Overlay1"])
        self.assertEqual(self.running_routes(), [line])
        self.edge.configure(f"no lum route 10/{TARGET}")
        self.assertEqual((self.next_hops(), self.running_routes()), ([f"{EDGES[0]} Overlay1"], [line]))

    def test_a_fifth_next_hop_is_refused(self):
        self.configure(*(f"lum route 10/{TARGET} interface Overlay1 next-hop 198.18.9.{n}" for n in range(1, 5)))
        refusal = self.rejected(f"lum route 10/{TARGET} interface Overlay1 next-hop 198.18.9.5")
        self.assertIn("Maximum supported next-hops for static entries is 4\n", refusal)
        self.assertEqual(self.next_hops(), [f"198.18.9.{n} Overlay1" for n in range(1, 5)])

    # ---- groups

    def test_a_multicast_route_leads_to_its_interfaces_and_to_no_other(self):
        datagram = frames.udp_frame(self.sender_host.mac, GROUP_MAC, self.sender_host.ipv4, GROUP, b"group")
        arrivals = lambda capture: capture.frames(outgoing=False).count(datagram)

        def seen():
            with Capture(self.host.ns, "eth0") as near, self.core() as core:
                self.send(datagram)
            return arrivals(near), [p.ip.dst for p in core.overlay(outgoing=False) if b"group" in p.packet]
        self.configure(f"lum mroute 10 {GROUP} interface {self.host.port}")
        self.assertEqual(seen(), (1, []))
        self.configure(f"lum mroute 10 {GROUP} source 10.9.9.9 interface Overlay1")
        self.assertEqual(self.next_hops(GROUP_MAC), [f"{self.host.port} group {GROUP}",
                                                     f"Overlay1 group {GROUP} source 10.9.9.9"])
        self.assertEqual(seen(), (1, ["239.2.0.3"]))
        self.edge.configure(f"no lum mroute 10 {GROUP} interface {self.host.port}")
        self.assertEqual(seen(), (0, ["239.2.0.3"]))
        self.edge.configure(f"no lum mroute 10 {GROUP} source 10.9.9.9 interface Overlay1")
        self.assertEqual((self.next_hops(GROUP_MAC), self.running_routes()), ([], []))

    def test_a_multicast_route_needs_an_ipv4_group_and_an_interface_that_is_up(self):
        self.assertIn("To be implemented\n", self.rejected("lum mroute 10 ff1e::1 interface eth1"))
        self.assertIn("Interface down\n", self.rejected(f"lum mroute 10 {GROUP} interface late9"))

    def test_a_multicast_mac_takes_interfaces_only(self):
        refusal = self.rejected(f"lum route 10/{GROUP_MAC} interface Overlay1 next-hop {EDGES[0]}")
        self.assertIn("Invalid next-hop for multicast MAC address\n", refusal)
        self.assertIn("Illegal VLAN-id\n", self.rejected(f"lum route 4096/{TARGET} interface eth1"))
        self.configure(*(f"lum route 10/{GROUP_MAC} interface {port}" for port in ("eth1", "eth2", "Overlay1")))
        self.assertEqual(self.next_hops(GROUP_MAC), ["eth1", "eth2", "Overlay1"])

    # ---- tunnels

    def test_an_adjacency_takes_the_interface_of_its_static_tunnel(self):
        self.configure(f"lum static-tunnel {EDGES[0]} interface {self.host.port}")
        overlay, port = self.iods()
        word, = struct.unpack(">I", frames.ip_bytes(EDGES[0]))
        payload = (struct.pack("=I6sB", overlay, frames.mac_bytes("02:00:00:00:ed:02"), 0)
                   + struct.pack("=II12x8xII", 4, word, 0, 0)).hex()
        self.edge.corvbus("send", str(MAIN_SAP), str(ADD_ADJACENCY), payload)
        self.addCleanup(self.edge.corvbus, "send", str(MAIN_SAP), str(DELETE_ADJACENCY), payload)
        expected = ("Overlay Adjacency database\n"
                    "\n"
                    "Overlay-Interface Overlay1 :\n"
                    "System-ID            Address                                  Tunnel-IOD\n"
                    f"02:00:00:00:ed:02    198.18.2.1                               {port:10}\n")
        show = lambda: self.edge.corvsh("show lum adjacency")
        wait_until(lambda: show() == expected, 5, f"{expected} instead of {show()}")

    def iods(self):
        """Iods of Overlay1 and of the second host's port."""
        overlay = int(self.edge.overlay()["VPN ID"])
        self.configure(f"lum route 10/{TARGET} interface {self.host.port}")
        return overlay, int(self.edge.routes()[f"10/{TARGET}"][0].split()[2])

    # ---- the test command

    def drive(self, *words):
        return self.edge.corvsh(*(f"test lum rtab {text}" for text in words), check=False)

    def test_the_test_command_opens_adds_deletes_and_closes(self):
        self.assertEqual(self.drive("init probe", f"add 10/{TARGET} interface {self.host.port}"), "API succeeded\n" * 2)
        self.assertEqual(self.next_hops(), [self.host.port])
        self.assertTrue(self.reaches_host())
        self.drive(f"add 10/{TARGET} interface Overlay1 next-hop {EDGES[0]}",
                   f"add 10/{TARGET} interface Overlay1 next-hop 2001:db8::9")
        self.assertEqual(self.next_hops(), [self.host.port, f"{EDGES[0]} Overlay1", "2001:db8::9 Overlay1"])
        self.assertEqual(self.drive(f"delete 10/{TARGET} interface {self.host.port}"), "API succeeded\n")
        self.assertEqual(self.next_hops(), [f"{EDGES[0]} Overlay1", "2001:db8::9 Overlay1"])
        self.assertEqual(self.drive(f"delete 10/{TARGET}", f"delete 10/{TARGET}"), "API succeeded\nAPI failed\n")
        self.assertEqual(self.next_hops(), [])
        self.assertEqual(self.running_routes(), [])
        self.assertEqual(self.drive("close"), "API succeeded\n")

    def test_the_test_command_refuses_a_malformed_mac_and_says_when_the_table_does(self):
        with self.assertRaises(LabError) as refusal:
            self.edge.corvsh(f"test lum rtab add 4096/{TARGET} interface eth1")
        self.assertIn("Illegal VLAN-id\n", str(refusal.exception))
        self.assertEqual(self.drive(f"add 10/{TARGET}"), "API failed\n")


if __name__ == "__main__":
    unittest.main()
