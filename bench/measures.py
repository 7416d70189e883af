"""The measurements themselves: ours and the stock tools', in turns."""

from __future__ import annotations

import json
import os
import random
import shutil
import subprocess
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import closing, contextmanager
from dataclasses import dataclass
from pathlib import Path
from statistics import median

import pytest
from harness.device import Device
from harness.publisher import Publisher
from harness.volumes import Volumes
from harness.webserver import Nginx

from bench import scale, sizes, stock
from bench.chains import DATABASE as CHAIN
from bench.chains import ChainBench
from bench.patches import PatchBench
from bench.readers import ReadersBench
from bench.tools import our_phases

PUBLISHING_SECONDS = 1800
SOURCE = Path(__file__).resolve().parent.parent
DATABASE = "bench"
HASH_SPEED_SHARE = 0.95
HOLD_LIMIT = 1.5
PIPELINE_LIMIT = 0.75
# Beside stock tools that leave the data in memory, where ours has it on the disk.
UNSYNCED_LIMIT = 1.0
# What a file system reserves for a moment differs a little from run to run.
DISK_LIMIT = 1.1
MIB = 1 << 20


@dataclass(frozen=True)
class Scale:
    rounds: int
    files: int
    file_bytes: int
    hash_bytes: int
    volume_bytes: int
    size_bytes: int
    file_systems: tuple[str, ...]
    patched_bytes: int
    held_files: int
    growth: scale.Sizes

    @staticmethod
    def full(rounds: int) -> Scale:
        return Scale(rounds, 2000, 50_000, 1024 * MIB, 2048 * MIB, 100_000_000, ("ext4", "btrfs", "xfs"), 315_000_000, 60_000,
                     scale.Sizes.full())  # fmt: skip

    @staticmethod
    def brief() -> Scale:
        return Scale(1, 100, 10_000, 16 * MIB, 512 * MIB, 2_000_000, ("ext4",), 8_000_000, 600, scale.Sizes.brief())


