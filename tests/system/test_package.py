"""The Debian package in a throwaway machine with systemd: install, run, upgrade, remove. And the service's privileges."""

import os
import pwd
import re
import socket
import threading
import unittest
from pathlib import Path

from lab import Edge, Lab, programs_dir, two_sites, wait_until
from lab.machine import Machine
from lab.netns import run

from .base import sanitized

ROOT = Path(__file__).resolve().parent.parent.parent
UNIT = ROOT / "packaging/corvane.service"
CAPABILITIES = 1 << 12 | 1 << 13                             # CAP_NET_ADMIN, CAP_NET_RAW

SITE = """interface eth1
  switchport
  switchport access vlan 10
  lum vlan 10
interface Overlay1
  lum vpn-name blue
  lum vpn-ext-if eth0
  lum vpn-mgroup-addr 239.1.1.1
  lum vpn-vlan 10
lum route 10/02:00:00:00:02:01 interface Overlay1 next-hop 198.18.1.2
"""


def make_package(lab, version):
    """The package of the build that is tested; of the plain one when that carries a sanitizer: the sandbox forbids what
    sanitizers do."""
    build = ROOT / "build/dev" if sanitized() else programs_dir().parent
    into = lab.path / f"package-{version}"
    run("cpack", "--config", build / "CPackConfig.cmake", "-B", into, "-D", f"CPACK_PACKAGE_VERSION={version}", timeout=60)
    return next(into.glob(f"corvane_{version}_*.deb"))


