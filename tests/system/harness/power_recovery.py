"""The power goes again while a machine recovers from a first power cut."""

from __future__ import annotations

import os
import random
from collections.abc import Callable
from dataclasses import replace
from pathlib import Path

from . import power_cuts
from .power_cuts import Machine, Operation, Recording
from .recorded_disk import Cut, some_cuts


class Recovery(Operation):
    """What follows a cut of another operation, as an operation of its own."""

    def __init__(self, first: Operation, done: int) -> None:
        self._first = first
        self._done = done
        """How many steps had returned before the first cut."""

    def steps(self, machine: Machine) -> list[Callable[[], object]]:
        return [lambda: self._first.go_on(machine)]

    def judge(self, machine: Machine, done: int) -> None:
        self._first.judge_recovery(machine, self._done, is_recovered=bool(done))

    def go_on(self, machine: Machine) -> None:
        self._first.go_on(machine)


def record_recovery(first: Recording, cut: Cut, program: Path, unrest: random.Random | None) -> Recording:
    """Goes on after a cut, and keeps all that the disk was told meanwhile."""
    image = power_cuts.new_place(first.machine) / "image"
    replay = first.replay()
    with replay.disk(cut) as disk:
        os.link(disk, image)
    replay.close()
    first.machine.restart()
    recovery = Recovery(first.operation, first.done(cut))
    second = power_cuts.record_on(image, recovery, first.machine, program, unrest)
    return replace(second, known=first.known)


def try_twice(
    first: Recording, cut: Cut, count: int, program: Path, draw: random.Random, *, restless: bool
) -> tuple[int, list[str]]:
    """How many second cuts were tried, of so many, while the machine recovered from a first, and what was wrong."""
    try:
        second = record_recovery(first, cut, program, draw if restless else None)
    except power_cuts.WRONG as error:
        return 1, [f"{cut}: {error!r}"]
    tried, wrong = second.try_cuts(some_cuts(second.recorded, second.begin, draw, count))
    second.forget()
    return tried, [f"{cut}, then {text}" for text in wrong]
