"""What a release changes, by the real program: from full packages, from diff packages, within little memory."""

from __future__ import annotations

import json
import random
import sqlite3
import time
from pathlib import Path
from typing import Any

import pytest
from harness import programs
from harness.publisher import Publisher

ID = "places"
ROWS = 200_000
LIMIT_KIB = 64 * 1024


def sql(path: Path, script: str) -> None:
    with sqlite3.connect(path) as database:
        database.executescript(script)
    database.close()


def numbers(last: int) -> str:
    return f"WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < {last})"


@pytest.fixture
def tree(tmp_path: Path) -> Path:
    root = tmp_path / "tree"
    root.mkdir()
    (root / "list.txt").write_text("".join(f"entry {n}\n" for n in range(3000)))
    (root / "stays.txt").write_text("stays\n")
    (root / "bulk.bin").write_bytes(random.Random(1).randbytes(100_000))  # so that diff packages pay
    sql(root / "a.sqlite", "CREATE TABLE t(id INTEGER PRIMARY KEY, name TEXT); CREATE TABLE log(line);"
                           f"INSERT INTO t {numbers(2000)} SELECT i, 'place ' || i FROM n;"
                           f"INSERT INTO log {numbers(300)} SELECT i % 7 FROM n;")  # fmt: skip
    return root


def publish_three(publisher: Publisher, tree: Path) -> None:
    publisher.publish(tree, ID, "--level", "1", keep_diffs=9)
    sql(tree / "a.sqlite", "UPDATE t SET name = 'Größe' WHERE id = 5; DELETE FROM t WHERE id IN (7, 8);")
    (tree / "new.txt").write_text("new\n")
    publisher.publish(tree, ID, "--level", "1", keep_diffs=9)
    sql(tree / "a.sqlite", "INSERT INTO t VALUES(9000, x'00ff'); INSERT INTO log VALUES(1), (1);"
                           "CREATE TABLE more(a); PRAGMA user_version = 3;")  # fmt: skip
    (tree / "list.txt").write_text("short\n")
    (tree / "stays.txt").chmod(0o755)
    publisher.publish(tree, ID, "--level", "1", keep_diffs=9)


def command(publisher: Publisher, *more: str) -> list[str | Path]:
    return [programs.PUB, "changes", ID, *more, "--repo", publisher.repository, "--key", publisher.public_key]


def changes(publisher: Publisher, *more: str) -> dict[str, Any]:
    return json.loads(programs.run_ok(*command(publisher, *more, "--json")).stdout)


def without_sources(found: dict[str, Any]) -> dict[str, Any]:
    """What was found, but for the packages that it was taken from and the sizes of what scripts have made."""
    found = json.loads(json.dumps(found))
    for version in ("from", "to"):
        found[version] = found[version]["version"]
        del found["totals"]["size_" + {"from": "before", "to": "after"}[version]]
    for file in found["files"]:
        if "database" in file:
            del file["before"]["size"], file["after"]["size"]
    return found


def leftovers(publisher: Publisher) -> list[str]:
    return [path.name for path in publisher.repository.iterdir() if path.name.startswith(".tarndbudpub-work")]


