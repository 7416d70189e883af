"""Programs as they should not be, which a trial must catch."""

from __future__ import annotations

import os
from collections.abc import Callable

from .power_cuts import Machine, Operation


class Careless(Operation):
    """A program as it should not be: its file takes a place before its content is on the disk."""

    name = "careless"

    def prepare(self, machine: Machine) -> None:
        (machine.system / "record").write_text("old" * 1000)

    @staticmethod
    def replace(machine: Machine) -> None:
        draft = machine.system / "draft"
        draft.write_text("new" * 1000)
        draft.replace(machine.system / "record")
        with (machine.system / "other").open("w") as other:
            os.fsync(other.fileno())

    def steps(self, machine: Machine) -> list[Callable[[], object]]:
        return [lambda: self.replace(machine)]

    def judge(self, machine: Machine, done: int) -> None:
        assert (machine.system / "record").read_text() in ("old" * 1000, "new" * 1000), "neither old nor new"

    def go_on(self, machine: Machine) -> None:
        """Nothing to do."""


class CarelessRecovery(Careless):
    """Does nothing, and is careless when it goes on."""

    def steps(self, machine: Machine) -> list[Callable[[], object]]:
        return []

    def go_on(self, machine: Machine) -> None:
        self.replace(machine)
