"""lum, and then corvaned, killed with -9 at random moments, $SOAK_KILLS times (100), while traffic flows and commands
arrive: configuration whole, database consistent, routes of others kept, forwarding back. Prints what was lost."""

import contextlib
import os
import random
import signal
import subprocess
import sys
import threading
import time

from lab import LabError, wait_until
from lab.stream import Stream, distribution
from tests.system.base import TwoSites

RATE = 1000
FOREIGN = [f"02:40:00:00:00:{n:02x}" for n in range(20)]
# Pairs that leave things as they were; each is taken as often as it is said.
CHURN = (("interface Overlay1", "lum vpn-name red", "lum vpn-name blue"),
         ("interface Overlay1", "lum suppress-arp", "no lum suppress-arp"),
         ("lum vpn-site-vlan 99", "no lum vpn-site-vlan 99"),
         ("lum filter-fhrp", "no lum filter-fhrp"))


class Churn(threading.Thread):
    """Commands one after the other until told to stop; then it ends with every pair complete, however often refused."""

    def __init__(self, edge, chance):
        super().__init__(daemon=True)
        self.edge, self.chance, self.stopping, self.problem = edge, chance, threading.Event(), None
        self.accepted = self.refused = 0

    def run(self):
        try:
            while not self.stopping.is_set():
                *mode, do, undo = self.chance.choice(CHURN)
                self._try(*mode, do)
                self._insist(*mode, undo)
        except Exception as problem:  # told by stop()
            self.problem = problem

    def _try(self, *lines):
        try:
            self.edge.corvsh("configure terminal", *lines)
            self.accepted += 1
            return True
        except (LabError, OSError, subprocess.SubprocessError):
            self.refused += 1
            return False

    def _insist(self, *lines):
        wait_until(lambda: self._try(*lines), 30, f"{lines} is accepted", interval=0.1)

    def stop(self):
        self.stopping.set()
        self.join(60)
        if self.problem:
            raise self.problem


class KillLoop(TwoSites):
    EXCLUSIVE = True

    def setUp(self):
        self.edge, self.kills = self.edges[1], int(os.environ.get("SOAK_KILLS", "100"))
        self.chance = random.Random(582)
        for mac in FOREIGN:
            self.edge.corvbus("rtab-set", "20", mac, "ip", "Overlay1", "198.18.2.1")
        # The state that is compared with is one in which every pair has been through.
        for *mode, do, undo in CHURN:
            self.edge.configure(*mode, do, undo)
        self.before = self.state()

    def database(self):
        """The records. The count before an overlay's VLAN ranges grows with every change, so it is left out."""
        records = [tuple(bytes.fromhex(part) for part in line.split()) for line in self.edge.corvbus("sdb").splitlines()]
        return sorted((key.hex(), (value[:206] + value[208:] if key[0] == 2 else value).hex()) for key, value in records)

    def state(self):
        return {"configuration": self.edge.corvsh("show running-config"),
                "database": self.database(),
                "routes": sorted(self.edge.corvbus("rtab").splitlines())}

    def assert_whole(self, round_):
        def same():
            with contextlib.suppress(LabError):
                return self.state() == self.before
        try:
            wait_until(same, 20, "the state is as it was")
        except LabError:
            for part, now in self.state().items():
                self.assertEqual(now, self.before[part], f"{part} after kill {round_}")

    def stream(self):
        return Stream(self.top.host(1, 10), self.top.host(2, 10), RATE)

    def one_round(self, number, disturb):
        """Outage in ms and frames lost, of a kill amidst traffic and commands; nothing else is different afterwards."""
        churn = Churn(self.edge, self.chance)
        with self.stream() as stream:
            churn.start()
            time.sleep(self.chance.uniform(0.3, 1.3))
            disturb(number)
            churn.stop()
            self.assert_stretched(20)
        self.assert_whole(number)
        gaps = stream.losses()
        self.assertGreater(stream.received(), 100)
        return sum(seconds for _, seconds, _ in gaps) * 1000, sum(lost for _, _, lost in gaps)

    @staticmethod
    def report(title, **columns):
        print(f"{title}:", file=sys.stderr)
        for name, (values, unit) in columns.items():
            print(f"  {name.replace('_', ' '):<18} {distribution(values, unit)}", file=sys.stderr)

    def test_lum_killed_at_random_moments_loses_nothing_but_frames_meanwhile(self):
        outages, lost = [], []

        def kill(_number):
            killed = self.edge.kill_lum()
            if self.chance.random() < 0.2:                   # and again as it comes up
                killed = wait_until(lambda: self.edge.lum_pid() not in (None, killed) and self.edge.lum_pid(), 20, "lum")
                time.sleep(self.chance.uniform(0, 0.3))
                os.kill(killed, signal.SIGKILL)
            wait_until(lambda: self.edge.lum_pid() not in (None, killed), 20, "lum is back")
            self.edge.wait_overlay()

        for number in range(self.kills):
            outage, frames = self.one_round(number, kill)
            outages.append(outage)
            lost.append(frames)
        self.report(f"lum killed {self.kills} times, {RATE} frames/s", outage=(outages, " ms"), frames_lost=(lost, ""))

    def test_corvaned_killed_at_random_moments_loses_no_frame(self):
        lum, outages, lost, control = self.edge.lum_pid(), [], [], []

        def kill(_number):
            os.kill(self.edge.process.pid, signal.SIGKILL)
            self.edge.process.wait(5)
            time.sleep(self.chance.uniform(0, 0.5))
            self.edge.start_with(["--config", self.edge.config_file], wait=False)
            restarted = time.monotonic()
            wait_until(lambda: "UP" in self.edge.corvsh("show lum overlay Overlay1", check=False), 20, "control is back",
                       interval=0.01)
            control.append((time.monotonic() - restarted) * 1000)

        for number in range(self.kills):
            outage, frames = self.one_round(number, kill)
            outages.append(outage)
            lost.append(frames)
            self.assertEqual(self.edge.lum_pid(), lum, "lum was not restarted")
        self.report(f"corvaned killed {self.kills} times, {RATE} frames/s", control_back=(control, " ms"),
                    outage=(outages, " ms"), frames_lost=(lost, ""))
        # Frames may be late on a busy machine, but corvaned has no part in carrying them.
        self.assertEqual(sum(lost), 0)
