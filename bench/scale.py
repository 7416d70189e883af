"""How memory, time and disk grow with the number of files, with the bytes and with the length of a chain."""

from __future__ import annotations

import json
import os
import random
import shutil
import threading
import time
from collections.abc import Iterator
from contextlib import contextmanager
from dataclasses import dataclass, replace
from functools import partial
from pathlib import Path

from harness import programs
from harness.device import STATUS, Device
from harness.publisher import Publisher
from harness.volumes import MIB

DATABASE = "scale"
MEMORY_LIMIT = 32 * MIB
# Up to so many files the limit holds; beyond, memory may grow by so many bytes for each file.
LIMITED_FILES = 60_000
BYTES_FOR_EACH_FILE = 320
# The old tree and what differs from it, beside the packages.
PUBLISHER_TREES = 2
BLOCK = 4096  # of a usual file system, of which a small file takes one
SMALL_FILE = 2_000
TEN_GB = 10_000_000_000 // (8 * MIB) * 8 * MIB  # eight files of whole mebibytes
ONE_PACKAGE = ("publish the first version", "publish without a diff package")


@dataclass(frozen=True)
class Point:
    """One operation measured."""

    series: str
    files: int
    bytes: int
    chain: int
    operation: str
    seconds: float
    peak_rss_bytes: int
    peak_disk_bytes: int
    package_bytes: int
    """Of the packages that a publication made."""


@dataclass(frozen=True)
class Sizes:
    """Numbers of small files, sizes of trees of eight files, and lengths of chains."""

    files: tuple[int, ...]
    large: tuple[int, ...]
    chains: tuple[int, ...]
    chain_files: int
    disk_bytes: int

    @staticmethod
    def full() -> Sizes:
        files, large = (1_000, 10_000, 60_000, 200_000), (256 * MIB, 1024 * MIB, 2048 * MIB, TEN_GB)
        return Sizes(files, large, (1, 10, 100), 1_000, 96 * 1024 * MIB)

    @staticmethod
    def brief() -> Sizes:
        return Sizes((500, 2_000), (16 * MIB,), (1, 5), 100, 512 * MIB)


