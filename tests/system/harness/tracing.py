"""System calls of a program and all that it starts, counted, and made to fail."""

from __future__ import annotations

import re
import shutil
import subprocess
from collections import Counter
from pathlib import Path

from . import programs

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
CALL = re.compile(r"^(\d+) +[a-z]\w*\(")
FAULT = re.compile(r"\(INJECTED\)|killed by SIGKILL")


def is_possible() -> bool:
    """Whether other programs may be traced here, which some containers forbid."""
    return shutil.which("strace") is not None and subprocess.run(["strace", "-qq", "-o/dev/null", "true"]).returncode == 0


def _run(report: Path, fault: str | None, program: list[str]) -> programs.Result:
    injection = ["-e", f"inject={CALLS}:{fault}"] if fault else []
    return programs.run("strace", "-f", "-qq", "-o", report, "-e", f"trace={CALLS}", *injection, *program)


def count(report: Path, program: list[str]) -> int:
    """How many calls the one of its threads and processes made that made most."""
    result = _run(report, None, program)
    assert result.status == 0, str(result)
    calls = Counter(match[1] for match in map(CALL.match, report.read_text(errors="replace").splitlines()) if match)
    return max(calls.values())


def run_with_fault(report: Path, fault: str, number: int, program: list[str]) -> programs.Result:
    """Lets the call of that number meet a fault in the program and in all that it starts, each counting for itself."""
    return _run(report, f"{fault}:when={number}", program)


def faults(report: Path) -> list[str]:
    """The calls that met the fault, as far as they were written down."""
    return [line for line in report.read_text(errors="replace").splitlines() if FAULT.search(line)]
