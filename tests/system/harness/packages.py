"""Another publisher, written from docs/formats.md and from nothing else.

It shows that the description suffices, and it writes what tarndbudpub never would. Nothing here checks anything: each
part takes what the test wants it to hold.
"""

from __future__ import annotations

import hashlib
import io
import json
import struct
import subprocess
import tarfile
import time
from collections.abc import Mapping
from dataclasses import dataclass
from pathlib import Path

from . import vcdiff

FRAME = 1 << 20
STORED, ZSTD = 0, 1
SIGNED_TEXT = b"tarn signed archive 1\n"
HEAD = struct.Struct("<8sIIQQQII")
ENTRY = struct.Struct("<III32s")
DATA_UPDATES = 6
DESCRIPTION = "patch_infos.json"


class Key:
    """An Ed25519 key pair, made and used by openssl."""

    def __init__(self, prefix: Path) -> None:
        prefix.parent.mkdir(parents=True, exist_ok=True)
        self.private = prefix.with_suffix(".key")
        self.public = prefix.with_suffix(".pub")
        _openssl("genpkey", "-algorithm", "ed25519", "-out", self.private)
        _openssl("pkey", "-in", self.private, "-pubout", "-out", self.public)

    def sign(self, text: bytes) -> bytes:
        # This kind of signature needs the length of its text beforehand, so a file instead of standard input.
        place = self.private.with_suffix(".text")
        place.write_bytes(text)
        return _openssl("pkeyutl", "-sign", "-rawin", "-inkey", self.private, "-in", place)


def _openssl(*arguments: str | Path) -> bytes:
    return subprocess.run(["openssl", *map(str, arguments)], check=True, stdout=subprocess.PIPE).stdout


@dataclass(frozen=True)
class Member:
    """A member of a tar: a regular file, or a symbolic link when it has a target."""

    content: bytes = b""
    executable: bool = False
    target: str | None = None


Content = bytes | Member


def archive(key: Key, members: Mapping[str, Content], told: Mapping[str, object] | bytes) -> bytes:
    """A signed archive that holds these members in byte order of their names, and tells this about itself."""
    plain = {name: member if isinstance(member, Member) else Member(member) for name, member in members.items()}
    frames = _frames(_tar(plain))
    payload = b"".join(packed for _, packed in frames)
    text = told if isinstance(told, bytes) else json.dumps(told, sort_keys=True, separators=(",", ":")).encode()
    table = b"".join(entry for entry, _ in frames)
    unpacked = sum(len(member.content) for member in plain.values())
    head = HEAD.pack(b"TARNSAR1", DATA_UPDATES, len(frames), len(payload), len(plain), unpacked, len(text), 0)
    signed = head + text + table
    return signed + key.sign(SIGNED_TEXT + signed) + payload


def metadata(name: str, version: int, kind: str = "full") -> dict[str, object]:
    """What a package must say about itself to be the one that a device asks for."""
    told: dict[str, object] = {
        "data_version": version, "format_version": "1", "id": name, "kind": kind, "published": int(time.time()),
    }  # fmt: skip
    if kind == "diff":
        told["base_version"] = version - 1
    return told


def _tar(members: Mapping[str, Member]) -> bytes:
    stream = io.BytesIO()
    with tarfile.open(fileobj=stream, mode="w", format=tarfile.GNU_FORMAT) as tar:
        for name in sorted(members, key=str.encode):
            member = members[name]
            info = tarfile.TarInfo(name)
            info.mode = 0o755 if member.executable else 0o644
            if member.target is None:
                info.size = len(member.content)
            else:
                info.type, info.linkname = tarfile.SYMTYPE, member.target
            tar.addfile(info, io.BytesIO(member.content))
    return stream.getvalue()


def _frames(tar: bytes) -> list[tuple[bytes, bytes]]:
    """Pieces of the tar, compressed, each behind its entry in the table."""
    frames = []
    for begin in range(0, len(tar), FRAME):
        piece = tar[begin : begin + FRAME]
        packed = _compress(piece)
        codec = ZSTD if len(packed) < len(piece) else STORED
        packed = packed if codec == ZSTD else piece
        frames.append((ENTRY.pack(codec, len(packed), len(piece), hashlib.sha256(packed).digest()), packed))
    return frames


def _compress(piece: bytes) -> bytes:
    return subprocess.run(
        ["zstd", "--quiet", "--single-thread", "-3", "--stdout"], input=piece, check=True, stdout=subprocess.PIPE
    ).stdout


