"""A store whose power may go while a repository is carried to it."""

from __future__ import annotations

import random
from collections.abc import Callable

from . import programs, trees
from .davstore import DavStore
from .device import DATABASE
from .power_cuts import SOURCE, Machine, Operation


class Mirroring(Operation):
    """The store lies on the disk that is cut, the repository does not: a new version comes, and is withdrawn."""

    def __init__(self, name: str) -> None:
        self.name = name
        self._environment: dict[str, str] = {}

    def prepare(self, machine: Machine) -> None:
        machine.store.mkdir()
        dav = DavStore(SOURCE / "packaging/nginx/tarndbud.conf", machine.store, machine.place / "dav")
        machine.on_close(dav.close)
        self._environment = dav.environment()
        self._publish(machine, "first")
        self._mirror(machine)

    def _publish(self, machine: Machine, word: str) -> None:
        bulk = {f"bulk{number}": random.Random(number).randbytes(30000) for number in range(3)}
        tree = trees.write_tree(machine.place / "tree", bulk | {"word": word.encode()})
        machine.publisher.publish(tree, DATABASE, "--level", "1", keep_diffs=9)

    def _mirror(self, machine: Machine, *options: str) -> None:
        command = (programs.MIRROR, "--repo", machine.publisher.repository, "store:", *options)
        result = programs.run(*command, env=self._environment)
        assert result.status == 0, str(result)

    def steps(self, machine: Machine) -> list[Callable[[], object]]:
        def new() -> None:
            self._publish(machine, "second")
            self._mirror(machine)

        def withdrawn() -> None:
            machine.publisher.withdraw(DATABASE, "--level", "1")
            self._mirror(machine)

        return [new, withdrawn]

    def judge(self, machine: Machine, done: int) -> None:
        """The web server confirms what is not on the disk, so all of that may be lost: see docs/publishing.md."""

    def go_on(self, machine: Machine) -> None:
        self._mirror(machine, "--compare")
        expected, found = trees.served(machine.publisher.repository), trees.contents(machine.store)
        wrong = sorted(name for name in expected.keys() | found.keys() if expected.get(name) != found.get(name))
        assert not wrong, f"after the next run, the store is wrong in {wrong}"
