"""Capture of a device's frames inside a namespace, and sending of raw frames from one."""

import contextlib
import select
import socket
import struct
import threading
import time
from dataclasses import dataclass

from .frames import OVERLAY_PORT, decode_ethernet, overlay_packets
from .netns import wait_until

ETH_P_ALL = 3
SOL_PACKET, PACKET_AUXDATA = 263, 8
SO_RCVBUFFORCE = 33
PACKET_OUTGOING = 4
TP_STATUS_VLAN_VALID = 0x10


@dataclass
class Captured:
    time: float
    data: bytes
    outgoing: bool                                           # left by the device; else came in on it


class Capture:
    """Collects the frames of one device in a thread. A context manager; frames stay readable after its end."""

    SLACK_S = 0.3                                            # what a frame may need from its sender to the socket

    def __init__(self, ns, device):
        self.device, self._frames, self._stop = device, [], threading.Event()
        self._socket = ns.enter(lambda: self._open(device))
        self._thread = threading.Thread(target=self._run, daemon=True)

    @staticmethod
    def _open(device):
        # The protocol only once bound: else frames of other devices would slip in first.
        sock = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)
        sock.setsockopt(SOL_PACKET, PACKET_AUXDATA, 1)
        sock.setsockopt(socket.SOL_SOCKET, SO_RCVBUFFORCE, 64 << 20)
        sock.bind((device, ETH_P_ALL))
        return sock

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self.stop()

    def stop(self):
        """Ends the capture, after what is on its way has arrived."""
        if not self._stop.is_set():
            time.sleep(self.SLACK_S)
            self._stop.set()
            self._thread.join()
            self._socket.close()

    def _run(self):
        while not self._stop.is_set():
            if not select.select([self._socket], [], [], 0.05)[0]:
                continue
            with contextlib.suppress(BlockingIOError):
                while True:
                    data, ancillary, _, address = self._socket.recvmsg(1 << 17, 256, socket.MSG_DONTWAIT)
                    self._frames.append(Captured(time.monotonic(), self._with_tag(data, ancillary),
                                                 address[2] == PACKET_OUTGOING))

    @staticmethod
    def _with_tag(data, ancillary):
        """Puts back the VLAN tag that the kernel keeps beside the frame."""
        for level, kind, value in ancillary:
            if level == SOL_PACKET and kind == PACKET_AUXDATA:
                status, _, _, _, _, tci, tpid = struct.unpack("IIIHHHH", value[:20])
                if status & TP_STATUS_VLAN_VALID:
                    return data[:12] + struct.pack("!HH", tpid or 0x8100, tci) + data[12:]
        return data

    # ---- what was captured

    def all(self):
        """The frames so far with their times and directions, in order."""
        return list(self._frames)

    def frames(self, outgoing=None):
        """Bytes of the frames so far, in order; only those going out or coming in when `outgoing` says so."""
        return [c.data for c in list(self._frames) if outgoing is None or c.outgoing == outgoing]

    def overlay(self, outgoing=None, port=OVERLAY_PORT):
        return overlay_packets(self.frames(outgoing), port)

    def decoded(self, outgoing=None):
        return [decode_ethernet(data) for data in self.frames(outgoing)]

    def wait_for(self, condition, timeout=3, what="frame", outgoing=None):
        """The first captured frame, as bytes, for which the condition holds."""
        def find():
            return next((data for data in self.frames(outgoing) if condition(data)), None)
        return wait_until(find, timeout, f"{self.device}: {what}")


class Sender:
    """Sends raw frames out of a device of a namespace."""

    def __init__(self, ns, device="eth0"):
        self._socket = ns.enter(lambda: socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0))
        ns.enter(lambda: self._socket.bind((device, 0)))

    def send(self, *data):
        for frame in data:
            self._socket.send(frame)

    def close(self):
        self._socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
