"""A steady stream of numbered frames between two hosts, and what of it was lost, when, and for how long."""

import signal
import socket
import struct
import sys
import time
from pathlib import Path

from . import frames
from .capture import ETH_P_ALL, SO_RCVBUFFORCE

ROOT = Path(__file__).resolve().parent.parent
ETHERTYPE = 0x88B5
HEAD = struct.Struct("!QQ")                                  # number, time of sending in ns


class Stream:
    """Frames from `one` to `other` at `rate` a second, sent by a process of its own. A context manager.

    Both ends live in processes of their own: the test's may be busy with other things without disturbing the pace.
    """

    def __init__(self, one, other, rate=1000, size=100):
        self.one, self.other, self.rate, self.size = one, other, rate, size
        lab = one.ns.lab
        self.report = lab.path / f"stream-{time.monotonic_ns()}"
        self.sender = self.receiver = None

    def __enter__(self):
        head = frames.mac_bytes(self.other.mac) + frames.mac_bytes(self.one.mac)
        self.receiver = self._run(self.other, "receive", self.report)
        self.sender = self._run(self.one, "send", head.hex(), self.rate, self.size)
        return self

    def _run(self, host, *argv):
        log = self.report.with_suffix(f".{argv[0]}")
        return host.ns.spawn("env", f"PYTHONPATH={ROOT}", sys.executable, "-m", "lab.stream", *argv, log=log)

    def __exit__(self, *_):
        self.stop()

    def stop(self):
        """Ends the stream; the ends' processes have written what they know."""
        if self.sender is not None:
            self.sender.stop()
            time.sleep(0.3)
            self.receiver.stop()
            self.sender = None

    def losses(self):
        """[(time of the first lost frame, seconds until the next one that arrived, frames lost), ...], after stop().

        Times are of the monotonic clock, as the sender has them.
        """
        arrived = list(HEAD.iter_unpack(self.report.read_bytes()))
        gaps = []
        for (before, sent_before), (after, sent_after) in zip(arrived, arrived[1:]):
            if after > before + 1:
                gaps.append((sent_before / 1e9, (sent_after - sent_before) / 1e9, after - before - 1))
        return gaps

    def received(self):
        return self.report.stat().st_size // HEAD.size


def send(head, rate, size):
    out = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
    out.bind(("eth0", 0))
    head = bytes.fromhex(head) + struct.pack("!H", ETHERTYPE)
    began, number, body = time.monotonic_ns(), 0, bytes(max(0, size - len(head) - HEAD.size))
    while True:
        due = began + number * 1_000_000_000 // rate
        now = time.monotonic_ns()
        if now < due:
            time.sleep((due - now) / 1e9)
        out.send(head + HEAD.pack(number, time.monotonic_ns()) + body)
        number += 1


def receive(report):
    received = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
    received.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 64 << 20)
    received.bind(("eth0", ETH_P_ALL))
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    last = -1
    with open(report, "wb", buffering=1 << 16) as out:
        while True:
            data = received.recv(2048)
            if len(data) >= 14 + HEAD.size and data[12:14] == b"\x88\xb5":
                number, sent = HEAD.unpack_from(data, 14)
                if number > last:                            # a frame that came twice counts once
                    out.write(data[14:14 + HEAD.size])
                    last = number


def distribution(values, unit=""):
    """Least, middle, 90th of a hundred, 99th and most, as text."""
    if not values:
        return "none"
    values = sorted(values)
    at = lambda share: values[min(len(values) - 1, int(share * len(values)))]
    shown = (f"{name} {value:.0f}{unit}" for name, value in
             (("least", values[0]), ("median", at(0.5)), ("90 %", at(0.9)), ("99 %", at(0.99)), ("most", values[-1])))
    return ", ".join(shown)


if __name__ == "__main__":
    if sys.argv[1] == "send":
        send(sys.argv[2], int(sys.argv[3]), int(sys.argv[4]))
    else:
        receive(sys.argv[2])
