"""A host's device on one VLAN of its trunk. Not every kernel has such devices, so it is a tap device here."""

import contextlib
import fcntl
import os
import select
import socket
import struct
import threading

from .capture import Capture, Sender

TUNSETIFF, IFF_TAP, IFF_NO_PI = 0x400454CA, 0x0002, 0x1000


class TaggedDevice:
    """Untagged on the host's side, tagged with the VLAN and priority on the trunk. A context manager."""

    def __init__(self, ns, vlan, priority=0, device="tagged", trunk="eth0"):
        self.ns, self.vlan, self.device, self.trunk = ns, vlan, device, trunk
        self.tag = struct.pack("!HH", 0x8100, priority << 13 | vlan)
        self._tap = ns.enter(self._open)
        self._stop = threading.Event()

    def _open(self):
        fd = os.open("/dev/net/tun", os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC)
        fcntl.ioctl(fd, TUNSETIFF, struct.pack("16sH", self.device.encode(), IFF_TAP | IFF_NO_PI))
        return fd

    def __enter__(self):
        self._sender = Sender(self.ns, self.trunk)
        self._socket = self.ns.enter(lambda: Capture._open(self.trunk))
        self._thread = threading.Thread(target=self._relay, daemon=True)
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._stop.set()
        self._thread.join()
        self._sender.close()
        self._socket.close()
        os.close(self._tap)

    def _relay(self):
        while not self._stop.is_set():
            ready = select.select([self._tap, self._socket], [], [], 0.05)[0]
            with contextlib.suppress(BlockingIOError, OSError):
                if self._tap in ready:
                    frame = os.read(self._tap, 1 << 16)
                    self._sender.send(frame[:12] + self.tag + frame[12:])
                if self._socket in ready:
                    self._from_trunk()

    def _from_trunk(self):
        data, ancillary, _, address = self._socket.recvmsg(1 << 17, 256, socket.MSG_DONTWAIT)
        frame = Capture._with_tag(data, ancillary)
        kind, control = struct.unpack_from("!HH", frame, 12)
        if address[2] != socket.PACKET_OUTGOING and kind == 0x8100 and control & 0xFFF == self.vlan:
            os.write(self._tap, frame[:12] + frame[16:])
