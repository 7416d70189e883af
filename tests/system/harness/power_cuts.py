"""Operations on a machine whose disk is recorded, and what must hold on each disk that a power cut may leave."""

from __future__ import annotations

import ctypes
import json
import os
import random
import shutil
import subprocess
import tempfile
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import ExitStack, contextmanager
from dataclasses import dataclass
from pathlib import Path

from . import programs, tracing, trees
from .chains import Chain
from .device import CACHE, CONFIGURATION, DATABASE, RUN, STATUS, Device, empty
from .packages import HandPublisher
from .publisher import Publisher
from .recorded_disk import Cut, Kind, Partitions, RecordingDisk, Replay, Step, steps
from .webserver import Nginx

SOURCE = Path(__file__).resolve().parents[3]
HOST = {"state": STATUS, "cache": CACHE, "settings": CONFIGURATION}
"""What a machine keeps of itself, by its name on the disk."""
OLD, MAIN = 1, "@database/autoupdate"


class ShortChain(Chain):
    PATCHED = 3
    CREATED = 4
    LAST = 3


class BroadChain(Chain):
    """So many changes that directories are exchanged whole."""

    PATCHED = 3
    CREATED = 150
    LAST = 2


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
        self.chain: Chain = ShortChain(self.hand)
        self.damaged: dict[str, str] = {}
        """What is installed, where a fix has something to do."""
        self._bound: list[Path] = []

    def _directory(self, prefix: str) -> Path:
        made = Path(tempfile.mkdtemp(prefix=prefix, dir="/"))
        made.chmod(0o755)
        self._stack.callback(made.rmdir)
        return made

    def _serve(self) -> Nginx:
        """At a port that a forced installation does not take for a version."""
        while True:
            server = Nginx(SOURCE / "packaging/nginx/tarndbud.conf", self.publisher.repository, self.place / "nginx")
            if str(ShortChain.LAST) not in server.netloc:
                return server
            server.close()

    def close(self) -> None:
        self._stack.close()

    @property
    def repository(self) -> Path:
        """On the disk, for what publishes."""
        return self.system / "repository"

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


class Update(Operation):
    """Version 1, when it is installed before, becomes the last one."""

    chain: type[Chain] = ShortChain
    installs = False
    without: tuple[str, ...] = ()
    command: tuple[str, ...] = ("update", DATABASE)

    def __init__(self, name: str, **changed: object) -> None:
        self.name = name
        for key, value in changed.items():
            assert hasattr(self, key), key
            setattr(self, key, value)

    def prepare(self, machine: Machine) -> None:
        machine.chain = self.chain(machine.hand)
        machine.chain.publish_first()
        machine.device.add_database(DATABASE)
        if not self.installs:
            machine.device.update(DATABASE)
        machine.chain.publish_rest()
        for part in self.without:
            machine.hand.package(DATABASE, part).unlink()
        machine.device.forget_document()

    def steps(self, machine: Machine) -> list[Callable[[], object]]:
        return [lambda: machine.device.run_ok(*self.command)]

    def judge(self, machine: Machine, done: int) -> None:
        machine.device.run_ok("status", "--json")
        if machine.device.mark(DATABASE).exists():
            return
        version = machine.device.version(DATABASE)
        if done:
            assert version == machine.chain.LAST, f"version {version} after the end"
        if version is not None:
            assert version in (OLD, machine.chain.LAST), f"version {version}"
            machine.chain.assert_installed(installed(machine), version)
        else:
            assert self.installs, "no record"

    def go_on(self, machine: Machine) -> None:
        device = machine.device
        device.run_ok("init")
        device.run_ok("update", DATABASE)
        self.assert_whole(machine, machine.chain.LAST)

    @staticmethod
    def assert_whole(machine: Machine, version: int) -> None:
        device = machine.device
        assert device.version(DATABASE) == version
        assert not device.mark(DATABASE).exists() and not device.plan(DATABASE).exists(), "a mark or a plan stays"
        machine.chain.assert_installed(installed(machine), version)
        device.run_ok("check", DATABASE)
        device.run_ok("read", DATABASE, "--", "true")


def installed(machine: Machine) -> Path:
    """On the volume that the settings name, or the first on which it is."""
    name = json.loads((CONFIGURATION / "data_update.conf").read_text())["config"]["cur_volume"]
    places = [Path(name)] if name else [machine.volume, machine.other]
    return next((place / MAIN / DATABASE for place in places if (place / MAIN / DATABASE).exists()), places[0] / MAIN / DATABASE)


class OfLast(Update):
    """Begins with the last version."""

    def prepare(self, machine: Machine) -> None:
        super().prepare(machine)
        machine.device.update(DATABASE)


class Finishing(Update):
    """An update was killed between two of its renames, and the next run finishes it."""

    def prepare(self, machine: Machine) -> None:
        super().prepare(machine)
        report, update = machine.place / "report", [programs.CTL, *self.command]
        tracing.run_with_fault(report, "signal=SIGKILL", tracing.Point(tracing.REPLACING, 3), update)
        assert machine.device.mark(DATABASE).exists(), "it was not killed while it replaced files"


