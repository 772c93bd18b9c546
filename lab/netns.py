"""Namespaces, processes in them, and the Lab that owns both and removes both.

A Lab's namespaces are called <lab>-<node>. Whatever ends the program - the end of a `with` block, an exception, a
signal - the Lab stops its processes by their ids and removes its namespaces; one whose owner was killed outright is
removed by the next Lab that starts.
"""

import contextlib
import ctypes
import itertools
import json
import os
import shutil
import signal
import socket
import subprocess
import threading
import time
from pathlib import Path

LAB_DIR = Path("/run/lum-lab")
NETNS_DIR = Path("/run/netns")
CLONE_NEWNET = 0x40000000

_libc = ctypes.CDLL(None, use_errno=True)
_serial = itertools.count(1)


class LabError(Exception):
    """Something that the lab was asked for did not happen; the text says what and shows the output."""


def wait_until(condition, timeout, what, interval=0.05):
    """The condition's first true result; LabError naming `what` after `timeout` seconds."""
    end = time.monotonic() + timeout
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > end:
            raise LabError(f"{what}: not within {timeout:g} s")
        time.sleep(interval)


def run(*argv, timeout=20, check=True, stdin=None, env=None):
    """Runs a program to its end; with `check`, LabError when it fails or takes longer than `timeout` seconds."""
    argv = [str(a) for a in argv]
    try:
        done = subprocess.run(argv, input=stdin, stdin=None if stdin is not None else subprocess.DEVNULL,
                              capture_output=True, text=True, errors="replace", timeout=timeout, env=env,
                              start_new_session=True)
    except subprocess.TimeoutExpired as late:
        raise LabError(f"{' '.join(argv)}: still running after {timeout:g} s") from late
    if check and done.returncode != 0:
        raise LabError(f"{' '.join(argv)}: status {done.returncode}\n{done.stdout}{done.stderr}".rstrip())
    return done


class Process:
    """A program started in a namespace, its output in a file, ended by its id."""

    def __init__(self, argv, log, env=None):
        self.argv = [str(a) for a in argv]
        self.log = Path(log)
        with self.log.open("ab") as out:
            self._popen = subprocess.Popen(self.argv, stdin=subprocess.DEVNULL, stdout=out, stderr=out, env=env,
                                           start_new_session=True)
        self.pid = self._popen.pid

    @property
    def running(self):
        return self._popen.poll() is None

    def output(self):
        return self.log.read_text(errors="replace")

    def send(self, signum):
        if self.running:
            os.kill(self.pid, signum)

    def wait(self, timeout):
        """Exit status; LabError when it has not ended within `timeout` seconds."""
        try:
            return self._popen.wait(timeout)
        except subprocess.TimeoutExpired as late:
            raise LabError(f"{' '.join(self.argv)}: still running after {timeout:g} s\n{self.output()}") from late

    def stop(self, timeout=10):
        """Asks it to end, and kills it when it does not. Its exit status (negative: the signal)."""
        self.send(signal.SIGTERM)
        try:
            return self._popen.wait(timeout)
        except subprocess.TimeoutExpired:
            self.send(signal.SIGKILL)
            return self._popen.wait(timeout)


class Namespace:
    """One network namespace, made at once; `lo` is up."""

    def __init__(self, lab, node):
        self.lab, self.node = lab, node
        self.name = f"{lab.name}-{node}"
        self.path = NETNS_DIR / self.name
        run("ip", "netns", "add", self.name)
        for key in ("all", "default"):                       # addresses usable at once, also the link-local ones
            self.sysctl(f"net.ipv6.conf.{key}.accept_dad", 0)
        self.ip("link set lo up")

    def ip(self, *commands):
        """Runs `ip` commands, one a string, in one go."""
        return run("ip", "-n", self.name, "-batch", "-", stdin="\n".join(commands) + "\n").stdout

    def ip_json(self, *argv):
        return json.loads(run("ip", "-n", self.name, "-json", *argv).stdout or "[]")

    def run(self, *argv, **options):
        return run("ip", "netns", "exec", self.name, *argv, **options)

    def spawn(self, *argv, log=None, env=None):
        """Starts a program that the Lab ends. `ip netns exec` becomes the program, so the id is the program's."""
        log = log or self.lab.path / f"{self.node}-{Path(str(argv[0])).name}.log"
        process = Process(["ip", "netns", "exec", self.name, *argv], log, env)
        self.lab.processes.append(process)
        return process

    def enter(self, function):
        """The function's result, run by a thread inside the namespace. Sockets made there stay there."""
        outcome = {}

        def inside():
            try:
                with self.path.open("rb") as handle:
                    if _libc.setns(handle.fileno(), CLONE_NEWNET) != 0:
                        raise OSError(ctypes.get_errno(), f"setns {self.name}")
                outcome["result"] = function()
            except BaseException as error:  # handed to the caller, whatever it is
                outcome["error"] = error

        thread = threading.Thread(target=inside)
        thread.start()
        thread.join()
        if "error" in outcome:
            raise outcome["error"]
        return outcome["result"]

    def socket(self, *arguments):
        return self.enter(lambda: socket.socket(*arguments))

    def sysctl(self, key, value):
        path = Path("/proc/sys") / key.replace(".", "/")
        self.enter(lambda: path.write_text(f"{value}\n"))

    def counters(self, device):
        """Received and sent packets and bytes of a device, as the kernel counts them."""
        stats = self.ip_json("-s", "link", "show", "dev", device)[0]["stats64"]
        return {f"{way}_{what}": stats[way][what] for way in ("rx", "tx") for what in ("packets", "bytes", "dropped")}

    def link_up(self, device):
        self.ip(f"link set {device} up")

    def link_down(self, device):
        self.ip(f"link set {device} down")

    def pids(self):
        done = run("ip", "netns", "pids", self.name, check=False)
        return [int(pid) for pid in done.stdout.split()]


