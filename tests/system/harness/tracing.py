"""System calls of a program and all that it starts, counted, and made to fail."""

from __future__ import annotations

import os
import re
import shutil
import signal
import subprocess
from collections import Counter
from dataclasses import dataclass
from pathlib import Path

from . import programs, waiting

# A question mark lets a call be unknown on the processor at hand.
CALLS = ",".join(
    f"?{call}"
    for call in (
        "open", "openat", "openat2", "creat", "close", "read", "pread64", "write", "writev", "pwrite64", "ftruncate",
        "copy_file_range", "ioctl", "fsync", "fdatasync", "syncfs", "flock", "fcntl", "getdents64",
        "stat", "fstat", "lstat", "newfstatat", "statx", "statfs", "fstatfs", "access", "faccessat2", "readlink",
        "rename", "renameat", "renameat2", "unlink", "unlinkat", "mkdir", "mkdirat", "rmdir", "link", "linkat",
        "symlink", "symlinkat", "chmod", "fchmod", "fchmodat", "chown", "fchown", "fchownat", "utimensat",
    )
)  # fmt: skip
CALL = re.compile(r"^(\d+) +([a-z]\w*)\(")
REPLACING = "renameat2"
"""The call that brings files in below the readers' lock; nothing else uses it."""
STOP = re.compile(r"^(\d+) +--- stopped by SIGSTOP", re.MULTILINE)
FAULT = re.compile(r"\(INJECTED\)|killed by SIGKILL")


@dataclass(frozen=True)
class Point:
    """One call of a program: the how manieth of its name. Threads and processes count for themselves."""

    name: str
    number: int


def is_possible() -> bool:
    """Whether other programs may be traced here, which some containers forbid."""
    return shutil.which("strace") is not None and subprocess.run(["strace", "-qq", "-o/dev/null", "true"]).returncode == 0


def points(report: Path, program: list[str], traced: str = CALLS) -> list[Point]:
    """All these calls of a program and what it starts; the same of several processes is one."""
    result = programs.run("strace", "-f", "-qq", "-o", report, "-e", f"trace={traced}", *program)
    assert result.status == 0, str(result)
    calls = Counter(match.groups() for match in map(CALL.match, report.read_text(errors="replace").splitlines()) if match)
    most: dict[str, int] = {}
    for (_, name), count in calls.items():
        most[name] = max(most.get(name, 0), count)
    return [Point(name, number) for name, count in sorted(most.items()) for number in range(1, count + 1)]


def run_with_fault(report: Path, fault: str, point: Point, program: list[str]) -> programs.Result:
    """Lets a call meet a fault."""
    injection = f"inject={point.name}:{fault}:when={point.number}"
    return programs.run("strace", "-f", "-qq", "-o", report, "-e", f"trace={point.name}", "-e", injection, *program)


def faults(report: Path) -> list[str]:
    """The calls that met the fault, as far as they were written down."""
    return [line for line in report.read_text(errors="replace").splitlines() if FAULT.search(line)]


class Stopped:
    """A program that stops by itself right after its first call of a name."""

    def __init__(self, report: Path, call: str, program: list[str]) -> None:
        report.unlink(missing_ok=True)
        self._tracer = programs.Running([
            "strace", "-f", "-qq", "-o", str(report), "-e", f"trace={call}",
            "-e", f"inject={call}:signal=SIGSTOP:when=1", *program,
        ])  # fmt: skip
        waiting.until(lambda: report.exists() and STOP.search(report.read_text(errors="replace")) is not None, "it stops")
        match = STOP.search(report.read_text(errors="replace"))
        assert match
        self._pid = int(match[1])

    def go_on(self) -> None:
        os.kill(self._pid, signal.SIGCONT)

    def kill(self) -> None:
        os.kill(self._pid, signal.SIGKILL)

    def wait(self) -> programs.Result:
        return self._tracer.wait()


def calls_under_lock(report: Path, lock: str, program: list[str]) -> Counter[str]:
    """How often a program makes each call between getting a lock and releasing it."""
    result = programs.run("strace", "-f", "-y", "-qq", "-o", report, "-e", f"trace={CALLS}", *program)
    assert result.status == 0, str(result)
    counts: Counter[str] = Counter()
    owner = ""
    for line in report.read_text(errors="replace").splitlines():
        match = CALL.match(line)
        if not match:
            continue
        thread, name = match.groups()
        if name == "flock" and lock in line and line.endswith(" = 0"):
            owner = "" if "LOCK_UN" in line else thread
        elif thread == owner:
            counts[name] += 1
    return counts
