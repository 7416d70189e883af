"""A chain of versions that a device can walk, and a device's state to go back to."""

from __future__ import annotations

import random
import shutil
import sqlite3
from pathlib import Path

from . import databases, trees
from .device import DATABASE, STATUS, Device
from .packages import Diff, HandPublisher

Files = dict[str, bytes]

COUNT = "UPDATE counters SET value = value + 1"
"""Does harm when it is executed twice."""


def counters(value: int) -> bytes:
    return databases.made(
        ["CREATE TABLE counters (id INTEGER PRIMARY KEY, value INTEGER)"]
        + [f"INSERT INTO counters VALUES ({number}, {value})" for number in range(200)]
    )


class Chain:
    """Versions 1 to 4 of a tree of patched, new and vanishing files and a database that is changed by scripts."""

    PATCHED = 8
    CREATED = 150
    LAST = 4

    def __init__(self, hand: HandPublisher) -> None:
        self._hand = hand
        source = random.Random(4)
        self._blocks = {f"part{n % 7}/file{n:03}": source.randbytes(3000) for n in range(self.PATCHED)}
        self._database = counters(1)

    def files(self, version: int) -> Files:
        # Of another length in each version, so that a patch on the wrong one gives neither.
        text = str(version).encode() * version
        files = {name: block[:1500] + text + block[1500:] for name, block in self._blocks.items()}
        files |= {f"only in {version}/{n:03}": b"%d %d" % (version, n) for n in range(self.CREATED)}
        return files

    def database_of(self, version: int) -> bytes:
        return databases.changed(self._database, [COUNT] * (version - 1))

    def publish_first(self) -> None:
        self._hand.full(DATABASE, 1, {**self.files(1), "counters.sqlite": self._database})

    def publish_rest(self) -> None:
        self._hand.full(DATABASE, self.LAST, {**self.files(self.LAST), "counters.sqlite": self.database_of(self.LAST)})
        for version in range(2, self.LAST + 1):
            diff = Diff.between(self.files(version - 1), self.files(version)).script("counters.sqlite", COUNT)
            self._hand.diff(DATABASE, version, diff)

    def assert_installed(self, root: Path, version: int) -> None:
        """Exactly the version, whichever way it came."""
        held = {name: (root / name).read_bytes() for name in trees.contents(root)}
        assert counted(held.pop("counters.sqlite")) == {version}
        expected = self.files(version)
        assert sorted(held) == sorted(expected)
        assert [name for name in expected if held[name] != expected[name]] == []


def counted(database: bytes) -> set[int]:
    connection = sqlite3.connect(":memory:")
    connection.deserialize(database)
    values = {row[0] for row in connection.execute("SELECT value FROM counters")}
    connection.close()
    return values


class Snapshot:
    """A device's installed files and records, to go back to."""

    def __init__(self, device: Device, place: Path) -> None:
        self._pairs = [(device.installed(DATABASE), place / "tree"), (STATUS / DATABASE, place / "status")]
        for current, kept in self._pairs:
            shutil.copytree(current, kept, symlinks=True)

    def restore(self) -> None:
        for current, kept in self._pairs:
            shutil.rmtree(current)
            shutil.copytree(kept, current, symlinks=True)
