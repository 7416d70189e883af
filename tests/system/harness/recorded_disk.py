"""A disk that remembers in which order it was written and flushed, and the disk that a power cut would have left."""

from __future__ import annotations

import mmap
import os
import random
import struct
import subprocess
import time
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from pathlib import Path

from . import volumes

HEAD = struct.Struct("=QQ")
SECTOR = 4096
"""What a disk writes whole or not at all."""
MIB = 1 << 20
PATIENCE_SECONDS = 30


@dataclass(frozen=True)
class Kind:
    """A file system as it is made and mounted."""

    name: str
    make: tuple[str, ...]
    options: str
    size: int

    @property
    def type(self) -> str:
        return self.make[0].removeprefix("mkfs.")


KINDS = {
    kind.name: kind
    for kind in (
        Kind("ext4", ("mkfs.ext4", "-q", "-F"), "", 48 * MIB),
        # Without what guesses that a renamed file should be on the disk.
        Kind("ext4, writeback", ("mkfs.ext4", "-q", "-F"), "data=writeback,noauto_da_alloc", 48 * MIB),
        Kind("btrfs", ("mkfs.btrfs", "-q", "-f"), "nodiscard", 128 * MIB),
        Kind("xfs", ("mkfs.xfs", "-q", "-f"), "nodiscard", 304 * MIB),
    )
}


def possible_kinds() -> list[Kind]:
    """Those that this kernel has, and that can be made to forget a newer disk of the same name."""
    has_control = Path("/dev/btrfs-control").exists()
    return [kind for kind in KINDS.values() if volumes.knows(kind.type) and (has_control or kind.type != "btrfs")]


def missing(program: Path) -> str:
    """Why there can be no such disk here, or nothing."""
    if not volumes.may_loop_mount():
        return "needs to mount file systems from loop devices, which takes the machine's own root"
    if not program.exists():
        return "tests/system/recording_disk.cpp is not built: libfuse3-dev is missing"
    try:
        os.close(os.open("/dev/fuse", os.O_RDWR))
    except OSError:
        return "needs FUSE"
    return ""


@dataclass(frozen=True)
class Step:
    """A write, or a flush when it has no length."""

    offset: int
    length: int
    at: int
    """Where the data lies in the record."""


def steps(record: Path) -> list[Step]:
    found, at, size = [], 0, record.stat().st_size
    with record.open("rb") as stream:
        while at < size:
            stream.seek(at)
            offset, length = HEAD.unpack(stream.read(HEAD.size))
            found.append(Step(offset, length, at + HEAD.size))
            at += HEAD.size + length
    return found


class Partitions:
    """Several file systems of a kind on one disk, mounted each at its place."""

    def __init__(self, kind: Kind, places: list[Path]) -> None:
        self.kind = kind
        self.size = kind.size * len(places)
        self._places = places
        self._mounted: list[Path] = []

    def format(self, image: Path) -> None:
        with image.open("wb") as stream:
            for number in range(len(self._places)):
                part = image.with_suffix(".part")
                with part.open("wb") as made:
                    made.truncate(self.kind.size)
                subprocess.run([*self.kind.make, str(part)], check=True, stdout=subprocess.DEVNULL)
                _copy_data(part, stream.fileno(), number * self.kind.size)
                part.unlink()
            stream.truncate(self.size)

    def mount(self, disk: Path) -> None:
        if self.kind.type == "btrfs":
            # It remembers file systems of the same name that were newer, and would refuse an older one.
            subprocess.run(["btrfs", "device", "scan", "--forget"], check=True, stdout=subprocess.DEVNULL)
        for number, place in enumerate(self._places):
            part = f"loop,offset={number * self.kind.size},sizelimit={self.kind.size}"
            options = ",".join(filter(None, (part, self.kind.options)))
            subprocess.run(["mount", "-t", self.kind.type, "-o", options, str(disk), str(place)], check=True)
            self._mounted.append(place)

    def unmount(self, disk: Path) -> None:
        """Ends the loop devices as well, so that what is below them can be ended."""
        while self._mounted:
            subprocess.run(["umount", str(self._mounted[-1])], check=True)
            self._mounted.pop()
        deadline = time.monotonic() + PATIENCE_SECONDS
        while subprocess.run(["losetup", "-j", str(disk)], check=True, capture_output=True).stdout:
            assert time.monotonic() < deadline, f"a loop device over {disk} does not end"
            time.sleep(0.01)


def _copy_data(source: Path, to: int, offset: int) -> None:
    """What is no zeros, so that the copy takes no more room than it needs."""
    with source.open("rb") as stream:
        at = 0
        while block := stream.read(MIB):
            if block.strip(b"\0"):
                os.pwrite(to, block, offset + at)
            at += len(block)


