"""What a diff package takes beside the same change carried by stock tools, file by file."""

from __future__ import annotations

import random
import shutil
import sqlite3
import subprocess
from collections.abc import Callable, Iterator
from pathlib import Path

LEVEL = 12  # of the stock compressor
SIZE_LIMIT = 0.92
DATABASE_FILE = "places.sqlite"
WORDS = "alpha beta gamma delta north south east west river lake hill road bridge station harbour market".split()


class Data:
    """Text files, binary files and one database, the same at every call; a change touches about 1 % of the bytes."""

    def __init__(self, root: Path, total_bytes: int) -> None:
        self._root = root
        self._chance = random.Random(3)
        self._texts = max(4, total_bytes * 2 // 5 // 100_000)
        self._binaries = max(2, total_bytes * 2 // 5 // 1_000_000)
        self._rows = max(1000, total_bytes // 5 // 90)

    def make(self) -> None:
        self._root.mkdir()
        for number in range(self._texts):
            lines = [self._line() for _ in range(2000)]
            (self._root / f"text{number:03}.txt").write_text("".join(lines))
        for number in range(self._binaries):
            (self._root / f"image{number:03}.bin").write_bytes(self._chance.randbytes(1_000_000))
        with sqlite3.connect(self._root / DATABASE_FILE) as database:
            database.execute("CREATE TABLE places(id INTEGER PRIMARY KEY, name TEXT, lat INTEGER, lon INTEGER)")
            database.executemany("INSERT INTO places VALUES(?, ?, ?, ?)", (self._row(i) for i in range(self._rows)))
            database.execute("CREATE INDEX by_name ON places(name)")
        database.close()

    def change(self) -> None:
        for number in self._chance.sample(range(self._texts), self._texts // 4):
            path = self._root / f"text{number:03}.txt"
            lines = path.read_text().splitlines(keepends=True)
            for at in self._chance.sample(range(len(lines)), 80):
                lines[at] = self._line()
            path.write_text("".join(lines))
        for number in self._chance.sample(range(self._binaries), self._binaries // 4):
            path = self._root / f"image{number:03}.bin"
            content = bytearray(path.read_bytes())
            for _ in range(10):
                at = self._chance.randrange(len(content))
                content[at : at + self._chance.randrange(2000)] = self._chance.randbytes(1000)
            path.write_bytes(content)
        with sqlite3.connect(self._root / DATABASE_FILE) as database:
            for row in self._chance.sample(range(self._rows), self._rows // 100):
                database.execute("UPDATE places SET name = ?, lat = ? WHERE id = ?", (*self._row(row)[1:3], row))
        database.close()

    def _line(self) -> str:
        return f"{' '.join(self._chance.choices(WORDS, k=5))} {self._chance.randrange(10**9)}\n"

    def _row(self, number: int) -> tuple[int, str, int, int]:
        name = " ".join(self._chance.choices(WORDS, k=3)) + f" {self._chance.randrange(10**6)}"
        return (number, name, self._chance.randrange(18 * 10**8), self._chance.randrange(36 * 10**8))


def run(*command: object) -> None:
    subprocess.run(list(map(str, command)), check=True, stdout=subprocess.DEVNULL)


def xdelta3(old: Path, new: Path, patch: Path) -> None:
    window = 1 << max(19, old.stat().st_size.bit_length())
    run("xdelta3", "-e", "-9", "-f", "-S", "none", "-I", "0", "-B", window, "-W", 1 << 24, "-s", old, new, patch)


def bsdiff(old: Path, new: Path, patch: Path) -> None:
    run("bsdiff", old, new, patch)


def zstd_patch(old: Path, new: Path, patch: Path) -> None:
    run("zstd", "-qq", "-f", "-19", "--long=27", f"--patch-from={old}", new, "-o", patch)


def script_or_xdelta3(old: Path, new: Path, patch: Path) -> None:
    if old.name != DATABASE_FILE:
        xdelta3(old, new, patch)
        return
    with patch.open("wb") as script:
        subprocess.run(["sqldiff", str(old), str(new)], check=True, stdout=script)


PEERS: dict[str, Callable[[Path, Path, Path], None]] = {
    "xdelta3 per file": xdelta3,
    "bsdiff per file": bsdiff,
    "zstd --patch-from per file": zstd_patch,
    "sqldiff for the database, xdelta3 per file": script_or_xdelta3,
}


def packed_size(encode: Callable[[Path, Path, Path], None], old: Path, new: Path, scratch: Path) -> int:
    """Bytes of all patches of the changed files in one tar, compressed by zstd."""
    patches = scratch / "patches"
    patches.mkdir()
    for path in sorted(new.iterdir()):
        if path.read_bytes() != (old / path.name).read_bytes():
            encode(old / path.name, path, patches / path.name)
    package = scratch / "patches.tar.zst"
    run("tar", "--sort=name", "-C", patches, f"-Izstd -{LEVEL}", "-cf", package, ".")
    shutil.rmtree(patches)
    return package.stat().st_size


def compare(publisher, scratch: Path, total_bytes: int) -> Iterator[dict[str, object]]:
    old, new = scratch / "old", scratch / "new"
    data = Data(new, total_bytes)
    data.make()
    publisher.publish(new, "sizes", keep_diffs=1)
    shutil.copytree(new, old)
    data.change()
    publisher.publish(new, "sizes", keep_diffs=1)
    ours = publisher.entry("sizes")["diff_files"]["2"]["file_size"]
    for name, encode in PEERS.items():
        peer = packed_size(encode, old, new, scratch)
        yield {"what": f"diff package ({name})", "ours": ours / 1000, "peer": peer / 1000, "limit": SIZE_LIMIT, "unit": "k"}
    shutil.rmtree(old)
    shutil.rmtree(new)