class Diff:
    """What a diff package holds: a description and the files that it names."""

    def __init__(self) -> None:
        self.infos: dict[str, object] = {}
        self.members: dict[str, Content] = {}

    def member(self, name: str, operation: object, input_file: object = "") -> Diff:
        """One entry of the description, whatever it says."""
        self.infos[name] = {"operation": operation, "input_file": input_file}
        return self

    def carry(self, place: str, content: Content) -> Diff:
        """One file of the package."""
        self.members[place] = content
        return self

    def _with(self, name: str, operation: str, extension: str, content: Content) -> Diff:
        place = f"files/{len(self.infos):06}{extension}"
        return self.carry(place, content).member(name, operation, place)

    def create(self, name: str, content: Content) -> Diff:
        return self._with(name, "create", ".new", content)

    def patch(self, name: str, old: bytes, new: bytes, extension: str = ".vcdiff") -> Diff:
        return self._with(name, "update", extension, vcdiff.encode(old, new))

    def script(self, name: str, *statements: str) -> Diff:
        text = "".join(statement + "\n" for statement in statements)
        return self._with(name, "update", ".sqlitediff", text.encode())

    def delete(self, name: str) -> Diff:
        return self.member(name, "delete")

    @staticmethod
    def between(old: Mapping[str, bytes], new: Mapping[str, bytes]) -> Diff:
        """Patches for what changed, whole files for what came, deletions for what went."""
        diff = Diff()
        for name in sorted(old.keys() | new.keys()):
            if name not in new:
                diff.delete(name)
            elif name not in old:
                diff.create(name, new[name])
            elif old[name] != new[name]:
                diff.patch(name, old[name], new[name])
        return diff

    def archive(self, key: Key, told: Mapping[str, object]) -> bytes:
        description = json.dumps(self.infos, ensure_ascii=False).encode()
        return archive(key, {DESCRIPTION: description, **self.members}, told)


class HandPublisher:
    """Publishes packages in a repository that a web server serves."""

    def __init__(self, home: Path, repository: Path, base: str) -> None:
        self.key = Key(home / "hand")
        self.base = base
        self._repository = repository
        self._entries: dict[str, dict[str, object]] = {}

    def package(self, name: str, part: str) -> Path:
        """The place of a package, whose part is "v<version>" for a full one and "d<version>" for a diff."""
        return self._repository / f"packages/{name}/{name}_{part}.tarn"

    def link(self, name: str, part: str) -> str:
        return f"{self.base}/packages/{name}/{name}_{part}.tarn"

    def entry(self, name: str) -> dict[str, object]:
        return self._entries[name]

    def full(self, name: str, version: int, files: Mapping[str, Content]) -> None:
        """Publishes a version by its full package; the diff packages that are offered stay."""
        self.full_of(name, version, archive(self.key, files, metadata(name, version)))

    def full_of(self, name: str, version: int, archive: bytes) -> None:
        """Offers these bytes as the full package of a version."""
        self._write(self.package(name, f"v{version}"), archive)
        self._entries[name] = {
            "data_version": str(version),
            "last_fetch_time": int(time.time()),
            "deprecated": False,
            "download_link": self.link(name, f"v{version}"),
            "diff_files": self._entries.get(name, {}).get("diff_files", {}),
        }
        self.write_document()

    def diff(self, name: str, version: int, diff: Diff, key: Key | None = None) -> None:
        """Offers a diff package that leads to a version; the full package is published apart."""
        self.diff_of(name, version, diff.archive(key or self.key, metadata(name, version, "diff")))

    def diff_of(self, name: str, version: int, archive: bytes) -> None:
        """Offers these bytes as a diff package."""
        self._write(self.package(name, f"d{version}"), archive)
        self.offer(name, version, self.link(name, f"d{version}"), len(archive))

    def offer(self, name: str, version: int, link: str, size: int) -> None:
        offered = self._entries[name]["diff_files"]
        assert isinstance(offered, dict)
        offered[str(version)] = {"download_link": link, "file_size": size}
        self.write_document()

    def write_document(self) -> None:
        document = {"db_list": self._entries, "deprecated": False}
        self._write(self._repository / "database_info/1", json.dumps(document).encode())

    @staticmethod
    def _write(path: Path, content: bytes) -> None:
        path.parent.mkdir(parents=True, exist_ok=True)
        part = path.with_name(f".{path.name}.part")
        part.write_bytes(content)
        part.replace(path)
