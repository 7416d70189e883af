"""Random trees with random edits, published as chains: a device at any version ends at exactly the newest tree."""

from __future__ import annotations

import json
import os
import random
from collections import Counter
from pathlib import Path

from harness import databases, edits, trees
from harness.device import STATUS, Device
from harness.publisher import Publisher
from harness.webserver import Nginx

ROUNDS = 12


def is_database(path: Path) -> bool:
    with path.open("rb") as stream:
        return stream.read(len(databases.MAGIC)) == databases.MAGIC


def assert_published(published: Path, installed: Path) -> int:
    """That all is the same, databases at least in what they hold; returns how many have other bytes."""
    expected, actual = trees.contents(published), trees.contents(installed)
    assert sorted(expected) == sorted(actual)
    assert trees.executables(published) == trees.executables(installed)
    assert trees.directories(installed) == trees.directories_of_files(published)
    changed = [name for name in expected if expected[name] != actual[name]]
    for name in changed:
        assert is_database(published / name), f"{name} has other bytes"
        assert not edits.journal_of(published / name).exists(), f"the journal of {name} fits other bytes"
        assert databases.content(installed / name) == databases.content(published / name), name
    return len(changed)


class Walk:
    """One chain, published version by version, with a device that follows when chance has it."""

    def __init__(self, device: Device, publisher: Publisher, nginx: Nginx, root: Path, seed: int) -> None:
        self._device, self._publisher, self._nginx = device, publisher, nginx
        self._source = random.Random(seed)
        self._tree = edits.Tree(root, self._source)
        # Without digits, which would be taken for those of a version.
        self._name = "".join(chr(ord("a") + int(digit)) for digit in str(seed))
        self.ways: Counter[str] = Counter()

    def run(self) -> None:
        self._device.databases.clear()
        self._device.add_database(self._name)
        self._tree.fill()
        print(self._publisher.publish(self._tree.root, self._name, *self._level()))
        self._update()
        for _ in range(self._source.randint(2, 6)):
            self._tree.edit(self._source.randint(0, 12))
            self._publish()
            if self._source.random() < 0.35:
                self._update()
        self._update()

    def _publish(self) -> None:
        version, kept = self._offered() + 1, 30
        if self._source.random() < 0.06:
            version += 1
        elif self._source.random() < 0.06:
            kept = self._source.randint(0, 2)
        result = self._publisher.publish(
            self._tree.root, self._name, "--data-version", str(version), *self._level(), keep_diffs=kept
        )
        print(result)
        explained = kept == 0 or f"Version {version} has no diff package: " in result.stderr
        assert (str(version) in self._diffs()) != explained
        assert len(self._diffs()) <= kept

    def _level(self) -> list[str]:
        """Mostly a quick one; some packages get whatever codec is smallest at length."""
        return ["--level", str(self._source.choice((1, 1, 1, 5, 18)))]

    def _diffs(self) -> dict[str, object]:
        diffs = self._publisher.entry(self._name)["diff_files"]
        assert isinstance(diffs, dict)
        return diffs

    def _offered(self) -> int:
        return int(self._publisher.entry(self._name)["data_version"])

    def _update(self) -> None:
        if self._source.random() < 0.15:
            # As a new device, which joins the chain here.
            (STATUS / self._name / "version.json").unlink(missing_ok=True)
        installed, offered = self._device.version(self._name), self._offered()
        if installed == offered:
            return
        before = len(self._nginx.packages())
        self._device.update(self._name)
        took = self._nginx.packages()[before:]
        assert took == self._expected(installed, offered)
        self.ways["full" if took[-1].startswith("v") else "diff"] += 1
        self.ways["other bytes"] += assert_published(self._tree.root, self._device.installed(self._name))
        [answer] = json.loads(self._device.run_ok("check", self._name, "--json").stdout)
        assert answer["record_of_all_files"] == "complete"
        assert self._device.version(self._name) == offered

    def _expected(self, installed: int | None, offered: int) -> list[str]:
        """The packages that lead there."""
        steps = range(offered if installed is None else installed + 1, offered + 1)
        if installed is not None and all(str(step) in self._diffs() for step in steps):
            return [f"d{step}" for step in steps]
        return [f"v{offered}"]


def test_a_random_chain_ends_at_exactly_the_newest_tree(
    connected: Device, publisher: Publisher, nginx: Nginx, tmp_path: Path
) -> None:
    first = int(os.environ.get("TARN_SEED", random.SystemRandom().randrange(1 << 32)))
    rounds = int(os.environ.get("TARN_PROPERTY_ROUNDS", ROUNDS))
    ways: Counter[str] = Counter()
    for seed in range(first, first + rounds):
        print(f"TARN_SEED={seed}")
        walk = Walk(connected, publisher, nginx, tmp_path / f"tree{seed}", seed)
        walk.run()
        ways += walk.ways
    print(dict(ways))
    assert ways["diff"] >= rounds / 2, "most chains are whole"
