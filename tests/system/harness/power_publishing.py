"""Publishing while the power may go, and what the repository must then hold."""

from __future__ import annotations

import random
import shutil
from collections.abc import Callable

from . import programs, trees
from .device import DATABASE
from .power_cuts import Machine, Operation


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
        key = machine.publisher.public_key
        checked = programs.run(programs.PUB, "check-repo", "--repo", machine.repository, "--key", key)
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
