"""What a trial of a promise is given, and what it finds.

A trial is a module of this package with a function prove(trial: Trial) -> list[Row].
"""

from __future__ import annotations

import platform
import shutil
import subprocess
import time
from dataclasses import asdict, dataclass, field
from pathlib import Path


@dataclass(frozen=True)
class Row:
    """One promise, and how often it was tried."""

    promise: str
    """What must hold, as a sentence."""
    tried: int
    unit: str
    """What was counted, in the plural: "power cuts"."""
    wrong: list[str]
    """The cases in which it did not hold, each so that it can be made again; none of them is left out."""
    where: str = ""
    """On which file system, in which operation, of what size; as short as a table's cell."""
    extra: dict[str, float] = field(default_factory=dict)
    """Figures of this row beyond the count, by name with unit: {"executions": 13800000, "coverage, %": 91.2}."""
    is_promise: bool = True
    """False for what is measured alone."""
    sources: str = ""
    """The digest of the sources that were tried, where several runs of the same sources add up."""

    @property
    def held(self) -> bool:
        return self.tried > 0 and not self.wrong


@dataclass(frozen=True)
class Trial:
    build: Path
    scratch: Path
    brief: bool
    seed: int
    seconds: float
    """For what goes on as long as it is let."""
    only: tuple[str, ...] = ()
    """The parts to try, by name; all without any."""
    earlier: dict | None = None
    """The results that this trial's will replace, as Result.as_json() wrote them."""

    def say(self, text: str) -> None:
        """Progress, for whoever waits."""
        print(f"{time.strftime('%H:%M:%S')} {text}", flush=True)


PARTS = ("btrfs-progs", "e2fsprogs", "g++", "libsqlite3-0", "libssl3", "libzstd1", "nginx-light", "wget", "xfsprogs")


def versions() -> dict[str, str]:
    found = subprocess.run(
        ["dpkg-query", "--show", "--showformat=${Package}\t${Version}\t${Status}\n", *PARTS], capture_output=True, text=True
    ).stdout
    installed = [line.split("\t") for line in found.splitlines() if line.endswith("ok installed")]
    return {name: version for name, version, _ in installed}


def head(source: Path) -> tuple[str, str]:
    """The checkout's commit and its date; neither where there is no git, or where the sources are no checkout."""
    if not shutil.which("git"):
        return "", ""
    command = ["git", "-c", f"safe.directory={source}", "-C", str(source), "show", "-s", "--abbrev=12", "--format=%h %cs"]
    shown = subprocess.run(command, capture_output=True, text=True).stdout.split()
    return (shown[0], shown[1]) if len(shown) == 2 else ("", "")


@dataclass(frozen=True)
class Result:
    name: str
    commit: str
    date: str
    """Of the commit."""
    seed: int
    machine: str
    versions: dict[str, str]
    """Of the parts that the trials use."""
    rows: list[Row]

    @classmethod
    def of(cls, name: str, commit: str, date: str, seed: int, rows: list[Row]) -> Result:
        machine = f"Linux {platform.release()}, {platform.machine()}"
        return cls(name, commit, date, seed, machine, versions(), rows)

    @property
    def held(self) -> bool:
        return bool(self.rows) and all(row.held for row in self.rows if row.is_promise)

    def print(self) -> None:
        for row in self.rows:
            verdict = "held" if row.held else "NOT TRIED" if not row.tried else "BROKEN"
            print(f"{row.promise:70} {row.where:30} {row.tried:9} {row.unit:20} {verdict}")
            for case in row.wrong:
                print(f"    {case}")

    def as_json(self) -> dict:
        return asdict(self)
