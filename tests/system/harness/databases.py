"""SQLite files: making them, and telling what they hold."""

from __future__ import annotations

import shutil
import sqlite3
import tempfile
from collections.abc import Iterable
from pathlib import Path

MAGIC = b"SQLite format 3\0"

Row = tuple[object, ...]


def made(statements: Iterable[str], wal: bool = False) -> bytes:
    """A database file after these statements."""
    with tempfile.TemporaryDirectory() as directory:
        path = Path(directory, "made.sqlite")
        changed_at(path, ["PRAGMA journal_mode=WAL"] if wal else [])
        changed_at(path, statements)
        return path.read_bytes()


def changed(database: bytes, statements: Iterable[str]) -> bytes:
    with tempfile.TemporaryDirectory() as directory:
        path = Path(directory, "changed.sqlite")
        path.write_bytes(database)
        changed_at(path, statements)
        return path.read_bytes()


def changed_at(path: Path, statements: Iterable[str]) -> None:
    connection = sqlite3.connect(path, isolation_level=None)
    try:
        connection.execute("PRAGMA synchronous=OFF")
        for statement in statements:
            connection.execute(statement)
    finally:
        connection.close()


def journal_after(path: Path, statements: Iterable[str]) -> bytes:
    """The journal that a database in WAL mode would have after statements which do not reach its own file."""
    with tempfile.TemporaryDirectory() as directory:
        place = shutil.copyfile(path, Path(directory, "open.sqlite"))
        connection = sqlite3.connect(place, isolation_level=None)
        try:
            for statement in statements:
                connection.execute(statement)
            return place.with_name("open.sqlite-wal").read_bytes()
        finally:
            connection.close()


def content(path: Path) -> dict[str, list[Row]]:
    """The schema and every table's rows, with their ids and the exact types and values."""
    with tempfile.TemporaryDirectory() as directory:
        # Even a reader makes files beside a database in WAL mode.
        place = shutil.copyfile(path, Path(directory, "read.sqlite"))
        connection = sqlite3.connect(place)
        # Text that is no UTF-8 is content as well.
        connection.text_factory = bytes
        try:
            assert connection.execute("PRAGMA integrity_check").fetchall() == [(b"ok",)]
            return _content(connection)
        finally:
            connection.close()


def _content(connection: sqlite3.Connection) -> dict[str, list[Row]]:
    held = {
        pragma: connection.execute(f"PRAGMA {pragma}").fetchall()
        for pragma in ("encoding", "user_version", "application_id", "journal_mode")
    }
    held["schema"] = connection.execute("SELECT type, name, tbl_name, sql FROM sqlite_schema ORDER BY 1, 2").fetchall()
    for kind, name, _, _ in held["schema"]:
        if kind == b"table":
            held[f"table {name.decode()}"] = _rows(connection, name.decode())
    return held


def _rows(connection: sqlite3.Connection, table: str) -> list[Row]:
    without_rowid = connection.execute("SELECT wr FROM pragma_table_list(?)", (table,)).fetchone()[0]
    names = [row[0].decode() for row in connection.execute("SELECT name FROM pragma_table_info(?)", (table,))]
    columns = ["rowid"] * (not without_rowid) + [f'{part}("{name}")' for name in names for part in ("typeof", "")]
    return sorted(connection.execute(f'SELECT {", ".join(columns)} FROM "{table}"'), key=repr)
