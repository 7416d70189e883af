"""Pages for people, written while the power may go."""

from __future__ import annotations

from collections.abc import Callable
from pathlib import Path

from . import programs, trees
from .device import DATABASE
from .power_cuts import Machine, Operation

TITLES = ("The first pages", "The next pages")


class Site(Operation):
    """Pages where none were, and others in their place."""

    def __init__(self, name: str) -> None:
        self.name = name
        self._seen: list[dict[str, str]] = []
        """The pages before the steps, and after each."""

    @staticmethod
    def place(machine: Machine) -> Path:
        return machine.repository / "site"

    def pages(self, machine: Machine) -> dict[str, str]:
        return trees.contents(self.place(machine))

    def prepare(self, machine: Machine) -> None:
        machine.publisher.repository = machine.repository
        machine.repository.mkdir()
        for version in range(3):
            tree = trees.write_tree(machine.place / "tree", {"list": b"entry\n" * 2000 + b"%d\n" % version})
            machine.publisher.publish(tree, DATABASE, "--level", "1")
        self._seen = [{}]

    def make(self, machine: Machine, title: str) -> None:
        programs.run_ok(
            programs.PUB, "site", "--repo", machine.repository, "--out", self.place(machine),
            "--key", machine.publisher.public_key, "--title", title,
        )  # fmt: skip

    def steps(self, machine: Machine) -> list[Callable[[], object]]:
        def make(title: str) -> None:
            self.make(machine, title)
            self._seen.append(self.pages(machine))

        return [lambda title=title: make(title) for title in TITLES]

    def _assert_pages(self, machine: Machine, allowed: list[dict[str, str]]) -> None:
        pages = self.pages(machine)
        assert pages in allowed, f"pages of no run: {sorted(pages)}"

    def judge(self, machine: Machine, done: int) -> None:
        self._assert_pages(machine, self._seen[done : done + 2])

    def judge_recovery(self, machine: Machine, done: int, *, is_recovered: bool) -> None:
        self._assert_pages(machine, self._seen[-1:] if is_recovered else [*self._seen[done : done + 2], self._seen[-1]])

    def go_on(self, machine: Machine) -> None:
        """What was found before the cut is used again, so the pages tell whether it is whole."""
        self.make(machine, TITLES[-1])
        self._assert_pages(machine, self._seen[-1:])
