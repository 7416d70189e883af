"""The machine on which the packages are tried: a bare Debian below a directory, booted or not."""

from __future__ import annotations

import os
import subprocess
import tempfile
from pathlib import Path

from harness import programs, waiting

SCRIPTS = Path(__file__).resolve().parents[2] / "scripts"
PROJECT = "/root/tarndbud"
"""Where the machine has the checkout's examples and packages."""
ENVIRONMENT = {
    "PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
    "HOME": "/root",
    "TERM": "dumb",
    "LC_ALL": "C.UTF-8",
    "DEBIAN_FRONTEND": "noninteractive",
}
PATIENCE_SECONDS = 180
LOOPS = 8


class Machine:
    """A root that is entered without booting it."""

    is_booted = False

    def __init__(self, root: Path) -> None:
        self.root = root

    def _enter(self) -> list[str]:
        return ["chroot", str(self.root)]

    def path(self, inside: str | Path) -> Path:
        return self.root / str(inside).lstrip("/")

    def _command(self, script: str) -> list[str]:
        return [*self._enter(), "/bin/bash", "-euc", f"cd {PROJECT}\n{script}"]

    def try_to(self, script: str) -> programs.Result:
        return programs.run(*self._command(script), env=ENVIRONMENT, patience=PATIENCE_SECONDS)

    def do(self, script: str) -> str:
        """Runs a script that must succeed; what it printed."""
        result = self.try_to(script)
        assert result.status == 0, str(result)
        return result.stdout

    def start(self, script: str) -> programs.Running:
        return programs.Running(self._command(script), env=ENVIRONMENT)

    def begin(self) -> None:
        """What booting does for the programs that the documents count on."""
        devices = f". {SCRIPTS}/bare-root.sh; mount_devices '{self.root}'"
        subprocess.run(["/bin/bash", "-euc", devices], check=True)
        self.do("nginx")

    def end(self) -> None:
        self.do("nginx -s stop")


def own_control_groups() -> list[Path]:
    """The directories of this process's control groups that a service manager needs."""
    found = []
    for line in Path("/proc/self/cgroup").read_text().splitlines():
        _, controllers, group = line.split(":", 2)
        if controllers == "name=systemd":
            found.append(Path(f"/sys/fs/cgroup/systemd{group}"))
        elif controllers == "":
            unified = Path("/sys/fs/cgroup/unified")
            found.append(Path(f"{unified if unified.is_dir() else '/sys/fs/cgroup'}{group}"))
    return found


class Booted(Machine):
    """A root in which systemd runs as it does on a machine, with nothing of this machine's but loop devices."""

    is_booted = True
    _PREFIX = "tarn-packages."

    def __init__(self, root: Path) -> None:
        super().__init__(root)
        self._nspawn: subprocess.Popen[bytes] | None = None
        self._leader = 0
        self._log = tempfile.TemporaryFile("w+")
        self._groups: list[Path] = []

    def _enter(self) -> list[str]:
        options = ["--mount", "--uts", "--ipc", "--pid", "--root", "--wd"]
        return ["nsenter", f"--target={self._leader}", *options]

    def begin(self) -> None:
        self._groups = [self._make_group(group) for group in own_control_groups()]
        join = "".join(f"echo $$ > '{group}/cgroup.procs'\n" for group in self._groups)
        devices = [f"--bind=/dev/{name}" for name in ("loop-control", *(f"loop{n}" for n in range(LOOPS)))]
        options = [
            f"--directory={self.root}", "--boot", "--register=no", "--keep-unit", "--console=pipe", "--machine=device",
            "--resolv-conf=off", "--timezone=off", "--link-journal=no", "--quiet",
            *(device for device in devices if Path(device.split("=")[1]).exists()),
        ]  # fmt: skip
        self._nspawn = subprocess.Popen(
            ["/bin/bash", "-euc", join + 'exec systemd-nspawn "$@"', "nspawn", *options],
            stdin=subprocess.DEVNULL, stdout=self._log, stderr=subprocess.STDOUT,
            env={**os.environ, "SYSTEMD_NSPAWN_UNIFIED_HIERARCHY": "1"},
        )  # fmt: skip
        waiting.until(self._has_leader, "the machine's first process runs")
        waiting.until(self._is_up, "the machine is up")

    def _make_group(self, parent: Path) -> Path:
        for left in parent.glob(f"{self._PREFIX}*"):
            self._remove_group(left)
        group = parent / f"{self._PREFIX}{os.stat('/proc/self/ns/pid').st_ino}"
        group.mkdir()
        return group

    @staticmethod
    def _remove_group(group: Path) -> None:
        """Leaves one that is in use, by another trial."""
        for directory, _, _ in os.walk(group, topdown=False):
            try:
                Path(directory).rmdir()
            except OSError:
                return

    def _assert_runs(self) -> None:
        assert self._nspawn is not None
        if self._nspawn.poll() is not None:
            self._log.seek(0)
            raise AssertionError(f"systemd-nspawn ended with {self._nspawn.returncode}: {self._log.read().strip()}")

    def _has_leader(self) -> bool:
        """Its first process is a child of systemd-nspawn with a process namespace of its own."""
        self._assert_runs()
        assert self._nspawn is not None
        children = Path(f"/proc/{self._nspawn.pid}/task/{self._nspawn.pid}/children").read_text().split()
        for child in children:
            if os.readlink(f"/proc/{child}/ns/pid") != os.readlink("/proc/self/ns/pid"):
                self._leader = int(child)
                return True
        return False

    def _is_up(self) -> bool:
        self._assert_runs()
        state = programs.run(*self._enter(), "/bin/systemctl", "is-system-running", env=ENVIRONMENT).stdout.strip()
        assert state not in ("maintenance", "stopping"), state
        return state in ("running", "degraded")

    def end(self) -> None:
        if self._nspawn is None:
            return
        if self._nspawn.poll() is None and self._leader:
            programs.run(*self._enter(), "/bin/systemctl", "poweroff", "--no-block", env=ENVIRONMENT)
            try:
                self._nspawn.wait(PATIENCE_SECONDS)
            finally:
                self._nspawn.kill()
        self._nspawn.kill()
        self._nspawn.wait()
        for group in self._groups:
            self._remove_group(group)
        self._nspawn = None

    def restart(self) -> None:
        self.end()
        self._leader = 0
        self.begin()
