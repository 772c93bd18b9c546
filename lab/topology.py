"""Sites, their hosts and edge devices, and the routed core between them.

        host 10 --- eth1 +-------+ eth0   r1 +------+ r2   eth0 +-------+ eth1 --- host 10
        host 20 --- eth2 | edge1 |-----------| core |-----------| edge2 | eth2 --- host 20
       (trunk)  --- eth3 +-------+           +------+           +-------+ eth3 --- (trunk)

Every site has a subnet of its own towards the core: 198.18.<site>.0/24 and 2001:db8:<site>::/64, the edge at 1 and
the core at 254. All hosts of all VLANs share one subnet (10.1.0.0/16, fd00:1::/64): nothing but their VLANs keeps
them apart.
"""

import contextlib
import json
import re
import time
from pathlib import Path

from .netns import LabError, wait_until

GROUP4, GROUP6 = "239.1.1.1", "ff1e::1:1"
DATA_GROUPS4, DATA_GROUPS6 = "239.2.0.0/24", "ff1e::2:0/112"


def host_mac(site, vlan, number=1):
    return f"02:00:00:{site:02x}:{vlan & 0xff:02x}:{number:02x}"


def core_mac(site, edge_side):
    return f"02:c0:00:00:{site:02x}:{1 if edge_side else 254:02x}"


class Host:
    """A host of a site: one namespace, one device `eth0`, stock settings."""

    def __init__(self, lab, site, vlan, number=1):
        self.site, self.vlan, self.number = site, vlan, number
        self.name = f"host{site}-{vlan}" + (f"-{number}" if number > 1 else "")
        self.mac = host_mac(site, vlan, number)
        self.ipv4 = f"10.1.{vlan & 0xff}.{site * 10 + number}"
        self.ipv6 = f"fd00:1::{vlan:x}:{site:x}{number:x}"
        self.ns = lab.namespace(self.name)

    def configure(self, device="eth0"):
        self.ns.ip(f"addr add {self.ipv4}/16 dev {device}", f"addr add {self.ipv6}/64 dev {device} nodad")

    def ping(self, address, count=3, interval=0.2, size=56, wait=1, options=()):
        """How many of `count` echo requests were answered."""
        done = self.ns.run("ping", "-n", "-c", count, "-i", interval, "-s", size, "-W", wait, *options, address,
                           timeout=count * (interval + wait) + 10, check=False)
        found = re.search(r"(\d+) received", done.stdout)
        return int(found.group(1)) if found else 0

    def ping_times(self, address, count=100, interval=0.01):
        """Round-trip times in microseconds: least, mean, most."""
        done = self.ns.run("ping", "-n", "-q", "-c", count, "-i", interval, address, timeout=count * interval + 20)
        found = re.search(r"= ([\d.]+)/([\d.]+)/([\d.]+)/", done.stdout)
        if not found:
            raise LabError(f"{self.name}: no answers from {address}\n{done.stdout}")
        return tuple(float(value) * 1000 for value in found.groups())

    def speak(self, address="10.1.255.254"):
        """Sends one ARP request to nobody: the edge now has seen this host."""
        self.ping(address, count=1, wait=0.1)

    def neighbour(self, address, mac, device="eth0"):
        self.ns.ip(f"neigh replace {address} lladdr {mac} dev {device} nud permanent")

    def forget_neighbours(self, device="eth0"):
        self.ns.ip(f"neigh flush dev {device}")

    def tcp(self, other, seconds=2, size=None, options=(), ipv6=False):
        """A TCP transfer to another host, of `seconds` or of `size` as iperf3 writes it; iperf3's own report."""
        length = ("-n", size) if size else ("-t", seconds)
        address = other.ipv6 if ipv6 else other.ipv4
        server = other.ns.spawn("iperf3", "-s", "-1", "--forceflush", "-B", address, "-p", "5201",
                                log=other.ns.lab.path / f"{other.name}-iperf3-{time.monotonic_ns()}.log")
        try:
            wait_until(lambda: "listening" in server.output() or not server.running, 5, f"{other.name}: iperf3")
            done = self.ns.run("iperf3", "-J", "-c", address, "-p", "5201", *length, "--connect-timeout", 5000, *options,
                               timeout=(seconds or 0) + 20, check=False)
        finally:
            server.stop()
        report = json.loads(done.stdout) if done.stdout.startswith("{") else {}
        if done.returncode != 0 or "error" in report:
            raise LabError(f"TCP {self.name} to {other.name}: {report.get('error') or done.stderr or done.stdout}")
        return report

    def tcp_gbits(self, other, seconds=2, **options):
        """Throughput of a TCP transfer as the receiver saw it, in Gbit/s."""
        return self.tcp(other, seconds, **options)["end"]["sum_received"]["bits_per_second"] / 1e9


class Node:
    """An edge device's namespace: `eth0` to the core, `eth1` and up to the hosts. What runs on it comes later."""

    def __init__(self, lab, site):
        self.site, self.name = site, f"edge{site}"
        self.ns = lab.namespace(self.name)
        self.ipv4, self.ipv6 = f"198.18.{site}.1", f"2001:db8:{site:x}::1"
        self.core_mac = core_mac(site, True)
        self.ports = {}                                      # device -> VLAN of an access port, or None for a trunk

    def configure_core(self):
        via4, via6 = f"198.18.{self.site}.254", f"2001:db8:{self.site:x}::fe"
        self.ns.ip(f"addr add {self.ipv4}/24 dev eth0", f"addr add {self.ipv6}/64 dev eth0 nodad",
                   f"route add default via {via4}", f"route add default via {via6}")

    def add_port(self, vlan=None):
        device = f"eth{len(self.ports) + 1}"
        self.ports[device] = vlan
        return device


