"""Kits while the power may go: one is installed on a device, and one is written on a stick."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

from . import programs
from .device import DATABASE
from .power_cuts import Machine, Operation
from .power_updates import OLD, ShortChain, Update

NOWHERE = "127.0.0.1:9"
"""Where no server answers."""


def export(machine: Machine, kit: Path, *options: str) -> None:
    programs.run_ok(
        programs.PUB, "export", DATABASE, kit, "--repo", machine.publisher.repository,
        "--key", machine.hand.key.public, *options,
    )  # fmt: skip


class Import(Update):
    """A kit brings the last version, and nothing else does: the server is never asked again."""

    @staticmethod
    def kit(machine: Machine) -> Path:
        return machine.place / "brought.kit"

    def prepare(self, machine: Machine) -> None:
        super().prepare(machine)
        export(machine, self.kit(machine), "--from", str(OLD), "--with-full")
        machine.device.netloc = NOWHERE
        machine.device.configure()

    def steps(self, machine: Machine) -> list[Callable[[], object]]:
        return [lambda: machine.device.run_ok("import", str(self.kit(machine)))]

    def go_on(self, machine: Machine) -> None:
        machine.device.run_ok("init")
        machine.device.run_ok("import", str(self.kit(machine)))
        self.assert_whole(machine, machine.chain.LAST)


class Export(Operation):
    """A kit takes the place of the one that is on the stick."""

    def __init__(self, name: str) -> None:
        self.name = name
        self._kits: list[bytes] = []
        """On the stick at first, and after the step."""

    @staticmethod
    def kit(machine: Machine) -> Path:
        return machine.volume / "brought.kit"

    def _export(self, machine: Machine) -> None:
        export(machine, self.kit(machine))
        self._kits.append(self.kit(machine).read_bytes())

    def prepare(self, machine: Machine) -> None:
        self._kits.clear()
        chain = ShortChain(machine.hand)
        chain.publish_first()
        self._export(machine)
        chain.publish_rest()

    def steps(self, machine: Machine) -> list[Callable[[], object]]:
        return [lambda: self._export(machine)]

    def judge(self, machine: Machine, done: int) -> None:
        assert self.kit(machine).read_bytes() in self._kits[done:], "neither the old kit nor the new"

    def go_on(self, machine: Machine) -> None:
        export(machine, self.kit(machine))
        assert self.kit(machine).read_bytes() == self._kits[-1]
        left = [path.name for path in machine.volume.iterdir() if path.name.startswith(".")]
        assert not left, f"left behind: {left}"
