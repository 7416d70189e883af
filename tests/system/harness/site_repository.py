"""A repository that has something of everything that a site shows, and one whose every name is an attack on a page."""

from __future__ import annotations

import json
import random
import sqlite3
from collections.abc import Callable
from pathlib import Path

from .publisher import Publisher

MARKUP = '"><img src=x onerror="window.ran=1"><script>window.ran=1</script>'
# No file name holds a "/", so that elements are left open here.
FILE_MARKUP = "<img src=x onerror=window.ran=1><b>&amp;'\""


def sql(path: Path, script: str) -> None:
    with sqlite3.connect(path) as database:
        database.executescript(script)
    database.close()


def make_tree(tree: Path, table: str = "places", file: str = "list.txt") -> None:
    tree.mkdir()
    (tree / file).write_text("".join(f"entry {n}\n" for n in range(3000)))
    (tree / "bulk.bin").write_bytes(random.Random(1).randbytes(60_000))  # so that diff packages pay
    name = '"' + table.replace('"', '""') + '"'
    sql(tree / "a.sqlite", f"CREATE TABLE {name}(id INTEGER PRIMARY KEY, name TEXT);"
                           f"WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 900)"
                           f"INSERT INTO {name} SELECT i, 'place ' || i FROM n;")  # fmt: skip


def change_tree(tree: Path, version: int, table: str = "places", file: str = "list.txt", value: str = "Größe") -> None:
    with (tree / file).open("a") as lines:
        lines.writelines(f"line {n} of version {version}\n" for n in range(version * version))
    name = '"' + table.replace('"', '""') + '"'
    text = value.replace("'", "''")
    sql(tree / "a.sqlite", f"UPDATE {name} SET name = '{text} {version}' WHERE id % 100 = {version};"
                           f"INSERT INTO {name} VALUES ({1000 + version}, 'new'); DELETE FROM {name} WHERE id = {version}")  # fmt: skip


def publish_something_of_everything(
    publisher: Publisher, home: Path, before_each: Callable[[], None] = lambda: None
) -> None:
    """Two databases: one of several versions, with notes, a channel, and a version that was withdrawn.

    before_each is called before each release, for example to set its time.
    """
    tree = home / "places"
    make_tree(tree)
    for version in range(1000, 1006):
        before_each()
        publisher.publish(
            tree, "places", "--level", "1", "--notes", f"release {version}", *first(version), keep_diffs=30
        )
        change_tree(tree, version - 990)
    before_each()
    publisher.withdraw("places", "--to", "1004", "--level", "1", "--notes", "1005 lacked Berlin")
    before_each()
    publisher.publish(tree, "places", "--level", "1", "--channel", "canary", keep_diffs=30)
    single = home / "single"
    single.mkdir()
    (single / "one").write_text("one\n")
    publisher.publish(single, "single", "--level", "1", "--data-version", "1000")


def first(version: int) -> list[str]:
    return ["--data-version", "1000"] if version == 1000 else []


def publish_attacks(publisher: Publisher, home: Path) -> None:
    """Markup wherever a name, a note or a value can hold some."""
    tree = home / "attacks"
    make_tree(tree, MARKUP, FILE_MARKUP)
    for version in range(1000, 1003):
        publisher.publish(tree, "attacks", "--level", "1", "--notes", MARKUP, *first(version), keep_diffs=30)
        change_tree(tree, version - 999, MARKUP, FILE_MARKUP, MARKUP)
    text = publisher.document.read_text()
    document = json.loads(text)
    entry = document["db_list"]["attacks"]
    document["db_list"][MARKUP] = entry | {"download_link": "javascript:window.ran=1"}
    document["db_list"]["../../escaped"] = entry
    document["db_list"][FILE_MARKUP] = entry | {"download_link": f"https://example.org/{MARKUP}"}
    publisher.document.write_text(json.dumps(document))
    (publisher.repository / "database_info" / FILE_MARKUP).write_text(text)
    (publisher.repository / "database_info" / f"damaged{FILE_MARKUP}").write_text("{")
