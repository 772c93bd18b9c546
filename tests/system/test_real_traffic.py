"""Programs that people run, across the sites as on one switch: address assignment, names, router discovery, the web, voice."""

import concurrent.futures
import contextlib
import hashlib
import json
import os
import re
import socket
import struct
import unittest
from pathlib import Path

from lab import Capture, wait_until
from lab.tagged import TaggedDevice

from .base import TwoSites

LEASE_SCRIPT = """#!/bin/sh
[ "$1" = bound ] && ip address replace "$ip/$mask" dev "$interface"
echo "$1 ip=$ip server=$serverid dns=$dns"
"""

AVAHI = """[server]
host-name=printer
use-ipv4=yes
use-ipv6=yes
allow-interfaces=eth0
enable-dbus=no
[publish]
publish-addresses=yes
publish-workstation=no
"""

NGINX = """daemon off; master_process off; worker_processes 1; pid {dir}/nginx.pid; error_log {dir}/nginx.err;
events {{ worker_connections 64; }}
http {{
    access_log off; root {dir}/www;
    client_body_temp_path {dir}/t1; proxy_temp_path {dir}/t2; fastcgi_temp_path {dir}/t3; uwsgi_temp_path {dir}/t4;
    scgi_temp_path {dir}/t5;
    server {{ listen 80; listen [::]:80; }}
}}
"""


