"""Kits, taken apart and made by hand as docs/formats.md describes them."""

from __future__ import annotations

import hashlib
import json
import tarfile
from pathlib import Path

TABLE = "tarndbud-kit.json"
DOCUMENT = "database_info.json"


def members(kit: Path) -> dict[str, bytes]:
    """What any tar program finds in a kit, in the order of the file."""
    with tarfile.open(kit, "r:") as archive:
        found = {}
        for member in archive:
            stream = archive.extractfile(member)
            assert stream is not None, member.name
            found[member.name] = stream.read()
        return found


def packages(kit: Path) -> list[str]:
    """The names of the packages."""
    return [name for name in members(kit) if name not in (TABLE, DOCUMENT)]


def table(kit: Path) -> dict[str, object]:
    return json.loads(members(kit)[TABLE])


def offset(kit: Path, name: str) -> int:
    """Where the content of a member begins."""
    with tarfile.open(kit, "r:") as archive:
        return archive.getmember(name).offset_data


def damage(kit: Path, name: str, change: int = 0x40) -> None:
    """Changes a byte in the middle of a member's content."""
    content = bytearray(kit.read_bytes())
    content[offset(kit, name) + len(members(kit)[name]) // 2] ^= change
    kit.write_bytes(content)


def _member(name: str, content: bytes) -> bytes:
    info = tarfile.TarInfo(name)
    info.size = len(content)
    return info.tobuf(tarfile.USTAR_FORMAT) + content + bytes(-len(content) % 512)


def write(kit: Path, document: object, parts: list[tuple[str, str, int, bytes]]) -> Path:
    """Makes a kit of packages, each a kind, a database, a version and its bytes."""
    text = json.dumps(document).encode()
    described: list[dict[str, object]] = [{"name": DOCUMENT, "kind": "document"}]
    contents = [text]
    for kind, name, version, content in parts:
        letter = "d" if kind == "diff" else "v"
        described.append({"name": f"{name}_{letter}{version}.tarn", "kind": kind, "id": name, "data_version": version})
        contents.append(content)
    for part, content in zip(described, contents):
        part |= {"size": len(content), "sha256": hashlib.sha256(content).hexdigest()}
    whole = _member(TABLE, json.dumps({"format": "tarndbud kit 1", "parts": described}).encode())
    for part, content in zip(described, contents):
        whole += _member(str(part["name"]), content)
    kit.write_bytes(whole + bytes(1024))
    return kit