class Core:
    """The routed core: kernel forwarding for unicast, smcroute for the groups, static routes for both."""

    def __init__(self, lab, sites):
        self.lab, self.sites = lab, list(sites)
        self.ns = lab.namespace("core")
        self.smcroute = None
        for key in ("net.ipv4.ip_forward", "net.ipv6.conf.all.forwarding"):
            self.ns.sysctl(key, 1)
        self.ns.sysctl("net.ipv4.conf.all.rp_filter", 0)

    def connect(self, node, mtu):
        """Links an edge device to the core."""
        site, device = node.site, f"r{node.site}"
        self.lab.link(node.ns, "eth0", self.ns, device, mtu, node.core_mac, core_mac(site, False))
        self.ns.ip(f"addr add 198.18.{site}.254/24 dev {device}", f"addr add 2001:db8:{site:x}::fe/64 dev {device} nodad")
        node.configure_core()

    def route_groups(self, groups):
        """Every group, from every site to all others. Groups may carry a prefix length."""
        lines = [f"phyint r{site} enable" for site in self.sites]
        for site in self.sites:
            others = " ".join(f"r{other}" for other in self.sites if other != site)
            for group in groups:
                source = f"2001:db8:{site:x}::1" if ":" in group else f"198.18.{site}.1"
                lines.append(f"mroute from r{site} source {source} group {group} to {others}")
        conf = self.lab.path / "smcroute.conf"
        conf.write_text("\n".join(lines) + "\n")
        # `-i` is the identity of its files; unique, since /run is shared by all namespaces.
        self.smcroute = self.ns.spawn("smcrouted", "-n", "-N", "-f", conf, "-i", self.lab.name,
                                      "-P", self.lab.path / "smcroute.pid", "-u", self.lab.path / "smcroute.sock")
        wait_until(lambda: self._group_routes() >= len(lines) - len(self.sites) or not self.smcroute.running, 10,
                   "smcroute's routes")
        if not self.smcroute.running:
            raise LabError(f"smcroute ended:\n{self.smcroute.output()}")

    def _group_routes(self):
        count = lambda path: self.ns.enter(lambda: max(0, len(Path(path).read_text().splitlines()) - 1))
        with contextlib.suppress(OSError):
            return count("/proc/thread-self/net/ip_mr_cache") + count("/proc/thread-self/net/ip6_mr_cache")
        return 0


class Topology:
    """Sites 1 to `sites`, each with one host on every VLAN of `vlans` and, when asked for, a trunk port with a host."""

    def __init__(self, lab, sites=2, vlans=(10, 20), core_family=4, core_mtu=1500, host_mtu=1500, trunks=False,
                 hosts_per_vlan=1, group_routes=True):
        self.lab, self.vlans, self.family = lab, tuple(vlans), core_family
        self.nodes, self.hosts = {}, {}
        self.core = Core(lab, range(1, sites + 1))
        for site in range(1, sites + 1):
            node = self.nodes[site] = Node(lab, site)
            self.core.connect(node, core_mtu)
            for vlan in self.vlans:
                for number in range(1, hosts_per_vlan + 1):
                    self._add_host(node, vlan, number, host_mtu)
            if trunks:
                self._add_trunk(node, host_mtu)
        if group_routes:
            groups = (GROUP6, DATA_GROUPS6) if core_family == 6 else (GROUP4, DATA_GROUPS4)
            # A prefix of data groups is routed group by group, so only its beginning.
            self.core.route_groups([groups[0], *_some_groups(groups[1], 16)])

    def _add_host(self, node, vlan, number, mtu):
        host = Host(self.lab, node.site, vlan, number)
        device = node.add_port(vlan)
        self.lab.link(host.ns, "eth0", node.ns, device, mtu, host.mac)
        host.port = device
        host.configure()
        self.hosts[node.site, vlan, number] = host

    def _add_trunk(self, node, mtu):
        host = Host(self.lab, node.site, 0)
        host.name = f"trunk{node.site}"
        device = node.add_port(None)
        self.lab.link(host.ns, "eth0", node.ns, device, mtu, host.mac)
        host.port = device
        self.hosts[node.site, "trunk", 1] = host

    def host(self, site, vlan, number=1):
        return self.hosts[site, vlan, number]

    @property
    def group(self):
        return GROUP6 if self.family == 6 else GROUP4

    def edge_address(self, site):
        node = self.nodes[site]
        return node.ipv6 if self.family == 6 else node.ipv4


def _some_groups(prefix, count):
    """The first groups of a prefix that ends on a byte or 16-bit boundary."""
    base = prefix.split("/")[0]
    if ":" in base:
        head = base.rsplit(":", 1)[0]
        return [f"{head}:{number:x}" for number in range(1, count)]
    head = base.rsplit(".", 1)[0]
    return [f"{head}.{number}" for number in range(1, count)]


def two_sites(lab, **options):
    return Topology(lab, sites=2, **options)
