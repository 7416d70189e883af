"""Trees that tell by themselves whether they are one version whole. As a program, a reader of one.

A manifest has the digest of every file; a database says its version in every row. All of it changes with each version,
but for what lies in "steady". What a test damages lies in "victims", and can be told from what an update did.
"""

from __future__ import annotations

import hashlib
import json
import os
import random
import sqlite3
import sys
import time
from pathlib import Path

MANIFEST = "manifest.json"
TABLE = "counters.sqlite"
DAMAGE = b"DAMAGED"
VICTIMS = tuple(f"victims/{number}" for number in range(4))
MOVING, FLEETING, STEADY, ROWS = 20, 5, 10, 500
PAUSE_SECONDS = 0.1
MIXED = 9
"""How the reader ends when what it sees is not one version."""


def made(seed: str, version: int) -> dict[str, bytes]:
    """The files of a version, but for the manifest and the table."""
    blocks = random.Random(seed)
    text = f"version {version}\n".encode() * version
    files = {f"moving/{n:02}": blocks.randbytes(20_000) + text + blocks.randbytes(9_000) for n in range(MOVING)}
    files |= {f"steady/{number:02}": blocks.randbytes(10_000) for number in range(STEADY)}
    files |= {name: blocks.randbytes(5_000) + text for name in VICTIMS}
    files |= {f"only in {version}/{number}": text for number in range(FLEETING)}
    return files


def write(root: Path, seed: str, version: int) -> None:
    """Makes root, a new directory, hold a version."""
    files = made(seed, version)
    for name, content in files.items():
        (root / name).parent.mkdir(parents=True, exist_ok=True)
        (root / name).write_bytes(content)
    digests = {name: hashlib.sha256(content).hexdigest() for name, content in files.items()}
    (root / MANIFEST).write_text(json.dumps({"version": version, "digests": digests}))
    connection = sqlite3.connect(root / TABLE)
    with connection:
        connection.execute("CREATE TABLE counters (id INTEGER PRIMARY KEY, version INTEGER)")
        connection.executemany("INSERT INTO counters (version) VALUES (?)", [(version,)] * ROWS)
    connection.close()


def is_damaged(path: Path) -> bool:
    """Whether a test has damaged or removed a file and nothing has mended it yet."""
    return _content(path).startswith(DAMAGE)


def _content(path: Path) -> bytes:
    try:
        return path.read_bytes()
    except FileNotFoundError:
        return DAMAGE


def version(root: Path, may_be_damaged: bool = True) -> int:
    """The one version that a tree is; ValueError says what does not belong to it."""
    manifest = (root / MANIFEST).read_text()
    expected: dict[str, str] = json.loads(manifest)["digests"]
    found = {str(Path(directory, name).relative_to(root)) for directory, _, names in os.walk(root) for name in names}
    missing, foreign = expected.keys() - found, found - expected.keys() - {MANIFEST, TABLE}
    if may_be_damaged:
        missing -= set(VICTIMS)
    if missing or foreign:
        raise ValueError(f"missing {sorted(missing)[:5]}, foreign {sorted(foreign)[:5]}")
    for name in sorted(expected.keys() & found):
        content = _content(root / name)
        damaged = may_be_damaged and name in VICTIMS and content.startswith(DAMAGE)
        if not damaged and hashlib.sha256(content).hexdigest() != expected[name]:
            raise ValueError(f"{name} is of another version")
    number = int(json.loads(manifest)["version"])
    _check_table(root / TABLE, number)
    if (root / MANIFEST).read_text() != manifest:
        raise ValueError("it changed meanwhile")
    return number


def _check_table(path: Path, number: int) -> None:
    # A reader must leave no file beside it.
    connection = sqlite3.connect(f"file:{path}?mode=ro&immutable=1", uri=True)
    rows = connection.execute("SELECT version, count(*) FROM counters GROUP BY version").fetchall()
    connection.close()
    if rows != [(number, ROWS)]:
        raise ValueError(f"the table holds {rows[:5]}, not {ROWS} rows of version {number}")


if __name__ == "__main__":
    try:
        seen = version(Path(sys.argv[1]))
        # Files are replaced within milliseconds, which a reader that is as quick would hardly ever meet.
        time.sleep(PAUSE_SECONDS)
        if version(Path(sys.argv[1])) != seen:
            raise ValueError(f"it was version {seen} before")
        print(seen)
    except (OSError, ValueError, sqlite3.Error) as error:
        print(f"{sys.argv[1]} is not one version: {error}", file=sys.stderr)
        sys.exit(MIXED)
