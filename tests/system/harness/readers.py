"""Programs that read an installed database."""

from __future__ import annotations

import ctypes
from collections.abc import Iterator
from contextlib import contextmanager


def _library() -> ctypes.CDLL:
    library = ctypes.CDLL("libtarndbud.so.1")
    library.TARNDBUDGetFileLock.argtypes = [ctypes.c_char_p, ctypes.c_ulong]
    return library


@contextmanager
def reading(database: str) -> Iterator[None]:
    """Holds readers' lock the way a program does that links the library."""
    library = _library()
    descriptor = library.TARNDBUDGetFileLock(database.encode(), 5)
    assert descriptor >= 0
    try:
        yield
    finally:
        library.TARNDBUDReleaseFileLock(descriptor)


def may_read(database: str) -> bool:
    """Whether readers' lock is to be had within a second."""
    library = _library()
    descriptor = library.TARNDBUDGetFileLock(database.encode(), 1)
    if descriptor < 0:
        return False
    library.TARNDBUDReleaseFileLock(descriptor)
    return True