def _remove_namespace(name):
    """Ends what still runs inside the namespace, then removes it."""
    for signum in (signal.SIGTERM, signal.SIGKILL):
        pids = [int(p) for p in run("ip", "netns", "pids", name, check=False).stdout.split()]
        if not pids:
            break
        for pid in pids:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signum)
        end = time.monotonic() + 3
        while time.monotonic() < end and run("ip", "netns", "pids", name, check=False).stdout.strip():
            time.sleep(0.05)
    run("ip", "netns", "del", name, check=False)


def _namespaces_of(lab_name):
    return [p.name for p in NETNS_DIR.glob(f"{lab_name}-*")] if NETNS_DIR.is_dir() else []


def _started_at(pid):
    """Start time of a process in clock ticks since boot, None when there is none: an id alone may be reused."""
    try:
        return Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()[19]
    except OSError:
        return None


class Lab:
    """Owner of namespaces, links and processes. A context manager; `keep()` leaves everything for a later `Lab.down`."""

    def __init__(self, name=None):
        if os.geteuid() != 0:
            raise LabError("network namespaces need root")
        Lab.reap()
        self.name = name or f"lab{os.getpid()}x{next(_serial)}"
        self.path = LAB_DIR / self.name
        self.processes, self.namespaces, self._cleanups = [], {}, []
        self._kept = False
        if self.path.exists():
            raise LabError(f"{self.path} exists: another lab of that name is running")
        self.path.mkdir(parents=True)
        (self.path / "owner").write_text(f"{os.getpid()} {_started_at(os.getpid())}")

    def namespace(self, node):
        made = Namespace(self, node)
        self.namespaces[node] = made
        return made

    def link(self, one, one_device, other, other_device, mtu=1500, one_mac=None, other_mac=None):
        """A veth pair between two namespaces, both ends up, offloads as the kernel sets them."""
        mac = lambda address: f" address {address}" if address else ""
        run("ip", *f"link add {one_device} netns {one.name} mtu {mtu}{mac(one_mac)} type veth "
                   f"peer name {other_device} netns {other.name} mtu {mtu}{mac(other_mac)}".split())
        one.link_up(one_device)
        other.link_up(other_device)

    def on_close(self, function):
        """Called before the processes are stopped, last added first."""
        self._cleanups.append(function)

    def keep(self):
        (self.path / "kept").touch()
        self._kept = True

    def close(self):
        if self._kept:
            return
        with signals_held():
            for function in reversed(self._cleanups):
                with contextlib.suppress(Exception):
                    function()
            self._cleanups.clear()
            for process in reversed(self.processes):
                process.send(signal.SIGTERM)
            for process in reversed(self.processes):
                process.stop()
            Lab.remove(self.name)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    @staticmethod
    def remove(name):
        """Removes a lab by name, whoever made it."""
        for namespace in _namespaces_of(name):
            _remove_namespace(namespace)
        shutil.rmtree(LAB_DIR / name, ignore_errors=True)

    @staticmethod
    def reap():
        """Removes labs whose owner is gone without having said that they are to be kept."""
        for path in LAB_DIR.glob("*") if LAB_DIR.is_dir() else []:
            try:
                pid, started = (path / "owner").read_text().split()
            except (OSError, ValueError):
                continue
            if _started_at(pid) != started and not (path / "kept").exists():
                Lab.remove(path.name)


class Interrupted(BaseException):
    """A signal asked the program to end. Not an Exception: nothing on the way to the clean-up may swallow it."""

    def __init__(self, signum):
        super().__init__(f"interrupted by {signal.Signals(signum).name}")
        self.status = 128 + signum


def signals_raise():
    """Makes SIGINT, SIGTERM and SIGHUP unwind the main thread, so that every `with Lab()` cleans up."""
    def handler(signum, _frame):
        raise Interrupted(signum)
    for signum in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(signum, handler)


@contextlib.contextmanager
def signals_held():
    """Keeps those signals back: a clean-up that has begun is finished."""
    if threading.current_thread() is not threading.main_thread():
        yield
        return
    held = {signal.SIGINT, signal.SIGTERM, signal.SIGHUP}
    before = signal.pthread_sigmask(signal.SIG_BLOCK, held)
    try:
        yield
    finally:
        signal.pthread_sigmask(signal.SIG_SETMASK, before)
