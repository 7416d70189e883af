"""Random trees of all kinds of files, and random edits of them; the same ones for the same source."""

from __future__ import annotations

import random
import shutil
from collections.abc import Callable
from pathlib import Path

from . import databases

FOLDERS = ("", "zones/", "zones/deep/er/", "a b/", "Größe/東京/", "x.d/", "x_d/")
NAMES = (
    "data", "names", "liste", "файл", "with blank", "v1.2", "quote'd", "per%cent", "-dash", "tab\there", "zones", "x.d",
)  # fmt: skip
VALUES = ("NULL", "17", "-9223372036854775808", "1.5e300", "0.1", "''", "'it''s; quoted'", "x'00ff0a0d'", "'東京'")
LINE_BREAKS = ("'two' || char(10) || 'lines'", "'end' || char(13)", "'a' || char(0) || 'b'")
DATABASE_ENDING = ".sqlite"
JOURNAL_ENDING = DATABASE_ENDING + "-wal"


def journal_of(database: Path) -> Path:
    return database.with_name(database.name + "-wal")


class Tree:
    """A directory tree that changes at random."""

    def __init__(self, root: Path, source: random.Random) -> None:
        self.root = root
        self._source = source
        self._edits: list[tuple[int, Callable[[], None]]] = [
            (4, self.add), (3, self.add_database), (10, self.change_bytes), (4, self.insert), (3, self.truncate),
            (3, self.delete), (2, self.rename), (2, self.replace), (2, self.flip_executable), (2, self.make_empty),
            (12, self.change_rows), (4, self.make_again), (1, self.change_schema), (1, self.file_to_folder), (1, self.leave_journal),
            (2, self.empty_folder),
        ]  # fmt: skip

    def fill(self) -> None:
        self.root.mkdir(parents=True)
        for _ in range(self._source.randint(4, 12)):
            self.add()
        for _ in range(self._source.randint(1, 3)):
            self.add_database()

    def edit(self, count: int) -> None:
        weights = [weight for weight, _ in self._edits]
        for _ in range(count):
            [(_, edit)] = self._source.choices(self._edits, weights)
            edit()
        if not self.files():
            self.add()

    def files(self) -> list[Path]:
        """All but the journals, which belong to their databases."""
        found = (path for path in self.root.rglob("*") if path.is_file())
        return sorted(path for path in found if not path.name.endswith(JOURNAL_ENDING))

    def _plain(self) -> list[Path]:
        return [path for path in self.files() if path.suffix != DATABASE_ENDING]

    def _databases(self) -> list[Path]:
        return [path for path in self.files() if path.suffix == DATABASE_ENDING]

    def _pick(self, paths: list[Path]) -> Path | None:
        return self._source.choice(paths) if paths else None

    def _new_path(self, ending: str = "") -> Path | None:
        path = self.root / (self._source.choice(FOLDERS) + self._source.choice(NAMES) + ending)
        if path.is_dir() and not any(entry.is_file() for entry in path.rglob("*")):
            shutil.rmtree(path)
        if path.exists() or any(parent.is_file() for parent in path.parents):
            return None
        path.parent.mkdir(parents=True, exist_ok=True)
        return path

    def _content(self) -> bytes:
        size = self._source.choice((0, 1, 30, 3000, 40000, 200000))
        if self._source.random() < 0.5:
            return self._source.randbytes(size)
        line = b"".join(b"line %d of this text\n" % self._source.randrange(1000) for _ in range(size // 20 + 1))
        return line[:size]

    def add(self) -> None:
        path = self._new_path(self._source.choice(("", ".bin", ".txt")))
        if path:
            path.write_bytes(self._content())
            path.chmod(self._source.choice((0o644, 0o644, 0o644, 0o755)))

    def _rewrite(self, change: Callable[[bytes, int], bytes]) -> None:
        path = self._pick(self._plain())
        if path:
            content = path.read_bytes()
            path.write_bytes(change(content, self._source.randint(0, len(content))))

    def change_bytes(self) -> None:
        patch = self._source.randbytes(self._source.randint(1, 20))
        self._rewrite(lambda content, at: content[:at] + patch + content[at + len(patch) :])

    def insert(self) -> None:
        added = self._content()
        self._rewrite(lambda content, at: content[:at] + added + content[at:])

    def truncate(self) -> None:
        self._rewrite(lambda content, at: content[:at])

    def replace(self) -> None:
        other = self._content()
        self._rewrite(lambda content, at: other)

    def make_empty(self) -> None:
        self._rewrite(lambda content, at: b"")

    def delete(self) -> None:
        path = self._pick(self.files())
        if path:
            path.unlink()
            journal_of(path).unlink(missing_ok=True)

    def rename(self) -> None:
        path = self._pick(self.files())
        target = path and self._new_path(path.suffix)
        if path and target:
            path.rename(target)
            journal_of(path).unlink(missing_ok=True)

    def flip_executable(self) -> None:
        path = self._pick(self.files())
        if path:
            path.chmod(path.stat().st_mode ^ 0o111)

    def file_to_folder(self) -> None:
        path = self._pick(self._plain())
        if path:
            content = path.read_bytes()
            path.unlink()
            path.mkdir()
            (path / "inside").write_bytes(content)

    def empty_folder(self) -> None:
        """Deletes all files below a directory, which stays or goes itself."""
        path = self._pick(sorted(path for path in self.root.rglob("*") if path.is_dir()))
        if path:
            shutil.rmtree(path)
            if self._source.random() < 0.5:
                path.mkdir()

    def add_database(self) -> None:
        path = self._new_path(DATABASE_ENDING)
        if path:
            wal = ["PRAGMA journal_mode=WAL"] if self._source.random() < 0.3 else []
            table = self._source.choice((
                "CREATE TABLE t (id INTEGER PRIMARY KEY, a, b)", "CREATE TABLE t (id, a, b)",
                "CREATE TABLE t (id TEXT, a, b, PRIMARY KEY (id)) WITHOUT ROWID",
                "CREATE TABLE t (id INT UNIQUE, a REAL, b)",
                "CREATE TABLE t (key INTEGER PRIMARY KEY AUTOINCREMENT, id INT UNIQUE, a, b, c AS (a || b) STORED)",
                "CREATE TABLE t (id TEXT UNIQUE COLLATE NOCASE, a REFERENCES t (id), b, c AS (length(a)))",
            ))  # fmt: skip
            rows = self._source.choice((0, 5, 300, 1500, 4000))
            inserts = [self._insertion(number) for number in range(rows)]
            databases.changed_at(path, [*wal, table, "BEGIN", *inserts, "COMMIT"])

    def _value(self) -> str:
        source = self._source
        if source.random() < 0.03:
            return source.choice(LINE_BREAKS)
        if source.random() < 0.4:
            return source.choice(VALUES)
        if source.random() < 0.03:
            return f"{source.random():.17g}"
        return source.choice((str(source.randrange(10**9)), f"'text {source.randrange(10**6)}'"))

    def _insertion(self, number: int) -> str:
        return f"INSERT OR IGNORE INTO t (id, a, b) VALUES ({number}, {self._value()}, {self._value()})"

    def change_rows(self) -> None:
        path = self._pick(self._databases())
        if path:
            changes = [self._row_change() for _ in range(self._source.randint(1, 12))]
            databases.changed_at(path, ["BEGIN", *changes, "COMMIT"])

    def _row_change(self) -> str:
        number = self._source.randrange(4000)
        return self._source.choice((
            self._insertion(number + 2500), f"DELETE FROM t WHERE id = {number}",
            f"UPDATE t SET a = {self._value()} WHERE id = {number}",
            f"UPDATE t SET b = {self._value()} WHERE id BETWEEN {number} AND {number + 5}",
        ))  # fmt: skip

    def make_again(self) -> None:
        """All rows again, some of them gone or changed, in an order that gives most of them another row id."""
        path = self._pick(self._databases())
        if path:
            columns = self._source.choice(("id, a, b", "id, b AS a, a AS b", "id, a, 'again' AS b"))
            order = self._source.choice(("id", "id DESC", "CAST(id AS INTEGER) % 1000, id", "b, id"))
            databases.changed_at(path, [
                "BEGIN", f"CREATE TEMP TABLE k AS SELECT {columns} FROM t WHERE id % 100 <> {self._source.randrange(150)}", "DELETE FROM t",
                *[self._insertion(self._source.randrange(4000)) for _ in range(self._source.randint(0, 3))],
                f"INSERT OR IGNORE INTO t (id, a, b) SELECT * FROM k ORDER BY {order}", "DROP TABLE k", "COMMIT",
                *self._source.choice(([], ["VACUUM"])),
            ])  # fmt: skip

    def change_schema(self) -> None:
        path = self._pick(self._databases())
        if path:
            name = f"extra{self._source.randrange(1000)}"
            databases.changed_at(path, [self._source.choice((
                f"CREATE TABLE IF NOT EXISTS {name} (k, v)", f"CREATE INDEX IF NOT EXISTS {name}_i ON t (a)",
                f"PRAGMA user_version = {self._source.randrange(100)}", "VACUUM", "PRAGMA journal_mode = WAL",
                f"CREATE TRIGGER IF NOT EXISTS {name}_t AFTER DELETE ON t BEGIN DELETE FROM t WHERE b = 1; END",
            ))])  # fmt: skip

    def leave_journal(self) -> None:
        """As when the tree is copied while somebody has the database open."""
        path = self._pick(self._databases())
        if path:
            databases.changed_at(path, ["PRAGMA journal_mode = WAL"])
            kept = databases.journal_after(path, [self._row_change() for _ in range(5)])
            journal_of(path).write_bytes(kept)
