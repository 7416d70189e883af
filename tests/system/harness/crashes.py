"""Goes through a table that says for each step of an update what it comes to when the step fails, is killed or hangs."""

from __future__ import annotations

import json
import re
from dataclasses import dataclass
from pathlib import Path

from . import call_faults, programs, waiting
from .call_faults import Case, Made
from .device import DATABASE, DOWNLOADS
from .operations import DiffChain, Operation, WholePackage
from .syslog import Syslog
from .volumes import Volumes

TABLE = Path(__file__).resolve().parents[1] / "crash_table.json"
OPERATIONS = (DiffChain, WholePackage)
FAULTS = {"killed": "kill", "hangs": "hang"}
BUSY = 75


@dataclass(frozen=True)
class Row:
    step: str
    fault: str
    """"fails", "killed" or "hangs"."""
    operation: str
    at: list[str]
    """Which process makes which call, and a pattern for the file's name; the first call that fits is meant."""
    status: int | str
    """The operation's; "stuck" where it does not end by itself and has to be killed."""
    log: list[str]
    """Patterns of warnings and errors in the log, each of which must be there."""
    version: int
    """The recorded one afterwards."""
    readable: bool
    """Whether readers are let in before the next run."""
    next: str
    """What the next run begins its answer with, after the name of the database."""
    error: str = "EIO"
    slow: bool = False
    """Takes a minute."""

    @property
    def name(self) -> str:
        return f"{self.step} {self.fault}"


def table() -> list[Row]:
    return [Row(**row) for row in json.loads(TABLE.read_text())]


@dataclass(frozen=True)
class Outcome:
    status: int | str
    version: int | None
    is_readable: bool
    log: list[str]
    next: str
    others: int | None = None
    """The status of another update while the operation stands still."""


class Crashes:
    def __init__(self, place: Path) -> None:
        (place / "volumes").mkdir(parents=True)
        self._report = place / "report"
        self._volumes = Volumes(place / "volumes")
        self._operations = {kind.name: kind(place / kind.name.replace(" ", "_"), self._volumes) for kind in OPERATIONS}
        self._syslog = Syslog()
        DOWNLOADS.write_text("deadline 1\n")
        self._calls: dict[str, list[Made]] = {}
        for name, operation in self._operations.items():
            self._restore(operation)
            self._calls[name] = call_faults.calls(self._report, operation.command)

    def close(self) -> None:
        self._syslog.close()
        for operation in self._operations.values():
            operation.close()
        self._volumes.close()

    def judge(self, row: Row) -> str:
        """What is not as the table says, or nothing."""
        try:
            outcome = self.outcome(row)
        except AssertionError as error:
            return f"{row.name}: {error}"
        found = (outcome.status, outcome.version, outcome.is_readable)
        expected = (row.status, row.version, row.readable)
        if found != expected:
            return f"{row.name}: status, version, readable {found} and not {expected}: {outcome}"
        missing = [pattern for pattern in row.log if not any(re.search(pattern, line) for line in outcome.log)]
        if missing or not outcome.next.startswith(f"{DATABASE}: {row.next}"):
            return f"{row.name}: no line {missing}, or the next run is not as it should be: {outcome}"
        return f"{row.name}: another update went on: {outcome}" if outcome.others not in (None, BUSY) else ""

    def outcome(self, row: Row) -> Outcome:
        operation = self._operations[row.operation]
        self._restore(operation)
        before = len(self._syslog.lines())
        status, others = self._run(row, operation)
        lines = self._syslog.lines()[before:]
        device = operation.device
        version, read = device.version(DATABASE), device.run("read", DATABASE, "--", "true")
        assert read.status in (0, BUSY), str(read)
        if read.status == 0:
            operation.assert_holds(version)
        answer = device.run_ok("update", DATABASE).stdout
        operation.assert_made_good(programs.Result((), 1 if status else 0, "", "", 0))
        log = [text for priority, text in lines if priority <= 4]
        return Outcome(status, version, read.status == 0, log, answer, others)

    def point(self, row: Row) -> Made:
        process, call, about = row.at
        fitting = [
            made for made in self._calls[row.operation]
            if (made.point.process, made.point.call) == (process, call) and re.search(about, made.about)
        ]  # fmt: skip
        assert fitting, f"no call {row.at}"
        return fitting[0]

    def _run(self, row: Row, operation: Operation) -> tuple[int | str, int | None]:
        case = Case(row.operation, self.point(row).point, FAULTS.get(row.fault, row.error))
        self._report.write_text("")
        running = call_faults.start(case, self._report, operation.command)
        waiting.until(lambda: call_faults.call_met(self._report) != "" or running.has_ended(), f"{case} is met")
        if row.status != "stuck":
            result = running.wait()
            assert call_faults.call_met(self._report), f"the call was not made: {result}"
            return result.status, None
        others = operation.device.run("update", DATABASE, "--no-wait").status
        assert not running.has_ended(), f"ended by itself: {running.wait()}"
        # With the tracer, all that it traces is killed.
        running.kill()
        running.wait()
        return "stuck", others

    def _restore(self, operation: Operation) -> None:
        operation.restore()
        operation.device.add_hook("10-hook", "#!/bin/sh\nexit 0\n")
