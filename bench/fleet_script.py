"""What happens in the comparison of model and reality: who runs when, and what is published in between."""

from __future__ import annotations

import json
import os
import random
import shutil
from dataclasses import dataclass, field
from pathlib import Path

from harness import programs, trees
from harness.device import DATABASE
from harness.publisher import Publisher

CHANNELS = ("1", "canary")
CANARY_SHARE = 0.1
PERIOD = 80
"""Seconds between the runs of a timer, and its delay."""
BRIEF_PERIOD = 14
BRIEF_RUNS = 500
"""Scripts of fewer runs have the shorter period."""
RUNS_EACH = 5
"""Of a device, by its timer."""
HAND_SHARE = 0.2
"""Of all runs, those by hand soon after the timer's."""


@dataclass(frozen=True)
class Run:
    at: float
    device: int


@dataclass
class Script:
    devices: int
    seconds: float
    channels: list[str]
    runs: list[Run]


def make_script(count: int, seed: int = 1) -> Script:
    """So many runs: of a timer with a period that is its delay, and some by hand that find the document still fresh."""
    chance = random.Random(seed)
    by_hand = int(count * HAND_SHARE)
    devices = max((count - by_hand) // RUNS_EACH, 1)
    period = PERIOD if count >= BRIEF_RUNS else BRIEF_PERIOD
    channels = [CHANNELS[number < devices * CANARY_SHARE] for number in range(devices)]
    runs = [Run((tick + chance.random()) * period, device) for device in range(devices) for tick in range(RUNS_EACH)]
    while len(runs) < count:
        before = chance.choice(runs)
        runs.append(Run(before.at + chance.uniform(1, 4), before.device))
    return Script(devices, RUNS_EACH * period + 5, channels, sorted(spaced(runs), key=lambda run: run.at))


def spaced(runs: list[Run]) -> list[Run]:
    """Moves runs of a device apart, so that none begins while another is at work."""
    last: dict[int, float] = {}
    result = []
    for run in sorted(runs, key=lambda run: run.at):
        at = max(run.at, last.get(run.device, -10) + 1)
        last[run.device] = at
        result.append(Run(at, run.device))
    return result


@dataclass
class Shop:
    """A publisher's repository as it is after each step; the parameters of the model say the same of each."""

    place: Path
    publisher: Publisher
    tree: Path
    states: list[Path] = field(default_factory=list)
    publications: list[dict[str, object]] = field(default_factory=list)
    empty_diff_bytes: int = 0

    @property
    def root(self) -> Path:
        return self.place / "served"

    def publish(self, at: float, channel: str, *options: str, keep_diffs: int = 30) -> None:
        (self.tree / "changed").write_bytes(random.Random(len(self.states)).randbytes(4000))
        self.publisher.publish(
            self.tree, DATABASE, "--level", "1", "--channel", channel, *options, keep_diffs=keep_diffs
        )
        self._note({"change": "publish", "at": at, "channel": channel})

    def promote(self, at: float, channel: str, source: str) -> None:
        programs.run_ok(
            programs.PUB, "promote", DATABASE, "--repo", self.publisher.repository, "--from", source, "--to", channel,
            "--key", self.publisher.public_key,
        )  # fmt: skip
        self._note({"change": "promote", "at": at, "channel": channel, "from": source})

    def withdraw(self, at: float, good: int) -> None:
        self.publisher.withdraw(DATABASE, "--to", str(good))
        self._note({"change": "withdraw", "at": at, "channel": "1", "to": good})
        empty = next(self.publisher.repository.glob(f"packages/{DATABASE}/*w*.tarn"))
        self.empty_diff_bytes = empty.stat().st_size

    def show(self, number: int) -> None:
        link = self.place / "next"
        link.symlink_to(self.states[number])
        link.rename(self.root)

    def _note(self, publication: dict[str, object]) -> None:
        repository = self.publisher.repository
        document = repository / "database_info" / str(publication["channel"])
        version = json.loads(document.read_text())["db_list"][DATABASE]["data_version"]
        publication["document_bytes"] = document.stat().st_size
        if publication["change"] != "promote":
            packages = repository / "packages" / DATABASE
            publication["full_bytes"] = (packages / f"{DATABASE}_v{version}.tarn").stat().st_size
            diff = packages / f"{DATABASE}_d{version}.tarn"
            publication["diff_bytes"] = diff.stat().st_size if diff.exists() else 0
        self.publications.append(publication)
        state = self.place / f"state-{len(self.states)}"
        shutil.copytree(repository, state, copy_function=os.link)
        self.states.append(state)


def fill(shop: Shop, seconds: float) -> None:
    """A canary that is promoted, a version by diff package, one by the full package alone, and one that is withdrawn."""
    trees.write_random_tree(shop.tree, 7, count=4, size=60_000)
    shop.publish(-1, "1")
    shop.promote(-1, "canary", "1")
    shop.publish(0.15 * seconds, "canary")
    shop.promote(0.28 * seconds, "1", "canary")
    shop.publish(0.42 * seconds, "1")
    shop.publish(0.57 * seconds, "1", keep_diffs=0)
    shop.publish(0.72 * seconds, "1")
    shop.withdraw(0.80 * seconds, 4)
