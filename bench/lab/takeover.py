"""Frames lost while another lum takes over: by `switchover`, by kill -9 with one standing by, by kill -9 alone.

Usage: LUM_BIN=build/release/bin python3 bench/lab/takeover.py [ROUNDS]. A steady stream of frames goes through two
edges; edge 1's lum is replaced ROUNDS times in each way, and the distribution of what was lost is printed.
"""

import os
import sys
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parent.parent.parent))

from lab import Edge, Lab, two_sites, wait_until                                     # noqa: E402
from lab.stream import Stream, distribution                                          # noqa: E402

RATE = 2000


def wait_ready(edge, before, standby):
    wait_until(lambda: edge.lum_pid() not in (None, before), 20, "another lum is up")
    edge.wait_overlay()
    if standby:
        wait_until(lambda: (edge.root / "lum-standby.pid").exists(), 20, "one stands by")
        time.sleep(1)                                        # until it has come up, so that the next can take over


def switchover(edge):
    edge.corvsh("switchover")


def kill(edge):
    edge.kill_lum()


def measure(topology, edge, disturb, rounds, standby):
    lost, outages = [], []
    for _ in range(rounds):
        before = edge.lum_pid()
        with Stream(topology.host(1, 10), topology.host(2, 10), RATE) as stream:
            time.sleep(0.5)
            disturb(edge)
            wait_ready(edge, before, standby)
            wait_until(lambda: topology.host(1, 20).ping(topology.host(2, 20).ipv4, count=1, wait=0.3), 10, "traffic")
        gaps = stream.losses()
        lost.append(sum(count for _, _, count in gaps))
        outages.append(sum(seconds for _, seconds, _ in gaps) * 1000)
    return lost, outages


def main():
    rounds = int(sys.argv[1]) if len(sys.argv) > 1 else 10
    print(f"{rounds} rounds each, {RATE} frames/s of 100 bytes, programs {os.environ.get('LUM_BIN', 'of the build')}")
    for name, disturb, options in (("switchover", switchover, ["--standby"]),
                                   ("kill -9, one standing by", kill, ["--standby"]), ("kill -9", kill, [])):
        with Lab() as lab:
            topology = two_sites(lab, core_mtu=1600)
            one, other = Edge(topology, 1), Edge(topology, 2)
            one.start(one.config(local_routes=True), options=options)
            other.start(other.config(local_routes=True))
            for edge in (one, other):
                edge.wait_overlay()
            time.sleep(1)
            lost, outages = measure(topology, one, disturb, rounds, bool(options))
        print(f"{name}\n  frames lost: {distribution(lost)}\n  outage:      {distribution(outages, ' ms')}", flush=True)


if __name__ == "__main__":
    main()
