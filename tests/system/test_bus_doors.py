"""Clients of the bus that flood, stall or lie, written against the raw socket: they hurt only themselves."""

import os
import re
import socket
import stat
import struct
import threading
import time
import unittest
from pathlib import Path

from lab import wait_until
from lab.netns import run

from .base import TwoSites, sanitized

HELLO, CALL, ONEWAY, REPLY, DELIVER = 1, 2, 3, 4, 5
VERSION = 1
BIND, UNBIND, OPTION, SEND, CONSUMED = ((1 << 16) | n for n in (1, 2, 3, 4, 5))
NOTIFY = 0xFE000000
SUBSCRIBE = 16
EINVAL, ENOSYS, EADDRINUSE = 22, 38, 98
OPCODE = 0x77777


class Client:
    """A client that speaks the bus as the bytes are, right or wrong."""

    def __init__(self, root, greet=True):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.socket.settimeout(5)
        self.socket.connect(str(root / "bus.sock"))
        self.id = 0
        if greet:
            assert self.call(HELLO, 0, struct.pack("=II", VERSION, 0)) == (0, b"")

    def send(self, kind, number, data, call=0):
        self.socket.send(struct.pack("=IIQ", kind, number, call) + data)

    def call(self, kind, number, data):
        """(status, data) of the answer; deliveries on the way are passed over."""
        self.id += 1
        self.send(kind, number, data, self.id)
        while True:
            frame = self.socket.recv(1 << 18)
            if not frame:
                raise ConnectionResetError("closed")
            got, status, call = struct.unpack("=IIQ", frame[:16])
            if got == REPLY and call == self.id:
                return status, frame[16:]

    def bind(self, queue=1, sap=0, depth=100, name=b"door"):
        return self.call(CALL, BIND, struct.pack("=IIIII", queue, sap, depth, 0, 0) + struct.pack("=I", len(name)) + name)

    def subscribe(self, opcode, queue=1):
        return self.call(CALL, OPTION, struct.pack("=III", queue, opcode, SUBSCRIBE))

    @staticmethod
    def message(node, sap, opcode, payload=b"", queue=1):
        return struct.pack("=IIIIII", queue, node, sap, opcode, 0, 0) + payload

    def closed(self):
        """Whether the other end closes the connection."""
        try:
            while self.socket.recv(1 << 18):
                pass
        except TimeoutError:
            return False
        except ConnectionError:
            pass
        return True

    def close(self):
        self.socket.close()


