"""The demo: two sites, traffic between them, and a verdict. Run by ./demo, which installs and builds first."""

import argparse
import collections
import contextlib
import os
import sys
import time

from .capture import Capture
from .edge import Edge, programs_dir
from .frames import FrameError
from .netns import LAB_DIR, Interrupted, Lab, LabError, NETNS_DIR, signals_raise
from .topology import Topology

KEPT = "demo"
PICTURE = """
   host1-10 --- eth1 +-------+        +------+        +-------+ eth1 --- host2-10     VLAN 10
                     | edge1 |--------| core |--------| edge2 |
   host1-20 --- eth2 +-------+        +------+        +-------+ eth2 --- host2-20     VLAN 20
              {0:<20}                    {1:>20}
"""


class Verdicts:
    """Prints each result as it comes and remembers whether all were good."""

    def __init__(self):
        self.failed = 0

    def check(self, good, text):
        print(f"  [{' ok ' if good else 'FAIL'}] {text}", flush=True)
        self.failed += not good

    def attempt(self, text, action):
        """The action's result; an action that does not succeed counts as a failure and gives None."""
        try:
            result = action()
        except (LabError, FrameError) as error:
            self.check(False, f"{text}: {error}")
            return None
        self.check(True, text)
        return result


def heading(text):
    print(f"\n{text}", flush=True)


class Demo:
    def __init__(self, lab, options):
        self.lab, self.verdicts = lab, Verdicts()
        self.topology = Topology(lab, core_family=6 if options.core6 else 4, core_mtu=options.mtu)
        self.edges = [Edge(self.topology, site) for site in (1, 2)]
        self.mtu = options.mtu

    def run(self):
        top = self.topology
        print(PICTURE.format(top.edge_address(1), top.edge_address(2)), end="")
        print(f"\nAll hosts are in one subnet: only their VLANs keep them apart. Core: IPv{top.family}, MTU {self.mtu}, "
              f"group {top.group}.")
        if self.start_edges() and self.learn():
            self.ping()
            self.tcp()
            self.apart()
        self.show()
        return self.verdicts.failed == 0

    # ---- steps

    def start_edges(self):
        heading("Edges: corvaned starts lum, which reads its startup configuration")
        for edge in self.edges:
            edge.start(wait=False)
        for edge in self.edges:
            self.verdicts.attempt(f"{edge.name}: lum is up, overlay is UP",
                                  lambda: (edge.wait_service(), edge.wait_overlay()))
        return self.verdicts.failed == 0

    def learn(self):
        heading("Learning: each host speaks once; its edge hands what it saw to the route table within 15 s")
        for host in self.topology.hosts.values():
            host.speak()
        for edge in self.edges:
            own = [h for h in self.topology.hosts.values() if h.site == edge.node.site]
            self.verdicts.attempt(f"{edge.name}: learnt {', '.join(f'{h.vlan}/{h.mac}' for h in own)}",
                                  lambda: [edge.wait_route(h.vlan, h.mac) for h in own])
        return self.verdicts.failed == 0

    def crossing(self):
        """Captures what leaves edge1 for the core and what reaches it from there."""
        return Capture(self.topology.core.ns, "r1")

    def core_summary(self, capture, vlan):
        """Checks what was seen on the core: only overlay packets between these edges, only of this VLAN."""
        top, counts = self.topology, collections.Counter()
        good = {top.edge_address(1), top.edge_address(2), top.group}
        try:
            packets = capture.overlay()
        except FrameError as error:
            return self.verdicts.check(False, f"packets on the core: {error}")
        for packet in packets:
            counts["group" if packet.ip.dst == top.group else "edge to edge"] += 1
            if packet.vlan != vlan or packet.ip.dst not in good or packet.ip.src not in good:
                counts["foreign"] += 1
        text = f"VLAN {vlan}: on the core {counts['edge to edge']} packets edge to edge, {counts['group']} to the group"
        self.verdicts.check(counts["edge to edge"] > 0 and not counts["foreign"],
                            text + (f", {counts['foreign']} FOREIGN" if counts["foreign"] else ", all of this VLAN"))

    def ping(self):
        heading("Ping across the core")
        for vlan in self.topology.vlans:
            one, other = self.topology.host(1, vlan), self.topology.host(2, vlan)
            with self.crossing() as capture:
                answered = one.ping(other.ipv4, count=5) + other.ping(one.ipv4, count=5)
                six, full = one.ping(other.ipv6, count=5), one.ping(other.ipv4, count=3, size=1472)
            self.verdicts.check((answered, six) == (10, 5),
                                f"VLAN {vlan}: {answered} of 10 answered over IPv4, {six} of 5 over IPv6")
            self.verdicts.check(full == 3, f"VLAN {vlan}: {full} of 3 answered with full-sized frames")
            self.core_summary(capture, vlan)

    def tcp(self):
        heading("TCP across the core, offloads as the system set them")
        for vlan in self.topology.vlans:
            def transfer():
                report = self.topology.host(1, vlan).tcp(self.topology.host(2, vlan), seconds=3)["end"]
                received = report["sum_received"]
                moved[:] = received["bytes"], received["bits_per_second"], report["sum_sent"].get("retransmits", 0)
                if received["bytes"] == 0:
                    raise LabError("nothing arrived")
            moved = []
            try:
                transfer()
                self.verdicts.check(True, f"VLAN {vlan}: {moved[0] / 1e6:.0f} MB in 3 s, {moved[1] / 1e9:.2f} Gbit/s, "
                                          f"{moved[2]} retransmissions")
            except LabError as error:
                self.verdicts.check(False, f"VLAN {vlan}: {error}")

    def apart(self):
        heading("The VLANs stay apart")
        hosts = list(self.topology.hosts.values())
        with contextlib.ExitStack() as stack:
            captures = {host: stack.enter_context(Capture(host.ns, "eth0")) for host in hosts}
            pairs = [(a, b) for a in hosts for b in hosts if a.vlan != b.vlan and a.site == 1]
            answered = sum(a.ping(b.ipv4, count=1, wait=0.3) for a, b in pairs)
            for a, b in pairs:                               # and as unicast to an address that is known to the sender
                a.neighbour(b.ipv4, b.mac)
            answered += sum(a.ping(b.ipv4, count=1, wait=0.3) for a, b in pairs)
        macs = {host.mac: host for host in hosts}
        foreign = sum(1 for host, capture in captures.items() for frame in capture.decoded(outgoing=False)
                      if frame.src in macs and macs[frame.src].vlan != host.vlan)
        self.verdicts.check(answered == 0, f"{answered} of {2 * len(pairs)} pings from VLAN to VLAN were answered")
        self.verdicts.check(foreign == 0, f"{foreign} frames of one VLAN were seen by hosts of the other")

    def show(self):
        for edge in self.edges:
            for command in ("show lum overlay", "show lum vlan"):
                heading(f"{edge.name}# {command}")
                print(edge.corvsh(command, check=False).rstrip())
            heading(f"{edge.name}: route table (corvbus rtab)")
            print(edge.corvbus("rtab", check=False).rstrip())
        heading("Packets")
        for edge in self.edges:
            for device in edge.ns.ip_json("link", "show"):
                if device["ifname"].startswith("eth"):
                    count = edge.ns.counters(device["ifname"])
                    print(f"  {edge.name} {device['ifname']}: {count['rx_packets']:>9} received  "
                          f"{count['tx_packets']:>9} sent")
            drops = edge.corvsh("show drops", check=False).strip()
            print("\n".join(f"  {edge.name} dropped: {line}" for line in drops.splitlines()))
        if self.verdicts.failed:
            for edge in self.edges:
                heading(f"{edge.name}: end of its log")
                print(edge.log_tail())


