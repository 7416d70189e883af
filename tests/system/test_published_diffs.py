"""Diff packages by the publisher itself, followed by a whole device."""

from __future__ import annotations

import os
import random
import shutil
import sqlite3
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest
from harness import trees
from harness.device import DATABASE, Device
from harness.publisher import Publisher
from harness.webserver import Nginx

ROWS = "places.sqlite"
KEPT = 30


class Database:
    """A tree with a text, a large file that stays, and an SQLite file in WAL mode."""

    def __init__(self, root: Path, publisher: Publisher) -> None:
        self.root = root
        self._publisher = publisher
        root.mkdir()
        (root / "list.txt").write_text("".join(f"entry {n}\n" for n in range(5000)))
        (root / "stays.bin").write_bytes(bytes(range(256)) * 400)
        self.sql("PRAGMA journal_mode = WAL; CREATE TABLE places(id INTEGER PRIMARY KEY, name TEXT);")
        self.sql("".join(f"INSERT INTO places VALUES({n}, 'place {n}');" for n in range(3000)))

    def sql(self, script: str) -> None:
        with sqlite3.connect(self.root / ROWS) as database:
            database.executescript(script)
        database.close()

    def publish(self, version: int) -> None:
        """A version with small changes everywhere; the first is as it was made."""
        if version > 1:
            lines = (self.root / "list.txt").read_text().splitlines(keepends=True)
            lines[version * 100] = f"version {version}\n"
            (self.root / "list.txt").write_text("".join(lines))
            (self.root / f"new/{version}").parent.mkdir(exist_ok=True)
            (self.root / f"new/{version}").write_text("new\n")
            (self.root / f"new/{version - 1}").unlink(missing_ok=True)
            self.sql(f"UPDATE places SET name = 'line' || char(10) || '{version}' WHERE id % 100 = {version};"
                     f"DELETE FROM places WHERE id = {version * 7};")  # fmt: skip
        self._publisher.publish(self.root, DATABASE, keep_diffs=KEPT)


@contextmanager
def on_processors(processors: set[int]) -> Iterator[None]:
    """Programs that are started meanwhile see these alone."""
    before = os.sched_getaffinity(0)
    os.sched_setaffinity(0, processors)
    try:
        yield
    finally:
        os.sched_setaffinity(0, before)


def rows(path: Path) -> list[tuple[int, str]]:
    with sqlite3.connect(f"file:{path}?mode=ro&immutable=1", uri=True) as database:
        return list(database.execute("SELECT id, name FROM places ORDER BY id"))


def assert_follows(device: Device, database: Database) -> None:
    """Bytes, but for the rows of the file that came by scripts."""
    installed = device.installed(DATABASE)
    expected = trees.contents(database.root)
    found = trees.contents(installed)
    assert rows(installed / ROWS) == rows(database.root / ROWS)
    del expected[ROWS], found[ROWS]
    assert found == expected


@pytest.fixture
def database(tmp_path: Path, publisher: Publisher) -> Iterator[Database]:
    yield Database(tmp_path / "tree", publisher)


@pytest.mark.skipif(len(os.sched_getaffinity(0)) < 2, reason="there is one processor only")
def test_the_number_of_processors_changes_no_byte(tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setenv("SOURCE_DATE_EPOCH", "1700000000")
    tree = tmp_path / "tree"
    found = []
    for processors in ({min(os.sched_getaffinity(0))}, os.sched_getaffinity(0)):
        publisher = Publisher(tmp_path / str(len(found)))
        if found:
            shutil.copyfile(tmp_path / "0/release.key", publisher.private_key)
        for version in (1, 2):
            trees.write_tree(tree, {f"f{n}": random.Random(n).randbytes(400_000) + b"%d" % version for n in range(6)})
            with on_processors(processors):
                publisher.publish(tree, DATABASE, "--level", "16", base="http://updates.example", keep_diffs=9)
        found.append({path.name: path.read_bytes() for path in publisher.repository.rglob("*.tarn")})
    assert len(found[0]) == 3
    assert found[0] == found[1]


@pytest.mark.parametrize("strides", [(1, 1, 1), (3,), (2, 1)], ids=str)
def test_a_device_follows_by_diffs_alone_and_checks_its_own_digests(
    connected: Device, database: Database, nginx: Nginx, strides: tuple[int, ...]
) -> None:
    database.publish(1)
    connected.update(DATABASE)
    version = 1
    for stride in strides:
        for _ in range(stride):
            version += 1
            database.publish(version)
        connected.update(DATABASE)
        assert connected.version(DATABASE) == version
        assert_follows(connected, database)
    assert nginx.packages() == ["v1", "d2", "d3", "d4"]
    connected.run_ok("check", DATABASE)
