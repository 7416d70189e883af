"""The disk as a power cut leaves it, in every operation, on every file system: the old data or the new."""

from __future__ import annotations

import random
import subprocess
import time
from collections.abc import Iterator
from dataclasses import dataclass, field
from functools import partial

from bench.proofs import Row, Trial
from harness import power_cuts, power_operations, power_recovery, recorded_disk
from harness.power_cuts import Machine, Operation, Recording
from harness.recorded_disk import Cut, Kind

PROMISE = "After a power cut the old is there or the new, and the next run goes on without help"
BRIEF_CUTS = 3
BRIEF_RECOVERIES = 1
BATCH = 8
"""Cuts between two looks at the clock; each batch goes through a record from its begin."""


@dataclass
class Tried:
    """What was found for an operation on a file system."""

    operation: Operation
    kind: Kind
    twice: bool = False
    """Whether the power goes again while the machine recovers."""
    cuts: int = 0
    possible: int = 0
    wrong: list[str] = field(default_factory=list)

    def __str__(self) -> str:
        return f"{self.operation.name}, {'cut again while it recovers, ' * self.twice}{self.kind.name}"

    def row(self) -> Row:
        extra = {"moments and losses drawn from": float(self.possible)}
        return Row(PROMISE, self.cuts, "power cuts", self.wrong, str(self), extra)


def prove(trial: Trial) -> list[Row]:
    program = trial.build / "tests/system/recording_disk"
    missing = recorded_disk.missing(program)
    if missing:
        trial.say(f"not tried: {missing}")
        return []
    subprocess.run(["cmake", "--install", str(trial.build)], check=True, stdout=subprocess.DEVNULL)
    draw = random.Random(trial.seed)
    kinds = recorded_disk.possible_kinds()
    if trial.brief:
        kinds = [draw.choice(kinds)]
    found = [Tried(operation, kind, twice) for operation, twice in _operations() for kind in kinds]
    begin = time.monotonic()
    for number, tried in enumerate(found):
        for share, restless in ((0.5, False), (1.0, True)):
            until = begin + trial.seconds * (number + share) / len(found)
            _try(trial, tried, draw, until, restless=restless)
        trial.say(f"{tried}: {tried.cuts} cuts, {len(tried.wrong)} wrong")
    return [tried.row() for tried in found]


def _operations() -> list[tuple[Operation, bool]]:
    """Those that are cut once, and those that are cut twice."""
    once = [(operation, False) for operation in power_operations.OPERATIONS.values()]
    return once + [(operation, True) for operation in power_operations.recovered()]


def _try(trial: Trial, tried: Tried, draw: random.Random, until: float, *, restless: bool) -> None:
    """Records the operation once, alone or beside programs that sync, and cuts it as often as there is time for."""
    machine = Machine(tried.kind, trial.scratch)
    try:
        program = trial.build / "tests/system/recording_disk"
        recording = power_cuts.record(tried.operation, machine, program, draw, restless=restless)
        cuts = recorded_disk.all_cuts(recording.recorded, recording.begin, draw, losses=4)
        tried.possible += len(cuts)
        draw.shuffle(cuts)
        if tried.twice:
            chosen, count = (cuts[:BRIEF_RECOVERIES], BRIEF_CUTS) if trial.brief else (cuts, BATCH)
            again = partial(power_recovery.try_twice, recording, draw=draw, program=program, restless=restless)
            found = (again(cut=cut, count=count) for cut in chosen)
        else:
            found = _in_batches(recording, cuts[:BRIEF_CUTS] if trial.brief else cuts)
        for count, wrong in found:
            tried.cuts += count
            tried.wrong += wrong
            if not trial.brief and time.monotonic() >= until:
                break
    finally:
        machine.close()


def _in_batches(recording: Recording, cuts: list[Cut]) -> Iterator[tuple[int, list[str]]]:
    for first in range(0, len(cuts), BATCH):
        yield recording.try_cuts(cuts[first : first + BATCH])