class Package(unittest.TestCase):
    """The tests tell one story, in the order of their letters."""

    @classmethod
    def setUpClass(cls):
        cls.lab = cls.enterClassContext(Lab())
        cls.packages = {version: make_package(cls.lab, version) for version in ("1.0.0", "1.0.1")}
        cls.machine = cls.enterClassContext(Machine(cls.lab))
        # A core behind eth0 and a host behind eth1, in the machine's own network.
        cls.machine.shell("""
            ip netns add core; ip netns add host
            ip link add eth0 type veth peer name eth0 netns core
            ip link add eth1 type veth peer name eth0 netns host
            ip addr add 198.18.1.1/24 dev eth0; ip -n core addr add 198.18.1.2/24 dev eth0
            ip -n host addr add 10.1.0.1/16 dev eth0
            ip -n host neigh add 10.1.0.2 lladdr 02:00:00:00:02:01 dev eth0
            ip link set eth0 up; ip link set eth1 up; ip -n core link set eth0 up; ip -n host link set eth0 up
            ip -n core link set lo up""")

    def install(self, version):
        target = f"/tmp/corvane-{version}.deb"
        self.machine.put(self.packages[version], target)
        return self.machine.run("dpkg", "--no-triggers", "-i", target).stdout

    def corvsh(self, *commands):
        return self.machine.run("corvsh", *(word for c in commands for word in ("-c", c))).stdout

    def show(self, what):
        return self.machine.run("systemctl", "show", "-P", what, "corvane").stdout.strip()

    def lum(self):
        found = re.search(r"^581\s+lum\s+up\s+(\d+)", self.machine.run("corvbus", "services", check=False).stdout, re.M)
        return found and int(found.group(1))

    def overlay_is_up(self):
        return re.search(r"State +: UP", self.machine.run("corvsh", "-c", "show lum overlay Overlay1", check=False).stdout)

    def assert_forwards(self):
        """A frame of the host comes out at the core as a packet for the other edge."""
        arrived = """
import socket, subprocess
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("198.18.1.2", 8472)); s.settimeout(0.3)
for _ in range(20):
    subprocess.run("ip netns exec host ping -c 1 -W 0.05 10.1.0.2 >/dev/null", shell=True)
    try:
        data = s.recv(4096)
        while b"\\x08\\x00" not in data or data[4:10] != bytes.fromhex("020000000201"):
            data = s.recv(4096)
        print("arrived"); break
    except TimeoutError:
        pass
"""
        done = self.machine.run("nsenter", "--net=/run/netns/core", "python3", "-c", arrived)
        self.assertIn("arrived", done.stdout, done.stderr)

    # ---- the story

    def test_a_installing_makes_the_user_and_starts_the_service(self):
        self.install("1.0.0")
        self.assertEqual(self.show("ActiveState"), "active")
        self.assertEqual(self.machine.shell("id -gn corvane; stat -c '%U:%G %a' /etc/corvane /etc/corvane/corvane.conf "
                                            "/var/lib/corvane /run/corvane /run/corvane/bus.sock /run/corvane/shm"),
                         "corvane\ncorvane:corvane 750\ncorvane:corvane 640\ncorvane:corvane 750\ncorvane:corvane 711\n"
                         "corvane:corvane 660\ncorvane:corvane 750\n")
        wait_until(self.lum, 10, "lum is up")
        for page in ("corvsh.1", "corvbus.1", "corvaned.8", "lum.8"):
            self.assertIn(f"/{page}", self.machine.shell("dpkg -L corvane"))

    def test_b_every_process_of_the_service_has_the_user_and_two_capabilities(self):
        pids = self.machine.shell("cat /sys/fs/cgroup/system.slice/corvane.service/cgroup.procs").split()
        names = self.machine.shell("cat " + " ".join(f"/proc/{p}/comm" for p in pids)).split()
        self.assertEqual(sorted(names), ["corvack", "corvaned", "lum", "lum"])
        for pid in pids:
            status = dict(re.findall(r"^(\w+):\s+(.*)$", self.machine.shell(f"cat /proc/{pid}/status"), re.M))
            self.assertNotIn("0", status["Uid"].split())
            for which in ("CapEff", "CapPrm", "CapBnd", "CapAmb"):
                self.assertEqual(int(status[which], 16), CAPABILITIES, f"{which} of {pid}")
            self.assertEqual((status["NoNewPrivs"], status["Seccomp"]), ("1", "2"))

    def test_c_an_overlay_is_configured_saved_and_forwards_from_inside_the_sandbox(self):
        self.machine.run("corvsh", stdin="configure terminal\n" + SITE + "end\nwrite\n")
        wait_until(self.overlay_is_up, 10, "the overlay is up")
        self.assertIn("lum vpn-name blue", self.machine.shell("cat /etc/corvane/corvane.conf"))
        self.assertEqual(self.machine.shell("cat /proc/sys/net/ipv6/conf/eth1/disable_ipv6").strip(), "1")
        self.assert_forwards()
        self.assertNotRegex(self.machine.shell("journalctl -u corvane -b --no-pager"), "(?i)not permitted|denied|read-only")

    def test_d_a_killed_corvaned_comes_back_to_the_same_lum(self):
        lum, main = self.lum(), self.show("MainPID")
        self.machine.run("systemctl", "kill", "--kill-whom=main", "-s", "KILL", "corvane")
        wait_until(lambda: self.show("ActiveState") == "active" and self.show("MainPID") not in ("0", main), 10,
                   "the service is back")
        wait_until(self.lum, 10, "lum is there")
        self.assertEqual(self.lum(), lum)
        self.assert_forwards()

    def test_e_a_corvaned_that_hangs_is_replaced_by_the_watchdog(self):
        self.machine.shell("""mkdir -p /run/systemd/system/corvane.service.d
            printf '[Service]\nWatchdogSec=1s\n' >/run/systemd/system/corvane.service.d/soon.conf
            systemctl daemon-reload; systemctl kill --kill-whom=main -s KILL corvane; sleep 1""")
        wait_until(lambda: self.show("ActiveState") == "active" and self.show("WatchdogUSec") == "1s", 10, "the watchdog")
        lum = wait_until(self.lum, 10, "lum is there")
        main = self.show("MainPID")
        self.machine.run("systemctl", "kill", "--kill-whom=main", "-s", "STOP", "corvane")
        wait_until(lambda: self.show("ActiveState") == "active" and self.show("MainPID") not in ("0", main), 20,
                   "the service is back")
        self.assertEqual(wait_until(self.lum, 10, "lum is there"), lum)

    def test_f_an_upgrade_interrupts_nothing_and_the_new_lum_takes_over_by_switchover(self):
        wait_until(lambda: self.machine.run("test", "-e", "/run/corvane/lum-standby.pid", check=False).returncode == 0,
                   5, "a lum stands by")
        lum, main, inode = self.lum(), self.show("MainPID"), self.machine.shell("stat -c %i /usr/sbin/lum")
        self.assertIn("goes on running", self.install("1.0.1"))
        self.assertEqual((self.lum(), self.show("MainPID")), (lum, main))
        self.assertNotEqual(self.machine.shell("stat -c %i /usr/sbin/lum"), inode)
        standby = self.machine.shell("cut -d' ' -f1 /run/corvane/lum-standby.pid").strip()
        self.machine.shell(f"kill {standby}")
        # Switchover is refused until the new one stands by.
        wait_until(lambda: self.machine.run("corvsh", "-c", "switchover", check=False).returncode == 0, 10, "the switchover")
        taken = wait_until(lambda: self.lum() not in (None, lum) and self.lum(), 10, "another lum is active")
        self.assertNotIn("(deleted)", self.machine.shell(f"readlink /proc/{taken}/exe"))
        wait_until(self.overlay_is_up, 10, "the overlay is up")
        self.assert_forwards()
        self.assertIn("lum vpn-name blue", self.corvsh("show running-config"))

    def test_g_stopping_ends_all_processes_in_order(self):
        self.machine.run("systemctl", "stop", "corvane")
        self.assertEqual((self.show("Result"), self.show("ExecMainStatus")), ("success", "0"))
        self.assertEqual(self.machine.run("pidof", "lum", "corvack", check=False).stdout, "")
        self.machine.run("systemctl", "start", "corvane")
        wait_until(self.overlay_is_up, 10, "the saved configuration is back")

    def test_h_removing_stops_the_service_and_keeps_the_configuration(self):
        self.machine.run("dpkg", "--no-triggers", "-r", "corvane")
        self.assertEqual(self.machine.run("pidof", "corvaned", "lum", "corvack", check=False).stdout, "")
        self.assertFalse(self.machine.shell("ls /usr/sbin | grep -x -e lum -e corvaned || true"))
        self.assertIn("lum vpn-name blue", self.machine.shell("cat /etc/corvane/corvane.conf"))

    def test_i_purging_leaves_nothing_but_the_user(self):
        self.machine.run("dpkg", "--no-triggers", "-P", "corvane")
        left = "ls -d /etc/corvane /var/lib/corvane /etc/default/corvane /run/corvane 2>/dev/null || true"
        self.assertEqual(self.machine.shell(left), "")
        self.assertIn("corvane", self.machine.shell("getent passwd corvane"))


