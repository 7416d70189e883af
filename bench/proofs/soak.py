"""Two years in the life of a device: at the end exactly the published files, and nothing has grown."""

from __future__ import annotations

import random
import subprocess
from pathlib import Path
from statistics import median

from bench.proofs import Row, Trial
from harness import kept, volumes
from harness.soak import Life
from harness.volumes import MIB, Volumes

DAYS = 730
SHIPPED = Path(__file__).resolve().parents[2] / "packaging/conf"
TOLERATED = 1.1
"""Times what it was: the tree itself changes."""


def grown(name: str, unit: str, values: list[float]) -> Row:
    """The last month beside the second one: in the first the device gets its first records."""
    month = min(30, len(values) // 3)
    before, after = median(values[month : 2 * month]), median(values[-month:])
    wrong = [f"{before} became {after}"] if after > TOLERATED * before else []
    return Row(f"{name} does not grow", len(values), "updates", wrong, extra={f"{unit}, month 2": before, f"{unit}, last": after})


def prove(trial: Trial) -> list[Row]:
    subprocess.run(["cmake", "--install", str(trial.build)], check=True, stdout=subprocess.DEVNULL)
    kind = "ext4" if volumes.may_loop_mount() else "directory"
    place = trial.scratch / "volumes"
    place.mkdir()
    mounted = Volumes(place)
    rows = []
    try:
        for release in kept.releases():
            disks = [mounted.make(kind, 64 * MIB) for _ in range(2)]
            life = Life(release, disks, SHIPPED, trial.scratch / release.place.name, random.Random(trial.seed))
            try:
                rows += _lived(trial, life, f"a device of {release.place.name}, {kind}")
            finally:
                life.close()
    finally:
        mounted.close()
    return rows


def _lived(trial: Trial, life: Life, where: str) -> list[Row]:
    days = 30 if trial.brief else DAYS
    for begin in range(0, days, 30):
        life.live(min(30, days - begin))
        trial.say(f"soak: day {begin + 30} of {days}, {life.releases.offered} is offered, wrong: {len(life.wrong)}")
    life.end()
    happened = dict(sorted((life.counts + life.releases.counts).items()))
    growth = life.growth
    return [
        Row("Each day ends with the published files, or knows that it does not", days, "days", life.wrong, where, happened),
        grown("The memory of an update", "KiB", growth.memory),
        grown("The number of records", "files", growth.files),
        grown("The size of records for each file", "bytes", growth.bytes_each),
        grown("What an update logs", "lines", growth.lines),
    ]
