"""Upgrades of the programs in the life of a device, and what each of them must leave as it was."""

from __future__ import annotations

import hashlib
import os
import random
import stat
from collections import Counter
from collections.abc import Callable, Iterator
from pathlib import Path

from . import programs
from .debian import PATIENCE_SECONDS, SHIPPED, Packages
from .device import CACHE, DOWNLOADS, STATUS, VOLUMES, WGETRC

SETTINGS = VOLUMES.parent
HALF_WRITTEN = ".dpkg-new"

Entries = dict[Path, tuple[object, ...]]


def entries(*places: Path) -> Entries:
    """Everything below directories, with what an upgrade must not change of it."""
    return {path: _entry(path) for place in places for path in place.rglob("*")}


def _entry(path: Path) -> tuple[object, ...]:
    status = path.lstat()
    if path.is_symlink():
        return (os.readlink(path),)
    digest = hashlib.sha256(path.read_bytes()).hexdigest() if stat.S_ISREG(status.st_mode) else ""
    return stat.filemode(status.st_mode), status.st_uid, status.st_gid, digest


def shipped() -> Entries:
    """The settings that the installed version gives to a device that lacks them."""
    place = Path("/") / SHIPPED
    return {SETTINGS / path.relative_to(place): entry for path, entry in entries(place).items()}


class Upgrades:
    """Each kind as often as the others, in an order of its own."""

    def __init__(
        self, packages: Packages, source: random.Random, installed: Callable[[], Path], update: Callable[[], None]
    ) -> None:
        """To what update does, an upgrade that runs at the same time must make no difference."""
        self._packages = packages
        self._source = source
        self._installed = installed
        self._update = update
        self._kinds = self._in_turns()
        self._is_unfinished = False
        self.counts: Counter[str] = Counter()
        self.wrong: list[str] = []
        WGETRC.write_text(f"{WGETRC.read_text()}limit_rate = 900m\n")
        WGETRC.chmod(0o600)

    def _in_turns(self) -> Iterator[Callable[[], None]]:
        while True:
            kinds = [self._upgrade, self._upgrade_while_updates_run, self._upgrade_killed, self._upgrade_after_removal]
            yield from self._source.sample(kinds, len(kinds))

    @property
    def is_unfinished(self) -> bool:
        """A killed one is finished the next day, so that updates run between."""
        return self._is_unfinished

    def upgrade(self, may_update: bool) -> None:
        self._packages.make_next()
        if self._source.random() < 0.3:
            DOWNLOADS.unlink(missing_ok=True)
        else:
            DOWNLOADS.write_text(f"# edited before {self._packages.version}\ndeadline 3600\n")
        self.counts["upgrades"] += 1
        kind = next(self._kinds)
        if kind == self._upgrade_while_updates_run and not may_update:
            kind = self._upgrade
        kind()

    def finish(self) -> None:
        before = self._entries()
        self._packages.finish()
        self._is_unfinished = False
        self._judge({path: entry for path, entry in before.items() if path.suffix != HALF_WRITTEN}, self._entries())

    # The kinds

    def _upgrade(self) -> None:
        before = self._entries()
        self._packages.install()
        self._judge(before, self._entries())

    def _upgrade_while_updates_run(self) -> None:
        before = entries(SETTINGS)
        installing = self._packages.installing()
        while not installing.has_ended():
            self._update()
            self.counts["updates meanwhile"] += 1
        ended = installing.wait(PATIENCE_SECONDS)
        if ended.status != 0:
            self._say_wrong(ended)
        self._judge(before, entries(SETTINGS))

    def _upgrade_killed(self) -> None:
        before = self._entries()
        self._is_unfinished = self._packages.install_killed(self._source.random())
        if not self._is_unfinished:
            self._judge(before, self._entries())
            return
        self.counts["upgrades killed"] += 1
        after = self._entries()
        self._compare(before, {path: after[path] for path in before.keys() & after.keys()})

    def _upgrade_after_removal(self) -> None:
        before = self._entries()
        self._packages.remove()
        if Path(programs.CTL).exists():
            self._say_wrong(f"{programs.CTL} is there after the packages were removed")
        self._compare(before, self._entries())
        self._packages.install()
        self._judge(before, self._entries())
        self.counts["removals"] += 1

    # What must hold

    def _entries(self) -> Entries:
        return entries(SETTINGS, STATUS, CACHE, self._installed())

    def _judge(self, before: Entries, after: Entries) -> None:
        self._compare(shipped() | before, after)
        for problem in self._packages.problems():
            self._say_wrong(problem)

    def _compare(self, wanted: Entries, found: Entries) -> None:
        for path in sorted(wanted.keys() | found.keys()):
            if wanted.get(path) != found.get(path):
                self._say_wrong(f"{path} was {wanted.get(path)} and is {found.get(path)}")

    def _say_wrong(self, what: object) -> None:
        self.wrong.append(f"upgrade to {self._packages.version}: {what}")