class Service(unittest.TestCase):
    """What the unit promises, judged and tried without installing."""

    def setUp(self):
        self.lab = self.enterContext(Lab())

    def test_the_unit_is_exposed_to_little(self):
        said = run("systemd-analyze", "security", "--offline=true", "--no-pager", UNIT).stdout
        exposure = float(re.search(r"Overall exposure level for \S+: ([\d.]+)", said).group(1))
        self.assertLess(exposure, 3.0)

    def test_readiness_signs_of_life_and_stopping_are_told_to_systemd(self):
        top = two_sites(self.lab, group_routes=False)
        told = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(told.close)
        told.bind(str(self.lab.path / "notify"))
        told.settimeout(5)
        edge = Edge(top, 1)
        edge.config_file.write_text("")
        edge.process = edge.ns.spawn("env", f"NOTIFY_SOCKET={self.lab.path}/notify", "WATCHDOG_USEC=400000",
                                     edge.programs / "corvaned", "--root", edge.root, "--log", edge.log_file,
                                     "--config", edge.config_file)
        self.assertEqual(told.recv(100), b"READY=1")
        self.assertTrue((edge.root / "bus.sock").exists(), "ready means that clients can connect")
        for _ in range(3):
            told.settimeout(0.35)
            self.assertEqual(told.recv(100), b"WATCHDOG=1")
        # systemd reads on; a socket that nobody reads would hold corvaned up.
        said = []

        def read():
            while b"STOPPING=1" not in said:
                said.append(told.recv(100))

        told.settimeout(60)
        reader = threading.Thread(target=read, daemon=True)
        reader.start()
        edge.wait_service()
        # What systemd told corvaned is not for the daemon.
        self.assertNotIn(b"NOTIFY_SOCKET", Path(f"/proc/{edge.lum_pid()}/environ").read_bytes())
        self.assertEqual(edge.stop(), 0)
        reader.join(5)
        self.assertEqual(set(said) - {b"WATCHDOG=1"}, {b"STOPPING=1"})

    def test_an_edge_without_root_carries_traffic_with_two_capabilities(self):
        top = two_sites(self.lab, core_mtu=1600)
        edges = {site: Edge(top, site) for site in (1, 2)}
        nobody = pwd.getpwnam("nobody")
        edge, wanted = edges[1], "-all,+net_admin,+net_raw"
        edge.config_file.write_text(edge.config(local_routes=True))
        os.chown(edge.dir, nobody.pw_uid, nobody.pw_gid)
        edge.process = edge.ns.spawn(
            "setpriv", "--reuid", nobody.pw_uid, "--regid", nobody.pw_gid, "--clear-groups", "--no-new-privs",
            "--inh-caps", wanted, "--ambient-caps", wanted, "--bounding-set", wanted, edge.programs / "corvaned",
            "--root", edge.root, "--state", edge.dir / "state", "--log", edge.log_file, "--config", edge.config_file)
        edges[2].start(edges[2].config(local_routes=True), wait=False)
        for each in edges.values():
            each.wait_service()
            each.wait_overlay()
        status = Path(f"/proc/{edge.lum_pid()}/status").read_text()
        self.assertRegex(status, rf"Uid:\s+{nobody.pw_uid}\s+{nobody.pw_uid}")
        self.assertEqual(int(re.search(r"CapEff:\s+(\S+)", status).group(1), 16), CAPABILITIES)
        one, other = top.host(1, 10), top.host(2, 10)
        wait_until(lambda: one.ping(other.ipv4, count=1, wait=0.5), 10, "the hosts answer each other")
        self.assertEqual(other.ping(one.ipv4), 3)
        self.assertNotRegex(edge.output(), "(?i)not permitted|permission denied")
        self.assertEqual(edge.stop(), 0)


if __name__ == "__main__":
    unittest.main()
