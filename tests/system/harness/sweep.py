"""Goes through cases of faults, whatever operation they are of, and tells after which of them something was wrong."""

from __future__ import annotations

import time
from collections import Counter
from collections.abc import Callable, Iterable
from dataclasses import dataclass, field
from pathlib import Path

from . import call_faults
from .call_faults import Case
from .operations import OPERATIONS, Operation
from .volumes import Volumes

PATIENCE_SECONDS = 60
"""An operation that a fault keeps from ending in this time counts as hanging."""


@dataclass
class Found:
    """What came out for the cases of an operation."""

    tried: int = 0
    unmet: int = 0
    """The program made fewer calls this time: programs that wait for one another do not make the same number always."""
    failed: int = 0
    """Of those that were tried: the operation told that it failed, or was killed."""
    wrong: list[str] = field(default_factory=list)
    calls: Counter[str] = field(default_factory=Counter)


class Sweep:
    def __init__(self, place: Path, names: Iterable[str] = (), say: Callable[[str], None] = print) -> None:
        place.mkdir(parents=True, exist_ok=True)
        (place / "volumes").mkdir()
        self._report = place / "report"
        self._say = say
        self._volumes = Volumes(place / "volumes")
        wanted = tuple(names)
        kinds = [kind for kind in OPERATIONS if not wanted or kind.name in wanted]
        self.operations: dict[str, Operation] = {}
        for kind in kinds:
            self.operations[kind.name] = kind(place / kind.name.replace(" ", "_"), self._volumes)
        self.found = {name: Found() for name in self.operations}

    def close(self) -> None:
        for operation in self.operations.values():
            operation.close()
        self._volumes.close()

    def cases(self) -> list[Case]:
        found = []
        for operation in self.operations.values():
            operation.restore()
            found += call_faults.cases(operation.name, self._report, operation.command)
        return found

    def try_all(self, cases: Iterable[Case], deadline: float = float("inf")) -> int:
        """Until a moment; returns how many have been tried."""
        number = 0
        for case in cases:
            if time.monotonic() > deadline:
                break
            self.try_case(case)
            number += 1
        return number

    def try_case(self, case: Case) -> None:
        operation, found = self.operations[case.operation], self.found[case.operation]
        operation.restore()
        self._report.write_text("")
        told = ""
        try:
            result = call_faults.run(case, self._report, operation.command, PATIENCE_SECONDS)
            met = call_faults.call_met(self._report)
            found.failed += result.status != 0
            told = str(result)
            operation.judge(result)
        except Exception as error:
            met = call_faults.call_met(self._report)
            found.wrong.append(f"{case}\n{met}\n{told}\n{error!r}")
            self._say(found.wrong[-1])
        found.tried += bool(met)
        found.unmet += not met
        found.calls[case.point.call] += bool(met)