class Fix(OfLast):
    """Files were lost and changed, and until the new ones come they are as they were."""

    def damage(self, machine: Machine) -> None:
        root = installed(machine)
        for number, name in enumerate(sorted(machine.chain.files(machine.chain.LAST))[:4]):
            if number % 2:
                (root / name).write_bytes(b"damaged")
            else:
                (root / name).unlink()

    def prepare(self, machine: Machine) -> None:
        super().prepare(machine)
        self.damage(machine)
        machine.damaged = trees.contents(installed(machine))

    def judge(self, machine: Machine, done: int) -> None:
        is_marked = machine.device.mark(DATABASE).exists()
        if done or (not is_marked and trees.contents(installed(machine)) != machine.damaged):
            super().judge(machine, done)

    def go_on(self, machine: Machine) -> None:
        machine.device.run_ok("init")
        machine.device.run_ok("fix", DATABASE)
        super().go_on(machine)


class Forced(OfLast):
    """The first version over the last, of which files stay that the first does not have."""

    def judge(self, machine: Machine, done: int) -> None:
        if machine.device.mark(DATABASE).exists():
            return
        version = machine.device.version(DATABASE)
        assert version in ((OLD,) if done else (OLD, machine.chain.LAST)), f"version {version}"
        if version != OLD:
            machine.chain.assert_installed(installed(machine), machine.chain.LAST)
            return
        expected = machine.chain.files(OLD)
        wrong = [name for name, content in expected.items() if (installed(machine) / name).read_bytes() != content]
        assert not wrong, f"not of the forced version: {wrong}"


class Move(OfLast):
    """From one volume to the other."""

    command = ("volume", "unmounting")

    def steps(self, machine: Machine) -> list[Callable[[], object]]:
        return [lambda: machine.device.run_ok(*self.command, str(machine.volume))]

    def judge(self, machine: Machine, done: int) -> None:
        super().judge(machine, done)
        if done and not machine.device.mark(DATABASE).exists():
            assert installed(machine).is_relative_to(machine.other), "the move is forgotten"


class Settings(Update):
    """What the administrator orders; each order is kept once its command has returned."""

    ORDERS = (("hold",), ("hold", "2"), ("unhold",), ("schedule", "off"), ("schedule", "on"), ("hold", "1"))
    FREE = (False, None, True)
    SEEN = (FREE, (True, None, True), (True, 2, True), FREE, (False, None, False), FREE, (True, 1, True))
    """Whether it is held, how far it may go, and whether it is scheduled: before the orders, and after each."""

    def steps(self, machine: Machine) -> list[Callable[[], object]]:
        def given(order: str, *more: str) -> Callable[[], object]:
            return lambda: machine.device.run_ok(order, DATABASE, *more)

        return [given(*order) for order in self.ORDERS]

    def judge(self, machine: Machine, done: int) -> None:
        super().judge(machine, 0)
        status = machine.device.status(DATABASE)
        seen = (status["held"], status["held_up_to"], status["scheduled"])
        assert seen in self.SEEN[done : done + 2], f"{seen} after {done} orders"

    def go_on(self, machine: Machine) -> None:
        machine.device.run_ok("unhold", DATABASE)
        machine.device.run_ok("schedule", DATABASE, "on")
        super().go_on(machine)


class Careless(Operation):
    """A program as it should not be: its file takes a place before its content is on the disk."""

    name = "careless"

    def prepare(self, machine: Machine) -> None:
        (machine.system / "record").write_text("old" * 1000)

    def steps(self, machine: Machine) -> list[Callable[[], object]]:
        def replace() -> None:
            draft = machine.system / "draft"
            draft.write_text("new" * 1000)
            draft.replace(machine.system / "record")
            with (machine.system / "other").open("w") as other:
                os.fsync(other.fileno())

        return [replace]

    def judge(self, machine: Machine, done: int) -> None:
        assert (machine.system / "record").read_text() in ("old" * 1000, "new" * 1000), "neither old nor new"

    def go_on(self, machine: Machine) -> None:
        """Nothing to do."""


