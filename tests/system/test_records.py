"""Records of the shared database over the death of any process, and requests to a lum that does not read."""

import os
import signal
import struct
import unittest

from lab import frames, wait_until

from .base import OneEdge
from .test_bus_doors import CALL, SEND, Client

MAIN_SAP, ADD_ADJACENCY, DELETE_ADJACENCY, DELETED = 442, 78858, 78859, 78852
ADJACENCY, OVERLAY, VLAN = 1, 2, 3
EAGAIN, DEPTH = 11, 1024
UP = 2


class Records(OneEdge):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.iod = int(cls.edge.overlay()["VPN ID"])

    def setUp(self):
        self.client = self.connect()

    def connect(self):
        client = Client(self.edge.root)
        self.addCleanup(client.close)
        self.assertEqual(client.bind()[0], 0)
        return client

    def send(self, opcode, payload):
        return self.client.call(CALL, SEND, Client.message(0, MAIN_SAP, opcode, payload))[0]

    def records(self, kind):
        """{key: value} of the records of one type."""
        pairs = (line.split() for line in self.edge.corvbus("sdb").splitlines())
        return {bytes.fromhex(key): bytes.fromhex(value) for key, value in pairs if int(key[:2], 16) == kind}

    def adjacency(self, number):
        return struct.pack("=I6sBII12x8xII", self.iod, frames.mac_bytes(f"02:00:00:00:ad:{number:02x}"), 0, 4,
                           0xC6336400 + number, 0, 0)

    def make_adjacencies(self, count):
        for number in range(count):
            self.assertEqual(self.send(ADD_ADJACENCY, self.adjacency(number)), 0)
        wait_until(lambda: len(self.records(ADJACENCY)) == count, 5, "all are published")
        self.addCleanup(self.remove_adjacencies, count)
        return self.records(ADJACENCY)

    def remove_adjacencies(self, count):
        self.client = self.connect()
        for number in range(count):
            self.assertEqual(self.send(DELETE_ADJACENCY, self.adjacency(number)), 0)
        wait_until(lambda: not self.records(ADJACENCY), 5, "all are gone")

    def state(self):
        value = self.records(OVERLAY)[struct.pack("=BI", OVERLAY, self.iod).ljust(33, b"\0")]
        return struct.unpack_from("=I", value, 272)[0]

    # ---- death

    def test_every_record_outlives_a_killed_corvaned(self):
        adjacencies, overlays, vlans = self.make_adjacencies(40), self.records(OVERLAY), self.records(VLAN)
        self.assertEqual((len(adjacencies), len(overlays), len(vlans)), (40, 1, 2))
        lum = self.edge.lum_pid()
        self.edge.process.send(signal.SIGKILL)
        self.edge.process.wait(5)
        self.edge.start_with(["--config", self.edge.config_file])
        self.assertEqual(self.edge.lum_pid(), lum)
        self.assertEqual(self.records(ADJACENCY), adjacencies)
        self.assertEqual(self.records(VLAN), vlans)
        wait_until(lambda: self.state() == UP, 5, "the overlay's record")

    def test_records_outlive_a_killed_lum_and_its_overlays_are_published_again(self):
        adjacencies, vlans = self.make_adjacencies(40), self.records(VLAN)
        killed = self.edge.kill_lum()
        self.assertEqual((self.records(ADJACENCY), self.records(VLAN)), (adjacencies, vlans))
        wait_until(lambda: self.edge.lum_pid() not in (None, killed), 15, "lum is back")
        self.edge.wait_overlay()
        wait_until(lambda: self.state() == UP, 5, "the overlay's record")
        self.assertEqual((self.records(ADJACENCY), self.records(VLAN)), (adjacencies, vlans))

    # ---- a queue that is full

    def test_a_lum_that_does_not_read_refuses_what_its_queue_cannot_hold_and_takes_the_rest_later(self):
        adjacencies = [self.adjacency(number) for number in range(40)]
        self.addCleanup(self.remove_adjacencies, 40)
        refused, pid = self.edge.drops().get("bus: queue full", 0), self.edge.lum_pid()
        os.kill(pid, signal.SIGSTOP)
        try:
            for payload in adjacencies:
                self.assertEqual(self.send(ADD_ADJACENCY, payload), 0)
            answers = [self.send(DELETED, struct.pack("=I", self.iod)) for _ in range(DEPTH + 100)]
        finally:
            os.kill(pid, signal.SIGCONT)
        taken = answers.index(EAGAIN)
        self.assertEqual(answers, [0] * taken + [EAGAIN] * (len(answers) - taken))
        self.assertLessEqual(taken + 40, DEPTH)
        wait_until(lambda: len(self.records(ADJACENCY)) == 40, 5, "what was taken is done")
        self.assertEqual((self.edge.lum_pid(), self.state()), (pid, UP))
        self.assertEqual(self.edge.drops().get("bus: queue full", 0), refused + len(answers) - taken)
        self.assertEqual(self.send(DELETED, struct.pack("=I", self.iod)), 0)


if __name__ == "__main__":
    unittest.main()
