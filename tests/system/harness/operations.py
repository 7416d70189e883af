"""Operations that are tried over and over from the same beginning, and what must hold after each, whatever it met."""

from __future__ import annotations

import json
import shutil
from pathlib import Path

from . import programs, trees
from .chains import Chain, counted
from .device import CACHE, CONFIGURATION, DATABASE, HOOKS, KEYS, RUN, STATUS, VOLUMES, Device, empty
from .packages import HandPublisher
from .publisher import Publisher
from .volumes import Volumes, may_mount
from .webserver import Nginx

REPOSITORY = Path(__file__).resolve().parents[3]
FIXED = (STATUS, CACHE, RUN, CONFIGURATION, KEYS, HOOKS)
MAIN = "@database/autoupdate"


class Saved:
    """Directories as they are now, to go back to."""

    def __init__(self, place: Path, directories: list[Path]) -> None:
        self._pairs = [(directory, place / str(number)) for number, directory in enumerate(directories)]
        for current, kept in self._pairs:
            shutil.copytree(current, kept, symlinks=True)

    def restore(self) -> None:
        for current, kept in self._pairs:
            empty(current)
            shutil.copytree(kept, current, symlinks=True, dirs_exist_ok=True)


def serving(repository: Path, place: Path) -> Nginx:
    """At a port without the last version in it: a forced install replaces that wherever it is in the link."""
    while True:
        server = Nginx(REPOSITORY / "packaging/nginx/tarndbud.conf", repository, place / "nginx")
        if str(SmallChain.LAST) not in server.netloc:
            return server
        server.close()


class SmallChain(Chain):
    PATCHED = 2
    CREATED = 2
    LAST = 3


class Operation:
    """Ends with version 3 of a database."""

    name = ""
    old: int | None = 1
    new = 3
    last = 3
    """The version after the next run."""
    next_run: tuple[str, ...] = ("update", DATABASE)
    chain_kind: type[Chain] = SmallChain

    def __init__(self, place: Path, volumes: Volumes) -> None:
        place.mkdir(parents=True)
        self.publisher = Publisher(place / "publisher")
        self.server = serving(self.publisher.repository, place)
        self.publisher.base = self.server.url
        Device.reset(REPOSITORY / "packaging/conf")
        self.device = Device(volumes.make("directory"), self.server.netloc)
        self.hand = HandPublisher(place / "hand", self.publisher.repository, self.server.url)
        self.device.trust(self.hand.key.public)
        self.device.add_database(DATABASE)
        self.chain = self.chain_kind(self.hand)
        self.volumes = [self.device.volume]
        self.device.list_volumes(*self.volumes)
        self.prepare(place, volumes)
        self.device.list_volumes(*self.volumes)
        self._listed = VOLUMES.read_text()
        for directory in FIXED:
            directory.mkdir(parents=True, exist_ok=True)
        self._saved = Saved(place / "saved", self.directories())

    def directories(self) -> list[Path]:
        return [*FIXED, *self.volumes]

    def prepare(self, place: Path, volumes: Volumes) -> None:
        self.chain.publish_first()
        self.device.update(DATABASE)
        self.chain.publish_rest()
        self.device.forget_document()

    @property
    def command(self) -> list[str]:
        return [programs.CTL, "update", DATABASE]

    def restore(self) -> None:
        self._saved.restore()
        VOLUMES.write_text(self._listed)

    def close(self) -> None:
        self.server.close()

    def judge(self, result: programs.Result) -> None:
        """Fails unless the old or the new is there, and the next run makes the last."""
        self.assert_one_version_or_marked(result)
        self.assert_made_good(result)

    def assert_holds(self, version: int | None) -> None:
        installed = self.device.installed(DATABASE)
        if version is None:
            assert not installed.exists() or trees.contents(installed) == {}, "files without a record"
        else:
            self.chain.assert_installed(installed, version)

    def assert_one_version_or_marked(self, result: programs.Result) -> None:
        """A mixture must be known as one: only then does the next update not build upon it."""
        if result.status == 0 or not self.device.mark(DATABASE).exists():
            version = self.device.version(DATABASE)
            assert version in ((self.new,) if result.status == 0 else (self.old, self.new)), f"version {version}"
            self.assert_holds(version)

    def assert_made_good(self, result: programs.Result) -> None:
        device = self.device
        device.run_ok(*self.next_run)
        self.assert_holds(self.last)
        assert device.version(DATABASE) == self.last
        assert not device.mark(DATABASE).exists(), "still marked"
        self.assert_checked(result)
        # Where just the tidying met the fault, the next replacement tidies. A plan without a mark is none.
        if result.status != 0:
            assert not device.plan(DATABASE).exists(), "still planned"
            left = device.left_behind()
            assert left == [], f"left in the temporary area: {left}"

    def assert_checked(self, result: programs.Result) -> None:
        check = self.device.run("check", DATABASE)
        if result.status == 0 and check.status == 4:
            # A file that could not be read to the end has a digest that none has.
            self.device.run_ok("fix", DATABASE)
            check = self.device.run("check", DATABASE)
        assert check.status == 0, str(check)


class Install(Operation):
    name = "install"
    old = None

    def prepare(self, place: Path, volumes: Volumes) -> None:
        self.chain.publish_first()
        self.chain.publish_rest()


class DiffChain(Operation):
    name = "chain"


class Fallback(Operation):
    """The second diff package of the chain is missing, so the full one is taken."""

    name = "fallback"

    def prepare(self, place: Path, volumes: Volumes) -> None:
        super().prepare(place, volumes)
        self.hand.package(DATABASE, "d3").unlink()


