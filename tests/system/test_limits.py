"""What a signed package may ask of a device: depth of names, memory, and work in scripts and descriptions."""

from __future__ import annotations

import os
import resource
import sqlite3
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from pathlib import Path

import pytest
from harness import databases, packages, programs, trees
from harness.device import DATABASE, Device
from harness.packages import Diff, HandPublisher
from harness.publisher import Publisher
from harness.syslog import Syslog
from harness.webserver import Nginx

MIB = 1 << 20
LEVELS = 1100
DEEP = "d/" * LEVELS + "f"
ENDLESS = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) "
ROWS = databases.made(["CREATE TABLE t (a)", "INSERT INTO t VALUES (1)"])


@contextmanager
def few_descriptors(limit: int = 256) -> Iterator[None]:
    """As small systems have it; programs that are started inherit it."""
    before = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (limit, before[1]))
    try:
        yield
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, before)


def make_deep_directory(root: Path) -> None:
    root.mkdir(parents=True, exist_ok=True)
    place = os.open(root, os.O_RDONLY)
    for _ in range(LEVELS):
        os.mkdir("d", dir_fd=place)
        below = os.open("d", os.O_RDONLY, dir_fd=place)
        os.close(place)
        place = below
    os.close(os.open("f", os.O_WRONLY | os.O_CREAT, 0o644, dir_fd=place))
    os.close(place)


def test_a_package_of_1100_levels_is_refused_by_name_and_the_next_one_installed(
    connected: Device, hand: HandPublisher, syslog: Syslog
) -> None:
    hand.full(DATABASE, 1, {"a": b"one"})
    connected.update(DATABASE)
    hand.full(DATABASE, 2, {"a": b"two", DEEP: b"deep"})
    connected.forget_document()
    with few_descriptors():
        for _ in range(2):
            assert connected.run("update", DATABASE).status == 1
        assert connected.version(DATABASE) == 1
        trees.assert_holds(connected.installed(DATABASE), {"a": b"one"})
        named = f'd/d/f" has {LEVELS + 1} components; the limit is 128'
        assert any(named in text for _, text in syslog.lines()), syslog.lines()
        hand.full(DATABASE, 3, {"a": b"three", "d/" * 127 + "f": b"as deep as may be"})
        connected.update(DATABASE)
    trees.assert_holds(connected.installed(DATABASE), {"a": b"three", "d/" * 127 + "f": b"as deep as may be"})
    assert connected.left_behind() == []


@pytest.mark.parametrize("place", ["unpacked", "working copies", "installed"])
def test_a_database_that_was_wedged_by_a_deep_package_heals(
    connected: Device, hand: HandPublisher, place: str
) -> None:
    """What versions left that unpacked such a package and could remove it no more."""
    hand.full(DATABASE, 1, {"a": b"one"})
    connected.update(DATABASE)
    suffix = {"unpacked": "full", "working copies": "delta_2"}.get(place)
    make_deep_directory(connected.temporary() / f"{DATABASE}_{suffix}" if suffix else connected.installed(DATABASE))
    hand.full(DATABASE, 2, {"a": b"two"})
    if place == "working copies":
        hand.diff(DATABASE, 2, Diff().create("a", b"two"))
    with few_descriptors():
        connected.update(DATABASE)
    assert connected.version(DATABASE) == 2
    trees.assert_holds(connected.installed(DATABASE), {"a": b"two"})
    assert connected.left_behind() == []


GREEDY = {
    "value": ("INSERT INTO t VALUES (randomblob(2000000000))", "string or blob too big"),
    "text": ("WITH RECURSIVE n(x) AS (SELECT 'x' UNION ALL SELECT x || x FROM n) SELECT count(*) FROM n", "too big"),
    "replacement": ("INSERT INTO t VALUES (replace(hex(zeroblob(1000000)), '0', '0123456789'))", "string or blob too big"),
    "sorting": (ENDLESS + "SELECT i, randomblob(1000) AS r FROM n ORDER BY r", "of memory needed"),
    "temporary table": ("CREATE TEMP TABLE x (y); " + ENDLESS + "INSERT INTO x SELECT randomblob(4000) FROM n",
                        "of memory needed"),
    "growth": (ENDLESS + "INSERT INTO t SELECT zeroblob(4000000) FROM n", "database or disk is full"),
    "line": ("SELECT '" + "x" * 10 * MIB + "'", "line of more than 8454144 bytes in "),
}  # fmt: skip


