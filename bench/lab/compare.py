"""Two lum edges beside the kernel's own VXLAN and bridge: frames a second, TCP, round trips, in the same run.

    sudo python3 -m bench.lab.compare [--rounds N] [--seconds S] [--core6] [--json FILE]

Both topologies stand at the same time and are measured in turn, round by round, so that a machine that slows down
slows both. Frames are counted where they arrive. Medians; needs the release build (./demo makes it) with pktgen.
"""

import argparse
import ctypes
import fcntl
import json
import socket
import statistics
import struct
import subprocess
import sys
import time
from pathlib import Path

from lab import Lab, LabError, VxlanEdge, programs_dir, two_sites, wait_until
from lab.edge import start_edges
from lab.netns import signals_raise

SIOCETHTOOL = 0x8946
ETHTOOL_SET = {"tso": 0x1F, "gso": 0x24, "gro": 0x2C}
SIZES = (64, 512, 1400)


def offload(ns, device, feature, on):
    """What `ethtool -K` does, for the run with MTU-sized frames."""
    def change():
        value = ctypes.create_string_buffer(struct.pack("II", ETHTOOL_SET[feature], int(on)))
        request = struct.pack("16sP", device.encode(), ctypes.addressof(value)) + bytes(16)
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
            fcntl.ioctl(sock, SIOCETHTOOL, request)
    ns.enter(change)


class Contestant:
    """One topology with its edges up and its hosts known to each other."""

    def __init__(self, name, lab, core6, core_mtu):
        self.name = name
        self.top = two_sites(lab, vlans=(10,), core_family=6 if core6 else 4, core_mtu=core_mtu)
        self.one, self.other = self.top.host(1, 10), self.top.host(2, 10)

    def ready(self):
        wait_until(lambda: self.one.ping(self.other.ipv4, count=1) and self.other.ping(self.one.ipv4, count=1), 30,
                   f"{self.name}: ping")
        self.other.ns.ip(f"neigh replace {self.one.ipv4} lladdr {self.one.mac} dev eth0")
        self.one.ns.ip(f"neigh replace {self.other.ipv4} lladdr {self.other.mac} dev eth0")

    def devices(self):
        """(namespace, device) of every link end."""
        spaces = [*(h.ns for h in self.top.hosts.values()), *(n.ns for n in self.top.nodes.values()), self.top.core.ns]
        return [(ns, link["ifname"]) for ns in spaces for link in ns.ip_json("link", "show")
                if link["ifname"].startswith(("eth", "r"))]

    def mtu_sized(self, only):
        for ns, device in self.devices():
            for feature in ("tso", "gso", "gro"):
                offload(ns, device, feature, not only)

    # ---- measurements; each gives one number

    def frames(self, size, seconds):
        """Thousands of frames a second that arrive at the far host while the near one sends flat out."""
        before, began = self.other.ns.counters("eth0")["rx_packets"], time.monotonic()
        self.one.ns.run(programs_dir() / "pktgen", "eth0", self.other.mac, self.one.mac, size, seconds,
                        timeout=seconds + 20)
        time.sleep(0.1)
        return (self.other.ns.counters("eth0")["rx_packets"] - before) / (time.monotonic() - began) / 1000

    def tcp(self, seconds):
        return self.one.tcp_gbits(self.other, seconds)

    def round_trip(self):
        """Mean round trip of a ping flood that waits for each answer, in microseconds."""
        done = self.one.ns.run("ping", "-n", "-q", "-f", "-c", 2000, self.other.ipv4, timeout=60)
        return float(done.stdout.rsplit("= ", 1)[1].split("/")[1]) * 1000


class LumContestant(Contestant):
    def __init__(self, lab, core6, core_mtu):
        super().__init__("lum", lab, core6, core_mtu)
        self.edges = start_edges(self.top, local_routes=True)
        self.ready()


class KernelContestant(Contestant):
    def __init__(self, lab, core6, core_mtu):
        super().__init__("kernel", lab, core6, core_mtu)
        for site in (1, 2):
            VxlanEdge(self.top, site).start()
        self.ready()


def measure(contestants, rounds, seconds):
    """{metric: {contestant: [value a round]}}, the contestants in turn within each round."""
    results = {}

    def note(metric, contestant, value):
        results.setdefault(metric, {}).setdefault(contestant.name, []).append(value)

    def each(metric, action):
        for contestant in contestants:
            note(metric, contestant, action(contestant))

    for number in range(rounds):
        print(f"round {number + 1} of {rounds}", file=sys.stderr, flush=True)
        for size in SIZES:
            each(f"{size} B payload, kframes/s", lambda c: c.frames(size, seconds))
        each("TCP, stock offloads, Gbit/s", lambda c: c.tcp(seconds))
        each("round trip, us", lambda c: c.round_trip())
        for contestant in contestants:
            contestant.mtu_sized(True)
        each("TCP, MTU-sized frames, Gbit/s", lambda c: c.tcp(seconds))
        for contestant in contestants:
            contestant.mtu_sized(False)
    return results


def table(results):
    lines = [f"{'':32}{'lum':>10}{'kernel':>10}{'ratio':>8}"]
    for metric, values in results.items():
        lum, kernel = (statistics.median(values[name]) for name in ("lum", "kernel"))
        lines.append(f"{metric:32}{lum:10.2f}{kernel:10.2f}{lum / kernel:8.2f}")
    return "\n".join(lines)


def ensure_pktgen():
    if not (programs_dir() / "pktgen").exists():
        build = programs_dir().parent
        subprocess.run(["cmake", "--build", str(build), "--target", "pktgen"], check=True, stdout=subprocess.DEVNULL)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--seconds", type=float, default=2)
    parser.add_argument("--core6", action="store_true")
    parser.add_argument("--mtu", type=int, default=1600, help="of the core's links")
    parser.add_argument("--json", type=Path, help="write every round's values there")
    options = parser.parse_args()
    signals_raise()
    ensure_pktgen()
    try:
        with Lab() as one, Lab() as other:
            contestants = [LumContestant(one, options.core6, options.mtu),
                           KernelContestant(other, options.core6, options.mtu)]
            results = measure(contestants, options.rounds, options.seconds)
    except LabError as error:
        print(error, file=sys.stderr)
        return 1
    print(table(results))
    if options.json:
        options.json.write_text(json.dumps(results, indent=1) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
