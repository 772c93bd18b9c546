"""How long the control plane takes at its full size: 64 overlays, 4,094 VLANs, 64 site adjacencies each.

    sudo python3 -m bench.lab.control_plane [--rounds N]

Prints how long a change of an adjacency takes from the request on the bus until all VLANs are elected, published and
notified, and how long a restart of lum takes until every overlay is up and every VLAN published and notified.
"""

import argparse
import os
import re
import statistics
import sys
import time
from pathlib import Path

from lab import Lab, LabError, programs_dir, two_sites, wait_until
from lab.edge import Edge
from lab.netns import signals_raise

OVERLAYS, ADJACENCIES, LAST_VLAN = 64, 64, 4094
VLANS_EACH = -(-LAST_VLAN // OVERLAYS)


def vlans_of(number):
    """The VLANs of an overlay, as a list of the configuration; none is left out and none twice."""
    first = 1 + (number - 1) * VLANS_EACH
    return f"{first}-{min(first + VLANS_EACH - 1, LAST_VLAN)}"


def configuration():
    lines = ["interface eth1", "  switchport", "  switchport trunk allowed vlan 1-4094", "  lum vlan 1 trunk-port"]
    for number in range(1, OVERLAYS + 1):
        lines += [f"interface Overlay{number}", f"  lum vpn-name site{number}", "  lum vpn-ext-if eth0",
                  f"  lum vpn-mgroup-addr 239.1.{number}.1", f"  lum vpn-vlan {vlans_of(number)}"]
    return "\n".join(lines) + "\n"


def overlays(edge):
    """{name: (iod, state)} of the summary."""
    rows = re.findall(r"^(Overlay\d+)\s+\S+\s+(\d+)\s+(\S+)", edge.corvsh("show lum overlay summary"), re.M)
    return {name: (int(iod), state) for name, iod, state in rows}


def restart(edge, client):
    """Seconds from the command until the last of it, as a client of the bus sees it."""
    log = edge.dir / f"follow-{time.monotonic_ns()}"
    process = edge.ns.spawn(client, "follow", OVERLAYS, LAST_VLAN, log=log, env=environment(edge))
    wait_until(lambda: log.exists() and "ready" in log.read_text(), 5, "the client follows")
    began = time.monotonic()
    edge.corvsh("restart lum")
    wait_until(lambda: len(log.read_text().split()) == 2, 30, "lum is back with everything", interval=0.05)
    process.stop()
    return float(log.read_text().split()[1]) / 1000 - began


def wait_idle(edge):
    """Until lum has worked off what was asked of it."""
    def worked():
        before = cpu_ticks(edge)
        time.sleep(0.3)
        return cpu_ticks(edge) == before
    wait_until(worked, 60, "lum is idle")


def cpu_ticks(edge):
    fields = Path(f"/proc/{edge.lum_pid()}/stat").read_text().rpartition(")")[2].split()
    return int(fields[11]) + int(fields[12])


def environment(edge):
    return {**os.environ, "CORVANE_ROOT": str(edge.root)}


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--rounds", type=int, default=5)
    options = parser.parse_args()
    signals_raise()
    client = programs_dir() / "control_client"
    try:
        with Lab() as lab:
            edge = Edge(two_sites(lab, vlans=(10,), trunks=True), 1)
            edge.start(configuration())
            wait_until(lambda: [state for _, state in overlays(edge).values()].count("UP") == OVERLAYS, 60,
                       f"{OVERLAYS} overlays are up")
            iods = [iod for iod, _ in overlays(edge).values()]
            print(f"{OVERLAYS} overlays, {LAST_VLAN} VLANs, {ADJACENCIES} site adjacencies each")
            edge.ns.run(client, "add", ADJACENCIES, *iods, env=environment(edge), timeout=300)
            wait_idle(edge)
            done = edge.ns.run(client, "change", *iods, env=environment(edge), timeout=60)
            print(f"adjacency: {done.stdout.strip()}", flush=True)
            took = [restart(edge, client) for _ in range(options.rounds)]
            print(f"restart of lum: {len(took)} times, seconds: least {min(took):.2f} median {statistics.median(took):.2f} "
                  f"most {max(took):.2f}")
            edge.stop()
    except LabError as error:
        print(error, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