# ---- what is left running

def enter(node, command):
    """Becomes a shell (or the command) on a node of the demo that was kept."""
    namespace = f"{KEPT}-{node}"
    if not (NETNS_DIR / namespace).exists():
        nodes = sorted(p.name.split("-", 1)[1] for p in NETNS_DIR.glob(f"{KEPT}-*")) if NETNS_DIR.is_dir() else []
        print(f"no {node} here; " + (f"there are: {', '.join(nodes)}" if nodes else "start it with ./demo --keep"))
        return 1
    environment = dict(os.environ)
    if node.startswith("edge"):
        environment["CORVANE_ROOT"] = str(LAB_DIR / KEPT / node / "run")
        environment["PATH"] = f"{programs_dir()}:{environment['PATH']}"
        if not command:
            print(f"On {node}. Try: corvsh -c 'show lum overlay'   corvbus rtab   ip addr   exit")
    environment["PS1"] = f"{node}# "
    os.execvpe("ip", ["ip", "netns", "exec", namespace, *(command or ["bash", "--norc"])], environment)


def down():
    Lab.remove(KEPT)
    print("removed")
    return 0


def arguments():
    parser = argparse.ArgumentParser(prog="./demo", add_help=False)
    parser.add_argument("--core6", action="store_true")
    parser.add_argument("--mtu", type=int, default=1600)
    parser.add_argument("--keep", action="store_true")
    return parser.parse_args()


def main():
    if sys.argv[1:2] == ["shell"]:
        if len(sys.argv) < 3:
            print("usage: ./demo shell NODE [COMMAND...]")
            return 2
        return enter(sys.argv[2], sys.argv[3:])
    if "--down" in sys.argv[1:]:
        return down()
    options = arguments()
    if options.keep and (LAB_DIR / KEPT).exists():
        print("A demo is still there: ./demo shell edge1 enters it, ./demo --down removes it")
        return 1
    signals_raise()
    began = time.monotonic()
    try:
        with Lab(KEPT if options.keep else None) as lab:
            good = Demo(lab, options).run()
            if options.keep:
                lab.keep()
    except LabError as error:
        print(f"\n{error}\n\nVerdict: FAILED")
        return 1
    except Interrupted as interrupted:
        print(f"\n{interrupted}; everything is removed")
        return interrupted.status
    print(f"\nVerdict: {'the VLANs are stretched across the core' if good else 'FAILED'} "
          f"({time.monotonic() - began:.0f} s)")
    if options.keep:
        print("Left running. Enter it with: ./demo shell edge1     Remove it with: ./demo --down")
    return 0 if good else 1


if __name__ == "__main__":
    sys.exit(main())