class Tree:
    """Files in directories of a hundred; half of their bytes compress. A change rewrites some files, of larger ones some
    mebibytes."""

    def __init__(self, root: Path, files: int, file_bytes: int) -> None:
        self.root = root
        self.files = files
        self._file_bytes = file_bytes
        self._chance = random.Random(5)
        self._block = self._chance.randbytes(MIB)
        for number in range(files):
            self._path(number).parent.mkdir(parents=True, exist_ok=True)
            self._path(number).touch()
        self._write(self._parts())

    @property
    def bytes(self) -> int:
        return self.files * self._file_bytes

    def change(self, share: float) -> None:
        parts = self._parts()
        self._write(sorted(self._chance.sample(parts, max(1, int(len(parts) * share)))))

    def change_files(self, count: int) -> None:
        self._write([(number, 0) for number in sorted(self._chance.sample(range(self.files), count))])

    def _path(self, number: int) -> Path:
        return self.root / f"region-{number // 100:04}/data-{number:06}.dat"

    def _parts(self) -> list[tuple[int, int]]:
        """Every file's mebibytes, by the number of the file and the place in it."""
        return [(number, at) for number in range(self.files) for at in range(0, self._file_bytes, MIB)]

    def _write(self, parts: list[tuple[int, int]]) -> None:
        for number, at in parts:
            size = min(self._file_bytes - at, MIB)
            begin = self._chance.randrange(MIB // 2)
            with self._path(number).open("r+b") as stream:
                stream.seek(at)
                stream.write((self._chance.randbytes(size // 2) + self._block[begin:] + self._block)[:size])


class DiskUse:
    """The most bytes that a file system of our own holds while a block runs, on top of what it holds before."""

    def __init__(self, path: Path) -> None:
        self._path = path
        self._stop = threading.Event()
        self._thread = threading.Thread(target=self._sample)
        self._most = 0

    def _used(self) -> int:
        space = os.statvfs(self._path)
        return (space.f_blocks - space.f_bfree) * space.f_frsize

    def _sample(self) -> None:
        while not self._stop.wait(0.005):
            self._most = max(self._most, self._used())

    def __enter__(self) -> DiskUse:
        os.sync()
        self._before = self._most = self._used()
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._stop.set()
        self._thread.join()
        self._most = max(self._most, self._used())

    @property
    def extra(self) -> int:
        return self._most - self._before


class ScaleBench:
    """Publishes trees on one volume and installs them on another, each on a file system of its own."""

    def __init__(self, device: Device, publisher: Publisher, second_volume: Path, scratch: Path) -> None:
        self._device, self._publisher, self._second_volume, self._scratch = device, publisher, second_volume, scratch
        self._tree: Tree | None = None
        self._series = ""
        self._chain = 0
        self.points: list[Point] = []

    def measure(self, series: str, sizes: Sizes) -> None:
        lives = {
            "files": [(files, SMALL_FILE, self._live_through) for files in sizes.files],
            "bytes": [(8, size // 8, self._live_through) for size in sizes.large],
            "chains": [(sizes.chain_files, SMALL_FILE, partial(self._take_a_chain, length)) for length in sizes.chains],
        }[series]
        for files, file_bytes, live in lives:
            with self._new_tree(series, files, file_bytes):
                live()

    @contextmanager
    def _new_tree(self, series: str, files: int, file_bytes: int) -> Iterator[None]:
        self._series = series
        self._tree = Tree(self._scratch / "tree", files, file_bytes)
        try:
            yield
        finally:
            shutil.rmtree(self._tree.root)
            shutil.rmtree(self._publisher.repository)
            self._publisher.repository.mkdir()
            shutil.rmtree(self._device.installed(DATABASE), ignore_errors=True)
            shutil.rmtree(STATUS / DATABASE, ignore_errors=True)

    def _live_through(self) -> None:
        """Everything that happens to a database in its life."""
        self._publish("publish the first version")
        self._run_device("install", "update", DATABASE)
        self._run_device("check", "check", DATABASE)
        self._run_device("status", "status", DATABASE)
        self._tree.change(0.01)
        self._publish("publish a change of 1 %")
        self._run_device("diff update of 1 %", "update", DATABASE)
        self._tree.change(0.2)
        self._publish("publish a change of 20 %")
        self._run_device("diff update of 20 %", "update", DATABASE)
        self._run_device("check after diff updates", "check", DATABASE)
        self._run_device("status after diff updates", "status", DATABASE)
        (self._device.installed(DATABASE) / "region-0000/data-000000.dat").write_bytes(b"damaged")
        self._run_device("fix", "fix", DATABASE)
        self._tree.change_files(1)
        self._publish("publish without a diff package", keep_diffs=0)
        self._run_device("full update", "update", DATABASE)
        self._run_device("force install", "force-install", DATABASE, "0")
        self._move()

    def _take_a_chain(self, length: int) -> None:
        self._chain = length
        self._publish("publish the first version")
        self._run_device("install", "update", DATABASE)
        for _ in range(length):
            self._tree.change_files(3)
            self._publisher.publish(self._tree.root, DATABASE, "--level", "1", keep_diffs=length)
        self._run_device("diff update", "update", DATABASE)

    def _publish(self, operation: str, keep_diffs: int = 100) -> None:
        arguments = [
            programs.PUB, "publish", self._tree.root, "--repo", self._publisher.repository, "--id", DATABASE,
            "--key", self._publisher.private_key, "--url", self._publisher.base, "--keep-diffs", str(keep_diffs),
            "--level", "1",
        ]  # fmt: skip
        before = self._packages()
        self._run(operation, arguments, self._publisher.repository)
        made = sum(size for path, size in self._packages().items() if path not in before)
        self.points[-1] = replace(self.points[-1], package_bytes=made)

    def _packages(self) -> dict[Path, int]:
        return {path: path.stat().st_size for path in self._publisher.repository.glob("packages/**/*.tarn")}

    def _run_device(self, operation: str, *arguments: str) -> None:
        self._device.forget_document()
        self._run(operation, [programs.CTL, *arguments], self._device.volume)
        downloaded = self._downloaded() if arguments[0] == "update" else 0
        if "diff" in operation:
            assert downloaded < self._publisher.package(DATABASE, 1).stat().st_size, "it went by the full package"

    def _downloaded(self) -> int:
        return json.loads((STATUS / DATABASE / "last_run.json").read_text())["downloaded_bytes"]

    def _move(self) -> None:
        """To another volume and back; the way there is what is measured."""
        first, second = self._device.volume, self._second_volume
        self._run("move to another volume", [programs.CTL, "volume", "unmounting", str(first)], second)
        assert (second / "@database/autoupdate" / DATABASE).is_dir()
        programs.run_ok(programs.CTL, "volume", "unmounting", str(second), patience=600)

    def _run(self, operation: str, arguments: list[object], place: Path) -> None:
        with DiskUse(place) as use:
            begin = time.monotonic()
            result, peak = programs.peak_memory(*arguments, patience=3600)
            seconds = time.monotonic() - begin
        assert result.status == 0, str(result)
        point = Point(
            self._series, self._tree.files, self._tree.bytes, self._chain, operation, round(seconds, 3), peak * 1024, use.extra, 0
        )
        print(f"{point.series:6} {point.files:7} {point.bytes / MIB:7.0f} MiB {point.chain:4} {point.operation:30} "
              f"{point.seconds:8.2f} s {point.peak_rss_bytes / MIB:7.1f} MiB {point.peak_disk_bytes / MIB:8.1f} MiB disk",
              flush=True)  # fmt: skip
        self.points.append(point)


def rows(points: list[Point]) -> Iterator[dict[str, object]]:
    """What is promised of memory and disk, for the program that installs and for the publisher's disk."""
    for point in points:
        length = f", {point.chain} long" if point.chain else ""
        what = f"{point.series}{length}, {point.files} files, {point.bytes // MIB} MiB: {point.operation}"
        if point.operation.startswith("publish"):
            # Each package is there twice for a moment: while it is sealed, and the diff package while it is tried out.
            trees = 0 if point.operation in ONE_PACKAGE else PUBLISHER_TREES * max(point.bytes, point.files * BLOCK)
            allowed = trees + 2 * point.package_bytes + 16 * MIB
            yield row(f"{what}, disk", point.peak_disk_bytes, allowed)
        else:
            allowed = MEMORY_LIMIT + max(0, point.files - LIMITED_FILES) * BYTES_FOR_EACH_FILE
            yield row(f"{what}, memory", point.peak_rss_bytes, allowed)


def row(what: str, ours: float, allowed: float) -> dict[str, object]:
    return {"what": what, "ours": ours / MIB, "peer": allowed / MIB, "limit": 1.0, "unit": "M"}
