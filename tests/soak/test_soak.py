"""Two edges under traffic and disturbances for as long as $SOAK_MINUTES says: nothing may stop, leak or slow down."""

import os
import random
import time
from pathlib import Path

from lab import LabError, wait_until
from tests.system.base import TwoSites


class Soak(TwoSites):
    EXCLUSIVE = True
    GROWTH_KIB = 8 * 1024                                    # what a process may gain over the whole time
    WARM_UP_ROUNDS = 3

    def processes(self):
        """Process ids of corvaned on both edges, and of lum."""
        return {f"{edge.name} {name}": pid for edge in self.edges.values()
                for name, pid in (("corvaned", edge.process.pid), ("lum", edge.lum_pid()))}

    @staticmethod
    def resident_kib(pid):
        pages = int(Path(f"/proc/{pid}/statm").read_text().split()[1])
        return pages * os.sysconf("SC_PAGE_SIZE") // 1024

    @staticmethod
    def descriptors(pid):
        return len(list(Path(f"/proc/{pid}/fd").iterdir()))

    # ---- disturbances; each leaves things as they were

    def flap_port(self, edge, chance):
        port = chance.choice(list(edge.node.ports))
        edge.ns.link_down(port)
        time.sleep(0.2)
        edge.ns.link_up(port)

    def flap_core(self, edge, _chance):
        edge.ns.ip("link set eth0 down")
        time.sleep(0.2)
        edge.ns.ip("link set eth0 up")
        # The kernel took the IPv6 address and the routes away with the link.
        edge.ns.ip(f"addr replace {edge.node.ipv6}/64 dev eth0 nodad",
                   f"route replace default via 198.18.{edge.node.site}.254",
                   f"route replace default via 2001:db8:{edge.node.site:x}::fe")

    def reconfigure(self, edge, _chance):
        edge.configure("interface Overlay1", "no lum vpn-vlan 10,20", "lum vpn-vlan 10", "lum vpn-vlan 10,20")

    def change_address(self, edge, _chance):
        edge.ns.ip("addr add 198.51.100.77/24 dev eth0", "addr del 198.51.100.77/24 dev eth0")

    def many_routes(self, edge, chance):
        macs = [f"10/02:20:00:00:{chance.randrange(256):02x}:{n:02x}" for n in range(200)]
        lines = [f"lum route {mac} interface Overlay1 next-hop 198.18.9.9" for mac in macs]
        edge.configure(*lines)
        edge.configure(*(f"no {line}" for line in lines))    # the next hop says which route goes

    def show_everything(self, edge, _chance):
        for command in ("show lum overlay", "show lum vlan detail", "show lum arp-nd-cache", "show running-config",
                        "show logging", "show drops", "show interface", "show services"):
            edge.corvsh(command)

    def test_two_edges_carry_traffic_through_disturbances_without_growing(self):
        chance, end = random.Random(581), time.monotonic() + 60 * float(os.environ.get("SOAK_MINUTES", "1"))
        disturbances = (self.flap_port, self.flap_core, self.reconfigure, self.change_address, self.many_routes,
                        self.show_everything)
        before, rounds = None, 0
        while time.monotonic() < end or before is None:
            for disturb in disturbances:
                edge = chance.choice(list(self.edges.values()))
                disturb(edge, chance)
                try:
                    wait_until(lambda: self.top.host(1, 10).ping(self.top.host(2, 10).ipv4, count=1, wait=0.5), 20,
                               f"traffic after {disturb.__name__} on {edge.name}")
                except LabError as late:
                    self.fail(str(late))
            for vlan in self.top.vlans:
                self.top.host(1, vlan).tcp(self.top.host(2, vlan), seconds=2)
            rounds += 1
            if rounds == self.WARM_UP_ROUNDS:
                pids = self.processes()
                before = {name: (self.resident_kib(pid), self.descriptors(pid)) for name, pid in pids.items()}
        self.assertEqual(self.processes(), pids, "no process was replaced")
        for name, pid in pids.items():
            memory, files = before[name]
            with self.subTest(process=name, rounds=rounds):
                self.assertLess(self.resident_kib(pid), memory + self.GROWTH_KIB)
                self.assertLessEqual(self.descriptors(pid), files + 2)
