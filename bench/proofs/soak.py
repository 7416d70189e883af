"""Two years in the life of a device: at the end exactly the published files, and nothing has grown."""

from __future__ import annotations

import random
import subprocess
from pathlib import Path
from statistics import median

from bench.proofs import Row, Trial
from harness import debian, kept, volumes
from harness.debian import Packages
from harness.soak import Life
from harness.upgrades import Upgrades
from harness.volumes import MIB, Volumes

DAYS = 730
SOURCE = Path(__file__).resolve().parents[2]
SHIPPED = SOURCE / "packaging/conf"
BUILT = SOURCE / "build/packages"
BUILD_LOG = SOURCE / "build/packages.log"
LEAST_UPDATES = 90
UPGRADE_EACH, BRIEF_UPGRADE_EACH = 30, 6
"""Days."""
TOLERATED = 1.1
"""Times what it was: the tree itself changes."""


def grown(name: str, unit: str, values: list[float]) -> Row:
    """The last updates beside early ones, of the second month or so: in the first the device gets its first records."""
    if len(values) < LEAST_UPDATES:
        return Row(f"{name} (too few updates to judge its growth)", len(values), "updates", [], is_promise=False)
    some = LEAST_UPDATES // 3
    before, after = median(values[some : 2 * some]), median(values[-some:])
    extra = {f"{unit}, early": before, f"{unit}, late": after}
    is_measured = before > 0  # else its files are looked for in the wrong place
    wrong = [] if is_measured and after <= TOLERATED * before else [f"{before} became {after}"]
    return Row(f"{name} does not grow", len(values), "updates", wrong, extra=extra)


def packages(trial: Trial) -> tuple[Packages | None, str]:
    """This tree's packages, or none and the reason. A brief trial builds none, and takes what is there."""
    if not trial.brief:
        trial.say("soak: builds the packages")
        with BUILD_LOG.open("w") as log:
            if subprocess.run([SOURCE / "package.sh", BUILT], stdout=log, stderr=subprocess.STDOUT).returncode != 0:
                return None, f"the packages could not be built, see {BUILD_LOG.relative_to(SOURCE)}"
    reason = debian.missing(BUILT)
    return (None, reason) if reason else (Packages(BUILT, trial.scratch / "packages"), "")


def prove(trial: Trial) -> list[Row]:
    installed, reason = packages(trial)
    if not installed:
        subprocess.run(["cmake", "--install", str(trial.build)], check=True, stdout=subprocess.DEVNULL)
    kind = "ext4" if volumes.may_loop_mount() else "directory"
    place = trial.scratch / "volumes"
    place.mkdir()
    mounted = Volumes(place)
    rows = []
    try:
        for release in kept.releases():
            disks = [mounted.make(kind, 64 * MIB) for _ in range(2)]
            home, source = trial.scratch / release.place.name, random.Random(trial.seed)
            life = Life(
                release, disks, SHIPPED, home, source, installed, BRIEF_UPGRADE_EACH if trial.brief else UPGRADE_EACH
            )
            try:
                rows += _lived(trial, life, f"a device of {release.place.name}, {kind}")
                rows.append(_upgraded(trial, life.upgrades, reason))
            finally:
                life.close()
    finally:
        mounted.close()
    return rows


def _live(trial: Trial, life: Life, days: int) -> None:
    for begin in range(0, days, 30):
        life.live(min(30, days - begin))
        wrong = len(life.wrong) + len(life.upgrades.wrong if life.upgrades else [])
        trial.say(f"soak: day {begin + 30} of {days}, {life.releases.offered} is offered, wrong: {wrong}")
    life.end()


def _lived(trial: Trial, life: Life, where: str) -> list[Row]:
    days = 30 if trial.brief else DAYS
    try:
        _live(trial, life, days)
    except (AssertionError, OSError) as error:
        life.wrong.append(f"day {life.day}, on which life ended: {error}")
    happened = dict(sorted((life.counts + life.releases.counts).items()))
    growth = life.growth
    return [
        Row("Each day ends with the published files, or knows that it does not", min(life.day, days), "days", life.wrong, where, happened),
        grown("The memory of an update", "KiB", growth.memory),
        grown("The number of records", "files", growth.files),
        grown("The size of the record of all files, for each of these,", "bytes", growth.bytes_each),
        _bounded("All other records together stay below 4,096 bytes", growth.other_bytes, 4096),
        grown("What an update logs", "lines", growth.lines),
    ]


def _bounded(promise: str, values: list[float], bound: float) -> Row:
    most = max(values, default=0)
    wrong = [f"{most:.0f} bytes"] if most >= bound else []
    return Row(promise, len(values), "updates", wrong, extra={"bytes, most": most})


def _upgraded(trial: Trial, upgrades: Upgrades | None, reason: str) -> Row:
    promise = "An upgrade keeps edited settings, keys, records, holds and data"
    if not upgrades:
        promise += f" (programs of the build, not packages: {reason})"
        return Row(promise, 0, "upgrades", [], is_promise=not trial.brief)
    counts = dict(sorted(upgrades.counts.items()))
    return Row(promise, counts.pop("upgrades", 0), "upgrades", upgrades.wrong, extra=counts)