class Publishing(Operation):
    """Three versions and a withdrawal; the next is published over what the cut left."""

    LAST = 4
    MOST_DIFFS = 4

    def __init__(self, name: str, *, other: bool) -> None:
        self.name = name
        self._other = other
        """Whether another tree is published afterwards than the one that was going on."""

    def files(self, version: int) -> dict[str, bytes]:
        draw = random.Random(7)
        files = {f"part{number}/file": draw.randbytes(20000) + b"%d" % version for number in range(4)}
        return files | {f"only in {version}": b"%d" % version}

    def publish(self, machine: Machine, files: dict[str, bytes], *options: str) -> object:
        tree = trees.write_tree(machine.place / "tree", files)
        return machine.publisher.publish(tree, DATABASE, "--level", "1", *options, keep_diffs=self.MOST_DIFFS)

    def prepare(self, machine: Machine) -> None:
        machine.publisher.repository = machine.repository
        machine.repository.mkdir()
        self.publish(machine, self.files(1))

    def steps(self, machine: Machine) -> list[Callable[[], object]]:
        return [
            lambda: self.publish(machine, self.files(2)),
            lambda: self.publish(machine, self.files(3)),
            lambda: machine.publisher.withdraw(DATABASE, "--level", "1", keep_diffs=self.MOST_DIFFS),
        ]

    def expected(self, version: int) -> dict[str, bytes]:
        return self.files(2 if version == self.LAST else version)

    def assert_offered(self, machine: Machine, least: int) -> int:
        """Every package that is named is whole, from version to version; returns the newest."""
        entry = machine.publisher.entry(DATABASE)
        version = int(str(entry["data_version"]))
        assert version >= least, f"version {version} is offered, and {least} was published"
        parts = [f"v{version}", *(f"d{number}" for number in entry["diff_files"])]
        for part in parts:
            package = machine.repository / f"packages/{DATABASE}/{DATABASE}_{part}.tarn"
            if part.startswith("v") or version != self.LAST or package.exists():
                programs.run_ok(programs.PUB, "verify", "--key", machine.publisher.public_key, package)
        numbers = sorted(map(int, entry["diff_files"]))
        assert numbers == list(range(version - len(numbers) + 1, version + 1)), f"a gap: {numbers} to {version}"
        checked = programs.run(programs.PUB, "check-repo", "--repo", machine.repository, "--key", machine.publisher.public_key)
        assert checked.status in (0, 4), str(checked)
        return version

    def assert_content(self, machine: Machine, version: int, files: dict[str, bytes]) -> None:
        place = machine.place / "extracted"
        shutil.rmtree(place, ignore_errors=True)
        package = machine.publisher.package(DATABASE, version)
        programs.run_ok(programs.PUB, "extract", package, place, "--key", machine.publisher.public_key)
        trees.assert_holds(place, files)

    def judge(self, machine: Machine, done: int) -> None:
        version = self.assert_offered(machine, done + 1)
        self.assert_content(machine, version, self.expected(version))

    def repeat(self, machine: Machine, version: int) -> int:
        """What was going on, or what comes next."""
        if version == self.LAST:
            machine.publisher.withdraw(DATABASE, "--level", "1", keep_diffs=self.MOST_DIFFS)
        else:
            self.publish(machine, self.files(version))
        self.assert_content(machine, version, self.expected(version))
        return version

    def publish_other(self, machine: Machine, version: int) -> int:
        """A number that may have been seen with another tree is not used again, and the publisher says so."""
        other = {"other": b"tree"}
        try:
            self.publish(machine, other)
        except AssertionError as error:
            assert f"Go past it by --data-version {version + 1}" in str(error), str(error)
            version += 1
            self.publish(machine, other, "--data-version", str(version))
        self.assert_content(machine, version, other)
        return version

    def packages(self, machine: Machine) -> dict[str, str]:
        whole = {}
        for package in machine.repository.glob(f"packages/{DATABASE}/*.tarn"):
            if programs.run(programs.PUB, "verify", "--key", machine.publisher.public_key, package).status == 0:
                whole[package.name] = trees.digest(package)
        return whole

    def go_on(self, machine: Machine) -> None:
        before = self.assert_offered(machine, 1)
        packages = self.packages(machine)
        version = self.publish_other(machine, before + 1) if self._other else self.repeat(machine, before + 1)
        assert self.assert_offered(machine, before + 1) == version
        after = self.packages(machine)
        twice = [name for name in packages.keys() & after.keys() if packages[name] != after[name]]
        assert not twice, f"used twice: {twice}"


OPERATIONS: dict[str, Operation] = {
    operation.name: operation
    for operation in (
        Update("install", installs=True),
        Update("chain"),
        Update("chain, whole directories", chain=BroadChain),
        Update("fallback", without=("d3",)),
        *[Finishing("finishing")] * tracing.is_possible(),
        Fix("fix", command=("fix", DATABASE)),
        Forced("forced install", command=("force-install", DATABASE, str(OLD))),
        Move("volume move"),
        Settings("orders"),
        Publishing("publishing", other=False),
        Publishing("publishing, another tree next", other=True),
    )
}


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

    def try_cuts(self, cuts: list[Cut], until: float = float("inf")) -> tuple[int, list[str]]:
        """How many were tried until then, and what was wrong after them."""
        wrong, tried = [], 0
        replay = Replay(self.before, self.record, self.recorded, self.machine.place)
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
        try:
            with replay.disk(cut) as disk, self.machine.mounted(disk):
                self.operation.judge(self.machine, sum(end <= cut.after for end in self.ends))
                self.operation.go_on(self.machine)
                left = sorted(self.machine.names() - self.known)
                assert not left, f"left behind: {left}"
        except (AssertionError, OSError, ValueError, subprocess.CalledProcessError) as error:
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
    image, before = machine.place / "image", machine.place / "before"
    machine.partitions.format(image)
    with machine.mounted(image):
        operation.prepare(machine)
    subprocess.run(["cp", "--sparse=always", str(image), str(before)], check=True)
    disk = RecordingDisk(program, image, machine.place)
    try:
        with machine.mounted(disk.disk):
            positions, known = _do(operation, machine, disk, draw if restless else None)
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
