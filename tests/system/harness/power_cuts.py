"""Operations on a machine whose disk is recorded, and what must hold on each disk that a power cut may leave."""

from __future__ import annotations

import ctypes
import os
import random
import shutil
import sqlite3
import subprocess
import tempfile
import threading
import time
import uuid
from collections.abc import Callable, Iterator
from contextlib import ExitStack, contextmanager
from dataclasses import dataclass
from pathlib import Path

from .chains import Chain
from .device import CACHE, CONFIGURATION, RUN, STATUS, Device, empty
from .packages import HandPublisher
from .publisher import Publisher
from .recorded_disk import Cut, Kind, Partitions, RecordingDisk, Replay, Step, steps
from .webserver import Nginx

SOURCE = Path(__file__).resolve().parents[3]
HOST = {"state": STATUS, "cache": CACHE, "settings": CONFIGURATION}
"""What a machine keeps of itself, by its name on the disk."""
BOOT_ID = Path("/proc/sys/kernel/random/boot_id")
REPLACED = "3"
"""What a forced installation replaces in the link of the newest version."""
WRONG = (AssertionError, OSError, ValueError, sqlite3.Error, subprocess.CalledProcessError)
"""How it shows that something is not as it should be."""


class Machine:
    """A device whose state and volumes lie on one disk, and a server that does not."""

    def __init__(self, kind: Kind, scratch: Path) -> None:
        self.place = Path(tempfile.mkdtemp(dir=scratch))
        self._stack = ExitStack()
        self._stack.callback(shutil.rmtree, self.place)
        self.system = self._directory("power-system-")
        self.volume = self._directory("volume1-")
        self.other = self._directory("volume2-")
        self.partitions = Partitions(kind, [self.system, self.volume, self.other])
        self._boot = self._cover_boot_id()
        self.publisher = Publisher(self.place / "publisher")
        self.nginx = self._serve()
        self._stack.callback(self.nginx.close)
        self.publisher.base = self.nginx.url
        self.hand = HandPublisher(self.place / "hand", self.publisher.repository, self.nginx.url)
        self._stack.callback(Device.reset, SOURCE / "packaging/conf")
        Device.reset(SOURCE / "packaging/conf")
        self.device = Device(self.volume, self.nginx.netloc)
        self.device.list_volumes()
        self.device.trust(self.hand.key.public)
        self.chain = Chain(self.hand)
        """What the operation published."""
        self.damaged: dict[str, str] = {}
        """What is installed, where a fix has something to do."""
        self._bound: list[Path] = []

    def _directory(self, prefix: str) -> Path:
        made = Path(tempfile.mkdtemp(prefix=prefix, dir="/"))
        made.chmod(0o755)
        self._stack.callback(made.rmdir)
        return made

    def _cover_boot_id(self) -> Path:
        """A kernel that goes on would tell programs that there was no power cut."""
        cover = self.place / "boot_id"
        cover.write_text(BOOT_ID.read_text())
        subprocess.run(["mount", "--bind", str(cover), str(BOOT_ID)], check=True)
        self._stack.callback(subprocess.run, ["umount", str(BOOT_ID)], check=True)
        return cover

    def restart(self) -> None:
        """What programs see of a start."""
        self._boot.write_text(f"{uuid.uuid4()}\n")

    def _serve(self) -> Nginx:
        """At a port that a forced installation does not take for a version."""
        while True:
            server = Nginx(SOURCE / "packaging/nginx/tarndbud.conf", self.publisher.repository, self.place / "nginx")
            if REPLACED not in server.netloc:
                return server
            server.close()

    def close(self) -> None:
        self._stack.close()

    @property
    def repository(self) -> Path:
        """On the disk, for what publishes."""
        return self.system / "repository"

    @property
    def store(self) -> Path:
        """On the disk, for what carries a repository elsewhere."""
        return self.system / "store"

    def on_close(self, end: Callable[[], object]) -> None:
        self._stack.callback(end)

    @contextmanager
    def mounted(self, disk: Path) -> Iterator[None]:
        """As after a start: the locks of the time before are gone."""
        try:
            self.partitions.mount(disk)
            for name, path in HOST.items():
                (self.system / name).mkdir(exist_ok=True)
                path.mkdir(parents=True, exist_ok=True)
                subprocess.run(["mount", "--bind", str(self.system / name), str(path)], check=True)
                self._bound.append(path)
            empty(RUN)
            yield
        finally:
            while self._bound:
                subprocess.run(["umount", str(self._bound[-1])], check=True)
                self._bound.pop()
            self.partitions.unmount(disk)

    def names(self) -> set[str]:
        """Everything that device and publisher keep beside the data."""
        places = [*HOST.values(), *(volume / "@tmp/data_update" for volume in (self.volume, self.other))]
        drafts = {str(path) for path in self.repository.rglob(".*")}
        return drafts | {str(path) for place in places for path in place.rglob("*")}


