"""Repositories of many versions, written quickly: packages whose heads are as docs/formats.md has them, with holes for
content and nobody's signature, which is enough for whoever reads heads alone."""

from __future__ import annotations

import json
from pathlib import Path

from .packages import DATA_UPDATES, ENTRY, HEAD

BEGIN = 1_700_000_000
HOUR = 3600
FIRST = 1000
DIFFS = 60
LARGEST = 1 << 20


def write_package(path: Path, told: dict[str, object], size: int) -> None:
    text = json.dumps(told, sort_keys=True, separators=(",", ":")).encode()
    payload = max(1, min(size, LARGEST) - HEAD.size - len(text) - ENTRY.size - 64)
    head = HEAD.pack(b"TARNSAR1", DATA_UPDATES, 1, payload, 3, payload, len(text), 0)
    with path.open("wb") as file:
        file.write(head + text + ENTRY.pack(0, payload, payload, bytes(32)) + bytes(64))
        file.truncate(file.tell() + payload)


def write_versions(repository: Path, name: str, versions: int, url: str) -> dict[str, object]:
    """The packages of a database; returns what a document says about it."""
    directory = repository / "packages" / name
    directory.mkdir(parents=True)
    last = FIRST + versions - 1
    diffs = {}
    for version in range(FIRST, last + 1):
        told = {"id": name, "kind": "full", "data_version": version, "published": BEGIN + HOUR * version}
        told["notes"] = f"the {version}th release"
        write_package(directory / f"{name}_v{version}.tarn", told, 600_000 + version * 97 % 90_000)
        if version > max(FIRST, last - DIFFS):
            size = 2_000 + version * 7919 % 9_000
            told |= {"kind": "diff", "base_version": version - 1}
            write_package(directory / f"{name}_d{version}.tarn", told, size)
            link = f"{url}/packages/{name}/{name}_d{version}.tarn"
            diffs[str(version)] = {"download_link": link, "file_size": size}
    return {
        "data_version": str(last), "last_fetch_time": BEGIN + HOUR * last, "deprecated": False, "diff_files": diffs,
        "download_link": f"{url}/packages/{name}/{name}_v{last}.tarn",
    }  # fmt: skip


def write_repository(repository: Path, versions: dict[str, int], url: str = "http://127.0.0.1") -> None:
    """A repository whose default channel names these databases, each of so many versions."""
    entries = {name: write_versions(repository, name, count, url) for name, count in versions.items()}
    document = repository / "database_info/1"
    document.parent.mkdir(exist_ok=True)
    document.write_text(json.dumps({"deprecated": False, "db_list": entries}))
    (repository / "packages/.tarndbudpub.url").write_text(url + "\n")
