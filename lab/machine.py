"""A throwaway machine: this system's files under an overlay that is forgotten, namespaces of its own, systemd as init.

What is installed, changed or removed in it touches nothing outside.
"""

import base64
import contextlib
import os
import pty
import shutil
import signal
import subprocess
import time
from pathlib import Path

from .netns import LabError, run, wait_until

UNIT = """[Unit]
Description=Machine
Requires=systemd-journald.socket systemd-journald.service
DefaultDependencies=no
AllowIsolate=yes
"""
# Becomes the machine's init. The root is moved to, not changed to: systemd makes mount namespaces for its services.
BOOT = r"""
set -e
dir=$1
mount --make-rprivate /
mount -t tmpfs -o mode=755 tmpfs "$dir"
mkdir "$dir/up" "$dir/work" "$dir/root"
chmod 755 "$dir/up"
mount -t overlay overlay -o "lowerdir=/,upperdir=$dir/up,workdir=$dir/work" "$dir/root"
cd "$dir/root"
mount -t proc proc proc
mount -t sysfs sysfs sys
mount -t cgroup2 cgroup2 sys/fs/cgroup
mount -t tmpfs -o mode=755 tmpfs dev
for name in null zero full random urandom tty; do
    mknod -m 666 "dev/$name" c $(stat -c '0x%t 0x%T' "/dev/$name")
done
mkdir dev/shm dev/pts
mount -t devpts -o newinstance,ptmxmode=666 devpts dev/pts
ln -s pts/ptmx dev/ptmx
touch dev/console
mount --bind "$(tty)" dev/console
mount -t tmpfs -o mode=755 tmpfs run
mount -t tmpfs -o mode=1777 tmpfs tmp
rm -rf etc/systemd/system/*.wants etc/systemd/system/machine.target
printf '%s' "$MACHINE_UNIT" >etc/systemd/system/machine.target
ip link set lo up
mkdir -p mnt
pivot_root . mnt
exec env -i container=lab PATH=/usr/sbin:/usr/bin:/sbin:/bin chroot . /bin/bash -c \
    'umount -l /mnt; exec /lib/systemd/systemd --system --unit=machine.target --log-target=console --show-status=no'
"""


def _cgroup_root():
    for line in Path("/proc/self/mounts").read_text().splitlines():
        _, where, kind = line.split()[:3]
        if kind == "cgroup2":
            return Path(where)
    raise LabError("no unified control group hierarchy is mounted")


class Machine:
    """A context manager; `run` runs a program in it."""

    def __init__(self, lab):
        self.dir = lab.path / "machine"
        self.dir.mkdir()
        self.console_log = lab.path / "console.log"
        self.group = _cgroup_root() / lab.name
        self.process = self.pid = None

    def __enter__(self):
        self.group.mkdir()
        master, slave = pty.openpty()
        # systemd needs a control group of its own to rule; the namespace makes it look like the root.
        boot = f'echo $$ >{self.group}/cgroup.procs; exec unshare -m -p -u -i -n -C --fork --kill-child ' \
               f'bash -c "$MACHINE_BOOT" boot {self.dir}'
        self.process = subprocess.Popen(["bash", "-c", boot], stdin=slave, stdout=slave, stderr=slave,
                                        start_new_session=True,
                                        env={**os.environ, "MACHINE_BOOT": BOOT, "MACHINE_UNIT": UNIT})
        os.close(slave)
        with self.console_log.open("wb") as log:
            self._copier = subprocess.Popen(["cat"], stdin=master, stdout=log, stderr=subprocess.DEVNULL,
                                            start_new_session=True)
        os.close(master)
        try:
            wait_until(self._up, 20, "the machine is up")
        except LabError as late:
            console = self.console()
            self.__exit__()
            raise LabError(f"{late}\n{console}") from None
        return self

    def _up(self):
        if self.process.poll() is not None:
            raise LabError(f"the machine ended with {self.process.returncode}")
        children = Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text().split()
        self.pid = int(children[0]) if children else None
        return self.pid and self.run("systemctl", "is-active", "machine.target", check=False).returncode == 0

    def __exit__(self, *_):
        with contextlib.suppress(ProcessLookupError):
            os.kill(self.process.pid, signal.SIGKILL)        # --kill-child takes the init, and with it all, along
        self.process.wait(10)
        with contextlib.suppress(ProcessLookupError):
            os.kill(self._copier.pid, signal.SIGTERM)
        self._copier.wait(10)
        for _ in range(50):
            for path in sorted(self.group.rglob("*"), reverse=True):
                if path.is_dir():
                    with contextlib.suppress(OSError):
                        path.rmdir()
            with contextlib.suppress(OSError):
                self.group.rmdir()
            if not self.group.exists():
                break
            time.sleep(0.1)
        shutil.rmtree(self.dir, ignore_errors=True)

    def console(self):
        return self.console_log.read_text(errors="replace") if self.console_log.exists() else ""

    def run(self, *argv, timeout=30, **options):
        return run("nsenter", "-t", self.pid, "-m", "-p", "-u", "-i", "-n", "-C", "-r", "--wdns=/", *argv, timeout=timeout,
                   **options)

    def shell(self, text, **options):
        """Output of a shell script."""
        return self.run("bash", "-ec", text, **options).stdout

    def put(self, source, target):
        """Copies a file of the outside into the machine."""
        self.run("bash", "-c", f"base64 -d >{target}", stdin=base64.b64encode(Path(source).read_bytes()).decode())
