"""Two edges under traffic and disturbances for as long as $SOAK_MINUTES says: nothing may stop, leak or slow down."""

import os
import random
import re
import time
from pathlib import Path

from lab import LabError, wait_until
from tests.system.base import TwoSites


class Soak(TwoSites):
    EXCLUSIVE = True
    GROWTH_KIB = 8 * 1024                                    # what a process may gain over the whole time
    WARM_UP_ROUNDS = 3
    RESTART_EACH = 8                                         # rounds
    SAMPLE_MINUTES = 5
    # Drops that no disturbance of this test explains.
    STAY_ZERO = {
        "site frame shorter than its headers", "frame longer than the scratch buffer",
        "VLAN's authoritative edge is another device", "offload metadata that cannot be finished",
        "next hop of an unknown kind", "no memory for a packet", "core packet shorter than its headers",
        "packet too big for the core", "core packet from an unknown peer", "GRE overlay: frame without tag",
        "GRE header that is not ours", "learning: buffer full", "learning: route table refused",
        "ARP/ND cache: entry refused", "bus: queue full", "bus: malformed message", "bus: unknown opcode"}
    # Logged in a sound run: each port set and state message, deliberately.
    EXPECTED_LOGS = {"UNKNOWN_LUM_MAJOR"}

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

    def restart_lum(self, edge, _chance):
        """Of edge 2 only, and as often as a crash is not held against it; edge 1's processes live all along."""
        if self.rounds % self.RESTART_EACH == 0:
            edge = self.edges[2]
            killed = edge.kill_lum()
            wait_until(lambda: edge.lum_pid() not in (None, killed), 20, "another lum is up")
            edge.wait_overlay()
            self.restarts += 1

    # ---- what is looked at

    def sample(self):
        return {name: (self.resident_kib(pid), self.descriptors(pid)) for name, pid in self.processes().items()}

    def print_sample(self, begin, sample):
        print(f"{(time.monotonic() - begin) / 60:5.1f} min, {self.rounds:4} rounds:",
              ", ".join(f"{name} {memory} KiB {files} fds" for name, (memory, files) in sample.items()), flush=True)

    def assert_flat(self, before, after):
        for name, (memory, files) in after.items():
            if name == f"{self.edges[2].name} lum" and self.restarts:
                continue                                     # another process than before
            with self.subTest(process=name, rounds=self.rounds):
                self.assertLess(memory, before[name][0] + self.GROWTH_KIB)
                self.assertLessEqual(files, before[name][1] + 2)

    def assert_quiet(self):
        for edge in self.edges.values():
            with self.subTest(edge=edge.name):
                moved = {reason: count for reason, count in edge.drops().items() if reason in self.STAY_ZERO}
                self.assertEqual(moved, {})
                complaints = {match for match in re.findall(r"<<%LUM-[0-3]-(\w+)>>", edge.output())}
                self.assertLessEqual(complaints, self.EXPECTED_LOGS)

    def test_two_edges_carry_traffic_through_disturbances_without_growing(self):
        chance, begin = random.Random(581), time.monotonic()
        end = begin + 60 * float(os.environ.get("SOAK_MINUTES", "1"))
        disturbances = (self.flap_port, self.flap_core, self.reconfigure, self.change_address, self.many_routes,
                        self.show_everything, self.restart_lum)
        self.rounds, self.restarts, carried, before, next_sample = 0, 0, 0, None, begin
        while time.monotonic() < end or before is None:
            self.rounds += 1
            for disturb in disturbances:
                edge = chance.choice(list(self.edges.values()))
                disturb(edge, chance)
                try:
                    wait_until(lambda: self.top.host(1, 10).ping(self.top.host(2, 10).ipv4, count=1, wait=0.5), 20,
                               f"traffic after {disturb.__name__} on {edge.name}")
                except LabError as late:
                    self.fail(str(late))
            for vlan in self.top.vlans:
                report = self.top.host(1, vlan).tcp(self.top.host(2, vlan), seconds=2)
                carried += report["end"]["sum_received"]["bytes"] / 1e9
            if self.rounds == self.WARM_UP_ROUNDS:
                pids, before = self.processes(), self.sample()
            if time.monotonic() >= next_sample or self.rounds == self.WARM_UP_ROUNDS:
                next_sample += 60 * self.SAMPLE_MINUTES
                self.print_sample(begin, self.sample())
        after = self.sample()
        self.print_sample(begin, after)
        print(f"{self.rounds} rounds of {len(disturbances)} disturbances, {self.restarts} kills of edge 2's lum,",
              f"{carried:.1f} GB of TCP")
        for edge in self.edges.values():
            print(f"drops of {edge.name}:", edge.drops())
        lived = {name: pid for name, pid in self.processes().items() if name != f"{self.edges[2].name} lum"}
        self.assertLessEqual(lived.items(), pids.items(), "no process was replaced")
        self.assert_flat(before, after)
        self.assert_quiet()
