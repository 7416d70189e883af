"""Writes patches in the VCDIFF form (RFC 3284) in the simplest way: two ends in common, and what lies between them.

For small files: a patch is one window, with the default code table and an Adler-32 checksum of what comes out.
"""

from __future__ import annotations

import zlib

HEADER = b"\xd6\xc3\xc4\0\0"
FROM_SOURCE = 1
CHECKED = 4
ADD = 1
"""The code of an addition whose size follows."""
COPY_HERE = 19
"""The code of a copy whose size follows, from an address that is written out."""


def integer(value: int) -> bytes:
    """Groups of seven bits, the highest first; all but the last have the top bit set."""
    groups = [value & 0x7F]
    while value := value >> 7:
        groups.append(value & 0x7F | 0x80)
    return bytes(reversed(groups))


def encode(old: bytes, new: bytes) -> bytes:
    front = _common(old, new)
    back = _common(old[front:][::-1], new[front:][::-1])
    middle = new[front : len(new) - back]
    instructions, addresses = b"", b""
    if front:
        instructions += bytes([COPY_HERE]) + integer(front)
        addresses += integer(0)
    if middle:
        instructions += bytes([ADD]) + integer(len(middle))
    if back:
        instructions += bytes([COPY_HERE]) + integer(back)
        addresses += integer(len(old) - back)
    sections = integer(len(middle)) + integer(len(instructions)) + integer(len(addresses))
    checksum = zlib.adler32(new).to_bytes(4, "big")
    encoding = integer(len(new)) + b"\0" + sections + checksum + middle + instructions + addresses
    segment = bytes([CHECKED])
    if front or back:
        segment = bytes([CHECKED | FROM_SOURCE]) + integer(len(old)) + integer(0)
    return HEADER + segment + integer(len(encoding)) + encoding


def _common(left: bytes, right: bytes) -> int:
    """How many bytes the two have in common at their front."""
    low, high = 0, min(len(left), len(right))
    while low < high:
        middle = (low + high + 1) // 2
        if left[:middle] == right[:middle]:
            low = middle
        else:
            high = middle - 1
    return low