class WholePackage(Operation):
    """No diff package of the chain is there."""

    name = "full package"

    def prepare(self, place: Path, volumes: Volumes) -> None:
        super().prepare(place, volumes)
        for version in range(2, SmallChain.LAST + 1):
            self.hand.package(DATABASE, f"d{version}").unlink()


class Fix(Operation):
    """A file has changed, another is gone."""

    name = "fix"
    old = 3
    next_run = ("fix", DATABASE)

    def prepare(self, place: Path, volumes: Volumes) -> None:
        super().prepare(place, volumes)
        self.device.update(DATABASE)
        files = sorted(self.chain.files(3))
        installed = self.device.installed(DATABASE)
        (installed / files[0]).write_bytes(b"damaged")
        (installed / files[1]).unlink()
        self._damaged = trees.contents(installed)

    @property
    def command(self) -> list[str]:
        return [programs.CTL, "fix", DATABASE]

    def assert_one_version_or_marked(self, result: programs.Result) -> None:
        """What was damaged is either so still, or repaired."""
        still = trees.contents(self.device.installed(DATABASE)) == self._damaged
        if result.status == 0 or not still:
            super().assert_one_version_or_marked(result)


class Forced(Operation):
    """Goes back to version 2, which is no longer offered."""

    name = "forced install"
    old = 3
    new = 2

    def prepare(self, place: Path, volumes: Volumes) -> None:
        super().prepare(place, volumes)
        self.device.update(DATABASE)
        last = self.chain.database_of(2)
        entry = json.loads(json.dumps(self.hand.entry(DATABASE)))
        self.hand.full(DATABASE, 2, {**self.chain.files(2), "counters.sqlite": last})
        self.hand.entry(DATABASE).update(entry)
        self.hand.write_document()

    @property
    def command(self) -> list[str]:
        return [programs.CTL, "force-install", DATABASE, "2"]

    def assert_made_good(self, result: programs.Result) -> None:
        """By the same command, since an update has nothing to do where nothing was changed."""
        self.device.run_ok(*self.command[1:])
        self.assert_holds(self.new)
        super().assert_made_good(result)

    def assert_holds(self, version: int | None) -> None:
        """It unpacks over what is there: files that its package lacks stay."""
        if version != self.new:
            return super().assert_holds(version)
        installed = self.device.installed(DATABASE)
        held = trees.contents(installed)
        expected = self.chain.files(self.new)
        assert counted((installed / "counters.sqlite").read_bytes()) == {self.new}
        assert [name for name in expected if (installed / name).read_bytes() != expected[name]] == []
        assert held.keys() - expected.keys() <= self.chain.files(self.old).keys() | {"counters.sqlite"}


class Move(Operation):
    """To another file system where there can be one."""

    name = "volume move"
    old = 3

    def prepare(self, place: Path, volumes: Volumes) -> None:
        super().prepare(place, volumes)
        self.device.update(DATABASE)
        self.volumes.append(volumes.make("tmpfs" if may_mount() else "directory", 32 << 20))

    @property
    def command(self) -> list[str]:
        return [programs.CTL, "volume", "unmounting", str(self.volumes[0])]

    def restore(self) -> None:
        super().restore()
        self.device.volume = self.volumes[0]

    def shown(self) -> Path | None:
        volume = json.loads(self.device.run_ok("volume", "show", "--json").stdout)["volume"]
        return Path(volume) if volume else None

    def judge(self, result: programs.Result) -> None:
        shown = self.shown()
        assert result.status != 0 or shown in (self.volumes[1], None), f"{shown} is in use"
        if not self.device.mark(DATABASE).exists():
            assert self.device.version(DATABASE) == 3
            self._assert_whole_on([shown] if shown else self.volumes)
        if not shown:
            self.device.run_ok("init")
        self.device.volume = self.shown()
        self.assert_made_good(result)

    def _assert_whole_on(self, volumes: list[Path]) -> None:
        """On one of them at least."""
        found = []
        for volume in volumes:
            try:
                self.chain.assert_installed(volume / MAIN / DATABASE, 3)
                return
            except (AssertionError, OSError, KeyError) as error:
                found.append(f"{volume}: {error!r}")
        raise AssertionError("; ".join(found))


class Publish(Operation):
    """Version 2 with a diff package from version 1."""

    name = "publish"

    def directories(self) -> list[Path]:
        return [*super().directories(), self.publisher.repository]

    def prepare(self, place: Path, volumes: Volumes) -> None:
        self._trees = [self._write(place, version) for version in (1, 2)]
        self.publisher.publish(self._trees[0], DATABASE, keep_diffs=3)

    def _write(self, place: Path, version: int) -> Path:
        files = {**self.chain.files(version), "counters.sqlite": self.chain.database_of(version)}
        return trees.write_tree(place / f"tree{version}", files)

    @property
    def command(self) -> list[str]:
        publisher = self.publisher
        options = ["--repo", str(publisher.repository), "--id", DATABASE, "--key", str(publisher.private_key)]
        return [programs.PUB, "publish", str(self._trees[1]), *options, "--url", publisher.base, "--keep-diffs", "3"]

    def judge(self, result: programs.Result) -> None:
        version = int(self.publisher.entry(DATABASE)["data_version"])
        assert version == 2 if result.status == 0 else version in (1, 2), f"version {version}"
        self._assert_repository((0, 4))
        programs.run_ok(*self.command)
        assert int(self.publisher.entry(DATABASE)["data_version"]) == version + 1
        self._assert_repository((0,))

    def _assert_repository(self, statuses: tuple[int, ...]) -> None:
        """Every package that the document names is there, and there is no gap."""
        check = programs.run(
            programs.PUB, "check-repo", "--repo", self.publisher.repository, "--key", self.publisher.public_key
        )
        assert check.status in statuses, str(check)


OPERATIONS = (Install, DiffChain, Fallback, Fix, Forced, Move, Publish)
