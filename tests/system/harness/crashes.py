"""Goes through a table that says for each step of an update what it comes to when the step fails, is killed or hangs."""

from __future__ import annotations

import json
import re
from dataclasses import dataclass
from pathlib import Path

from . import call_faults, programs, waiting
from .call_faults import Case, Made
from .device import DATABASE, DOWNLOADS, Device
from .operations import DiffChain, Operation, WholePackage
from .syslog import Syslog
from .volumes import Volumes

TABLE = Path(__file__).resolve().parents[1] / "crash_table.json"
OPERATIONS = (DiffChain, WholePackage)
FAULTS = {"killed": "kill", "hangs": "hang"}
BUSY = 75
TRIES = 20
TRIES_OF_LAST = 4
"""Which call is the last one depends on how often a download was looked at, and so on how long it took."""


@dataclass(frozen=True)
class Row:
    step: str
    fault: str
    """"fails", "killed" or "hangs"."""
    operation: str
    at: list[str]
    """Which process makes which call, a pattern for the file's name, and "last" where not the first such call is meant."""
    status: int | str
    """The operation's; "stuck" where it does not end by itself and has to be killed."""
    log: list[str]
    """Patterns of warnings and errors in the log, each of which must be there."""
    version: int | None
    """The recorded one afterwards; null where the record is cut off."""
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


def recorded(device: Device) -> int | None:
    """None for a record that is cut off, too."""
    try:
        return device.version(DATABASE)
    except json.JSONDecodeError:
        return None


class Crashes:
    def __init__(self, place: Path) -> None:
        (place / "volumes").mkdir(parents=True)
        self._report = place / "report"
        self._volumes = Volumes(place / "volumes")
        self._operations = {kind.name: kind(place / kind.name.replace(" ", "_"), self._volumes) for kind in OPERATIONS}
        self._syslog = Syslog()
        DOWNLOADS.write_text("deadline 1\n")
        self._calls: dict[str, list[Made]] = {}

    def close(self) -> None:
        self._syslog.close()
        for operation in self._operations.values():
            operation.close()
        self._volumes.close()

    def judge(self, row: Row) -> str:
        """What is not as the table says, or nothing."""
        wrong = ""
        for _ in range(TRIES_OF_LAST if row.at[3:] == ["last"] else 1):
            wrong = self._judge_once(row)
            if not wrong:
                break
        return wrong

    def _judge_once(self, row: Row) -> str:
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
        running, before = self._met(row, operation)
        status, others = self._end(row, operation, running)
        lines = self._syslog.lines()[before:]
        device = operation.device
        version, read = recorded(device), device.run("read", DATABASE, "--", "true")
        assert read.status in (0, BUSY), str(read)
        if read.status == 0:
            operation.assert_holds(version)
        answer = device.run_ok("update", DATABASE).stdout
        operation.assert_made_good(programs.Result((), 1 if status else 0, "", "", 0))
        log = [text for priority, text in lines if priority <= 4]
        return Outcome(status, version, read.status == 0, log, answer, others)

    def point(self, row: Row) -> Made:
        process, call, about = row.at[:3]
        if row.operation not in self._calls:
            operation = self._operations[row.operation]
            self._calls[row.operation] = call_faults.calls(self._report, operation.command)
            self._restore(operation)
        fitting = [
            made for made in self._calls[row.operation]
            if (made.point.process, made.point.call) == (process, call) and re.search(about, made.about)
        ]  # fmt: skip
        assert fitting, f"no call {row.at}"
        return fitting[-1 if row.at[3:] == ["last"] else 0]

    def _met(self, row: Row, operation: Operation) -> tuple[programs.Running, int]:
        """The operation, whose call has met the fault, and the number of lines in the log before it."""
        for _ in range(TRIES):
            self._restore(operation)
            before = len(self._syslog.lines())
            case = Case(row.operation, self.point(row).point, FAULTS.get(row.fault, row.error))
            self._report.write_text("")
            running = call_faults.start(case, self._report, operation.command)
            waiting.until(lambda: call_faults.call_met(self._report) != "" or running.has_ended(), f"{case} is met")
            if re.search(row.at[2], call_faults.call_met(self._report).split(" ", 4)[-1]):
                return running, before
            # A download that took longer has been looked at more often.
            running.kill()
            running.wait()
            self._calls.pop(row.operation)
        raise AssertionError("the call was not made")

    def _end(self, row: Row, operation: Operation, running: programs.Running) -> tuple[int | str, int | None]:
        if row.status != "stuck":
            return running.wait().status, None
        others = operation.device.run("update", DATABASE, "--no-wait").status
        assert not running.has_ended(), f"ended by itself: {running.wait()}"
        # With the tracer, all that it traces is killed.
        running.kill()
        running.wait()
        return "stuck", others

    def _restore(self, operation: Operation) -> None:
        operation.restore()
        operation.device.add_hook("10-hook", "#!/bin/sh\nexit 0\n")