class Operation:
    """What is done, what may be found after a cut, and how the machine goes on."""

    name = ""

    def prepare(self, machine: Machine) -> None:
        """Before the recording, on the mounted disk."""

    def steps(self, machine: Machine) -> list[Callable[[], object]]:
        """What is recorded: each of these has returned, and what it did must last, before the next one begins."""
        raise NotImplementedError

    def judge(self, machine: Machine, done: int) -> None:
        """Right after the start. done: how many steps had returned before the cut."""
        raise NotImplementedError

    def go_on(self, machine: Machine) -> None:
        """As the service does, until everything is as it should be at the end."""
        raise NotImplementedError

    def judge_recovery(self, machine: Machine, done: int, *, is_recovered: bool) -> None:
        """Right after the start that follows a cut in go_on(), or after it. done: as judge() was told before it."""
        self.judge(machine, done + is_recovered)


@dataclass(frozen=True)
class Recording:
    """An operation that was recorded: the disk before, all that happened to it, and the moments of its steps."""

    operation: Operation
    machine: Machine
    before: Path
    record: Path
    recorded: list[Step]
    begin: int
    """How much of the record is of what was before the operation."""
    ends: list[int]
    """For each step how long the record was when it had returned."""
    known: set[str]
    """What is beside the data when all went well."""

    def replay(self) -> Replay:
        return Replay(self.before, self.record, self.recorded, self.before.parent)

    def done(self, cut: Cut) -> int:
        """How many steps had returned before a cut."""
        return sum(end <= cut.after for end in self.ends)

    def prefixes(self) -> list[Cut]:
        """Every cut that loses nothing out of order."""
        return [Cut(after) for after in range(self.begin, len(self.recorded) + 1)]

    def forget(self) -> None:
        """Gives its room back."""
        shutil.rmtree(self.before.parent)

    def try_cuts(self, cuts: list[Cut], until: float = float("inf")) -> tuple[int, list[str]]:
        """How many were tried until then, and what was wrong after them."""
        wrong, tried = [], 0
        replay = self.replay()
        for cut in sorted(cuts, key=lambda cut: cut.after):
            if time.monotonic() >= until:
                break
            judged = self.judgement(replay, cut)
            wrong += [judged] * bool(judged)
            tried += 1
        replay.close()
        return tried, wrong

    def judgement(self, replay: Replay, cut: Cut) -> str:
        """What is wrong after a cut, or nothing."""
        self.machine.restart()
        try:
            with replay.disk(cut) as disk, self.machine.mounted(disk):
                self.operation.judge(self.machine, self.done(cut))
                self.operation.go_on(self.machine)
                left = sorted(self.machine.names() - self.known)
                assert not left, f"left behind: {left}"
        except WRONG as error:
            return f"{cut}: {error!r}"
        return ""


class Unrest:
    """Brings the disk up to date now and then, as other programs on the machine cause it."""

    def __init__(self, places: list[Path], draw: random.Random) -> None:
        descriptors = [os.open(place, os.O_RDONLY | os.O_DIRECTORY) for place in places]
        libc = ctypes.CDLL(None, use_errno=True)
        self._ended = threading.Event()

        def sync() -> None:
            while not self._ended.wait(draw.uniform(0, 0.02)):
                libc.syncfs(draw.choice(descriptors))
            for descriptor in descriptors:
                os.close(descriptor)

        self._thread = threading.Thread(target=sync)
        self._thread.start()

    def end(self) -> None:
        self._ended.set()
        self._thread.join()


def record(operation: Operation, machine: Machine, program: Path, draw: random.Random, *, restless: bool) -> Recording:
    """Does an operation on a new disk, and keeps all that the disk was told."""
    image = new_place(machine) / "image"
    machine.partitions.format(image)
    with machine.mounted(image):
        operation.prepare(machine)
    return record_on(image, operation, machine, program, draw if restless else None)


def new_place(machine: Machine) -> Path:
    """For the files of one recording."""
    return Path(tempfile.mkdtemp(prefix="recording-", dir=machine.place))


def record_on(
    image: Path, operation: Operation, machine: Machine, program: Path, unrest: random.Random | None
) -> Recording:
    """The same on a disk that is there. Takes the image away."""
    before = image.with_name("before")
    subprocess.run(["cp", "--sparse=always", str(image), str(before)], check=True)
    disk = RecordingDisk(program, image, image.parent)
    try:
        with machine.mounted(disk.disk):
            positions, known = _do(operation, machine, disk, unrest)
    finally:
        disk.close()
        image.unlink()
    recorded = steps(disk.record)
    begin, *ends, last = [sum(step.at <= position for step in recorded) for position in positions]
    return Recording(operation, machine, before, disk.record, recorded[:last], begin, ends, known)


def _do(
    operation: Operation, machine: Machine, disk: RecordingDisk, unrest: random.Random | None
) -> tuple[list[int], set[str]]:
    places = [machine.system, machine.volume, machine.other]
    _sync(places)
    positions = [disk.position()]
    others = Unrest(places, unrest) if unrest else None
    try:
        for step in operation.steps(machine):
            step()
            positions.append(disk.position())
    finally:
        if others:
            others.end()
    _sync(places)
    positions.append(disk.position())
    operation.go_on(machine)
    return positions, machine.names()


def _sync(places: list[Path]) -> None:
    subprocess.run(["sync", "--file-system", *map(str, places)], check=True)
