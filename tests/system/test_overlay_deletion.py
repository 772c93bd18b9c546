"""Deletion of overlays in two phases: who is waited for, what is shown meanwhile, and answers of every kind."""

import os
import re
import signal
import struct
import time
import unittest

from lab import frames, wait_until

from .base import OneEdge
from .test_bus_doors import CALL, SEND, Client

DELETED, ADD_ADJACENCY, DELETE_ADJACENCY, INTERFACE_REMOVED = 78852, 78858, 78859, 62468
MAIN_SAP, OVERLAY_RECORD = 442, 2
UP, DELETE_HOLDDOWN = 2, 3


class OverlayDeletion(OneEdge):
    """One edge. Each test makes the overlays that it deletes; Overlay1 stays up throughout."""

    def setUp(self):
        self.lum = self.edge.lum_pid()

    def tearDown(self):
        super().tearDown()
        self.assertEqual(self.edge.lum_pid(), self.lum)
        self.assertEqual(self.edge.overlay()["State"], "UP")

    # ---- steps

    def make(self, *numbers):
        """Overlay interfaces with a name; their iods."""
        for number in numbers:
            self.edge.configure(f"interface Overlay{number}", f"lum vpn-name name{number}")
        wait_until(lambda: all(self.state(n) for n in numbers), 5, "they are there")
        return [int(self.rows()[f"Overlay{n}"][2]) for n in numbers]

    def rows(self):
        """Rows of the summary by interface, as lists of words."""
        return {line.split()[0]: line.split() for line in self.edge.corvsh("show lum overlay summary").splitlines()
                if line.startswith("Overlay")}

    def state(self, number):
        """State and reason of an overlay, None when it is gone."""
        row = self.rows().get(f"Overlay{number}")
        return row and " ".join(row[3:])

    def record(self, iod):
        """(state, reason) of the overlay's record in the database, None when there is none."""
        key = struct.pack("=BI", OVERLAY_RECORD, iod).ljust(33, b"\0").hex()
        for line in self.edge.corvbus("sdb").splitlines():
            if line.startswith(key):
                return struct.unpack_from("=II", bytes.fromhex(line.split()[1]), 272)
        return None

    def follower(self):
        """A client that follows deletions and answers when told."""
        client = Client(self.edge.root)
        self.addCleanup(client.close)
        self.assertEqual(client.bind()[0], 0)
        self.assertEqual(client.subscribe(DELETED)[0], 0)
        return client

    def remove(self, *numbers):
        for number in numbers:
            self.edge.configure(f"no interface Overlay{number}")

    def wait_held(self, number):
        wait_until(lambda: self.state(number) == "DOWN Delete Holddown", 5, f"Overlay{number} is held down")

    def wait_gone(self, number):
        wait_until(lambda: self.state(number) is None, 5, f"Overlay{number} is gone")

    def send(self, opcode, payload=b"", check=True):
        self.edge.corvbus("send", str(MAIN_SAP), str(opcode), *([payload.hex()] if payload else []), check=check)

    def acknowledge(self, iod):
        self.send(DELETED, struct.pack("=I", iod))

    def said(self, text):
        return self.edge.output().count(text)

    # ---- waiting for clients

    def test_a_client_that_follows_deletions_is_waited_for(self):
        iod, = self.make(7)
        follower = self.follower()
        self.remove(7)
        self.wait_held(7)
        shown = self.edge.corvsh("show lum overlay")
        self.assertRegex(shown, r"State +: DOWN\n +: Delete Holddown\n +: Notification pending\n")
        self.assertEqual(self.record(iod), (1, DELETE_HOLDDOWN))
        time.sleep(1)                                        # nobody else answers for it
        self.assertEqual(self.state(7), "DOWN Delete Holddown")
        self.assertEqual(follower.call(CALL, SEND, Client.message(0, MAIN_SAP, DELETED, struct.pack("=I", iod)))[0], 0)
        self.wait_gone(7)
        self.assertIsNone(self.record(iod))

    def test_a_client_that_ends_without_an_answer_is_waited_for_no_longer(self):
        self.make(7)
        follower = self.follower()
        self.remove(7)
        self.wait_held(7)
        follower.close()
        self.wait_gone(7)

    def test_a_deletion_while_corvack_is_away_is_answered_when_it_is_back(self):
        pid = int(re.search(r"corvack +up +(\d+)", self.edge.corvsh("show services")).group(1))
        self.make(7)
        os.kill(pid, signal.SIGSTOP)
        self.remove(7)
        self.wait_held(7)
        os.kill(pid, signal.SIGKILL)                         # with the notification unread
        self.wait_gone(7)
        self.assertIn(f"corvack (process {pid}) ended and is started again", self.edge.output())

    def test_a_deletion_that_waits_when_corvaned_is_killed_is_answered_afterwards(self):
        self.make(7)
        self.follower()                                      # its connection ends with corvaned
        self.remove(7)
        self.wait_held(7)
        self.edge.process.send(signal.SIGKILL)
        self.edge.process.wait(5)
        self.edge.start_with(["--config", self.edge.config_file])
        self.wait_gone(7)
        services = self.edge.corvsh("show services")
        self.assertEqual(len(re.findall(r"corvack +up", services)), 1, services)

    def test_corvack_is_for_corvaned_to_start(self):
        started = self.edge.ns.run(self.edge.programs / "corvack", check=False)
        self.assertEqual((started.returncode, started.stderr), (1, "corvack: it is corvaned that starts this program\n"))

    # ---- several overlays in one message

    def test_each_overlay_of_a_removal_waits_for_its_own_answer(self):
        iods = self.make(7, 8)
        self.follower()
        plain = 1                                            # the loopback device
        changes = b"".join(struct.pack("=IQ", iod, 0) for iod in (iods[0], plain, iods[1]))
        self.send(INTERFACE_REMOVED, struct.pack("=I", 3) + changes)
        self.wait_held(7)
        self.wait_held(8)
        self.acknowledge(iods[1])
        self.wait_gone(8)
        self.assertEqual(self.state(7), "DOWN Delete Holddown")
        self.acknowledge(iods[0])
        self.wait_gone(7)
        self.remove(7, 8)                                    # the interfaces; no overlay is left to them

    def test_many_overlays_go_at_once(self):
        numbers = range(10, 30)
        self.make(*numbers)
        self.edge.configure(*(f"no interface Overlay{number}" for number in numbers))
        wait_until(lambda: list(self.rows()) == ["Overlay1"], 5, "all of them are gone")

    # ---- answers that nobody waits for

    def test_answers_for_no_overlay_for_one_that_is_up_and_twice_change_nothing(self):
        up = int(self.edge.overlay()["VPN ID"])
        gone, = self.make(7)
        self.remove(7)
        self.wait_gone(7)
        for iod in (0, up, gone, gone, 767, 768, 0xFFFFFFFF):
            self.acknowledge(iod)
        before = self.edge.drops().get("bus: malformed message", 0)
        for length in (1, 2, 3):
            self.send(DELETED, bytes(length))
        wait_until(lambda: self.edge.drops().get("bus: malformed message", 0) == before + 3, 5, "they are counted")
        self.assertEqual(self.record(up), (UP, 0))
        self.assertEqual(list(self.rows()), ["Overlay1"])

    # ---- what keeps a record

    def test_a_site_adjacency_keeps_the_record_until_it_is_gone(self):
        iod, = self.make(7)
        adjacency = struct.pack("=I6sB28xII", iod, frames.mac_bytes("02:00:00:00:ed:01"), 0, 1, 1)
        self.send(ADD_ADJACENCY, adjacency)
        refused, mismatch = "Failed to delete overlay name7: Site-adj", "state mismatch - notify_pending"
        self.remove(7)
        self.edge.wait_log(refused)
        self.assertEqual(self.state(7), "DOWN Delete Holddown")
        self.assertNotIn("Notification pending", self.edge.corvsh("show lum overlay"))
        self.assertIsNone(self.record(iod))
        self.send(DELETE_ADJACENCY, adjacency)
        before = self.said(mismatch)
        self.acknowledge(iod)
        self.wait_gone(7)
        self.assertEqual((self.said(refused), self.said(mismatch)), (1, before + 1))

    def test_a_vlan_that_another_overlay_has_taken_over_keeps_the_record(self):
        iod, = self.make(7)
        self.edge.configure("interface Overlay7", "lum vpn-vlan 77")
        self.make(8)
        self.edge.configure("interface Overlay8", "lum vpn-vlan 77")
        self.remove(7)
        self.edge.wait_log("VLAN 77 doesn't match configured overlay name7")
        self.edge.wait_log("Failed to delete overlay name7: Refcount")
        self.assertEqual(self.state(7), "DOWN Delete Holddown")
        self.assertIsNone(self.record(iod))
        self.assertIn("Overlay8", self.edge.corvsh("show lum vlan | include 77"))
        self.remove(8)
        self.wait_gone(8)
        self.acknowledge(iod)                                # is never freed: what may be referred to is kept
        wait_until(lambda: self.said("Failed to delete overlay name7: Refcount") == 2, 5, "it says so again")
        self.assertEqual(self.state(7), "DOWN Delete Holddown")
        self.edge.corvsh("restart lum")
        wait_until(lambda: self.edge.lum_pid() not in (None, self.lum), 10, "lum is back")
        self.lum = self.edge.lum_pid()
        self.edge.wait_overlay()                             # its commands are there
        self.wait_gone(7)

    # ---- made again before it is gone

    def test_an_overlay_that_is_made_again_while_it_is_held_comes_back_with_its_new_configuration(self):
        iod, = self.make(7)
        self.edge.configure("interface Overlay7", "lum vpn-vlan 77")
        self.follower()
        self.remove(7)
        self.wait_held(7)
        self.edge.configure("interface Overlay7", "lum vpn-name again", "lum vpn-ext-if eth0", "lum vpn-vlan 77,78",
                            "lum vpn-mgroup-addr 239.7.7.7")
        self.assertEqual(self.state(7), "DOWN Delete Holddown")
        self.acknowledge(iod)
        wait_until(lambda: self.state(7) == "UP None", 5, "it is up")
        self.assertEqual(self.edge.overlay("Overlay7")["VPN Name"], "again")
        self.assertEqual(self.record(iod), (UP, 0))
        carried = [line.split() for line in self.edge.corvsh("show lum vlan").splitlines() if line.startswith("7")]
        self.assertEqual([(row[0], "Overlay7" in row) for row in carried], [("77", True), ("78", True)], carried)
        self.remove(7)
        self.wait_held(7)
        self.acknowledge(iod)
        self.wait_gone(7)

    def test_an_overlay_that_is_removed_and_made_in_one_go_is_there_each_time(self):
        self.make(7)
        for turn in range(10):
            self.edge.configure("no interface Overlay7", "interface Overlay7", f"lum vpn-name turn{turn}",
                                "lum vpn-ext-if eth0", "lum vpn-mgroup-addr 239.7.7.7", f"lum vpn-vlan {80 + turn}")
            wait_until(lambda: self.state(7) == "UP None", 5, f"turn {turn}")
            self.assertEqual(self.edge.overlay("Overlay7")["VPN Name"], f"turn{turn}")
        self.remove(7)
        self.wait_gone(7)


if __name__ == "__main__":
    unittest.main()