def test_three_versions_tell_the_same_with_and_without_their_full_packages(publisher: Publisher, tree: Path) -> None:
    publish_three(publisher, tree)
    pairs = [("1", "2"), ("2", "3"), ("1", "3")]
    by_full = {pair: changes(publisher, *pair) for pair in pairs}
    assert changes(publisher) == by_full["2", "3"]
    assert changes(publisher, "1") == by_full["1", "3"]
    whole = by_full["1", "3"]
    assert whole["totals"]["files"] == {"added": 1, "removed": 0, "changed": 3, "unchanged": 1}
    assert whole["totals"]["rows"] == {"inserted": 3, "updated": 1, "deleted": 2}
    database, listed, added, stays = whole["files"]
    assert [table["name"] for table in database["database"]["tables"]] == ["log", "more", "t"]
    assert database["database"]["settings"] == {"user_version": {"before": "0", "after": "3"}}
    updated = next(row for row in database["database"]["tables"][2]["examples"] if row["operation"] == "updated")
    assert (updated["key"], updated["values"][0]["after"]) == ("id=5", "'Größe'")
    assert (listed["change"], added["change"], stays["after"]["executable"]) == ("changed", "added", True)
    publisher.package(ID, 2).unlink()
    publisher.package(ID, 3).unlink()
    for pair in pairs:
        by_diffs = changes(publisher, *pair)
        assert by_diffs["to"]["full_package"] == 1
        assert without_sources(by_diffs) == without_sources(by_full[pair])
    missing = publisher.repository / f"packages/{ID}/{ID}_d2.tarn"
    missing.unlink()
    result = programs.run(*command(publisher))
    assert (result.status, result.stdout) == (1, "")
    assert result.stderr.count("\n") == 1
    assert str(missing) in result.stderr
    assert leftovers(publisher) == []


def test_the_text_begins_with_totals_and_leaves_out_what_is_too_much(publisher: Publisher, tree: Path) -> None:
    publish_three(publisher, tree)
    text = programs.run_ok(*command(publisher, "--examples", "1", "--limit", "2")).stdout
    head, _, files = text.partition("\n\n")
    assert "from version 2 to 3" in head
    assert "Files: 0 added, 0 removed, 3 changed, 2 unchanged" in head
    assert "Rows in 1 database: 3 inserted." in head
    assert files.count("inserted: ") == 2
    assert "a blob of 2 B" in files
    assert "Not listed: 1 more file." in files


def test_what_a_killed_run_leaves_is_removed_by_the_next(publisher: Publisher, tree: Path) -> None:
    with (tree / "large.bin").open("wb") as large:
        large.truncate(300 << 20)
    publish_three(publisher, tree)
    running = programs.Running([str(word) for word in command(publisher)])
    deadline = time.monotonic() + programs.PATIENCE_SECONDS
    while not leftovers(publisher) and time.monotonic() < deadline:
        time.sleep(0.001)
    running.kill()
    assert running.wait().status == -9
    assert len(leftovers(publisher)) == 1
    changes(publisher)
    assert leftovers(publisher) == []


def test_memory_does_not_grow_with_the_rows(publisher: Publisher, tree: Path) -> None:
    """Two tables of 200,000 rows in a file that is larger than the memory allowed; each row without a key is sorted."""
    path = tree / "large.sqlite"
    sql(path, "CREATE TABLE keyed(id TEXT PRIMARY KEY, text); CREATE TABLE plain(number, text);"
              f"INSERT INTO keyed {numbers(ROWS)} SELECT 'k' || i, hex(randomblob(100)) FROM n;"
              "INSERT INTO plain SELECT rowid, text FROM keyed;")  # fmt: skip
    publisher.publish(tree, ID, "--level", "1")
    sql(path, "UPDATE keyed SET text = 'changed' WHERE rowid % 2 = 0; DELETE FROM keyed WHERE rowid % 100 = 1;"
              "UPDATE plain SET number = -number WHERE number % 4 = 0;")  # fmt: skip
    publisher.publish(tree, ID, "--level", "1")
    assert path.stat().st_size > LIMIT_KIB * 1024
    result, peak = programs.peak_memory(*command(publisher, "--json"))
    print(f"{path.stat().st_size >> 20} MiB of rows: {peak} KiB at most, {result.seconds:.1f} s")
    assert result.status == 0, str(result)
    keyed, plain = json.loads(result.stdout)["files"][0]["database"]["tables"]
    assert keyed["rows"] == {"inserted": 0, "updated": ROWS // 2, "deleted": ROWS // 100}
    assert plain["rows"] == {"inserted": ROWS // 4, "updated": 0, "deleted": ROWS // 4}
    assert peak < LIMIT_KIB
