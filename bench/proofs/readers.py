"""What readers see: under the lock one version whole, without it what there is, after a kill nothing until it is whole again.

The last takes place without a network, from the files that the killed update had prepared.
"""

from __future__ import annotations

import random
import shutil
import statistics
import subprocess
import time
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path

from bench.proofs import Row, Trial
from harness import call_faults, programs, tracing, views
from harness.alternation import Alternation
from harness.call_faults import Case
from harness.chains import Chain
from harness.device import DATABASE
from harness.operations import Operation, WholePackage
from harness.volumes import Volumes

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"
REPLACEMENTS = 5000
CARELESS = 1000
UNDER_LOCK = "a reader under the lock sees one version whole"
WITHOUT_LOCK = "a reader without the lock is promised nothing: what it saw"
REPAIRED = "after a kill no reader under the lock reads, and the next start makes it whole without a network"


def prove(trial: Trial) -> list[Row]:
    subprocess.run(["cmake", "--install", str(trial.build)], check=True, stdout=subprocess.DEVNULL)
    with alternation(trial) as (installed, alternating):
        rows = [*under_lock(trial, installed, alternating), without_lock(trial, installed, alternating)]
    if not call_faults.is_possible():
        return [*rows, Row(REPAIRED, 0, "kills", [])]
    return [*rows, *(after_kills(trial, kind) for kind in (FewFiles, ManyFiles, WholePackage))]


class Alternating(Operation):
    """A device and its server, with nothing published yet."""

    def prepare(self, place: Path, volumes: Volumes) -> None:
        self.device.trust(self.publisher.public_key)


@contextmanager
def volumes_at(place: Path) -> Iterator[Volumes]:
    place.mkdir(parents=True, exist_ok=True)
    volumes = Volumes(place)
    try:
        yield volumes
    finally:
        volumes.close()


@contextmanager
def alternation(trial: Trial) -> Iterator[tuple[Path, Alternation]]:
    with volumes_at(trial.scratch / "volumes") as volumes:
        site = Alternating(trial.scratch / "alternating", volumes)
        try:
            made = Alternation(site.device, site.publisher, site.server, trial.scratch / "tree")
            yield site.device.installed(DATABASE), made
        finally:
            site.close()


def c_reader(place: Path) -> str:
    reader = place / "reader"
    line = f"gcc -std=c11 -Wall -Werror {EXAMPLES}/reader.c $(pkg-config --cflags --libs tarndbud) -o {reader}"
    programs.run_ok("/bin/sh", "-c", line)
    return str(reader)


def go_on(alternating: Alternation, count: int, seconds: float) -> int:
    """So many replacements, or as many as there is time for."""
    begin, deadline = alternating.replacements, time.monotonic() + seconds
    while alternating.replacements - begin < count and time.monotonic() < deadline:
        alternating.cycle()
    return alternating.replacements - begin


def under_lock(trial: Trial, installed: Path, alternating: Alternation) -> list[Row]:
    paths = views.paths(installed)
    commands = {
        "example in C": [c_reader(trial.scratch), DATABASE, "60", *paths],
        "example in shell": [str(EXAMPLES / "reader.sh"), DATABASE, "60", *paths],
        "tarndbudctl read": [programs.CTL, "read", DATABASE, "--", "/bin/cat", *paths],
    }
    readers = {name: views.Reader(command) for name, command in commands.items()}
    with readers["example in C"], readers["example in shell"], readers["tarndbudctl read"]:
        count = go_on(alternating, 10 if trial.brief else REPLACEMENTS, trial.seconds / 2)
    trial.say(f"{count} replacements under readers that hold the lock")
    return [lock_row(name, reader, count) for name, reader in readers.items()]


def lock_row(name: str, reader: views.Reader, replacements: int) -> Row:
    later = reader.statuses[75]
    extra = {"replacements": replacements, "told to come later": later}
    wrong = [str(result)[:1000] for result in reader.mixtures]
    foreign = set(reader.statuses) - {0, 75}
    wrong += [f"ended with {status}, {reader.statuses[status]} times" for status in foreign]
    return Row(UNDER_LOCK, sum(reader.statuses.values()) - later, "reads", wrong, where=name, extra=extra)


