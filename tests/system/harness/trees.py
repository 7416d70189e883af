"""Making data to publish, and telling whether exactly that is installed."""

from __future__ import annotations

import hashlib
import os
import random
import shutil
import sqlite3
from pathlib import Path

BLOCK = 1 << 20


def write_tree(root: Path, files: dict[str, bytes]) -> Path:
    """Makes root hold exactly these files."""
    shutil.rmtree(root, ignore_errors=True)
    for name, content in files.items():
        path = root / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(content)
    return root


def write_random_tree(root: Path, seed: int, count: int, size: int) -> Path:
    """Files that do not compress, in directories of twenty: the same ones for the same seed."""
    source = random.Random(seed)
    return write_tree(
        root, {f"part{number // 20:03}/file{number:05}.bin": source.randbytes(size) for number in range(count)}
    )


def write_database(path: Path, rows: int) -> None:
    path.parent.mkdir(parents=True, exist_ok=True)
    path.unlink(missing_ok=True)
    with sqlite3.connect(path) as connection:
        connection.execute("CREATE TABLE entries (id INTEGER PRIMARY KEY, name TEXT)")
        connection.executemany("INSERT INTO entries (name) VALUES (?)", ((f"entry {n}",) for n in range(rows)))
    connection.close()


def directories(root: Path) -> set[str]:
    """The names of the directories below root."""
    return {str(Path(directory).relative_to(root)) for directory, _, _ in os.walk(root)} - {"."}


def directories_of_files(root: Path) -> set[str]:
    """The same without those in which no file is, however deep."""
    return {str(parent) for name in contents(root) for parent in Path(name).parents} - {"."}


def executables(root: Path) -> set[str]:
    """The names of the files below root that may be executed."""
    files = (Path(directory, name) for directory, _, names in os.walk(root) for name in names)
    return {str(path.relative_to(root)) for path in files if path.stat().st_mode & 0o111}


def digest(path: Path, algorithm: str = "sha256") -> str:
    state = hashlib.new(algorithm)
    with path.open("rb") as stream:
        while block := stream.read(BLOCK):
            state.update(block)
    return state.hexdigest()


def contents(root: Path) -> dict[str, str]:
    """Each regular file's name below root (links followed to files) and its digest."""
    found: dict[str, str] = {}
    for directory, _, names in os.walk(root):
        for name in names:
            path = Path(directory, name)
            found[str(path.relative_to(root))] = digest(path)
    return found


def served(repository: Path) -> dict[str, str]:
    """What a web server serves of a repository: nothing whose name begins with a dot."""
    files = contents(repository)
    return {name: digest for name, digest in files.items() if not any(part[0] == "." for part in Path(name).parts)}


def assert_same(published: Path, installed: Path) -> None:
    expected, actual = contents(published), contents(installed)
    missing = sorted(expected.keys() - actual.keys())
    foreign = sorted(actual.keys() - expected.keys())
    changed = sorted(name for name in expected.keys() & actual.keys() if expected[name] != actual[name])
    assert (missing, foreign, changed) == ([], [], []), (
        f"{installed} differs from {published}: missing {missing[:5]}, foreign {foreign[:5]}, changed {changed[:5]}"
    )


def assert_holds(installed: Path, files: dict[str, bytes]) -> None:
    """That exactly these files are installed."""
    actual = {name: (installed / name).read_bytes() for name in contents(installed)}
    differing = sorted(name for name in files.keys() | actual.keys() if files.get(name) != actual.get(name))
    assert differing == [], f"{installed} differs in {len(differing)} files: {differing[:5]}"
