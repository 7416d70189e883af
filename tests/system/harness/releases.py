"""A publisher over the years: a tree that changes, a repository that goes on, and keys that are exchanged."""

from __future__ import annotations

import json
import random
import shutil
import sqlite3
from collections import Counter
from pathlib import Path

from . import kept, programs
from .kept import NAME, Kept


class Releases:
    """Goes on with a repository that a release has left."""

    def __init__(self, home: Path, repository: Path, release: Kept, source: random.Random, url: str) -> None:
        self._home = home
        self._repository = repository
        self._source = source
        self._url = url
        self._key = release.place / "release.key"
        self._old_keys: list[Path] = []
        self._tree = home / "tree"
        self._good = home / "good"
        self._withdraw_to: int | None = None
        self.contents = {int(version): content for version, content in release.contents.items()}
        self.offered = self._newest()
        self.counts: Counter[str] = Counter()
        package = repository / f"packages/{NAME}/{NAME}_v{self.offered}.tarn"
        self._command("extract", package, self._tree, "--key", self.public_key)

    @property
    def public_key(self) -> Path:
        return self._key.with_suffix(".pub")

    def _command(self, *arguments: object) -> str:
        return programs.run_ok(programs.PUB, *map(str, arguments)).stdout

    def _signed_by(self, key: Path) -> list[object]:
        old = [part for old in self._old_keys for part in ("--old-key", old.with_suffix(".pub"))]
        return ["--repo", self._repository, "--key", key, *old]

    def _newest(self) -> int:
        return int(json.loads((self._repository / "database_info/1").read_text())["db_list"][NAME]["data_version"])

    def _offer(self) -> None:
        self.offered = self._newest()
        self.contents[self.offered] = kept.content(self._tree)

    def publish(self) -> None:
        self._change()
        self._command("publish", self._tree, *self._signed_by(self._key), "--id", NAME, "--url", self._url, "--level", "1")
        self._offer()
        self.counts["releases"] += 1

    def publish_bad(self) -> None:
        """Devices may come before it is withdrawn."""
        shutil.rmtree(self._good, ignore_errors=True)
        shutil.copytree(self._tree, self._good)
        good = self.offered
        self.publish()
        self._withdraw_to = good

    def has_bad_one_out(self) -> bool:
        return self._withdraw_to is not None

    def withdraw(self) -> None:
        shutil.rmtree(self._tree)
        self._good.rename(self._tree)
        self._command("withdraw", NAME, *self._signed_by(self._key), "--to", self._withdraw_to, "--level", "1")
        self._withdraw_to = None
        self._offer()
        self.counts["withdrawals"] += 1

    def exchange_key(self) -> None:
        """Devices must trust the new key before anything is signed with it."""
        number = self.counts["keys exchanged"] + 2
        self._old_keys.append(self._key)
        self._key = self._home / f"release{number}.key"
        self._command("keygen", self._key.with_suffix(""))
        self.counts["keys exchanged"] += 1

    def tidy(self) -> None:
        self._command("prune", "--repo", self._repository)
        self._command("check-repo", *self._signed_by(self.public_key))

    def _change(self) -> None:
        number = self._source.randrange(1 << 30)
        kind = self._source.randrange(5)
        days = sorted(self._tree.glob("day*"))
        if kind == 0:
            (self._tree / f"day{number % 40}").write_text(f"{number}\n" * self._source.randrange(1, 400))
        elif kind == 1 and days:
            days[number % len(days)].unlink()
        elif kind == 2:
            lines = (self._tree / "names.txt").read_text().splitlines()
            lines[number % len(lines)] = f"name {number}"
            (self._tree / "names.txt").write_text("\n".join(lines) + "\n")
        elif kind == 3:
            (self._tree / "bulk").write_bytes(self._source.randbytes(self._source.randrange(10_000, 40_000)))
        with sqlite3.connect(self._tree / "places.sqlite") as database:
            database.execute("UPDATE places SET name = ? WHERE id % 50 = ?", (f"place {number}", number % 50))
        database.close()