def without_lock(trial: Trial, installed: Path, alternating: Alternation) -> Row:
    # Without a pause, since it keeps nobody waiting.
    careless = views.Reader(["/bin/cat", *views.paths(installed)], pause=0)
    with careless:
        count = go_on(alternating, 10 if trial.brief else CARELESS, trial.seconds / 8)
    mixed = sum(result.status == 0 for result in careless.mixtures)
    reads = sum(careless.statuses.values())
    missing = reads - careless.statuses[0]
    extra = {
        "replacements": count, "mixtures that nothing told of": mixed, "files missing": missing,
        "wrong reads, %": round(100 * (mixed + missing) / reads, 2),
    }  # fmt: skip
    trial.say(f"{count} replacements under readers without the lock: {mixed} of {reads} mixed, {missing} without a file")
    return Row(WITHOUT_LOCK, reads, "reads", [], where="cat", extra=extra, is_promise=False)


class FewFiles(Operation):
    name = "diff, few files"


class ManyFiles(Operation):
    """So many changes that directories are exchanged whole."""

    class chain_kind(Chain):
        PATCHED, CREATED, LAST = 2, 100, 2

    name = "diff, many files"


class Kills:
    """Kills an update at a replacing call, and has the next start finish it without a server."""

    def __init__(self, operation: Operation, report: Path) -> None:
        self._operation, self._report = operation, report
        operation.restore()
        found = call_faults.cases(operation.name, report, operation.command)
        self.cases = [case for case in found if case.point.call == tracing.REPLACING and case.fault == "kill"]
        self.milliseconds: list[float] = []

    def try_case(self, case: Case) -> str:
        """What was wrong, or nothing."""
        device = self._operation.device
        self._operation.restore()
        call_faults.run(case, self._report, self._operation.command, programs.PATIENCE_SECONDS)
        if not device.mark(DATABASE).exists():
            return f"{case}: no mark"
        read = device.run("read", DATABASE, "--", "true")
        if read.status != 75:
            return f"{case}: a mixture can be read: {read}"
        # Nobody listens there.
        netloc, device.netloc = device.netloc, "127.0.0.1:9"
        device.configure()
        device.forget_document()
        try:
            self.milliseconds.append(self._repair())
            self._operation.chain.assert_installed(device.installed(DATABASE), self._operation.chain.LAST)
            device.run_ok("read", DATABASE, "--", "true")
            device.run_ok("check", DATABASE)
        except AssertionError as error:
            return f"{case}: {error}"
        finally:
            device.netloc = netloc
        return ""

    def _repair(self) -> float:
        """Milliseconds from the start of an update to the moment at which readers are let in again."""
        device, begin = self._operation.device, time.monotonic()
        mark = device.mark(DATABASE)
        update = device.start("update", DATABASE)
        while mark.exists() and not update.has_ended():
            time.sleep(0.0005)
        lasted = time.monotonic() - begin
        result = update.wait()
        assert not mark.exists(), f"not finished: {result}"
        return lasted * 1000


def after_kills(trial: Trial, kind: type[Operation]) -> Row:
    place = trial.scratch / kind.__name__
    with volumes_at(place / "volumes") as volumes:
        operation = kind(place / "site", volumes)
        try:
            kills = Kills(operation, place / "report")
            wrong = [told for told in map(kills.try_case, drawn(trial, kills.cases)) if told]
        finally:
            operation.close()
    shutil.rmtree(place / "site")
    times = sorted(kills.milliseconds) or [0.0]
    extra = {
        "calls that replace": len(kills.cases), "ms until readers are let in, median": round(statistics.median(times), 1),
        "ms until readers are let in, longest": round(times[-1], 1),
    }  # fmt: skip
    trial.say(f"{kind.name}: {len(kills.milliseconds)} kills, {len(wrong)} wrong")
    return Row(REPAIRED, len(kills.milliseconds) + len(wrong), "kills", wrong, where=kind.name, extra=extra)


def drawn(trial: Trial, cases: list[Case]) -> Iterator[Case]:
    """Each call once, and then any of them until the time is over."""
    chance, deadline = random.Random(trial.seed), time.monotonic() + trial.seconds / 10
    yield from cases[:4] if trial.brief else cases
    while not trial.brief and time.monotonic() < deadline:
        yield chance.choice(cases)
