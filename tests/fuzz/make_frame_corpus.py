#!/usr/bin/python3
"""Writes frames of every codec, good and hostile, to begin fuzzing with: make_frame_corpus.py DIRECTORY

Needs the programs zstd and brotli. The input's form is described in frame_fuzz.h.
"""

from __future__ import annotations

import bz2
import lzma
import subprocess
import sys
from pathlib import Path

STORED, ZSTD, BROTLI, LZMA, BZIP2 = range(5)


def _filter(program: list[str], text: bytes) -> bytes:
    return subprocess.run(program, input=text, check=True, stdout=subprocess.PIPE).stdout


def _lzma(text: bytes) -> bytes:
    filters = [{"id": lzma.FILTER_LZMA2, "preset": 9, "dict_size": max(4096, len(text))}]
    return lzma.compress(text, format=lzma.FORMAT_RAW, filters=filters)


def pack(codec: int, text: bytes) -> bytes:
    if codec == ZSTD:
        return _filter(["zstd", "-q", "-19", "-c"], text)
    if codec == BROTLI:
        return _filter(["brotli", "-q", "11", "-c"], text)
    return {STORED: bytes, LZMA: _lzma, BZIP2: bz2.compress}[codec](text)


def frame(codec: int, size: int, packed: bytes) -> bytes:
    return size.to_bytes(3, "little") + bytes([codec]) + packed


def main() -> None:
    directory = Path(sys.argv[1])
    directory.mkdir(parents=True, exist_ok=True)
    texts = {"short": b"a", "words": b"alpha beta gamma " * 9 + bytes(range(64)), "zeros": bytes(70_000)}
    for codec, name in enumerate(("stored", "zstd", "brotli", "lzma", "bzip2")):
        for kind, text in texts.items():
            if codec == STORED and len(text) > 1000:
                continue
            packed = pack(codec, text)
            (directory / f"{name}-{kind}").write_bytes(frame(codec, len(text), packed))
        packed = pack(codec, texts["words"])
        (directory / f"{name}-more").write_bytes(frame(codec, 100, packed))
        (directory / f"{name}-less").write_bytes(frame(codec, 1000, packed))
        (directory / f"{name}-cut").write_bytes(frame(codec, len(texts["words"]), packed[: len(packed) // 2]))
        (directory / f"{name}-tail").write_bytes(frame(codec, len(texts["words"]), packed + b"\0"))
        (directory / f"{name}-empty").write_bytes(frame(codec, 0, b""))
    wide = _filter(["brotli", "-q", "5", "-w", "24", "-c"], bytes(1000))
    (directory / "brotli-window").write_bytes(frame(BROTLI, 1000, wide))
    wide = _filter(["zstd", "-q", "-19", "--ultra", "--long=27", "-c"], bytes(1000))
    (directory / "zstd-window").write_bytes(frame(ZSTD, 1000, wide))


if __name__ == "__main__":
    main()
