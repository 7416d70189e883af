"""What a device does while the power may go, and what must be found afterwards."""

from __future__ import annotations

import json
from collections.abc import Callable
from pathlib import Path

from . import programs, tracing, trees
from .chains import Chain
from .device import CONFIGURATION, DATABASE
from .power_cuts import Machine, Operation

OLD, MAIN = 1, "@database/autoupdate"


class ShortChain(Chain):
    PATCHED = 3
    CREATED = 4
    LAST = 3


class BroadChain(Chain):
    """So many changes that directories are exchanged whole."""

    PATCHED = 3
    CREATED = 150
    LAST = 2


class Update(Operation):
    """Version 1, when it is installed before, becomes the last one."""

    chain: type[Chain] = ShortChain
    installs = False
    without: tuple[str, ...] = ()
    command: tuple[str, ...] = ("update", DATABASE)

    def __init__(self, name: str, **changed: object) -> None:
        self.name = name
        for key, value in changed.items():
            assert hasattr(self, key), key
            setattr(self, key, value)

    def prepare(self, machine: Machine) -> None:
        machine.chain = self.chain(machine.hand)
        machine.chain.publish_first()
        machine.device.add_database(DATABASE)
        if not self.installs:
            machine.device.update(DATABASE)
        machine.chain.publish_rest()
        for part in self.without:
            machine.hand.package(DATABASE, part).unlink()
        machine.device.forget_document()

    def steps(self, machine: Machine) -> list[Callable[[], object]]:
        return [lambda: machine.device.run_ok(*self.command)]

    def judge(self, machine: Machine, done: int) -> None:
        machine.device.run_ok("status", "--json")
        if machine.device.mark(DATABASE).exists():
            return
        version = machine.device.version(DATABASE)
        if done:
            assert version == machine.chain.LAST, f"version {version} after the end"
        if version is not None:
            assert version in (OLD, machine.chain.LAST), f"version {version}"
            machine.chain.assert_installed(installed(machine), version)
        else:
            assert self.installs, "no record"

    def judge_recovery(self, machine: Machine, done: int, *, is_recovered: bool) -> None:
        if is_recovered:
            Update.judge(self, machine, 1)
        else:
            self.judge(machine, done)

    def go_on(self, machine: Machine) -> None:
        device = machine.device
        device.run_ok("init")
        device.run_ok("update", DATABASE)
        self.assert_whole(machine, machine.chain.LAST)

    @staticmethod
    def assert_whole(machine: Machine, version: int) -> None:
        device = machine.device
        assert device.version(DATABASE) == version
        assert not device.mark(DATABASE).exists() and not device.plan(DATABASE).exists(), "a mark or a plan stays"
        machine.chain.assert_installed(installed(machine), version)
        device.run_ok("check", DATABASE)
        device.run_ok("read", DATABASE, "--", "true")


def installed(machine: Machine) -> Path:
    """On the volume that the settings name, or the first on which it is."""
    name = json.loads((CONFIGURATION / "data_update.conf").read_text())["config"]["cur_volume"]
    places = [Path(name)] if name else [machine.volume, machine.other]
    roots = [place / MAIN / DATABASE for place in places]
    return next((root for root in roots if root.exists()), roots[0])


class OfLast(Update):
    """Begins with the last version."""

    def prepare(self, machine: Machine) -> None:
        super().prepare(machine)
        machine.device.update(DATABASE)


class Finishing(Update):
    """An update was killed between two of its renames, and the next run finishes it."""

    def prepare(self, machine: Machine) -> None:
        super().prepare(machine)
        report, update = machine.place / "report", [programs.CTL, *self.command]
        tracing.run_with_fault(report, "signal=SIGKILL", tracing.Point(tracing.REPLACING, 3), update)
        assert machine.device.mark(DATABASE).exists(), "it was not killed while it replaced files"


class Fix(OfLast):
    """Files were lost and changed, and until the new ones come they are as they were."""

    def damage(self, machine: Machine) -> None:
        root = installed(machine)
        for number, name in enumerate(sorted(machine.chain.files(machine.chain.LAST))[:4]):
            if number % 2:
                (root / name).write_bytes(b"damaged")
            else:
                (root / name).unlink()

    def prepare(self, machine: Machine) -> None:
        super().prepare(machine)
        self.damage(machine)
        machine.damaged = trees.contents(installed(machine))

    def judge(self, machine: Machine, done: int) -> None:
        is_marked = machine.device.mark(DATABASE).exists()
        if done or (not is_marked and trees.contents(installed(machine)) != machine.damaged):
            super().judge(machine, done)

    def go_on(self, machine: Machine) -> None:
        machine.device.run_ok("init")
        machine.device.run_ok("fix", DATABASE)
        super().go_on(machine)


class Forced(OfLast):
    """The first version over the last, of which files stay that the first does not have."""

    def judge(self, machine: Machine, done: int) -> None:
        if machine.device.mark(DATABASE).exists():
            return
        version = machine.device.version(DATABASE)
        assert version in ((OLD,) if done else (OLD, machine.chain.LAST)), f"version {version}"
        if version != OLD:
            machine.chain.assert_installed(installed(machine), machine.chain.LAST)
            return
        expected = machine.chain.files(OLD)
        wrong = [name for name, content in expected.items() if (installed(machine) / name).read_bytes() != content]
        assert not wrong, f"not of the forced version: {wrong}"

    def judge_recovery(self, machine: Machine, done: int, *, is_recovered: bool) -> None:
        """Any moment of the recovery may have brought the last version back."""
        super().judge_recovery(machine, 0, is_recovered=is_recovered)


class Move(OfLast):
    """From one volume to the other."""

    command = ("volume", "unmounting")

    def steps(self, machine: Machine) -> list[Callable[[], object]]:
        return [lambda: machine.device.run_ok(*self.command, str(machine.volume))]

    def judge(self, machine: Machine, done: int) -> None:
        super().judge(machine, done)
        if done and not machine.device.mark(DATABASE).exists():
            assert installed(machine).is_relative_to(machine.other), "the move is forgotten"


class Settings(Update):
    """What the administrator orders; each order is kept once its command has returned."""

    ORDERS = (("hold",), ("hold", "2"), ("unhold",), ("schedule", "off"), ("schedule", "on"), ("hold", "1"))
    FREE = (False, None, True)
    SEEN = (FREE, (True, None, True), (True, 2, True), FREE, (False, None, False), FREE, (True, 1, True))
    """Whether it is held, how far it may go, and whether it is scheduled: before the orders, and after each."""

    def steps(self, machine: Machine) -> list[Callable[[], object]]:
        def given(order: str, *more: str) -> Callable[[], object]:
            return lambda: machine.device.run_ok(order, DATABASE, *more)

        return [given(*order) for order in self.ORDERS]

    def judge(self, machine: Machine, done: int) -> None:
        super().judge(machine, 0)
        status = machine.device.status(DATABASE)
        seen = (status["held"], status["held_up_to"], status["scheduled"])
        assert seen in self.SEEN[done : done + 2], f"{seen} after {done} orders"

    def go_on(self, machine: Machine) -> None:
        machine.device.run_ok("unhold", DATABASE)
        machine.device.run_ok("schedule", DATABASE, "on")
        super().go_on(machine)
