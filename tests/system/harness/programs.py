"""Running the programs under test, and measuring them."""

from __future__ import annotations

import os
import select
import signal
import subprocess
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path

CTL = "/usr/bin/tarndbudctl"
PUB = "/usr/bin/tarndbudpub"
MIRROR = "/usr/bin/tarndbudpub-mirror"
VCDIFF = "/usr/tarn/sbin/tarndbudvcdiff"
PATIENCE_SECONDS = 120


@dataclass(frozen=True)
class Result:
    """How a program ended; a negative status is the signal that ended it."""

    arguments: tuple[str, ...]
    status: int
    stdout: str
    stderr: str
    seconds: float

    def __str__(self) -> str:
        return (
            f"{' '.join(self.arguments)}\nended with {self.status} after {self.seconds:.2f} s\n"
            f"--- stdout\n{self.stdout}\n--- stderr\n{self.stderr}"
        )


class Running:
    """A program that has been started, with its output going to files so that it never waits for a reader."""

    def __init__(self, arguments: list[str], env: dict[str, str] | None = None, cwd: Path | None = None) -> None:
        self._arguments = tuple(arguments)
        self._out = tempfile.TemporaryFile("w+", errors="replace")
        self._err = tempfile.TemporaryFile("w+", errors="replace")
        self._begin = time.monotonic()
        self._process = subprocess.Popen(
            arguments, stdin=subprocess.DEVNULL, stdout=self._out, stderr=self._err, env=env, cwd=cwd
        )

    @property
    def pid(self) -> int:
        return self._process.pid

    def kill(self) -> None:
        self._process.send_signal(signal.SIGKILL)

    def has_ended(self) -> bool:
        return self._process.poll() is not None

    def _ends_within(self, seconds: float) -> bool:
        """Popen.wait() with a limit looks only every 50 ms, which the time of a short program would show."""
        if self.has_ended():
            return True
        descriptor = os.pidfd_open(self.pid)
        try:
            end = select.poll()
            end.register(descriptor, select.POLLIN)
            return bool(end.poll(seconds * 1000))
        finally:
            os.close(descriptor)

    def wait(self, patience: float = PATIENCE_SECONDS) -> Result:
        if not self._ends_within(patience):
            waiting = "\n".join(_waiting(self.pid))
            self._process.kill()
            self._process.wait()
            raise AssertionError(
                f"still running after {patience} s: {' '.join(self._arguments)}\n{waiting}\n"
                f"--- stdout\n{_take(self._out)}\n--- stderr\n{_take(self._err)}"
            )
        seconds = time.monotonic() - self._begin
        status = self._process.wait()
        return Result(self._arguments, status, _take(self._out), _take(self._err), seconds)


def kernel_function(pid: int) -> str:
    """Where a process waits."""
    try:
        return Path(f"/proc/{pid}/wchan").read_text()
    except OSError as error:
        return str(error)


def _waiting(pid: int) -> list[str]:
    """What a process and those that it has started wait for, a line for each, so that a hang explains itself."""
    process = Path(f"/proc/{pid}")
    try:
        words = (process / "cmdline").read_bytes().replace(b"\0", b" ").decode(errors="replace")
        line = f"{pid} waits in {kernel_function(pid)}: {words}"
        children = [int(child) for task in (process / "task").iterdir() for child in (task / "children").read_text().split()]
    except OSError as error:
        return [f"{pid}: {error.strerror}"]
    return [line, *(found for child in children for found in _waiting(child))]


def _take(stream: tempfile._TemporaryFileWrapper) -> str:
    with stream:
        stream.seek(0)
        return stream.read()


def run(
    *arguments: str | Path,
    env: dict[str, str] | None = None,
    cwd: Path | None = None,
    patience: float = PATIENCE_SECONDS,
) -> Result:
    return Running([str(argument) for argument in arguments], env=env, cwd=cwd).wait(patience)


def run_ok(*arguments: str | Path, patience: float = PATIENCE_SECONDS) -> Result:
    result = run(*arguments, patience=patience)
    assert result.status == 0, str(result)
    return result


def peak_memory(*arguments: str | Path, patience: float = PATIENCE_SECONDS) -> tuple[Result, int]:
    """Runs a program; also returns the highest resident memory, in KiB, that it or a program it waited for had.

    A process takes over the mark of the one it was forked from, so a small program in between has to start it.
    """
    with tempfile.NamedTemporaryFile("r") as report:
        result = run("/usr/bin/time", "--quiet", "--format=%M", f"--output={report.name}", *arguments, patience=patience)
        return result, int(report.read().split()[-1])
