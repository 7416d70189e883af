"""Every system call of an update fails once, or is its last: what is installed is one version, and the next is exact.

A few calls are drawn in every run. TARN_SWEEP=all takes one after the other, which takes long, and
TARN_SWEEP=rename,unlink those of these names.
"""

from __future__ import annotations

import os
import random
from pathlib import Path

import pytest
from harness import programs, tracing
from harness.chains import Chain, Snapshot
from harness.device import DATABASE, Device
from harness.packages import HandPublisher
from harness.tracing import Point

DRAWN = 8

pytestmark = pytest.mark.skipif(not tracing.is_possible(), reason="other programs cannot be traced here")


class ShortChain(Chain):
    PATCHED = 2
    CREATED = 2
    LAST = 3


class BroadChain(Chain):
    """So many changes that directories are exchanged whole."""

    PATCHED = 2
    CREATED = 100
    LAST = 2


OF_DIRECTORIES = ("mkdir", "mkdirat", "linkat", "renameat2", "fchown", "fchmod", "utimensat", "getdents64", "unlinkat", "flock")
"""Of the thousands of calls that are made for many files, those that make directories ready and exchange them."""


@pytest.fixture
def chain(connected: Device, hand: HandPublisher) -> Chain:
    made = ShortChain(hand)
    made.publish_first()
    connected.update(DATABASE)
    return made


def chosen(points: list[Point]) -> list[Point]:
    wanted = os.environ.get("TARN_SWEEP", "")
    if wanted:
        return points if wanted == "all" else [point for point in points if point.name in wanted.split(",")]
    seed = int(os.environ.get("TARN_SEED", random.SystemRandom().randrange(1 << 32)))
    print(f"TARN_SEED={seed}")
    return random.Random(seed).sample(points, DRAWN)


def assert_one_version_or_marked(device: Device, chain: Chain, result: programs.Result) -> None:
    """A mixture must be known as one: only then does the next update not build upon it."""
    if result.status == 0 or not device.mark(DATABASE).exists():
        version = device.version(DATABASE)
        assert version in ((chain.LAST,) if result.status == 0 else (1, chain.LAST))
        chain.assert_installed(device.installed(DATABASE), version)


def assert_made_good(device: Device, chain: Chain, result: programs.Result) -> None:
    device.run_ok("update", DATABASE)
    chain.assert_installed(device.installed(DATABASE), chain.LAST)
    assert device.version(DATABASE) == chain.LAST
    assert not device.mark(DATABASE).exists()
    check = device.run("check", DATABASE)
    if result.status == 0 and check.status == 4:
        # A file that could not be read to the end has a digest that none has.
        device.run_ok("fix", DATABASE)
        check = device.run("check", DATABASE)
    assert check.status == 0, str(check)


def assert_tidy(device: Device) -> None:
    assert not device.temporary().exists() or list(device.temporary().iterdir()) == []


def judgement(device: Device, chain: Chain, result: programs.Result) -> str:
    """What is wrong after a run that met a fault, or nothing."""
    try:
        assert_one_version_or_marked(device, chain, result)
        assert_made_good(device, chain, result)
        # Where just the tidying met the fault, the next replacement tidies.
        if result.status != 0:
            assert_tidy(device)
    except Exception as error:
        return f"{error!r}"
    return ""


def sweep(device: Device, chain: Chain, fault: str, place: Path, names: tuple[str, ...] = ()) -> list[str]:
    """The faults after which something was wrong, at calls of these names."""
    update = [programs.CTL, "update", DATABASE]
    report = place / "report"
    snapshot = Snapshot(device, place / "snapshot")
    wrong = []
    points = tracing.points(report, update)
    if fault.startswith("error"):
        # An injected error keeps the file open, so that who waits for its end waits for ever; no real one does that.
        points = [point for point in points if point.name != "close"]
    if names:
        points = [point for point in points if point.name in names]
    met = 0
    drawn = chosen(points)
    for point in drawn:
        snapshot.restore()
        # It is asked for in every round, so that its arrival meets faults as well.
        device.forget_document()
        result = tracing.run_with_fault(report, fault, point, update)
        calls = tracing.faults(report)
        met += bool(calls)
        judged = judgement(device, chain, result)
        if judged:
            wrong.append("\n".join([str(point), *calls, str(result), judged]))
    # Programs that wait for one another do not make the same number of calls each time.
    assert met > len(drawn) // 2, f"{met} of {len(drawn)} calls met the fault"
    return wrong


@pytest.mark.parametrize("fault", ["error=EIO", "signal=SIGKILL"])
@pytest.mark.parametrize("way", ["diff", "full"])
def test_a_fault_at_any_system_call_leaves_one_version_and_the_next_update_is_exact(
    connected: Device, chain: Chain, hand: HandPublisher, tmp_path: Path, fault: str, way: str
) -> None:
    chain.publish_rest()
    if way == "full":
        for version in range(2, chain.LAST + 1):
            hand.package(DATABASE, f"d{version}").unlink()
    connected.forget_document()
    wrong = sweep(connected, chain, fault, tmp_path)
    assert not wrong, "\n".join(wrong)


@pytest.mark.parametrize("fault", ["error=EIO", "signal=SIGKILL"])
def test_a_fault_while_directories_are_exchanged_leaves_one_version_and_the_next_update_is_exact(
    connected: Device, hand: HandPublisher, tmp_path: Path, fault: str
) -> None:
    chain = BroadChain(hand)
    chain.publish_first()
    connected.update(DATABASE)
    chain.publish_rest()
    connected.forget_document()
    wrong = sweep(connected, chain, fault, tmp_path, OF_DIRECTORIES)
    assert not wrong, "\n".join(wrong)