class RecordingDisk:
    """The disk while it is recorded; its file is `disk`."""

    def __init__(self, program: Path, image: Path, place: Path) -> None:
        self.record = place / "record"
        self._shown = place / "shown"
        self._shown.mkdir()
        self.disk = self._shown / "disk"
        self._process = subprocess.Popen([program, image, self.record, self._shown], stdin=subprocess.DEVNULL)
        deadline = time.monotonic() + PATIENCE_SECONDS
        while not self.disk.exists():
            assert self._process.poll() is None and time.monotonic() < deadline, "there is no disk"
            time.sleep(0.01)

    def position(self) -> int:
        """How long the record is now."""
        return self.record.stat().st_size

    def close(self) -> None:
        """Everything over it must have been unmounted."""
        subprocess.run(["umount", str(self._shown)], check=True)
        assert self._process.wait(PATIENCE_SECONDS) == 0
        self._shown.rmdir()


@dataclass(frozen=True)
class Cut:
    """The power goes after so many steps. What no flush has confirmed is there, or a part of it that a seed draws."""

    after: int
    dropping: int | None = None

    def __str__(self) -> str:
        lost = f", part lost by seed {self.dropping}" if self.dropping is not None else ""
        return f"after step {self.after}{lost}"


def all_cuts(recorded: list[Step], begin: int, draw: random.Random, losses: int) -> list[Cut]:
    """Each prefix; and, where a flush was about to confirm something, or ended something, with a part of that lost."""
    cuts = [Cut(after) for after in range(begin, len(recorded) + 1)]
    for after in range(begin, len(recorded) + 1):
        if after and recorded[after - 1].length and (after == len(recorded) or not recorded[after].length):
            cuts += [Cut(after, draw.randrange(1 << 32)) for _ in range(losses)]
    cuts += [Cut(draw.randrange(begin, len(recorded) + 1), draw.randrange(1 << 32)) for _ in range(len(cuts) // 4)]
    return cuts


def some_cuts(recorded: list[Step], begin: int, draw: random.Random, count: int) -> list[Cut]:
    """Of all cuts so many, half of them where a flush begins or ends."""
    every = all_cuts(recorded, begin, draw, losses=2)
    boundary = [cut for cut in every if cut.dropping is not None or not recorded[cut.after - 1].length]
    chosen = set(draw.sample(boundary, min(count // 2, len(boundary))))
    rest = [cut for cut in every if cut not in chosen]
    return [*chosen, *draw.sample(rest, min(count - len(chosen), len(rest)))]


class Replay:
    """Makes the disk of one cut after the other, quickest in their order."""

    def __init__(self, image: Path, record: Path, recorded: list[Step], place: Path) -> None:
        self.steps = recorded
        self._confirmed = place / "confirmed"
        self._cut = place / "cut"
        subprocess.run(["cp", "--sparse=always", str(image), str(self._confirmed)], check=True)
        self._done = 0
        stream = record.open("rb")
        self._data = mmap.mmap(stream.fileno(), 0, access=mmap.ACCESS_READ)
        stream.close()

    @contextmanager
    def disk(self, cut: Cut) -> Iterator[Path]:
        """The disk in a file, to be written to at will."""
        flushed = max((n + 1 for n in range(cut.after) if not self.steps[n].length), default=0)
        assert flushed >= self._done, "cuts go on in their order"
        with self._confirmed.open("r+b") as stream:
            for step in self.steps[self._done : flushed]:
                self._write(stream.fileno(), step)
        self._done = flushed
        subprocess.run(["cp", "--sparse=auto", str(self._confirmed), str(self._cut)], check=True)
        with self._cut.open("r+b") as stream:
            self._write_unconfirmed(stream.fileno(), self.steps[flushed : cut.after], cut.dropping)
        try:
            yield self._cut
        finally:
            self._cut.unlink()

    def _write(self, to: int, step: Step) -> None:
        os.pwrite(to, self._data[step.at : step.at + step.length], step.offset)

    def _write_unconfirmed(self, to: int, unconfirmed: list[Step], dropping: int | None) -> None:
        draw = random.Random(dropping)
        share = draw.choice((0.1, 0.5, 0.9))
        for step in unconfirmed:
            if dropping is None:
                self._write(to, step)
                continue
            whole = draw.random() < 0.7
            is_kept = draw.random() < share
            for begin in range(0, step.length, SECTOR):
                if is_kept if whole else draw.random() < share:
                    length = min(SECTOR, step.length - begin)
                    self._write(to, Step(step.offset + begin, length, step.at + begin))

    def close(self) -> None:
        self._data.close()
        self._confirmed.unlink()
