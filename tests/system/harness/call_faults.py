"""Every system call of a program and of all that it starts, one after the other, and every fault that each can meet."""

from __future__ import annotations

import hashlib
import platform
import tempfile
from collections.abc import Iterable
from dataclasses import dataclass
from functools import cache
from pathlib import Path

from . import programs

SOURCE = Path(__file__).with_suffix(".cpp")

MAKING = (
    "open openat mkdir mkdirat rename renameat renameat2 link linkat symlink symlinkat ftruncate fallocate write writev "
    "pwrite64 copy_file_range sendfile fsync fdatasync syncfs"
)
ON_FILES = (
    f"{MAKING} read pread64 close getdents64 stat lstat fstat newfstatat statx statfs fstatfs access faccessat2 readlink "
    "readlinkat unlink unlinkat rmdir chmod fchmod fchmodat chown fchown fchownat utimensat openat2 execve ioctl "
    "getxattr lgetxattr fgetxattr llistxattr flistxattr"
)
ERRORS = {
    "ENOSPC": MAKING,
    "EIO": ON_FILES,
    "EMFILE": "open openat openat2 pipe2 socket dup memfd_create",
    "ENOMEM": "open openat stat newfstatat statx getdents64 mkdirat renameat2 linkat unlinkat mmap clone clone3 vfork "
    "execve pipe2 socket memfd_create poll flock",
    "EINTR": "open openat read write pwrite64 ftruncate fallocate fsync fdatasync flock connect sendto recvfrom poll "
    "ppoll select pselect6 wait4 waitid close statfs",
}
SHORTENED = "read pread64 write pwrite64 writev recvfrom copy_file_range".split()
"""The calls that may do less than they were asked for."""


@dataclass(frozen=True)
class Point:
    """One call of a program: the how manieth of its name in the how manieth process of that program."""

    process: str
    call: str
    number: int

    def __str__(self) -> str:
        return f"{self.process} {self.call} {self.number}"


@dataclass(frozen=True)
class Case:
    """A fault that a call meets in an operation."""

    operation: str
    point: Point
    fault: str

    def __str__(self) -> str:
        return f"{self.operation}: {self.point}: {self.fault}"

    @classmethod
    def of(cls, text: str) -> Case:
        """The case that was written by str()."""
        operation, point, fault = text.split(": ")
        process, call, number = point.split()
        return cls(operation, Point(process, call, int(number)), fault)

    def order(self) -> bytes:
        """The same everywhere, and spread over operations, calls and faults."""
        return hashlib.sha256(str(self).encode()).digest()


@cache
def tracer() -> Path:
    """The program that lets calls meet faults, built once."""
    place = Path(tempfile.mkdtemp(prefix="call_faults")) / "call_faults"
    programs.run_ok("g++", "-std=c++17", "-O1", "-Wall", "-Werror", SOURCE, "-o", place)
    return place


@cache
def is_possible() -> bool:
    """Whether other programs can be traced here: some containers forbid it, and it knows one kind of processor."""
    return platform.machine() == "x86_64" and programs.run(tracer(), "/dev/null", "list", "true").status == 0


def faults_of(call: str, amount: int) -> list[str]:
    errors = [error for error, calls in ERRORS.items() if call in calls.split()]
    return [*errors, *["short"] * (call in SHORTENED and amount > 1), "kill"]


@dataclass(frozen=True)
class Made:
    """A call that a program has made."""

    point: Point
    amount: int
    about: str
    """The name of the file."""


def calls(report: Path, program: Iterable[str]) -> list[Made]:
    """All calls of a program, in their order; it runs once for that and must succeed."""
    result = programs.run(tracer(), report, "list", *program)
    assert result.status == 0, str(result)
    lines = (line.split(" ", 4) for line in report.read_text(errors="replace").splitlines())
    made = [Made(Point(process, call, int(number)), int(amount), about) for process, call, number, amount, about in lines]
    return [call for call in made if not call.point.process.startswith(f"{tracer().name}#")]


def cases(operation: str, report: Path, program: Iterable[str]) -> list[Case]:
    """All faults of all calls of a program."""
    return [
        Case(operation, made.point, fault)
        for made in calls(report, program)
        for fault in faults_of(made.point.call, made.amount)
    ]


def start(case: Case, report: Path, program: Iterable[str]) -> programs.Running:
    point = case.point
    return programs.Running(
        [str(tracer()), str(report), point.process, point.call, str(point.number), case.fault, *program]
    )


def run(case: Case, report: Path, program: Iterable[str], patience: float) -> programs.Result:
    return start(case, report, program).wait(patience)


def call_met(report: Path) -> str:
    """The call that met the fault, with what it is about; nothing when the program has made fewer this time."""
    return report.read_text(errors="replace").strip()


def slice_of(all_cases: list[Case], number: int, count: int) -> list[Case]:
    """One of so many slices that all slices together are all cases, each spread over the operations."""
    return sorted(all_cases, key=Case.order)[number % count :: count]