class RealTraffic(TwoSites):
    """A host at site 1 uses what a host of the same VLAN at site 2 offers."""

    TRUNKS = True

    def setUp(self):
        self.client, self.server = self.top.host(1, 20), self.top.host(2, 20)
        self.dir = Path(self.lab.path) / self.id().rpartition(".")[2]
        self.dir.mkdir()

    def serve(self, *argv, ready, host=None):
        """Runs a server until the test ends; `ready` is what its output says when it serves."""
        process = (host or self.server).ns.spawn(*argv, log=self.dir / f"{Path(argv[0]).name}.log")
        self.addCleanup(process.stop)
        wait_until(lambda: ready in process.output() or not process.running, 10, f"{argv[0]} serves")
        self.assertTrue(process.running, process.output())
        return process

    def dnsmasq(self, *options):
        return self.serve("dnsmasq", "--keep-in-foreground", "--log-facility=-", "--conf-file=/dev/null", "--no-hosts",
                          "--no-resolv", "--bind-interfaces", "--interface=eth0", "--user=root", "--pid-file",
                          f"--dhcp-leasefile={self.dir}/leases", *options, ready="started")

    # ---- address assignment and names

    def test_a_host_gets_its_address_from_a_server_at_the_other_site(self):
        self.dnsmasq("--dhcp-range=10.1.77.10,10.1.77.99,255.255.0.0,1h", "--dhcp-authoritative")
        script = self.dir / "lease.sh"
        script.write_text(LEASE_SCRIPT)
        script.chmod(0o755)
        self.client.ns.ip("addr flush dev eth0 scope global")
        self.addCleanup(lambda: (self.client.ns.ip("addr flush dev eth0 scope global"), self.client.configure()))
        done = self.client.ns.run("busybox", "udhcpc", "-i", "eth0", "-n", "-q", "-t", "5", "-T", "2", "-s", script)
        lease = re.search(r"bound ip=(10\.1\.77\.\d+) server=(\S+)", done.stdout + done.stderr)
        self.assertIsNotNone(lease, done.stdout + done.stderr)
        self.assertEqual(lease.group(2), self.server.ipv4)
        self.assertIn(self.client.mac, (self.dir / "leases").read_text())
        self.assertEqual(self.client.ping(self.server.ipv4, count=2), 2)

    def test_names_are_resolved_at_the_other_site(self):
        self.dnsmasq("--address=/printer.example/10.1.77.7", "--address=/printer.example/fd00:1::77")
        for server in (self.server.ipv4, self.server.ipv6):
            done = self.client.ns.run("busybox", "nslookup", "printer.example", server, check=False)
            self.assertIn("10.1.77.7", done.stdout)
            self.assertIn("fd00:1::77", done.stdout)

    def test_routers_of_the_other_site_are_discovered(self):
        self.dnsmasq("--dhcp-range=fd00:1::,ra-only,64,1h", "--enable-ra")
        done = self.client.ns.run("rdisc6", "-1", "-w", "3000", "eth0", check=False)
        self.assertIn("fd00:1::/64", done.stdout, done.stderr)
        self.assertIn(self.server.mac.upper(), done.stdout)

    # ---- service discovery: groups of the link

    def ask_by_multicast(self, name, family):
        """The address of a name, asked of the link's hosts and not of a server; answers come straight back (RFC 6762)."""
        kind, group = ((1, "224.0.0.251"), (28, "ff02::fb"))[family == socket.AF_INET6]
        labels = b"".join(bytes([len(part)]) + part.encode() for part in name.split("."))
        query = struct.pack(">HHHHHH", 0x4C55, 0, 1, 0, 0, 0) + labels + b"\0" + struct.pack(">HH", kind, 1)

        def inside():
            with socket.socket(family, socket.SOCK_DGRAM) as sock:
                sock.settimeout(1)
                index = socket.if_nametoindex("eth0")
                target = (group, 5353, 0, index) if family == socket.AF_INET6 else (group, 5353)
                if family == socket.AF_INET:
                    sock.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton(self.client.ipv4))
                for _ in range(5):
                    sock.sendto(query, target)
                    with contextlib.suppress(TimeoutError):
                        answer = sock.recv(2000)
                        if answer[:2] == query[:2] and struct.unpack_from(">H", answer, 6)[0] > 0:
                            return answer
            return b""
        return self.client.ns.enter(inside)

    def test_a_service_of_the_other_site_is_discovered_by_multicast(self):
        conf = self.dir / "avahi.conf"
        conf.write_text(AVAHI)
        # Its run-time directory has one fixed place; a private one is mounted over it.
        self.serve("unshare", "--mount", "sh", "-c", "mkdir -p /run/avahi-daemon && mount -t tmpfs none /run/avahi-daemon && "
                   f"exec avahi-daemon --no-drop-root --no-chroot --no-rlimits -f {conf}", ready="Server startup complete")
        self.assertIn(socket.inet_aton(self.server.ipv4), self.ask_by_multicast("printer.local", socket.AF_INET))
        answer = self.ask_by_multicast("printer.local", socket.AF_INET6)
        self.assertIn(socket.inet_pton(socket.AF_INET6, self.server.ipv6), answer)

    # ---- bulk

    def test_a_web_server_of_the_other_site_delivers_every_byte(self):
        content = os.urandom(1 << 20) * 16
        www = self.dir / "www"
        www.mkdir(mode=0o755)
        (www / "file").write_bytes(content)
        conf = self.dir / "nginx.conf"
        conf.write_text("user root;\n" + NGINX.format(dir=self.dir))
        self.server.ns.spawn("nginx", "-p", self.dir, "-c", conf, log=self.dir / "nginx.log")
        for address in (self.server.ipv4, f"[{self.server.ipv6}]"):
            got = self.dir / "got"
            self.client.ns.run("curl", "-sS", "--fail", "--retry", "5", "--retry-connrefused", "--retry-delay", "1", "-o",
                               got, f"http://{address}/file", timeout=40)
            self.assertEqual(hashlib.sha256(got.read_bytes()).digest(), hashlib.sha256(content).digest())

    def test_large_writes_flow_both_ways_over_both_families(self):
        for one, other in ((self.client, self.server), (self.server, self.client)):
            for ipv6 in (False, True):
                with self.subTest(sender=one.name, ipv6=ipv6):
                    # The receiver's figure is of the moment when the sender was done: some is still on its way.
                    report = one.tcp(other, size="32M", options=("-l", "1M"), ipv6=ipv6)["end"]
                    self.assertGreaterEqual(report["sum_sent"]["bytes"], 32 << 20)
                    self.assertGreaterEqual(report["sum_received"]["bytes"], 16 << 20)

    # ---- voice on a tagged VLAN

    def test_voice_on_a_tagged_vlan_loses_nothing_beside_a_transfer(self):
        phone, exchange = self.top.host(1, "trunk"), self.top.host(2, "trunk")
        devices = []
        for number, host in ((1, phone), (2, exchange)):
            devices.append(self.enterContext(TaggedDevice(host.ns, 10, priority=5, device="voice")))
            host.ns.ip(f"link set voice address {host.mac}", f"addr add 10.1.200.{number}/16 dev voice",
                       "link set voice up")
        self.serve("iperf3", "-s", "-1", "--forceflush", "-B", "10.1.200.2", ready="listening", host=exchange)
        with Capture(self.top.core.ns, "r1") as capture:
            with concurrent.futures.ThreadPoolExecutor(1) as beside:
                bulk = beside.submit(self.client.tcp, self.server, 3)
                done = phone.ns.run("iperf3", "-J", "-u", "-c", "10.1.200.2", "-b", "80k", "-l", "160", "-t", "3",
                                    "--tos", "0xb8", timeout=30, check=False)
                bulk.result()
        call = json.loads(done.stdout)
        self.assertNotIn("error", call)
        self.assertGreater(call["end"]["sum"]["packets"], 150)
        self.assertEqual(call["end"]["sum"]["lost_packets"], 0)
        self.assertGreater(len(capture.frames()), 1000, "the transfer beside it")


if __name__ == "__main__":
    unittest.main()
