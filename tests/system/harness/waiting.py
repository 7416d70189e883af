"""Waiting for what can be observed, with a limit."""

from __future__ import annotations

import time
from collections.abc import Callable
from pathlib import Path

INTERVAL_SECONDS = 0.01


def until(condition: Callable[[], bool], what: str, patience: float = 60) -> None:
    deadline = time.monotonic() + patience
    while not condition():
        assert time.monotonic() < deadline, f"waited {patience} s in vain until {what}"
        time.sleep(INTERVAL_SECONDS)


def has_open(pid: int, path: Path) -> bool:
    """Whether a process has a file open."""
    for descriptor in Path(f"/proc/{pid}/fd").iterdir():
        try:
            if descriptor.readlink() == path:
                return True
        except FileNotFoundError:
            continue
    return False


def has_ended(pid: int) -> bool:
    """Whether a process is gone, or nothing of it is left but what its parent has to take."""
    try:
        return Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] == "Z"
    except (FileNotFoundError, ProcessLookupError):
        return True
