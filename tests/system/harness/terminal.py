"""Running a program on a terminal of its own."""

from __future__ import annotations

import os
import pty
import select
import subprocess
import time
from pathlib import Path


class OnTerminal:
    """A program whose output and errors go to one terminal, which is read while it runs."""

    def __init__(self, *arguments: str | Path) -> None:
        self._master, slave = pty.openpty()
        self._process = subprocess.Popen(
            [str(argument) for argument in arguments], stdin=subprocess.DEVNULL, stdout=slave, stderr=slave
        )
        os.close(slave)
        self.shown = ""

    @property
    def pid(self) -> int:
        return self._process.pid

    def read_until(self, text: str, patience: float = 60) -> None:
        deadline = time.monotonic() + patience
        while text not in self.shown:
            left = deadline - time.monotonic()
            assert left > 0, f"waited {patience} s in vain for {text!r}, got {self.shown!r}"
            assert self._read(left), f"ended without {text!r}: {self.shown!r}"

    def wait(self, patience: float = 60) -> int:
        """Reads to the end; returns the exit status."""
        deadline = time.monotonic() + patience
        while self._read(max(0.0, deadline - time.monotonic())):
            assert time.monotonic() < deadline, f"still running after {patience} s: {self.shown!r}"
        os.close(self._master)
        return self._process.wait(patience)

    def _read(self, patience: float) -> bool:
        """False at the end."""
        ready, _, _ = select.select([self._master], [], [], patience)
        if not ready:
            return True
        try:
            content = os.read(self._master, 65536)
        except OSError:  # how a terminal tells that nobody writes to it any more
            return False
        self.shown += content.decode(errors="replace")
        return bool(content)