@pytest.mark.parametrize("case", GREEDY)
def test_a_greedy_script_is_refused_within_its_memory(
    connected: Device, hand: HandPublisher, nginx: Nginx, syslog: Syslog, case: str
) -> None:
    statement, reason = GREEDY[case]
    hand.full(DATABASE, 1, {"rows": ROWS})
    connected.update(DATABASE)
    hand.full(DATABASE, 2, {"rows": ROWS, "new": b""})
    hand.diff(DATABASE, 2, Diff().script("rows", "DELETE FROM t", statement))
    connected.forget_document()
    result, peak = programs.peak_memory(programs.CTL, "update", DATABASE)
    print(f"{case}: {peak} KiB at most, {result.seconds:.1f} s")
    assert result.status == 0, str(result)
    assert peak < (256 + 64) * 1024
    assert nginx.packages() == ["v1", "d2", "v2"]
    refusal = syslog.refusals()[-1]
    assert refusal.startswith("Fail apply sql cmd: ") and reason in refusal, refusal
    trees.assert_holds(connected.installed(DATABASE), {"rows": ROWS, "new": b""})


DESCRIPTIONS: dict[str, Callable[[], bytes]] = {
    "one long text": lambda: b'{"a": "' + b"x" * 150 * MIB + b'"}',
    "many values": lambda: b'{"a": [' + b"0," * 20 * MIB + b"0]}",
}


@pytest.mark.parametrize("case", DESCRIPTIONS)
def test_a_description_that_is_too_large_is_refused_before_it_is_parsed(
    connected: Device, hand: HandPublisher, nginx: Nginx, syslog: Syslog, case: str
) -> None:
    hand.full(DATABASE, 1, {"a": b"one"})
    connected.update(DATABASE)
    hand.full(DATABASE, 2, {"a": b"two"})
    members = {packages.DESCRIPTION: DESCRIPTIONS[case]()}
    hand.diff_of(DATABASE, 2, packages.archive(hand.key, members, packages.metadata(DATABASE, 2, "diff")))
    connected.forget_document()
    result, peak = programs.peak_memory(programs.CTL, "update", DATABASE)
    print(f"{case}: {peak} KiB at most, {result.seconds:.1f} s")
    assert result.status == 0, str(result)
    assert peak < 64 * 1024
    assert nginx.packages() == ["v1", "d2", "v2"]
    refusal = syslog.refusals()[-1]
    assert refusal.startswith("Too large a description of patches: ") and refusal.endswith("/patch_infos.json")


TABLES = {
    "fts5": "CREATE VIRTUAL TABLE words USING fts5(title, body)",
    "fts4": "CREATE VIRTUAL TABLE words USING fts4(title, body)",
    "rtree": "CREATE VIRTUAL TABLE words USING rtree(id, x0, x1)",
}
QUERIES = {
    "fts5": "SELECT rowid, body, bm25(words) FROM words WHERE words MATCH 'changed OR number' ORDER BY rowid",
    "fts4": "SELECT rowid, body, hex(matchinfo(words)) FROM words WHERE words MATCH 'changed OR number' ORDER BY rowid",
    "rtree": "SELECT * FROM words WHERE x0 > 3 ORDER BY id",
}


def answers(path: Path, query: str) -> list[tuple[object, ...]]:
    with sqlite3.connect(f"file:{path}?mode=ro&immutable=1", uri=True) as database:
        return list(database.execute(query))


@pytest.mark.parametrize("module", TABLES)
def test_a_database_with_an_index_of_its_own_goes_by_script(
    connected: Device, publisher: Publisher, nginx: Nginx, tmp_path: Path, module: str
) -> None:
    tree = tmp_path / "tree"
    tree.mkdir()
    first, later = (
        ("({0} / 7.0, {0} / 7.0 + 1)", "UPDATE words SET x1 = 1000.1 WHERE id % 50 = {}")
        if module == "rtree"
        else ("('title {0}', 'text number {0}')", "UPDATE words SET body = 'changed' WHERE rowid % 50 = {}")
    )
    columns = "(x0, x1)" if module == "rtree" else ""
    rows = ",".join(first.format(number) for number in range(2000))
    databases.changed_at(tree / "words.sqlite", [TABLES[module], f"INSERT INTO words{columns} VALUES {rows}"])
    publisher.publish(tree, DATABASE, keep_diffs=9)
    connected.update(DATABASE)
    for version in (2, 3):
        databases.changed_at(tree / "words.sqlite", [later.format(version), f"DELETE FROM words WHERE rowid = {version}"])
        publisher.publish(tree, DATABASE, keep_diffs=9)
        connected.update(DATABASE)
    assert nginx.packages() == ["v1", "d2", "d3"]
    installed = connected.installed(DATABASE) / "words.sqlite"
    assert installed.read_bytes() != (tree / "words.sqlite").read_bytes(), "came by bytes, so that nothing is shown"
    published = answers(tree / "words.sqlite", QUERIES[module])
    assert len(published) > 100
    assert answers(installed, QUERIES[module]) == published
    connected.run_ok("check", DATABASE)
