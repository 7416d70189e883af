#!/usr/bin/python3
"""Writes the hand-made part of the corpus of kit_fuzz: a whole kit, and kits that lie in one place each.

usage: make_kit_corpus.py DIRECTORY
"""

from __future__ import annotations

import hashlib
import json
import sys
import tarfile
from pathlib import Path

Parts = list[tuple[dict[str, object], bytes]]


def member(name: str, content: bytes) -> bytes:
    info = tarfile.TarInfo(name)
    info.size = len(content)
    return info.tobuf(tarfile.USTAR_FORMAT) + content + bytes(-len(content) % 512)


def part(name: str, kind: str, content: bytes, **more: object) -> tuple[dict[str, object], bytes]:
    digest = hashlib.sha256(content).hexdigest()
    return {"name": name, "kind": kind, "size": len(content), "sha256": digest, **more}, content


def kit(parts: Parts, form: object = "tarndbud kit 1", names: dict[str, str] | None = None) -> bytes:
    table = json.dumps({"format": form, "parts": [described for described, _ in parts]}).encode()
    members = [(str(described["name"]), content) for described, content in parts]
    renamed = [member((names or {}).get(name, name), content) for name, content in members]
    return member("tarndbud-kit.json", table) + b"".join(renamed) + bytes(1024)


def main(arguments: list[str]) -> int:
    if len(arguments) != 1:
        print(__doc__.splitlines()[-2], file=sys.stderr)
        return 2
    document = part("database_info.json", "document", b'{"db_list": {}}')
    full = part("zones_v3.tarn", "full", b"full package", id="zones", data_version=3)
    diff = part("zones_d3.tarn", "diff", b"", id="zones", data_version=3)
    whole = kit([document, full, diff])
    damaged = bytearray(whole)
    damaged[whole.index(b"full package")] ^= 1
    outside = part("../x_v3.tarn", "full", b"x", id="../x", data_version=3)
    large = ({**full[0], "size": 1 << 40}, b"")
    inputs = {
        "whole": whole, "document-only": kit([document]), "no-parts": kit([]), "empty": b"", "cut": whole[:-1],
        "cut-table": whole[:700], "longer": whole + b"\0", "damaged": bytes(damaged), "format": kit([document], 2),
        "other-header": kit([document, full], names={"zones_v3.tarn": "zones_v4.tarn"}),
        "outside": kit([document, outside]), "large": kit([document, large]), "twice": kit([document, full, full]),
        "no-json": member("tarndbud-kit.json", b"{") + bytes(1024), "other-tar": member("x", b"x") + bytes(1024),
    }  # fmt: skip
    for name, content in inputs.items():
        (Path(arguments[0]) / name).write_bytes(content)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