def make_tree(root: Path, files: int, file_bytes: int) -> None:
    """Data of which a quarter can be compressed away, in forty directories; the same at every call."""
    chance = random.Random(1)
    noise = file_bytes * 77 // 100
    for number in range(files):
        directory = root / f"d{number % 40:02}"
        directory.mkdir(parents=True, exist_ok=True)
        words = bytes(chance.choices(b"abcdefgh 0123\n", k=400)) * (1 + (file_bytes - noise) // 400)
        (directory / f"f{number:04}.dat").write_bytes(chance.randbytes(noise) + words[: file_bytes - noise])


def used_bytes(path: Path) -> int:
    space = os.statvfs(path)
    return (space.f_blocks - space.f_bfree) * space.f_frsize


class PeakUse:
    """The most bytes that a file system held while the block ran, on top of what it held before or after."""

    def __init__(self, path: Path) -> None:
        self._path = path
        self._stop = threading.Event()
        self._samples: list[int] = []
        self._thread = threading.Thread(target=self._sample)

    def _sample(self) -> None:
        while not self._stop.wait(0.002):
            self._samples.append(used_bytes(self._path))

    def __enter__(self) -> PeakUse:
        os.sync()
        self._before = used_bytes(self._path)
        self._thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self._stop.set()
        self._thread.join()
        os.sync()
        self.extra = max(self._samples, default=0) - max(self._before, used_bytes(self._path))


class Bench:
    def __init__(self, build: Path, scratch: Path, scale: Scale) -> None:
        subprocess.run(["cmake", "--install", str(build)], check=True, stdout=subprocess.DEVNULL)
        self._build, self._scratch, self._scale = build, scratch, scale
        self.is_complete = True
        self.points: list[scale.Point] = []

    def hash(self) -> Iterator[dict[str, object]]:
        path = self._scratch / "large"
        path.write_bytes(random.Random(2).randbytes(MIB) * (self._scale.hash_bytes // MIB))
        ours, peer = [], []
        for _ in range(self._scale.rounds + 1):
            seconds, digest = self._run("hash_bench", path).split()
            ours.append(float(seconds))
            command = ["openssl", "dgst", "-sha384", "-r", str(path)]
            begin = time.monotonic()
            expected = subprocess.run(command, check=True, capture_output=True, text=True).stdout.split()[0]
            peer.append(time.monotonic() - begin)
            assert digest == expected
        path.unlink()
        # The first round filled the page cache.
        yield row(f"hash {self._scale.hash_bytes // MIB} MiB (openssl dgst)", ours[1:], peer[1:], 1 / HASH_SPEED_SHARE)

    def size(self) -> Iterator[dict[str, object]]:
        yield from sizes.compare(Publisher(self._scratch / "sizes-publisher"), self._scratch, self._scale.size_bytes)

    def vcdiff(self) -> Iterator[dict[str, object]]:
        place = self._scratch / "patches"
        place.mkdir()
        yield from PatchBench(self._build, place).measure(self._scale.patched_bytes, self._scale.rounds)
        shutil.rmtree(place)

    def update(self) -> Iterator[dict[str, object]]:
        with self._server("updates") as (publisher, nginx, place):
            make_tree(place / "tree", self._scale.files, self._scale.file_bytes)
            publisher.publish(place / "tree", DATABASE)
            stock.make_package(place / "tree", publisher, sizes.LEVEL)
            for kind in self._scale.file_systems:
                yield from self._on_volume(
                    kind, publisher, nginx, lambda kind, volume, _: self._compare(kind, volume, publisher, nginx.url)
                )

    def chain(self) -> Iterator[dict[str, object]]:
        with self._server("chains") as (publisher, nginx, place):
            bench = ChainBench(self._build, publisher, place, self._scale.size_bytes)
            bench.publish()
            yield from bench.sizes()
            for kind in self._scale.file_systems:
                yield from self._on_volume(
                    kind, publisher, nginx,
                    lambda kind, volume, device: bench.measure(kind, volume, device, nginx.url, self._scale.rounds),
                )  # fmt: skip

    def readers(self) -> Iterator[dict[str, object]]:
        with self._server("readers") as (publisher, nginx, place):
            bench = ReadersBench(publisher, place, self._scale.held_files)
            bench.publish()
            for kind in self._scale.file_systems:
                yield from self._on_volume(kind, publisher, nginx, lambda kind, _, device: bench.measure(kind, device))

    @contextmanager
    def _server(self, name: str) -> Iterator[tuple[Publisher, Nginx, Path]]:
        """A publisher with its web server, in a directory that goes with it."""
        place = self._scratch / name
        place.mkdir()
        publisher = Publisher(place / "publisher")
        publisher.patience = PUBLISHING_SECONDS
        nginx = Nginx(SOURCE / "packaging/nginx/tarndbud.conf", publisher.repository, place / "nginx")
        try:
            publisher.base = nginx.url
            yield publisher, nginx, place
        finally:
            nginx.close()
            shutil.rmtree(place)

    def measure(self, name: str) -> Iterator[dict[str, object]]:
        series = name.removeprefix("scale-")
        return getattr(self, name)() if series == name else self._grow(series)

    def _grow(self, series: str) -> Iterator[dict[str, object]]:
        place = self._scratch / "scale"
        place.mkdir()
        volumes = Volumes(place)
        Device.reset(SOURCE / "packaging/conf")
        try:
            shop, volume, other = (volumes.make("ext4", self._scale.growth.disk_bytes) for _ in range(3))
            for path in (shop, volume, other):
                volumes.give_back(path)
            publisher = Publisher(shop / "publisher")
            publisher.patience = PUBLISHING_SECONDS
            with closing(Nginx(SOURCE / "packaging/nginx/tarndbud.conf", publisher.repository, shop / "nginx")) as nginx:
                publisher.base = nginx.url
                device = Device(volume, nginx.netloc)
                device.trust(publisher.public_key)
                device.list_volumes(patterns=(str(volume), str(other)))
                device.add_database(scale.DATABASE)
                bench = scale.ScaleBench(device, publisher, other, self._scratch)
                bench.measure(series, self._scale.growth)
            self.points += bench.points
            yield from scale.rows(bench.points)
        except pytest.skip.Exception as reason:
            self.is_complete = False
            print(f"left out: scale-{series}: {reason}")
        finally:
            volumes.close()
            place.rmdir()

    def _on_volume(
        self, kind: str, publisher: Publisher, nginx: Nginx, measure: Callable[[str, Path, Device], Iterator[dict[str, object]]]
    ) -> Iterator[dict[str, object]]:
        place = self._scratch / "volumes"
        place.mkdir()
        volumes = Volumes(place)
        Device.reset(SOURCE / "packaging/conf")
        try:
            volume = volumes.make(kind, self._scale.volume_bytes)
            device = Device(volume, nginx.netloc)
            device.trust(publisher.public_key)
            device.list_volumes(volume)
            device.add_database(CHAIN)
            yield from measure(kind, volume, device)
        except pytest.skip.Exception as reason:
            self.is_complete = False
            print(f"left out: {kind}: {reason}")
        finally:
            volumes.close()
            place.rmdir()

    def _compare(self, kind: str, volume: Path, publisher: Publisher, url: str) -> Iterator[dict[str, object]]:
        ours: list[stock.Phases] = []
        peer: list[stock.Phases] = []
        extra: list[float] = []
        allowed: list[float] = []
        for _ in range(self._scale.rounds + 1):
            phases, package_and_tree = self._stock_update(volume, publisher, url)
            peer.append(phases)
            allowed.append(package_and_tree / MIB)
            with PeakUse(volume) as use:
                ours.append(self._our_update(volume, publisher))
            extra.append(use.extra / MIB)
        ours, peer = ours[1:], peer[1:]
        stock.print_phases(kind, ours, peer)
        total = [sum(phases.values()) for phases in peer]
        yield row(f"{kind}: update (stock tools, with sync)", [run["total"] for run in ours], total, PIPELINE_LIMIT)
        unsynced = [sum(phases.values()) - phases["sync"] for phases in peer]
        yield row(f"{kind}: update (stock tools, without sync)", [run["total"] for run in ours], unsynced, UNSYNCED_LIMIT)
        hold = [phases["copy"] + phases["sync"] for phases in peer]
        yield row(f"{kind}: readers held off (cp --reflink=auto, sync -f)", [run["apply"] for run in ours], hold, HOLD_LIMIT)
        yield row(f"{kind}: extra disk (package and one tree by stock tools)", extra[1:], allowed[1:], DISK_LIMIT, unit="M")

    def _our_update(self, volume: Path, publisher: Publisher) -> stock.Phases:
        result = our_phases(self._build, publisher, DATABASE, volume)
        assert result.pop("files") == self._scale.files
        return result

    def _stock_update(self, volume: Path, publisher: Publisher, url: str) -> tuple[stock.Phases, int]:
        """The time of each phase, and the disk that package and unpacked tree take together on this file system."""
        before = used_bytes(volume)
        used: dict[str, int] = {}
        phases = stock.update(volume, publisher, url, lambda name: used.update({name: used_bytes(volume) - before}))
        return phases, used["unpack"]

    def _run(self, program: str, *arguments: object) -> str:
        command = [str(self._build / "bench" / program), *map(str, arguments)]
        return subprocess.run(command, check=True, capture_output=True, text=True).stdout


def row(what: str, ours: list[float], peer: list[float], limit: float, unit: str = "s") -> dict[str, object]:
    return {"what": what, "ours": median(ours), "peer": median(peer), "limit": limit, "unit": unit}
