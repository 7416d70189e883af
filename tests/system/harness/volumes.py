"""Storage volumes: real file systems in loop devices and in memory, and plain directories."""

from __future__ import annotations

import os
import shutil
import subprocess
import tempfile
from pathlib import Path

import pytest

MAKE = {"ext4": ["mkfs.ext4", "-q", "-F"], "btrfs": ["mkfs.btrfs", "-q", "-f"], "xfs": ["mkfs.xfs", "-q", "-f"]}
MIB = 1 << 20


def may_mount() -> bool:
    return os.environ.get("TARN_SANDBOX") == "overlay"


def is_real_root() -> bool:
    """The id map of a namespace's root is one line of one id."""
    outside, count = Path("/proc/self/uid_map").read_text().split()[1:3]
    return outside == "0" and int(count) > 1


def may_loop_mount() -> bool:
    """Loop devices belong to the machine's own root; a namespace's root has none."""
    return may_mount() and is_real_root() and Path("/dev/loop-control").exists()


def is_disk(path: Path) -> bool:
    """Whether a path lies on a file system that counts as storage by itself: neither memory nor an overlay."""
    kind = subprocess.run(
        ["findmnt", "--noheadings", "--output=FSTYPE", "--target", str(path)], check=True, capture_output=True, text=True
    ).stdout.strip()
    return kind not in ("tmpfs", "ramfs", "overlay")


def knows(kind: str) -> bool:
    if kind in Path("/proc/filesystems").read_text().split():
        return True
    modprobe = shutil.which("modprobe")
    return modprobe is not None and subprocess.run([modprobe, "-q", kind], check=False).returncode == 0


class Volumes:
    """Makes volumes below /, named as devices name them, and takes them away again."""

    def __init__(self, scratch: Path) -> None:
        self._scratch = scratch
        self._mounted: list[Path] = []
        self._sources: dict[Path, list[str]] = {}
        self._made: list[Path] = []

    def make(self, kind: str, size: int = 0) -> Path:
        """A volume of a kind: "directory", "bind" (the scratch disk), "tmpfs", or a file system in a loop device."""
        if kind == "directory":
            return self._make_place()
        if not may_mount():
            pytest.skip(f"needs to mount a volume ({kind}), and nothing can be mounted here")
        source, options = self._source(kind, size)
        path = self._make_place()
        self._sources[path] = [*options, source, str(path)]
        self.mount_again(path)
        return path

    def mount_again(self, path: Path) -> None:
        subprocess.run(["mount", *self._sources[path]], check=True)
        self._mounted.append(path)

    def unmount(self, path: Path, lazily: bool = False) -> None:
        """Fails when anybody holds it, unless lazily: then it only vanishes, as when it was torn out."""
        subprocess.run(["umount", *["--lazy"] * lazily, str(path)], check=True)
        self._mounted.remove(path)

    def _make_place(self) -> Path:
        """A new directory, whatever an earlier run left there; in the order in which they were made."""
        path = Path(tempfile.mkdtemp(prefix=f"volume{len(self._made) + 1}-", dir="/"))
        path.chmod(0o755)
        self._made.append(path)
        return path

    def _source(self, kind: str, size: int) -> tuple[str, list[str]]:
        if kind == "tmpfs":
            return "tmpfs", ["-t", "tmpfs", "-o", f"mode=755,size={size}"]
        place = self._scratch / f"{kind}{len(self._made) + 1}"
        if kind == "bind":
            place.mkdir()
            place.chmod(0o755)
            return str(place), ["--bind"]
        if not may_loop_mount():
            pytest.skip(f"needs to mount {kind} from a loop device, which takes the machine's own root")
        if not knows(kind):
            pytest.skip(f"this kernel has no {kind}")
        with place.open("wb") as image:
            image.truncate(size)
        subprocess.run([*MAKE[kind], str(place)], check=True, stdout=subprocess.DEVNULL)
        return str(place), ["-t", kind, "-o", "loop"]

    @staticmethod
    def give_back(path: Path) -> None:
        """From now on, what is removed there is room on the disk that holds the volume's image."""
        subprocess.run(["mount", "-o", "remount,discard", str(path)], check=True)

    @staticmethod
    def remount_read_only(path: Path) -> None:
        subprocess.run(["mount", "-o", "remount,ro", str(path)], check=True)

    def close(self) -> None:
        for path in reversed(self._mounted):
            subprocess.run(["umount", str(path)], check=True)
        for path in self._made:
            shutil.rmtree(path)
        for place in self._scratch.iterdir():
            if place.is_dir():
                shutil.rmtree(place)
            else:
                place.unlink()
