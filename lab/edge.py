"""An edge device that runs corvaned and lum: its configuration, its shell, its tables, its log."""

import contextlib
import os
import re
import signal
from pathlib import Path

from .netns import LabError, run, wait_until
from .topology import DATA_GROUPS4, DATA_GROUPS6

LUM_SERVICE = 581


def programs_dir():
    """Where corvaned, lum, corvsh and corvbus are: $LUM_BIN, or the build that is there."""
    if "LUM_BIN" in os.environ:
        return Path(os.environ["LUM_BIN"])
    root = Path(__file__).resolve().parent.parent
    for preset in ("release", "dev"):
        if (root / "build" / preset / "bin" / "corvaned").exists():
            return root / "build" / preset / "bin"
    raise LabError("no build found: run ./demo or ./test, or set LUM_BIN")


class Edge:
    """corvaned in the namespace of a site's edge device, with a root directory of its own."""

    def __init__(self, topology, site, programs=None):
        self.topology, self.node = topology, topology.nodes[site]
        self.ns, self.name = self.node.ns, self.node.name
        self.programs = Path(programs or programs_dir())
        self.dir = topology.lab.path / self.name
        self.root, self.config_file, self.log_file = self.dir / "run", self.dir / "startup.cfg", self.dir / "corvane.log"
        self.dir.mkdir(exist_ok=True)
        self.process = None

    # ---- configuration

    def config(self, remote_routes=True, local_routes=False, overlay_lines=()):
        """A startup configuration: ports, the overlay, and the routes to the other sites' hosts.

        lum learns the hosts of its own site. Those behind other edges reach its route table from outside; here the
        configuration names them. `local_routes` names the site's own hosts too, for who cannot wait for learning.
        """
        family6 = self.topology.family == 6
        lines = [f"! {self.name}: VLANs {', '.join(map(str, self.topology.vlans))} stretched across the core"]
        for device, vlan in self.node.ports.items():
            lines += [f"interface {device}", "  switchport"]
            if vlan is None:
                vlans = ",".join(map(str, self.topology.vlans))
                lines += [f"  switchport trunk allowed vlan {vlans}", f"  lum vlan {self.topology.vlans[0]} trunk-port"]
            else:
                lines += [f"  switchport access vlan {vlan}", f"  lum vlan {vlan}"]
        lines += ["interface Overlay1", "  lum vpn-name blue", "  lum vpn-ext-if eth0",
                  f"  lum vpn-mgroup-addr {self.topology.group}",
                  *(["  lum vpn-encap-format udp ipv6"] if family6 else []),
                  f"  lum core-group {DATA_GROUPS6 if family6 else DATA_GROUPS4}",
                  f"  lum vpn-vlan {','.join(map(str, self.topology.vlans))}",
                  *(f"  {line}" for line in overlay_lines)]
        for host in self.topology.hosts.values():
            for vlan in [host.vlan] if host.vlan else self.topology.vlans:       # a trunk's host is on all of them
                if host.site != self.node.site and remote_routes:
                    lines.append(f"lum route {vlan}/{host.mac} interface Overlay1 "
                                 f"next-hop {self.topology.edge_address(host.site)}")
                elif host.site == self.node.site and local_routes:
                    lines.append(f"lum route {vlan}/{host.mac} interface {host.port}")
        return "\n".join(lines) + "\n"

    # ---- life

    def start(self, config=None, wait=True, options=()):
        """Starts corvaned with a startup configuration (its text; None: the usual one) and, with `wait`, waits for lum."""
        self.config_file.write_text(self.config() if config is None else config)
        return self.start_with(["--config", self.config_file, *options], wait)

    def start_with(self, options, wait=True):
        self.process = self.ns.spawn(self.programs / "corvaned", "--root", self.root, "--state", self.dir / "state",
                                     "--log", self.log_file, *options, log=self.dir / "corvaned.out")
        if wait:
            self.wait_service()
        return self

    def stop(self):
        """Exit status of an orderly stop."""
        return self.process.stop()

    @property
    def running(self):
        return self.process is not None and self.process.running

    def output(self):
        """What corvaned and lum wrote: the log file, then corvaned's own output."""
        texts = [path.read_text(errors="replace") for path in (self.log_file, self.dir / "corvaned.out") if path.exists()]
        return "".join(texts)

    def log_tail(self, lines=30):
        return "\n".join(self.output().splitlines()[-lines:])

    def lum_pid(self):
        """Process id of lum, None while it is down."""
        found = re.search(rf"^{LUM_SERVICE}\s+\S+\s+up\s+(\d+)", self.corvbus("services", check=False), re.M)
        return int(found.group(1)) if found else None

    def kill_lum(self):
        pid = self.lum_pid()
        os.kill(pid, signal.SIGKILL)
        return pid

    def resident_kib(self):
        text = Path(f"/proc/{self.lum_pid()}/status").read_text()
        return int(re.search(r"VmRSS:\s+(\d+)", text).group(1))

    # ---- shell and tables

    def corvsh(self, *commands, check=True, timeout=20):
        """Output of shell commands run in one session; LabError when one was rejected and `check` is set."""
        argv = [item for command in commands for item in ("-c", command)]
        done = self.ns.run(self.programs / "corvsh", "--root", self.root, *argv, timeout=timeout, check=False)
        if check and done.returncode != 0:
            raise LabError(f"{self.name}: corvsh {commands}: status {done.returncode}\n{done.stdout}{done.stderr}")
        return done.stdout + (done.stderr if not check else "")

    def configure(self, *lines):
        return self.corvsh("configure terminal", *lines)

    def corvbus(self, *argv, check=True, timeout=20):
        done = self.ns.run(self.programs / "corvbus", "--root", self.root, *argv, timeout=timeout, check=False)
        if check and done.returncode != 0:
            raise LabError(f"{self.name}: corvbus {argv}: status {done.returncode}\n{done.stdout}{done.stderr}")
        return done.stdout

    def overlay(self, name="Overlay1"):
        """`show lum overlay` as a dictionary; lines with a blank label are under the label before, as a list."""
        fields, last = {}, None
        for line in self.corvsh(f"show lum overlay {name}", check=False).splitlines():
            if " : " not in line:
                continue
            label, value = (part.strip() for part in line.split(" : ", 1))
            if label:
                last = label
                fields[label] = value
            elif last:
                fields.setdefault(f"{last} reasons", []).append(value)
        return fields

    def routes(self):
        """Route table as {"VLAN/MAC": [rest of line, ...]}."""
        table = {}
        for line in self.corvbus("rtab").splitlines():
            key, _, rest = line.strip().partition(" ")
            table.setdefault(key.lower(), []).append(rest.strip())
        return table

    def configured_routes(self):
        """Lines of the route table without those that hosts make by talking."""
        return [line for line in self.corvbus("rtab").splitlines() if " learnt " not in line]

    def drops(self):
        """`show drops` as {reason: count}."""
        found = re.findall(r"^(\S.*?)\s{2,}(\d+)\s*$", self.corvsh("show drops"), re.M)
        return {reason: int(count) for reason, count in found}

    # ---- waiting

    def _wait(self, condition, timeout, what):
        try:
            return wait_until(condition, timeout, f"{self.name}: {what}", interval=0.1)
        except LabError as late:
            state = "running" if self.running else "ended"
            raise LabError(f"{late}\ncorvaned is {state}; its last lines:\n{self.log_tail()}") from None

    def wait_service(self, timeout=15):
        def up():
            if not self.running:
                raise LabError(f"{self.name}: corvaned ended with {self.process.wait(1)}:\n{self.log_tail()}")
            return self.lum_pid()
        return self._wait(up, timeout, "lum is up")

    def wait_overlay(self, state="UP", name="Overlay1", timeout=15):
        def reached():
            with contextlib.suppress(LabError):
                return self.overlay(name).get("State") == state
        return self._wait(reached, timeout, f"{name} is {state}")

    def wait_route(self, vlan, mac, timeout=20):
        return self._wait(lambda: self.routes().get(f"{vlan}/{mac}".lower()), timeout, f"route {vlan}/{mac}")

    def wait_log(self, text, timeout=10):
        return self._wait(lambda: text in self.output(), timeout, f"log has {text!r}")


def start_edges(topology, programs=None, **config):
    """Starts the edges of all sites at once and waits until every overlay is up."""
    edges = {site: Edge(topology, site, programs) for site in topology.nodes}
    for edge in edges.values():
        edge.start(edge.config(**config), wait=False)
    for edge in edges.values():
        edge.wait_service()
        edge.wait_overlay()
    return edges


__all__ = ["Edge", "programs_dir", "run", "start_edges"]