class BusDoors(TwoSites):
    def setUp(self):
        self.edge = self.edges[1]
        self.lum, self.pid = self.edge.lum_pid(), self.edge.process.pid

    def tearDown(self):
        self.assertEqual((self.edge.lum_pid(), self.edge.running), (self.lum, True), "nobody was replaced")
        self.assert_stretched(10)
        super().tearDown()

    def client(self, **options):
        made = Client(self.edge.root, **options)
        self.addCleanup(made.close)
        return made

    def answer_time(self, rounds=5):
        """The slowest of some commands, in seconds."""
        times = []
        for _ in range(rounds):
            began = time.monotonic()
            self.edge.corvsh("show lum overlay Overlay1")
            times.append(time.monotonic() - began)
        return max(times)

    def resident_kib(self):
        return int(re.search(r"VmRSS:\s+(\d+)", Path(f"/proc/{self.pid}/status").read_text()).group(1))

    # ---- lies

    def test_a_frame_without_header_ends_its_connection_and_is_counted(self):
        for data in (b"\1", b"\1\0\0\0", bytes(15)):
            before = self.edge.drops().get("bus: malformed message", 0)
            liar = self.client(greet=False)
            liar.socket.send(data)
            self.assertTrue(liar.closed())
            self.assertEqual(self.edge.drops()["bus: malformed message"], before + 1)

    def test_calls_before_the_greeting_and_unknown_kinds_end_the_connection(self):
        for kind in (CALL, ONEWAY, REPLY, DELIVER, 6, 7, 0xFFFFFFFF):
            liar = self.client(greet=False)
            liar.send(kind, SEND, bytes(24))
            self.assertTrue(liar.closed(), kind)

    def test_another_version_of_the_bus_is_refused(self):
        for version in (0, 2, 0xFFFFFFFF):
            liar = self.client(greet=False)
            liar.send(HELLO, 0, struct.pack("=II", version, 0), 1)
            self.assertTrue(liar.closed())

    def test_unknown_methods_are_answered_as_such(self):
        client = self.client()
        for method in (0, 1, 0x1FFFF, 0xFFFFFFFF, (99 << 16) | 1):
            self.assertEqual(client.call(CALL, method, b"")[0], ENOSYS)

    def test_every_method_takes_garbage_of_every_length(self):
        client = self.client()
        for service in range(1, 14):
            for number in range(1, 16):
                method = (service << 16) | number
                if service == 2 and number in (5, 9):        # what stops lum for anybody who asks is no garbage
                    continue
                for length in (0, 1, 3, 4, 7, 8, 11, 12, 16, 19, 20, 40, 64, 100, 1000):
                    for fill in (b"\xff", b"\x41"):
                        status, _ = client.call(CALL, method, fill * length)
                        self.assertLess(status, 4096, f"{service}.{number} of {length}")
        self.assertLess(self.answer_time(), 2)

    def test_a_sap_that_is_taken_is_not_given_away(self):
        client = self.client()
        for sap in (442, 1, 15):                             # lum's, and those of corvaned itself
            self.assertEqual(client.bind(sap=sap)[0], EADDRINUSE)
        self.assertIn("UP", self.edge.overlay()["State"])

    def test_a_message_from_a_queue_that_is_not_the_senders_is_refused(self):
        client = self.client()
        self.assertEqual(client.call(CALL, SEND, client.message(NOTIFY, 0, OPCODE))[0], EINVAL)
        other = self.client()
        self.assertEqual(other.bind(queue=9)[0], 0)
        self.assertEqual(client.call(CALL, SEND, client.message(NOTIFY, 0, OPCODE, queue=9))[0], EINVAL)

    def test_consuming_more_than_was_delivered_gains_nothing(self):
        client, sender = self.client(), self.client()
        client.bind(depth=2)
        client.subscribe(OPCODE)
        sender.bind()
        client.send(ONEWAY, CONSUMED, struct.pack("=II", 1, 0xFFFFFFFF))
        client.send(ONEWAY, CONSUMED, struct.pack("=II", 1, 0xFFFFFFFF))
        self.assertEqual(client.call(CALL, 0xFFFF, b"")[0], ENOSYS)     # by now they were read
        before = self.edge.drops().get("bus: queue full", 0)
        for _ in range(5):
            sender.call(CALL, SEND, sender.message(NOTIFY, 0, OPCODE))
        self.assertEqual(self.edge.drops()["bus: queue full"], before + 3)

    # ---- stalls

    def test_a_client_that_never_reads_costs_others_neither_messages_nor_memory(self):
        staller, reader, sender = self.client(), self.client(), self.client()
        for each in (staller, reader):
            each.bind(depth=65536)
            each.subscribe(OPCODE)
        sender.bind()
        memory, received, size, count = self.resident_kib(), [], 32 * 1024, 2000

        def read():
            while len(received) < count:
                frame = reader.socket.recv(1 << 18)
                if struct.unpack("=I", frame[:4])[0] == DELIVER:
                    received.append(len(frame))
                    if len(received) % 100 == 0:
                        reader.send(ONEWAY, CONSUMED, struct.pack("=II", 1, 100))

        thread = threading.Thread(target=read, daemon=True)
        thread.start()
        for _ in range(count):                               # 64 MB pass by the one that does not read
            self.assertEqual(sender.call(CALL, SEND, sender.message(NOTIFY, 0, OPCODE, bytes(size)))[0], 0)
        thread.join(20)
        self.assertEqual(len(received), count)
        if not sanitized():                                  # which keeps freed memory for a while
            self.assertLess(self.resident_kib(), memory + 24 * 1024, "what waits for one client has a bound")
        self.assertLess(self.answer_time(), 2)

    def test_a_caller_that_takes_no_answers_is_not_read_or_cut_off(self):
        staller = self.client()
        staller.socket.setblocking(False)
        memory = self.resident_kib()
        sent = 0
        with self.assertRaises((BlockingIOError, ConnectionError)):
            for sent in range(1_000_000):
                staller.send(CALL, (3 << 16) | 3, b"\xff" * 16, sent)
        self.assertLess(self.resident_kib(), memory + 24 * 1024)
        self.assertLess(self.answer_time(), 2)

    def test_connections_that_say_nothing_have_a_bound(self):
        silent = []
        self.addCleanup(lambda: [sock.close() for sock in silent])
        for _ in range(700):
            sock = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
            sock.connect(str(self.edge.root / "bus.sock"))
            silent.append(sock)
        files = len(os.listdir(f"/proc/{self.pid}/fd"))
        self.assertLess(files, 600)
        self.assertEqual(self.top.host(1, 10).ping(self.top.host(2, 10).ipv4), 3)
        for sock in silent:
            sock.close()
        wait_until(lambda: len(os.listdir(f"/proc/{self.pid}/fd")) < 100, 5, "they are let go")
        self.assertLess(self.answer_time(), 2)

    # ---- floods

    def test_floods_of_calls_and_notifications_leave_commands_answered(self):
        stop = threading.Event()

        def flood(kind, method, data):
            client = Client(self.edge.root)
            client.bind()
            client.socket.settimeout(0.05)
            while not stop.is_set():
                try:
                    client.send(kind, method, data)
                    if kind == CALL:
                        client.socket.recv(1 << 18)
                except TimeoutError:
                    pass
            client.close()

        threads = [threading.Thread(target=flood, args=each, daemon=True) for each in (
            (ONEWAY, SEND, Client.message(NOTIFY, 0, OPCODE, bytes(1000))),
            (ONEWAY, SEND, Client.message(0, 442, OPCODE, bytes(100))),        # into lum's own queue
            (CALL, (10 << 16) | 3, struct.pack("=I", 0)),
            (ONEWAY, (5 << 16) | 1, struct.pack("=I", 6) + struct.pack("=I", 3) + b"abc" + struct.pack("=I", 2) + b"hi"))]
        for thread in threads:
            thread.start()
        try:
            time.sleep(1)
            slowest = self.answer_time()
            answered = self.top.host(1, 10).ping(self.top.host(2, 10).ipv4, count=10, interval=0.1)
        finally:
            stop.set()
            for thread in threads:
                thread.join(10)
        self.assertLess(slowest, 5)
        self.assertEqual(answered, 10)

    def test_a_shell_that_does_not_read_its_output_or_sends_garbage_is_alone_with_it(self):
        for garbage in (os.urandom(100_000), b"\xff" * 64, struct.pack("=II", 0xFFFFFFFF, 1)):
            for name in ("cli.sock", "cmdsrv.sock"):
                sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
                self.addCleanup(sock.close)
                sock.settimeout(1)
                sock.connect(str(self.edge.root / name))
                try:
                    sock.sendall(garbage)
                except (ConnectionError, TimeoutError):
                    pass
        self.assertLess(self.answer_time(), 2)

    # ---- who may come in

    def test_files_under_the_root_are_closed_to_others(self):
        for path in [self.edge.root, *self.edge.root.rglob("*")]:
            mode = path.stat().st_mode
            # Others pass through the root to the shell's socket, which looks at who is there.
            allowed = {self.edge.root: 0o711, self.edge.root / "cli.sock": 0o666}.get(path, 0o770 if path.is_dir() else 0o660)
            self.assertEqual(stat.S_IMODE(mode) & ~allowed, 0, f"{path} {stat.S_IMODE(mode):o}")
        self.assertEqual((self.edge.dir / "state").stat().st_mode & 0o027, 0)

    def test_a_stranger_gets_in_nowhere_even_where_the_socket_lets_it(self):
        bus, shell = self.edge.root / "bus.sock", self.edge.root / "cli.sock"
        for parent in self.edge.root.parents:
            if parent != Path("/"):
                os.chmod(parent, parent.stat().st_mode | 0o011)
        os.chmod(bus, 0o666)                                 # the door itself must look, not only its lock
        self.addCleanup(os.chmod, bus, 0o660)
        script = ("import socket, struct, sys\n"
                  "s = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET); s.settimeout(5); s.connect(sys.argv[1])\n"
                  "try:\n"
                  "    s.send(struct.pack('=IIQII', 1, 0, 1, 1, 0)); sys.exit(1 if s.recv(100) else 0)\n"
                  "except OSError: sys.exit(0)\n")
        as_nobody = ("setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups")
        run(*as_nobody, "python3", "-c", script, bus)
        done = run(*as_nobody, self.edge.programs / "corvsh", "--root", self.edge.root, "-c", "configure terminal",
                   "-c", "interface Overlay1", "-c", "shutdown", check=False)
        self.assertNotEqual(done.returncode, 0, done.stdout + done.stderr)
        self.assertEqual(self.edge.overlay()["State"], "UP")
        self.assertTrue(shell.exists())


if __name__ == "__main__":
    unittest.main()
