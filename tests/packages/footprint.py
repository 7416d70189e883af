"""What is on a machine's disk, to tell what packages leave behind."""

from __future__ import annotations

import fnmatch
import hashlib
import os
import stat
from dataclasses import dataclass
from pathlib import Path


def describe(path: Path) -> str:
    """Type, mode, owner and content."""
    status = path.lstat()
    shown = f"{stat.filemode(status.st_mode)} {status.st_uid}:{status.st_gid}"
    if path.is_symlink():
        return f"{shown} -> {path.readlink()}"
    if path.is_file():
        return f"{shown} {hashlib.sha256(path.read_bytes()).hexdigest()}"
    return shown


@dataclass(frozen=True)
class Footprint:
    entries: dict[str, str]
    """Each path's description."""

    @classmethod
    def of(cls, root: Path) -> Footprint:
        """All of a root's own file system."""
        entries, device = {}, root.stat().st_dev
        for directory, folders, files in os.walk(root):
            folders[:] = [name for name in folders if os.lstat(os.path.join(directory, name)).st_dev == device]
            for name in folders + files:
                path = Path(directory, name)
                entries[f"/{path.relative_to(root)}"] = describe(path)
        return cls(entries)

    def changes(self, after: Footprint, allowed: tuple[str, ...]) -> list[str]:
        """What is different afterwards, except for what matches one of the patterns ("*" crosses directories)."""
        paths = sorted(self.entries.keys() | after.entries.keys())
        return [
            f"{path}: {self.entries.get(path, 'nothing')} became {after.entries.get(path, 'nothing')}"
            for path in paths
            if self.entries.get(path) != after.entries.get(path)
            and not any(fnmatch.fnmatchcase(path, pattern) for pattern in allowed)
        ]
