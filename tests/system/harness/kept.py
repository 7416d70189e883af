"""What a release has written, kept so that every later release can be held against it."""

from __future__ import annotations

import hashlib
import json
import shutil
import tarfile
from pathlib import Path

from . import databases, trees
from .device import CACHE, CONFIGURATION, KEYS, STATUS, VOLUMES

PLACE = Path(__file__).resolve().parents[2] / "kept"
NAME = "zones"
VOLUME = Path("/srv/kept-volume")
NETLOC = "updates.example"
"""Stands for the server's address in what is kept."""
WRITTEN = (STATUS, CACHE, CONFIGURATION, KEYS, VOLUMES, VOLUME)
"""Where a device has what it wrote, or was given."""


def content(tree: Path) -> dict[str, str]:
    """Each file's digest; of a database the digest of what it holds, because its bytes depend on SQLite's release."""
    return {
        name: _digest_of_rows(tree / name) if name.endswith(".sqlite") else digest
        for name, digest in trees.contents(tree).items()
    }


def _digest_of_rows(path: Path) -> str:
    return hashlib.sha256(repr(sorted(databases.content(path).items())).encode()).hexdigest()


def move(root: Path, old: str, new: str) -> None:
    """Changes the server's address in every text below a directory, or in a file."""
    for path in [root] if root.is_file() else root.rglob("*"):
        if path.is_file() and path.suffix in ("", ".json", ".conf", ".url"):
            path.write_bytes(path.read_bytes().replace(old.encode(), new.encode()))


def pack(archive: Path, root: Path, *paths: Path) -> None:
    def roots_own(member: tarfile.TarInfo) -> tarfile.TarInfo:
        member.uid = member.gid = 0
        member.uname = member.gname = ""
        return member

    with tarfile.open(archive, "w:xz") as tar:
        for path in filter(Path.exists, paths):
            tar.add(path, path.relative_to(root), filter=roots_own)


def unpack(archive: Path, root: Path) -> None:
    root.mkdir(parents=True, exist_ok=True)
    with tarfile.open(archive, "r:xz") as tar:
        tar.extractall(root, numeric_owner=True)


class Kept:
    """What one release has written."""

    def __init__(self, place: Path) -> None:
        self.place = place
        self.kit = place / "zones.kit"
        self.contents: dict[str, dict[str, str]] = json.loads((place / "contents.json").read_text())

    def repository(self, to: Path, netloc: str) -> Path:
        unpack(self.place / "repository.tar.xz", to)
        move(to, NETLOC, netloc)
        return to

    def device(self, state: str, netloc: str) -> None:
        """Makes this machine the device that it was."""
        unpack(self.place / f"{state}.tar.xz", Path("/"))
        for path in WRITTEN[:-1]:
            move(path, NETLOC, netloc)

    def assert_installed(self, version: int) -> None:
        assert content(VOLUME / "@database/autoupdate" / NAME) == self.contents[str(version)]


def releases() -> list[Kept]:
    return [Kept(place) for place in sorted(PLACE.iterdir()) if place.is_dir()]


def forget_device() -> None:
    shutil.rmtree(VOLUME, ignore_errors=True)
